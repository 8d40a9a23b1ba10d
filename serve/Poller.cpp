#include "Poller.h"

#include <algorithm>
#include <stdexcept>

#include "Address.h"
#include "ResultCodes.h"
#include "tamrik.h"

namespace tamrik::serve {
namespace {

constexpr std::chrono::milliseconds kFirstBackoff{100};
constexpr std::chrono::milliseconds kBackoffCap{10000};
constexpr std::chrono::milliseconds kReportEvery{1000};
// Room for lists, texts and images on the first try; a longer answer is asked for again.
constexpr size_t kRoom = 256;
// A round of polls longer than this holds a worker of the pool too long: the gateway moves
// to a thread of its own until a round is quick again.
constexpr std::chrono::milliseconds kSlowRound{20};

// The gateway answered, only not with what was asked: the link is fine.
bool GatewayAnswered(uint32_t code) {
  return (code >= rc::kRefusalBase && code < rc::kRefusalDataBase + 0x10000) || code == rc::kAnswerTooLong ||
         code == rc::kNoDataYet || code == rc::kBadArgument;
}

tamrik_com* CreateDriver(const GatewayConfig& config) {
  tamrik_config settings;
  tamrik_config_defaults(&settings);
  tamrik_port port{1, config.device.c_str()};
  if (config.link == LinkKind::Serial) {
    settings.com_port = 1;
    settings.baudrate = config.baudrate;
    settings.read_total_constant_ms = config.timeoutMs;
    settings.ports = &port;
    settings.port_count = 1;
  } else {
    settings.socket_answer_ms = config.timeoutMs;
  }
  tamrik_com* com = tamrik_create_with(&settings);
  if (com == nullptr) throw std::runtime_error("gateway " + config.name + ": the driver object cannot be created");
  return com;
}

}  // namespace

Poller::Poller(GatewayConfig config, size_t index, StateStore& store)
    : config_(std::move(config)), index_(index), store_(store), com_(CreateDriver(config_)) {
  intervalMs_ = {config_.inputsMs, config_.outputsMs, config_.diagnosisMs, config_.errorsMs, config_.clockMs};
  // A poll counts as late a tenth of its interval after it was due: the pool's idle workers
  // step in one after another, every 1/200 of the interval, well before that.
  uint32_t shortest = uint32_t(kReportEvery.count());
  for (uint32_t ms : intervalMs_)
    if (ms != 0) shortest = std::min(shortest, ms);
  slack_ = std::chrono::microseconds(shortest * 1000 / 200);
}

Poller::~Poller() {
  Stop();
  tamrik_release(com_);
}

void Poller::Start(Scheduler& pool, Clock::duration phase) {
  pool_ = &pool;
  phase_ = phase;
  StartLane(false);
}

void Poller::RequestStop() {
  {
    std::lock_guard lock(waitMutex_);
    stopping_ = true;
  }
  wake_.notify_all();
}

void Poller::Stop() {
  RequestStop();
  if (lane_.joinable()) lane_.join();
  std::lock_guard lock(driverMutex_);
  if (!open_) return;
  int32_t error = 0;
  tamrik_kaVCloseComPort(com_, 1, &error);
  open_ = false;
  store_.Change(index_, Topic::Status, [](GatewayState& state) { return std::exchange(state.online, false); });
}

bool Poller::WaitUntil(Clock::time_point then) {
  std::unique_lock lock(waitMutex_);
  return wake_.wait_until(lock, then, [this] { return stopping_; });
}

Poller::Clock::time_point Poller::Serve() {
  const Round round = PollDue(Clock::now());
  if (round == Round::Normal) return NextDue();
  up_ = round != Round::Down;
  StartLane(!up_);
  return Clock::time_point::max();
}

void Poller::StartLane(bool backOff) {
  // The thread of its last time out of the pool ended when it handed the gateway back.
  if (lane_.joinable()) lane_.join();
  lane_ = std::thread([this, backOff] { Lane(backOff); });
}

void Poller::Lane(bool backOff) {
  while (true) {
    if (backOff) {
      // Also before the first reopening, so that a gateway that drops every connection is
      // not hammered.
      if (WaitUntil(Clock::now() + backoff_)) return;
      backoff_ = std::min(backoff_ * 2, kBackoffCap);
    }
    backOff = true;
    if (!up_) {
      if (!Connect()) continue;
      up_ = true;
      backoff_ = kFirstBackoff;
      Schedule(Clock::now());
    }
    Round round = Round::Slow;
    while (round == Round::Slow) {
      if (WaitUntil(NextDue())) return;
      round = PollDue(Clock::now());
    }
    if (round == Round::Normal) {
      // Nothing of the gateway's is touched here after this: a worker may have it already.
      pool_->Add(this, NextDue());
      return;
    }
    up_ = false;
  }
}

void Poller::Schedule(Clock::time_point now) {
  for (size_t i = 0; i < kItems; ++i)
    due_[i] = intervalMs_[i] != 0 ? now : Clock::time_point::max();
  nextReport_ = NextSlot(now, kReportEvery);
}

Poller::Clock::time_point Poller::NextDue() const {
  return std::min(*std::min_element(due_.begin(), due_.end()), nextReport_);
}

Poller::Clock::time_point Poller::NextSlot(Clock::time_point after, Clock::duration period) const {
  const Clock::duration since = after.time_since_epoch() - phase_;
  return Clock::time_point(phase_ + (since / period + 1) * period);
}

Poller::Round Poller::PollDue(Clock::time_point now) {
  for (size_t i = 0; i < kItems; ++i) {
    if (due_[i] > now) continue;
    const auto period = std::chrono::milliseconds(intervalMs_[i]);
    // Late: begun more than a tenth of its interval after it was due.
    const auto began = Clock::now();
    ++polls_;
    late_ += began - due_[i] > period / 10;
    if (!Poll(Item(i))) return Round::Down;
    due_[i] = NextSlot(due_[i], period);
    if (due_[i] <= began) {
      // Fell a whole period or more behind: the polls left out count as late ones, and the
      // phase stays.
      const auto missed = uint64_t((began - due_[i]) / period) + 1;
      polls_ += missed;
      late_ += missed;
      due_[i] += period * int64_t(missed);
    }
  }
  if (now >= nextReport_) {
    ReportCounters();
    nextReport_ = NextSlot(now, kReportEvery);
  }
  return Clock::now() - now > kSlowRound ? Round::Slow : Round::Normal;
}

bool Poller::Poll(Item item) {
  switch (item) {
    case kErrors: return ReadErrors();
    case kClock: return ReadClock();
    default: return ReadImage(item);
  }
}

bool Poller::Connect() {
  uint32_t code = 0;
  {
    std::lock_guard lock(driverMutex_);
    int32_t error = 0;
    uint32_t status = 0;
    if (config_.link == LinkKind::Serial) {
      status = tamrik_kaVOpenComPort(com_, 1, &error);
    } else {
      const std::string port = std::to_string(config_.port) + (config_.link == LinkKind::Udp ? ",UDP" : "");
      // A name without an address goes to the driver as it is, which refuses it with its code.
      const std::string address = Ipv4Of(config_.host).value_or(config_.host);
      status = tamrik_kaVOpenEthernet(com_, port.c_str(), address.c_str(), &error);
    }
    code = error != 0 ? uint32_t(error) : status;
    open_ = code == 0;
  }
  if (everOpened_) store_.Change(index_, Topic::Counters, [](GatewayState& state) { return ++state.reconnects, true; });
  if (code != 0) {
    if (Failed(code)) Disconnect(code);
    return false;
  }
  everOpened_ = true;
  // The gateway is online once it answers; what it is may have changed while it was away.
  if (!ReadIdentity() || !ReadModules()) return false;
  store_.Change(index_, Topic::Status, [](GatewayState& state) { return !std::exchange(state.online, true); });
  ReportCounters();
  return true;
}

void Poller::Disconnect(uint32_t code) {
  {
    std::lock_guard lock(driverMutex_);
    downCode_ = code;
    if (open_) {
      int32_t error = 0;
      tamrik_kaVCloseComPort(com_, 1, &error);
      open_ = false;
    }
  }
  store_.Change(index_, Topic::Status, [](GatewayState& state) { return std::exchange(state.online, false); });
  ReportCounters();
}

bool Poller::Failed(uint32_t code) {
  const int64_t now = NowMs();
  store_.Change(index_, Topic::Counters, [&](GatewayState& state) {
    state.lastFailure = Failure{code, now};
    return false;  // told with the counters
  });
  if (GatewayAnswered(code)) return true;
  Disconnect(code);
  return false;
}

uint32_t Poller::DownCode() const { return downCode_ != 0 ? downCode_ : rc::kNothingOpen; }

void Poller::Count(Clock::duration duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  size_t bucket = 0;
  while (bucket < kDurationBounds.size() && seconds > kDurationBounds[bucket]) ++bucket;
  ++buckets_[bucket];
  durationSum_ += seconds;
}

uint32_t Poller::ReadRoom(ValuesCall call, std::vector<int32_t>& room, int32_t* count) {
  // The driver writes no more than it is told there is room for: the room is not cleared.
  if (room.size() < kRoom) room.resize(kRoom);
  *count = int32_t(room.size());
  uint32_t code = Call([&](tamrik_com* com, int32_t* error) { return call(com, room.data(), count, error); });
  if (code == rc::kAnswerTooLong && *count > int32_t(room.size())) {
    room.resize(size_t(*count));
    code = Call([&](tamrik_com* com, int32_t* error) { return call(com, room.data(), count, error); });
  }
  *count = code == 0 ? std::clamp<int32_t>(*count, 0, int32_t(room.size())) : 0;
  return code;
}

uint32_t Poller::ReadValues(ValuesCall call, std::vector<int32_t>* values) {
  int32_t count = 0;
  const uint32_t code = ReadRoom(call, *values, &count);
  values->resize(size_t(count));
  return code;
}

bool Poller::ReadImage(Item item) {
  static constexpr ValuesCall kCalls[] = {tamrik_kaVGetProcessInData, tamrik_kaVGetProcessOutData,
                                          tamrik_kaVGetDiagData};
  static constexpr Topic kTopics[] = {Topic::Inputs, Topic::Outputs, Topic::Diagnosis};
  int32_t count = 0;
  const uint32_t code = ReadRoom(kCalls[item], image_, &count);
  if (code != 0) return Failed(code);
  store_.SetSample(index_, kTopics[item], {image_.begin(), image_.begin() + count}, NowMs());
  return true;
}

uint32_t Poller::WriteOutputs(const std::vector<uint8_t>& bytes) {
  std::vector<int32_t> values(bytes.begin(), bytes.end());
  int32_t count = int32_t(values.size());
  const uint32_t code =
      Call([&](tamrik_com* com, int32_t* error) { return tamrik_kaVSetProcessOutData(com, values.data(), &count, error); });
  if (code != 0) return code;
  // What the gateway holds now, for everyone who watches the outputs.
  std::vector<int32_t> image;
  if (ReadValues(tamrik_kaVGetProcessOutData, &image) == 0) store_.SetSample(index_, Topic::Outputs, {image.begin(), image.end()}, NowMs());
  return 0;
}

WriteOutcome WriteOutputs(Poller& poller, const Json& bytes) {
  auto refuse = [](WriteOutcome::Kind kind, const char* name, const std::string& text) {
    return WriteOutcome{kind, {{"ok", false}, {"code", 0}, {"name", name}, {"text", text}}};
  };
  const bool valid = bytes.is_array() && !bytes.empty() && std::all_of(bytes.begin(), bytes.end(), [](const Json& b) {
    return b.is_number_unsigned() && b.get<uint64_t>() <= 255;
  });
  if (!valid) return refuse(WriteOutcome::Malformed, "Malformed", "\"bytes\" must be an array of numbers from 0 to 255");
  if (!poller.config().writable)
    return refuse(WriteOutcome::NotWritable, "NotWritable",
                  "gateway " + poller.config().name + " is not writable (writable = true in its [[gateway]] table)");
  const uint32_t code = poller.WriteOutputs(bytes.get<std::vector<uint8_t>>());
  if (code == 0) return {WriteOutcome::Ok, {{"ok", true}}};
  Json body = FailureJson(code);
  body["ok"] = false;
  return {WriteOutcome::DriverFailure, body};
}

}  // namespace tamrik::serve
