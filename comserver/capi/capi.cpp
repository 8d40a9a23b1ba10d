// The C interface of libtamrik.so: a thin shell over the driver object. Nothing thrown inside
// the driver may reach a C caller, so every entry point ends its own exceptions.
#include "tamrik.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>

#include "ResultCodes.h"
#include "ResultNames.h"
#include "com.h"
#include "platform/Platform.h"

struct tamrik_com {
  tamrik::Ccom driver;
  template <typename... Args>
  explicit tamrik_com(Args&&... args) : driver(std::forward<Args>(args)...) {
    // Hosts of this interface state the capacity of every array they hand in.
    driver.SetCountIsCapacity(true);
  }
};

namespace {

// True when any pointer among the arguments is null; other arguments are not looked at.
template <typename... Args>
bool AnyNull(Args... args) {
  return ((std::is_pointer_v<Args> && args == Args{}) || ...);
}

// The out-value of a call that failed inside the driver: always the last argument.
template <typename... Args>
void SetOutValue(uint32_t code, Args... args) {
  auto all = std::tie(args...);
  *std::get<sizeof...(Args) - 1>(all) = int32_t(code);
}

template <typename... Args>
tamrik_com* Create(Args&&... args) noexcept {
  try {
    return new tamrik_com(std::forward<Args>(args)...);
  } catch (...) {
    return nullptr;
  }
}

bool IsPermutation(const uint8_t (&bits)[32]) {
  bool seen[32] = {};
  for (uint8_t bit : bits) {
    if (bit > 31 || seen[bit]) return false;
    seen[bit] = true;
  }
  return true;
}

// The structure as the driver takes it; false when any part is malformed.
bool ToDriverConfig(const tamrik_config& in, tamrik::DriverConfig* out) {
  if (in.struct_size < sizeof(tamrik_config)) return false;
  const int32_t times[] = {in.read_interval_ms,       in.read_total_multiplier_ms, in.read_total_constant_ms,
                           in.read_total_constant_fw_ms, in.socket_answer_ms};
  if (std::any_of(std::begin(times), std::end(times), [](int32_t t) { return t < 0; })) return false;
  if (!IsPermutation(in.privileged_bits)) return false;
  if (in.port_count < 0 || (in.port_count > 0 && in.ports == nullptr)) return false;
  for (int32_t i = 0; i < in.port_count; ++i) {
    const tamrik_port& port = in.ports[i];
    if (port.port < 1 || port.port > 255 || port.device == nullptr || port.device[0] == '\0') return false;
    out->ports[port.port] = port.device;
  }
  out->version = in.version;
  out->logfile = in.logfile;
  out->comPort = in.com_port;
  out->baudrate = in.baudrate;
  out->readInterval = in.read_interval_ms;
  out->readTotalMultiplier = in.read_total_multiplier_ms;
  out->readTotalConstant = in.read_total_constant_ms;
  out->readTotalConstantFW = in.read_total_constant_fw_ms;
  out->streamSegmentSleepTime = in.stream_segment_sleep_ms;
  out->socketAnswerMs = in.socket_answer_ms;
  std::copy(std::begin(in.privileged_bits), std::end(in.privileged_bits), out->privilegedBits.begin());
  out->demoFile = in.demo_file != nullptr ? in.demo_file : "";
  out->bootFile = in.boot_file != nullptr ? in.boot_file : "";
  return true;
}

void CopyStats(const tamrik::LinkStats& in, tamrik_stats* out) {
  out->exchanges = in.exchanges;
  out->answers = in.answers;
  out->failures = in.failures;
  out->dropped_frames = in.droppedFrames;
  out->bytes_out = in.bytesOut;
  out->bytes_in = in.bytesIn;
  if (in.lastAnswerMonotonicMs != 0) {
    const int64_t age = int64_t(tamrik::platform::MonotonicMs() - in.lastAnswerMonotonicMs);
    const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    out->last_answer_unix_ms = now - age;
  } else {
    out->last_answer_unix_ms = 0;
  }
  static_assert(TAMRIK_STATS_CODES == tamrik::LinkStats::kCodes);
  out->failure_code_count = in.failureCodeCount;
  std::copy(std::begin(in.failureCodes), std::end(in.failureCodes), out->failure_codes);
  std::copy(std::begin(in.failureCounts), std::end(in.failureCounts), out->failure_counts);
  out->other_failures = in.otherFailures;
}

}  // namespace

