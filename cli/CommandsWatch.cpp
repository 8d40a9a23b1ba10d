// watch: the inputs read again and again, what changed, and on stop a summary in the manner
// of ping ("4 reads, 0 failures") from the driver object's counters.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <vector>

#include "Commands.h"
#include "Render.h"
#include "State.h"

namespace tamrik::cli {
namespace {

struct WatchOptions {
  int64_t count = 0;
  int64_t intervalMs = 0;
  bool csv = false;
  bool reconnect = false;
};

// The reopening waits double from the first to the cap, so a gateway that is away for long
// is not hammered, and one that is back soon is found soon.
constexpr int64_t kFirstBackoffMs = 100;
constexpr int64_t kBackoffCapMs = 5000;

// RFC 3339 in UTC with milliseconds, as the service writes its times: 2024-05-01T12:00:00.123Z
std::string Rfc3339Now() { return serve::Rfc3339(serve::NowMs()); }

std::string TwoDigits(int value) { return value < 0 ? "--" : HexText(uint32_t(value), 2).substr(2); }

class Watcher {
 public:
  Watcher(Context& ctx, const WatchOptions& options) : ctx_(ctx), options_(options) {}

  void Run();

 private:
  void Read(int64_t n);
  void Failed(int64_t n, const CallFailed& failure, double exchangeMs);
  bool Reopen();
  Json Changes(const std::vector<uint8_t>& now, std::string* text) const;
  void Row(int64_t n, double exchangeMs, const std::string& inputs, const std::string& text, int64_t changed,
           const std::string& error);
  void Summary();
  int64_t SinceStartMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count();
  }

  Context& ctx_;
  WatchOptions options_;
  Json samples_ = Json::array();
  std::optional<std::vector<uint8_t>> previous_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  int64_t reads_ = 0, changes_ = 0, reconnects_ = 0, openFailures_ = 0;
  std::map<std::string, int64_t> failuresByName_;
  double totalMs_ = 0, worstMs_ = 0;
  int64_t timed_ = 0;
  bool linkDown_ = false;
  int64_t backoffMs_ = kFirstBackoffMs;
  std::optional<CallFailed> lastFailure_;
};

void Watcher::Run() {
  Stoppable stop;
  ctx_.Connect();
  if (options_.csv && !ctx_.json) ctx_.Say("time,read,ms,exchange_ms,inputs,changed,error\n");
  for (int64_t n = 0; (options_.count == 0 || n < options_.count) && !Stoppable::Requested(); ++n) {
    if (n > 0) Stoppable::Sleep(linkDown_ ? backoffMs_ : options_.intervalMs);
    if (Stoppable::Requested()) break;
    if (linkDown_ && !Reopen()) continue;
    Read(n);
    if (lastFailure_ && !options_.reconnect) break;
  }
  Summary();
}

void Watcher::Read(int64_t n) {
  const auto before = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - before).count(); };
  std::vector<uint8_t> now;
  ++reads_;
  try {
    now = ReadInputs(ctx_);
  } catch (const CallFailed& failure) {
    Failed(n, failure, elapsed());
    return;
  }
  const double ms = elapsed();
  totalMs_ += ms;
  worstMs_ = std::max(worstMs_, ms);
  ++timed_;
  std::string text;
  Json changed = previous_ ? Changes(now, &text) : Json::array();
  changes_ += int64_t(changed.size());
  if (!previous_) text = BytesText(now);
  else if (text.empty()) text = "no change";
  Json sample = Json::object();
  sample["read"] = n + 1;
  sample["ms"] = SinceStartMs();
  sample["exchange_ms"] = ms;
  sample["inputs"] = now;
  if (previous_) sample["changes"] = changed;
  samples_.push_back(sample);
  Row(n, ms, BytesText(now), text, int64_t(changed.size()), "");
  previous_ = now;
}

void Watcher::Failed(int64_t n, const CallFailed& failure, double exchangeMs) {
  if (Stoppable::Requested()) {
    // The stop cut the exchange short: that is no failure of the link.
    --reads_;
    return;
  }
  lastFailure_ = failure;
  ++failuresByName_[tamrik_result_name(failure.code)];
  Json sample = Json::object();
  sample["read"] = n + 1;
  sample["ms"] = SinceStartMs();
  sample["error"] = MethodError(failure);
  samples_.push_back(sample);
  Row(n, exchangeMs, "", "failed: " + FormatCode(failure.code), 0, tamrik_result_name(failure.code));
  if (options_.reconnect) {
    linkDown_ = true;
    backoffMs_ = kFirstBackoffMs;
  }
}

