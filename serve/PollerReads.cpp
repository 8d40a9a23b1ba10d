// What a poller reads besides the process images: identity and modules after each
// (re)connect, the error list and the clock on their schedules, and the driver's counters.
#include <algorithm>

#include "Poller.h"
#include "protocol/Text.h"
#include "tamrik.h"

namespace tamrik::serve {
namespace {

std::string HexBytes(const std::vector<int32_t>& values, size_t from, size_t to) {
  static const char* kDigits = "0123456789abcdef";
  std::string text;
  for (size_t i = from; i < to && i < values.size(); ++i) {
    text += kDigits[(values[i] >> 4) & 0xF];
    text += kDigits[values[i] & 0xF];
  }
  return text;
}

constexpr size_t kTextRoom = 256;

}  // namespace

bool Poller::ReadClock() {
  int32_t days = 0, hours = 0, minutes = 0, seconds = 0;
  const uint32_t code = Call([&](tamrik_com* com, int32_t* error) {
    return tamrik_kaVGetGatewayTime(com, &days, &hours, &minutes, &seconds, error);
  });
  if (code != 0) return Failed(code);
  const int64_t ms = ((int64_t(days) * 24 + hours) * 60 + minutes) * 60000 + int64_t(seconds) * 1000;
  const int64_t now = NowMs();
  store_.Change(index_, Topic::Clock, [&](GatewayState& state) {
    state.clock = Sample{now, {}};
    return std::exchange(state.clockMs, ms) != ms;
  });
  return true;
}

bool Poller::ReadErrors() {
  int32_t entries = 0;
  std::vector<int32_t> data(1024);
  int32_t size = int32_t(data.size());
  const uint32_t code = Call([&](tamrik_com* com, int32_t* error) {
    return tamrik_kaVGetGatewayErrorList(com, &entries, data.data(), &size, error);
  });
  if (code != 0) return Failed(code);
  data.resize(size_t(std::clamp<int32_t>(size, 0, int32_t(data.size()))));
  Json list = Json::array();
  size_t at = 0;
  for (int32_t n = 0; n < entries && at + 7 <= data.size(); ++n) {
    // Records lie back to back; the first value of each is its size in values.
    const size_t recordSize = size_t(std::max(data[at], 7));
    const int64_t ms = int64_t(data[at + 2]) * 86400000 + int64_t(data[at + 3]) * 3600000 +
                       int64_t(data[at + 4]) * 60000 + int64_t(data[at + 5]) * 1000 + data[at + 6];
    list.push_back({{"entry", n + 1},
                    {"code", uint32_t(data[at + 1]) & 0xFF},
                    {"duration_ms", ms},
                    {"extra", HexBytes(data, at + 7, at + recordSize)}});
    at += recordSize;
  }
  store_.Change(index_, Topic::Errors, [&](GatewayState& state) {
    if (state.errors == list) return false;
    state.errors = std::move(list);
    return true;
  });
  return true;
}

// One part of the identity. A part the gateway refuses is left out; a failed link ends the
// reading (false).
bool Poller::ReadIdentity() {
  using TextCall = uint32_t (*)(tamrik_com*, char*, int32_t*, int32_t*);
  using ValueCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*);
  Json identity = Json::object();
  auto text = [&](const char* key, TextCall call) {
    std::string room(kTextRoom, '\0');
    int32_t count = int32_t(room.size());
    const uint32_t code = Call([&](tamrik_com* com, int32_t* error) { return call(com, room.data(), &count, error); });
    if (code == 0) identity[key] = protocol::Cp1252ToUtf8(room.substr(0, std::min(room.find('\0'), size_t(count))));
    return code == 0 || Failed(code);
  };
  auto value = [&](const char* key, ValueCall call, uint32_t mask) {
    int32_t number = 0;
    const uint32_t code = Call([&](tamrik_com* com, int32_t* error) { return call(com, &number, error); });
    if (code == 0) identity[key] = uint32_t(number) & mask;
    return code == 0 || Failed(code);
  };
  const bool read = text("identity", tamrik_kaVGetGatewayIdSring) &&
                    value("version", tamrik_kaVGetGatewayVersion, 0xFFFF) &&
                    text("version_string", tamrik_kaVGetGatewayVersionString) &&
                    text("boot_id", tamrik_kaVGetGatewayBootFunctionIdString) &&
                    value("boot_version", tamrik_kaVGetGatewayBootVersion, 0xFFFF) &&
                    value("gateway_id", tamrik_kaVGetGatewayId, 0xFFFFFFFF) &&
                    value("station_address", tamrik_kaVGetStationAddress, 0xFF) &&
                    value("operation_mode", tamrik_kaVGetGatewayOperationMode, 0xFF) &&
                    value("switches", tamrik_kaVGetCurrentGwSwitches, 0xFFFF);
  if (!read) return false;
  store_.Change(index_, Topic::Identity, [&](GatewayState& state) {
    state.identity = std::move(identity);
    return true;
  });
  return true;
}