extern "C" {

TAMRIK_API const char* tamrik_version(void) { return TAMRIK_VERSION_STRING; }

TAMRIK_API void tamrik_config_defaults(tamrik_config* config) {
  if (config == nullptr) return;
  const tamrik::DriverConfig defaults;
  *config = tamrik_config{};
  config->struct_size = sizeof(tamrik_config);
  config->version = defaults.version;
  config->logfile = defaults.logfile;
  config->com_port = defaults.comPort;
  config->baudrate = defaults.baudrate;
  config->read_interval_ms = defaults.readInterval;
  config->read_total_multiplier_ms = defaults.readTotalMultiplier;
  config->read_total_constant_ms = defaults.readTotalConstant;
  config->read_total_constant_fw_ms = defaults.readTotalConstantFW;
  config->stream_segment_sleep_ms = defaults.streamSegmentSleepTime;
  config->socket_answer_ms = defaults.socketAnswerMs;
  std::copy(defaults.privilegedBits.begin(), defaults.privilegedBits.end(), config->privileged_bits);
}

TAMRIK_API tamrik_com* tamrik_create_with(const tamrik_config* config) {
  if (config == nullptr) return nullptr;
  try {
    tamrik::DriverConfig driverConfig;
    if (!ToDriverConfig(*config, &driverConfig)) return nullptr;
    return Create(driverConfig);
  } catch (...) {
    return nullptr;
  }
}

TAMRIK_API tamrik_com* tamrik_create(void) {
  try {
    // An installed library usually lies where its user may not write; the profile files then
    // go to the user's own configuration directory.
    std::string directory = tamrik::platform::ModuleDirectory();
    if (!tamrik::platform::DirectoryWritable(directory)) directory = tamrik::platform::UserConfigDirectory();
    if (directory.empty()) return nullptr;
    return Create(directory);
  } catch (...) {
    return nullptr;
  }
}

TAMRIK_API tamrik_com* tamrik_create_in(const char* directory) {
  if (directory == nullptr) return nullptr;
  try {
    if (!tamrik::platform::DirectoryExists(directory)) return nullptr;
    return Create(std::string(directory));
  } catch (...) {
    return nullptr;
  }
}

TAMRIK_API void tamrik_release(tamrik_com* com) {
  try {
    delete com;
  } catch (...) {
    // A destructor that throws would end the host; the object is gone either way.
  }
}

TAMRIK_API void tamrik_set_trace(void (*sink)(void* context, const char* text), void* context) {
  tamrik::platform::SetDebugSink(sink, context);
}

TAMRIK_API const char* tamrik_result_name(uint32_t code) { return tamrik::StaticDescription(code).name; }

TAMRIK_API const char* tamrik_result_text(uint32_t code) { return tamrik::StaticDescription(code).meaning; }

TAMRIK_API uint32_t tamrik_diagnosis_length(uint32_t module_id) { return tamrik::protocol::DiagnosisLength(module_id); }

TAMRIK_API uint32_t tamrik_get_stats(const tamrik_com* com, tamrik_stats* stats) {
  if (com == nullptr || stats == nullptr || stats->struct_size < sizeof(tamrik_stats)) return tamrik::rc::kBadArgument;
  CopyStats(com->driver.Stats(), stats);
  return 0;
}

#define TAMRIK_EXPAND(...) __VA_ARGS__
#define TAMRIK_DEFINE_FUNCTION(dispid, name, params, args)                              \
  TAMRIK_API uint32_t tamrik_##name(tamrik_com* com, TAMRIK_EXPAND params) {            \
    if (com == nullptr || AnyNull(TAMRIK_EXPAND args)) return tamrik::rc::kBadArgument; \
    try {                                                                               \
      return com->driver.name args;                                                     \
    } catch (...) {                                                                     \
      SetOutValue(tamrik::rc::kInternalFailure, TAMRIK_EXPAND args);                   \
      return tamrik::rc::kInternalFailure;                                              \
    }                                                                                   \
  }
TAMRIK_METHOD_TABLE(TAMRIK_DEFINE_FUNCTION)
#undef TAMRIK_DEFINE_FUNCTION

}  // extern "C"
