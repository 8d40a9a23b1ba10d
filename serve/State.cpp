#include "State.h"

#include <chrono>
#include <ctime>

#include "tamrik.h"

namespace tamrik::serve {
namespace {

constexpr int64_t kRateWindowMs = 10000;

Json SampleJson(const std::optional<Sample>& sample) {
  if (!sample) return nullptr;
  return {{"ts", Rfc3339(sample->tsMs)}, {"bytes", sample->bytes}};
}

std::optional<Sample>* SampleOf(GatewayState& state, Topic topic) {
  switch (topic) {
    case Topic::Inputs: return &state.inputs;
    case Topic::Outputs: return &state.outputs;
    case Topic::Diagnosis: return &state.diagnosis;
    default: return nullptr;
  }
}

}  // namespace

const char* TopicName(Topic topic) {
  switch (topic) {
    case Topic::Status: return "status";
    case Topic::Inputs: return "inputs";
    case Topic::Outputs: return "outputs";
    case Topic::Diagnosis: return "diagnosis";
    case Topic::Errors: return "errors";
    case Topic::Clock: return "clock";
    case Topic::Modules: return "modules";
    case Topic::Identity: return "identity";
    case Topic::Counters: return "counters";
  }
  return "";
}

double GatewayState::Rate() const {
  if (rateSamples.size() < 2) return 0;
  const auto& [firstMs, firstCount] = rateSamples.front();
  const auto& [lastMs, lastCount] = rateSamples.back();
  return lastMs > firstMs ? double(lastCount - firstCount) * 1000.0 / double(lastMs - firstMs) : 0;
}

size_t StateStore::Add(const std::string& name, const std::string& link, bool writable) {
  Entry& entry = entries_.emplace_back();
  entry.state.name = name;
  entry.state.link = link;
  entry.state.writable = writable;
  byName_.emplace(name, entries_.size() - 1);
  return entries_.size() - 1;
}

std::optional<size_t> StateStore::Find(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? std::nullopt : std::optional<size_t>(found->second);
}

GatewayState StateStore::Snapshot(size_t index) const {
  std::lock_guard lock(entries_[index].mutex);
  return entries_[index].state;
}

void StateStore::Read(size_t index, const std::function<void(const GatewayState&)>& look) const {
  std::lock_guard lock(entries_[index].mutex);
  look(entries_[index].state);
}

void StateStore::Change(size_t index, Topic topic, const std::function<bool(GatewayState&)>& edit) {
  Entry& entry = entries_[index];
  std::lock_guard lock(entry.mutex);
  if (!edit(entry.state)) return;
  if (topic == Topic::Counters) {
    // The rate's window moves with every report of the counters.
    const int64_t now = NowMs();
    entry.state.rateSamples.emplace_back(now, entry.state.exchanges);
    while (entry.state.rateSamples.size() > 2 && now - entry.state.rateSamples.front().first > kRateWindowMs)
      entry.state.rateSamples.pop_front();
  }
  std::shared_lock listenersLock(listenersMutex_);
  for (const auto& [id, listener] : listeners_) listener(index, topic, entry.state);
}

void StateStore::SetSample(size_t index, Topic topic, std::vector<uint8_t> bytes, int64_t tsMs) {
  Change(index, topic, [&](GatewayState& state) {
    std::optional<Sample>* sample = SampleOf(state, topic);
    const bool changed = !*sample || (*sample)->bytes != bytes;
    *sample = Sample{tsMs, std::move(bytes)};
    return changed;
  });
}

int32_t StateStore::Subscribe(Listener listener) {
  std::unique_lock lock(listenersMutex_);
  listeners_.emplace(nextListener_, std::move(listener));
  return nextListener_++;
}

void StateStore::Unsubscribe(int32_t id) {
  std::unique_lock lock(listenersMutex_);
  listeners_.erase(id);
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string Rfc3339(int64_t ms) {
  const std::time_t seconds = std::time_t(ms / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + n, sizeof text - n, ".%03dZ", int(ms % 1000));
  return text;
}

Json FailureJson(uint32_t code) {
  return {{"code", code}, {"name", tamrik_result_name(code)}, {"text", tamrik_result_text(code)}};
}

Json SummaryJson(const GatewayState& state) {
  Json lastFailure = nullptr;
  if (state.lastFailure) {
    lastFailure = FailureJson(state.lastFailure->code);
    lastFailure["ts"] = Rfc3339(state.lastFailure->tsMs);
  }
  return {{"name", state.name},
          {"link", state.link},
          {"online", state.online},
          {"writable", state.writable},
          {"last_good", state.lastGoodMs != 0 ? Json(Rfc3339(state.lastGoodMs)) : Json(nullptr)},
          {"exchanges", state.exchanges},
          {"failures", state.failures},
          {"rate", state.Rate()},
          {"reconnects", state.reconnects},
          {"last_failure", lastFailure}};
}

Json TopicJson(const GatewayState& state, Topic topic) {
  switch (topic) {
    case Topic::Status:
    case Topic::Counters: return SummaryJson(state);
    case Topic::Inputs: return SampleJson(state.inputs);
    case Topic::Outputs: return SampleJson(state.outputs);
    case Topic::Diagnosis: return SampleJson(state.diagnosis);
    case Topic::Errors: return state.errors;
    case Topic::Modules: return state.modules;
    case Topic::Identity: return state.identity;
    case Topic::Clock:
      if (!state.clock) return nullptr;
      return {{"ts", Rfc3339(state.clock->tsMs)}, {"ms", state.clockMs}};
  }
  return nullptr;
}

Json DetailJson(const GatewayState& state) {
  Json detail = SummaryJson(state);
  for (Topic topic : {Topic::Identity, Topic::Modules, Topic::Inputs, Topic::Outputs, Topic::Diagnosis, Topic::Errors,
                      Topic::Clock})
    detail[TopicName(topic)] = TopicJson(state, topic);
  return detail;
}

}  // namespace tamrik::serve