bool Poller::ReadModules() {
  std::vector<int32_t> ids, statuses, revisions, types;
  uint32_t code = ReadValues(tamrik_kaVGetModuleList, &ids);
  if (code != 0) {
    Failed(code);
    return false;
  }
  // The other lists are extras: a gateway that refuses one still has its modules listed.
  const std::pair<ValuesCall, std::vector<int32_t>*> extras[] = {
      {tamrik_kaVGetModulIdStatusList, &statuses}, {tamrik_kaVGetModuleSWRev, &revisions}, {tamrik_kaVGetModuleTyp, &types}};
  for (const auto& [call, list] : extras) {
    code = ReadValues(call, list);
    if (code != 0 && !Failed(code)) return false;
  }
  auto low8 = [](const std::vector<int32_t>& values, size_t i) -> Json {
    return i < values.size() ? Json(uint32_t(values[i]) & 0xFF) : Json(nullptr);
  };
  Json modules = Json::array();
  for (size_t i = 0; i < ids.size(); ++i) {
    const uint32_t id = uint32_t(ids[i]) & 0xFFFFFF;
    modules.push_back({{"slot", i + 1},
                       {"id", id},
                       {"status", low8(statuses, i)},
                       {"sw_revision", low8(revisions, i)},
                       {"type", low8(types, i)},
                       {"diag_bytes", tamrik_diagnosis_length(id)}});
  }
  store_.Change(index_, Topic::Modules, [&](GatewayState& state) {
    state.modules = std::move(modules);
    return true;
  });
  return true;
}

void Poller::ReportCounters() {
  tamrik_stats stats{};
  stats.struct_size = sizeof stats;
  std::array<uint64_t, kDurationBounds.size() + 1> buckets{};
  double durationSum = 0;
  {
    std::lock_guard lock(driverMutex_);
    tamrik_get_stats(com_, &stats);
    buckets = std::exchange(buckets_, {});
    durationSum = std::exchange(durationSum_, 0);
  }
  const uint64_t polls = std::exchange(polls_, 0), late = std::exchange(late_, 0);
  store_.Change(index_, Topic::Counters, [&](GatewayState& state) {
    state.exchanges = stats.exchanges;
    state.failures = stats.failures;
    state.lastGoodMs = stats.last_answer_unix_ms;
    state.failuresByCode.clear();
    for (uint32_t i = 0; i < stats.failure_code_count && i < TAMRIK_STATS_CODES; ++i)
      state.failuresByCode.emplace_back(stats.failure_codes[i], stats.failure_counts[i]);
    for (size_t i = 0; i < buckets.size(); ++i) state.durationBuckets[i] += buckets[i];
    state.durationSum += durationSum;
    state.polls += polls;
    state.latePolls += late;
    return true;
  });
}

}  // namespace tamrik::serve