// One attempt to open the link again; a failure doubles the wait before the next.
bool Watcher::Reopen() {
  Session& session = *ctx_.session();
  session.Close();
  const uint32_t code = session.Open();
  if (code == 0) {
    linkDown_ = false;
    ++reconnects_;
    ctx_.Say(options_.csv ? "" : "reconnected to " + session.Describe() + "\n");
    return true;
  }
  ++reads_;
  ++openFailures_;
  ++failuresByName_[tamrik_result_name(code)];
  lastFailure_ = CallFailed(session.serial() ? "kaVOpenComPort" : "kaVOpenEthernet", code);
  backoffMs_ = std::min(backoffMs_ * 2, kBackoffCapMs);
  return false;
}

Json Watcher::Changes(const std::vector<uint8_t>& now, std::string* text) const {
  Json changed = Json::array();
  const std::vector<uint8_t>& before = *previous_;
  for (size_t i = 0; i < std::max(now.size(), before.size()); ++i) {
    const int from = i < before.size() ? before[i] : -1;
    const int to = i < now.size() ? now[i] : -1;
    if (from == to) continue;
    Json change = Json::object();
    change["byte"] = int64_t(i);
    change["from"] = from < 0 ? Json() : Json(from);
    change["to"] = to < 0 ? Json() : Json(to);
    changed.push_back(change);
    *text += (text->empty() ? "" : ", ") + ("[" + std::to_string(i) + "] ") + TwoDigits(from) + "->" + TwoDigits(to);
  }
  return changed;
}

void Watcher::Row(int64_t n, double exchangeMs, const std::string& inputs, const std::string& text, int64_t changed,
                  const std::string& error) {
  char line[96];
  if (options_.csv) {
    std::snprintf(line, sizeof line, ",%lld,%lld,%.3f,", static_cast<long long>(n) + 1,
                  static_cast<long long>(SinceStartMs()), exchangeMs);
    ctx_.Say(Rfc3339Now() + line + inputs + "," + std::to_string(changed) + "," + error + "\n");
    return;
  }
  std::snprintf(line, sizeof line, "#%-3lld %6lld ms  ", static_cast<long long>(n) + 1,
                static_cast<long long>(SinceStartMs()));
  ctx_.Say(line + text + "\n");
}

void Watcher::Summary() {
  tamrik_stats stats{};
  stats.struct_size = sizeof stats;
  const bool haveStats = tamrik_get_stats(ctx_.session()->com(), &stats) == 0;
  // The driver counts every failed exchange by its code; the tool adds the failed reopenings.
  std::map<std::string, int64_t> byName = failuresByName_;
  if (haveStats) {
    byName.clear();
    for (uint32_t i = 0; i < std::min<uint32_t>(stats.failure_code_count, TAMRIK_STATS_CODES); ++i)
      byName[tamrik_result_name(stats.failure_codes[i])] += int64_t(stats.failure_counts[i]);
    if (stats.other_failures > 0) byName["other"] += int64_t(stats.other_failures);
    for (const auto& [name, n] : failuresByName_) byName[name] = std::max(byName[name], n);
  }
  int64_t failures = 0;
  Json names = Json::object();
  std::string list;
  for (const auto& [name, n] : byName) {
    failures += n;
    names[name] = n;
    list += (list.empty() ? "" : ", ") + name + " " + std::to_string(n);
  }
  const double mean = timed_ > 0 ? totalMs_ / double(timed_) : 0.0;
  ctx_.printed = true;
  ctx_.result["count"] = reads_;
  ctx_.result["changes"] = changes_;
  ctx_.result["failures"] = failures;
  ctx_.result["failures_by_name"] = names;
  ctx_.result["reconnects"] = reconnects_;
  ctx_.result["exchange_ms_mean"] = mean;
  ctx_.result["exchange_ms_worst"] = worstMs_;
  if (haveStats) ctx_.result["exchanges"] = int64_t(stats.exchanges);
  ctx_.result["samples"] = samples_;
  char timing[96];
  std::snprintf(timing, sizeof timing, "exchange time mean %.1f ms, worst %.1f ms", mean, worstMs_);
  // The summary goes to stderr under --csv, so that the rows stay a clean table.
  const std::string summary = std::to_string(reads_) + " reads, " + std::to_string(failures) + " failures" +
                              (list.empty() ? "" : " (" + list + ")") + ", " + std::to_string(reconnects_) +
                              " reconnects, " + std::to_string(changes_) + " bytes changed; " + timing + "\n";
  if (options_.csv && !ctx_.json) std::fputs(summary.c_str(), stderr);
  else ctx_.Say(summary);
  if (lastFailure_ && (linkDown_ || !options_.reconnect)) throw *lastFailure_;
}

}  // namespace

void Watch(Context& ctx, const Args& args) {
  WatchOptions options;
  options.count = args.Number("--count");
  options.intervalMs = args.Number("--interval");
  options.csv = args.Has("--csv");
  options.reconnect = args.Has("--reconnect");
  Watcher(ctx, options).Run();
}

}  // namespace tamrik::cli
