// The one place that knows every gateway's latest state. The pollers write it; the MQTT
// bridge, the event stream and the metrics read it and are told of each change.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace tamrik::serve {

using Json = nlohmann::json;

enum class Topic { Status, Inputs, Outputs, Diagnosis, Errors, Clock, Modules, Identity, Counters };
const char* TopicName(Topic topic);

struct Sample {
  int64_t tsMs = 0;  // wall clock of the read, ms since the epoch
  std::vector<uint8_t> bytes;
};

struct Failure {
  uint32_t code = 0;
  int64_t tsMs = 0;
};

// Upper bounds of the poll duration histogram, in seconds.
inline constexpr std::array<double, 10> kDurationBounds = {0.0005, 0.001, 0.0025, 0.005, 0.01,
                                                           0.025,  0.05,  0.1,    0.25,  1.0};

struct GatewayState {
  std::string name;
  std::string link;  // "tcp 127.0.0.1:5000"
  bool writable = false;

  bool online = false;
  int64_t lastGoodMs = 0;  // 0: never
  uint64_t exchanges = 0;
  uint64_t failures = 0;
  uint64_t reconnects = 0;
  uint64_t polls = 0;      // scheduled polls, made or left out
  uint64_t latePolls = 0;  // of them begun more than a tenth of their interval late, or left out
  std::vector<std::pair<uint32_t, uint64_t>> failuresByCode;
  std::optional<Failure> lastFailure;

  std::optional<Sample> inputs, outputs, diagnosis;
  Json identity = Json::object();
  Json modules = Json::array();
  Json errors = Json::array();
  std::optional<Sample> clock;  // bytes unused; clockMs holds the gateway's time
  int64_t clockMs = 0;

  // Exchange counts once a second over the last ten, for the rate.
  std::deque<std::pair<int64_t, uint64_t>> rateSamples;
  // Poll durations: counts per bucket of kDurationBounds, then above the last.
  std::array<uint64_t, kDurationBounds.size() + 1> durationBuckets{};
  double durationSum = 0;

  double Rate() const;
};

class StateStore {
 public:
  // Called under the gateway's lock, on the thread that made the change: keep it short and
  // do not call back into the store for the same gateway.
  using Listener = std::function<void(size_t index, Topic topic, const GatewayState& state)>;

  // Every gateway is added before the pollers start.
  size_t Add(const std::string& name, const std::string& link, bool writable);
  size_t Size() const { return entries_.size(); }
  std::optional<size_t> Find(std::string_view name) const;

  GatewayState Snapshot(size_t index) const;
  void Read(size_t index, const std::function<void(const GatewayState&)>& look) const;
  // Applies edit; when it returns true, the listeners hear of topic.
  void Change(size_t index, Topic topic, const std::function<bool(GatewayState&)>& edit);
  // A new value of inputs, outputs or diagnosis: told only when the bytes differ.
  void SetSample(size_t index, Topic topic, std::vector<uint8_t> bytes, int64_t tsMs);

  int32_t Subscribe(Listener listener);
  void Unsubscribe(int32_t id);

 private:
  struct Entry {
    mutable std::mutex mutex;
    GatewayState state;
  };
  std::deque<Entry> entries_;
  std::map<std::string, size_t, std::less<>> byName_;
  mutable std::shared_mutex listenersMutex_;
  std::map<int32_t, Listener> listeners_;
  int32_t nextListener_ = 1;
};

// Wall clock in ms since the epoch.
int64_t NowMs();
// "2026-11-25T11:50:00.123Z"
std::string Rfc3339(int64_t ms);

// The views the HTTP interface, the event stream and the MQTT bridge share.
Json SummaryJson(const GatewayState& state);             // an entry of GET /api/gateways
Json DetailJson(const GatewayState& state);              // GET /api/gateways/NAME
Json TopicJson(const GatewayState& state, Topic topic);  // that topic's field of the detail
Json FailureJson(uint32_t code);                         // {"code", "name", "text"}

}  // namespace tamrik::serve
