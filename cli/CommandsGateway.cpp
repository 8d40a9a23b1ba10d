// Identity, state and control of the gateway: info, modules, errors, clock, opmode,
// address, switches, leds, reset, fbi, tr, service-baud.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

#include "Commands.h"
#include "protocol/Codec.h"

namespace tamrik::cli {
namespace {

// Room for the lists and texts the gateway answers with; a longer answer is asked for again
// with the room it needs.
constexpr size_t kListRoom = 256;

std::string ReadText(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, char*, int32_t*, int32_t*)) {
  tamrik_com* com = ctx.Connect().com();
  return ReceiveText(method, kListRoom, [&](char* text, int32_t* count, int32_t* error) {
    return call(com, text, count, error);
  });
}

int32_t ReadValue(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*, int32_t*)) {
  int32_t value = 0;
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &value, &error), error);
  return value;
}

std::vector<int32_t> ReadValues(Context& ctx, const char* method,
                                uint32_t (*call)(tamrik_com*, int32_t*, int32_t*, int32_t*)) {
  tamrik_com* com = ctx.Connect().com();
  return ReceiveValues(method, kListRoom, [&](int32_t* data, int32_t* count, int32_t* error) {
    return call(com, data, count, error);
  });
}

void RunControl(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*), const char* done) {
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &error), error);
  ctx.result["done"] = done;
}

// Sends one value with a set method; the command has passed the --yes guard.
void SetValue(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*, int32_t*), int32_t value) {
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &value, &error), error);
}

Json ReadClock(Context& ctx) {
  int32_t days = 0, hours = 0, minutes = 0, seconds = 0, error = 0;
  Check("kaVGetGatewayTime",
        tamrik_kaVGetGatewayTime(ctx.Connect().com(), &days, &hours, &minutes, &seconds, &error), error);
  return {{"text", FormatDuration(days, hours, minutes, seconds)},
          {"days", days},
          {"hours", hours},
          {"minutes", minutes},
          {"seconds", seconds},
          {"total_seconds", int64_t(days) * 86400 + hours * 3600 + minutes * 60 + seconds}};
}

uint32_t Low16(int32_t value) { return uint32_t(value) & 0xFFFF; }

Json ReadBootHwInfo(Context& ctx) {
  // The count comes back in bytes; each value holds one 16-bit word.
  const std::vector<int32_t> words = ReadValues(ctx, "kavGetBootFctsHwInfo", tamrik_kavGetBootFctsHwInfo);
  Json hw = Json::array();
  for (size_t i = 0; i < words.size() / 2; ++i) hw.push_back(Low16(words[i]));
  return hw;
}

Json ErrorRow(const std::vector<int32_t>& data, size_t at, int32_t entry, int32_t recordSize) {
  std::vector<uint8_t> extra;
  for (int32_t k = 7; k < recordSize && at + size_t(k) < data.size(); ++k) extra.push_back(uint8_t(data[at + k]));
  return {{"entry", entry},
          {"code", uint32_t(data[at + 1]) & 0xFF},
          {"duration", FormatDuration(data[at + 2], data[at + 3], data[at + 4], data[at + 5], data[at + 6])},
          {"duration_ms", int64_t(data[at + 2]) * 86400000 + int64_t(data[at + 3]) * 3600000 +
                              int64_t(data[at + 4]) * 60000 + int64_t(data[at + 5]) * 1000 + data[at + 6]},
          {"extra", extra}};
}

// One part of the identity: its value, or (with failures to collect them) what made it fail.
void Part(Context& ctx, Json& info, const char* key, std::vector<CallFailed>* failures,
          const std::function<Json()>& read) {
  try {
    info[key] = read();
  } catch (const CallFailed& failure) {
    if (failures == nullptr) throw;
    failures->push_back(failure);
    if (ctx.json) {
      info[key] = {{"error", MethodError(failure)}};
    } else {
      info[key] = "FAILED " + FormatCode(failure.code) + " (" + failure.method + ")";
    }
  }
}

}  // namespace

Json ReadIdentity(Context& ctx, std::vector<CallFailed>* failures) {
  using TextCall = uint32_t (*)(tamrik_com*, char*, int32_t*, int32_t*);
  using ValueCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*);
  // A link that does not open fails the whole command, not each part alike.
  tamrik_com* com = ctx.Connect().com();
  Json info = Json::object();
  auto text = [&](const char* key, const char* method, TextCall call) {
    Part(ctx, info, key, failures, [&]() -> Json { return ReadText(ctx, method, call); });
  };
  auto value = [&](const char* key, const char* method, ValueCall call, uint32_t mask) {
    Part(ctx, info, key, failures, [&]() -> Json { return uint32_t(ReadValue(ctx, method, call)) & mask; });
  };
  Part(ctx, info, "driver_version", failures, [&]() -> Json {
    return ReceiveText("kaVGetVersion", 64, [&](char* version, int32_t* count, int32_t* error) {
      return tamrik_kaVGetVersion(com, version, count, error);
    });
  });
  text("identity", "kaVGetGatewayIdSring", tamrik_kaVGetGatewayIdSring);
  value("version", "kaVGetGatewayVersion", tamrik_kaVGetGatewayVersion, 0xFFFF);
  text("version_string", "kaVGetGatewayVersionString", tamrik_kaVGetGatewayVersionString);
  text("boot_id", "kaVGetGatewayBootFunctionIdString", tamrik_kaVGetGatewayBootFunctionIdString);
  value("boot_version", "kaVGetGatewayBootVersion", tamrik_kaVGetGatewayBootVersion, 0xFFFF);
  Part(ctx, info, "boot_hw_info", failures, [&] { return ReadBootHwInfo(ctx); });
  value("gateway_id", "kaVGetGatewayId", tamrik_kaVGetGatewayId, 0xFFFFFFFF);
  value("station_address", "kaVGetStationAddress", tamrik_kaVGetStationAddress, 0xFFFFFFFF);
  value("operation_mode", "kaVGetGatewayOperationMode", tamrik_kaVGetGatewayOperationMode, 0xFF);
  value("switches", "kaVGetCurrentGwSwitches", tamrik_kaVGetCurrentGwSwitches, 0xFFFF);
  Part(ctx, info, "clock", failures, [&]() -> Json { return ReadClock(ctx)["text"]; });
  return info;
}

Json ReadModules(Context& ctx) {
  const std::vector<int32_t> ids = ReadValues(ctx, "kaVGetModuleList", tamrik_kaVGetModuleList);
  const std::vector<int32_t> withStatus = ReadValues(ctx, "kaVGetModulIdStatusList", tamrik_kaVGetModulIdStatusList);
  // Software revisions and types are not kept in demonstration data (the methods deliver
  // nothing there): the columns stay empty.
  const bool live = !ctx.session()->demonstration();
  std::vector<int32_t> revisions, types;
  if (live) {
    revisions = ReadValues(ctx, "kaVGetModuleSWRev", tamrik_kaVGetModuleSWRev);
    types = ReadValues(ctx, "kaVGetModuleTyp", tamrik_kaVGetModuleTyp);
  }
  auto low8 = [](const std::vector<int32_t>& values, size_t i) -> Json {
    return i < values.size() ? Json(uint32_t(values[i]) & 0xFF) : Json();
  };
  Json rows = Json::array();
  for (size_t i = 0; i < ids.size(); ++i) {
    const uint32_t id = uint32_t(ids[i]) & 0xFFFFFF;
    // Live, each value of the status list carries the identifier above its status byte.
    rows.push_back({{"slot", i + 1},
                    {"id", id},
                    {"status", live ? low8(withStatus, i) : Json()},
                    {"sw_revision", low8(revisions, i)},
                    {"type", low8(types, i)},
                    {"diag_bytes", protocol::DiagnosisLength(id)}});
  }
  return rows;
}

void Info(Context& ctx, const Args&) {
  std::vector<CallFailed> failures;
  const Json identity = ReadIdentity(ctx, &failures);
  ctx.result.update(identity);
  if (failures.empty()) return;
  // What could be read is shown; the run still fails, with the first failure as its error.
  ctx.status = kExitFailed;
  for (const CallFailed& failure : failures)
    std::fprintf(stderr, "tamrik: %s failed: %s\n", failure.method.c_str(), FormatCode(failure.code).c_str());
  if (ctx.json) ctx.result["error"] = MethodError(failures.front());
  std::fprintf(stderr, "tamrik: %zu of %zu parts of info could not be read\n", failures.size(), identity.size());
}

void Errors(Context& ctx, const Args&) {
  tamrik_com* com = ctx.Connect().com();
  int32_t entries = 0;
  const std::vector<int32_t> data =
      ReceiveValues("kaVGetGatewayErrorList", 1024, [&](int32_t* values, int32_t* size, int32_t* error) {
        return tamrik_kaVGetGatewayErrorList(com, &entries, values, size, error);
      });
  Json list = Json::array();
  size_t at = 0;
  for (int32_t n = 0; n < entries && at + 7 <= data.size(); ++n) {
    // Records lie back to back; the first value of each is its size in values.
    const int32_t recordSize = std::max(data[at], 7);
    list.push_back(ErrorRow(data, at, n + 1, recordSize));
    at += size_t(recordSize);
  }
  ctx.result["count"] = entries;
  if (!list.empty()) ctx.result["errors"] = list;
}

void Modules(Context& ctx, const Args&) {
  const Json modules = ReadModules(ctx);
  ctx.result["count"] = modules.size();
  ctx.result["modules"] = modules;
}

void Clock(Context& ctx, const Args&) {
  const Json clock = ReadClock(ctx);
  for (const auto& [key, value] : clock.items()) ctx.result[key == "text" ? "clock" : key] = value;
}

void Switches(Context& ctx, const Args&) {
  ctx.result["switches"] = Low16(ReadValue(ctx, "kaVGetCurrentGwSwitches", tamrik_kaVGetCurrentGwSwitches));
}

void Reset(Context& ctx, const Args&) {
  RunControl(ctx, "kaVExecHardwareReset", tamrik_kaVExecHardwareReset, "hardware reset");
}

void OperationMode(Context& ctx, const Args& args) {
  if (args.Has("MODE")) {
    const int32_t mode = int32_t(args.Number("MODE"));
    SetValue(ctx, "kaVSetGatewayOperationMode", tamrik_kaVSetGatewayOperationMode, mode);
    ctx.result["set"] = mode;
  }
  ctx.result["operation_mode"] =
      ReadValue(ctx, "kaVGetGatewayOperationMode", tamrik_kaVGetGatewayOperationMode) & 0xFF;
}

void StationAddress(Context& ctx, const Args& args) {
  const bool set = args.Has("ADDRESS");
  const int32_t wanted = int32_t(args.Number("ADDRESS"));
  if (set) {
    SetValue(ctx, "kaVSetStationAddress", tamrik_kaVSetStationAddress, wanted);
    ctx.result["set"] = wanted;
  }
  const int32_t now = ReadValue(ctx, "kaVGetStationAddress", tamrik_kaVGetStationAddress);
  ctx.result["station_address"] = now;
  if (set && now != wanted) {
    ctx.result["note"] = "the gateway did not take the new address: the driver sends it with the "
                         "operation-mode service (262), which a gateway may take for a new operation mode";
  }
}

void Leds(Context& ctx, const Args& args) {
  const int32_t leds = int32_t(args.Number("VALUE"));
  SetValue(ctx, "kaVSetGatewayLeds", tamrik_kaVSetGatewayLeds, leds);
  ctx.result["leds"] = leds;
}

void FieldBus(Context& ctx, const Args& args) {
  if (args.Word("ACTION") == "start") {
    RunControl(ctx, "kaVGatewayFbiStart", tamrik_kaVGatewayFbiStart, "field-bus interface started");
  } else {
    RunControl(ctx, "kaVGatewayFbiReset", tamrik_kaVGatewayFbiReset, "field-bus interface reset");
  }
}

void TrBuffer(Context& ctx, const Args& args) {
  if (args.Word("ACTION") == "clear") {
    RunControl(ctx, "kaVClearTRBuffer", tamrik_kaVClearTRBuffer, "TR buffer cleared");
    return;
  }
  const std::vector<uint8_t> bytes = ValuesToBytes(ReadValues(ctx, "kaVGetTRBuffer", tamrik_kaVGetTRBuffer));
  ctx.result["count"] = bytes.size();
  ctx.result["tr_buffer"] = bytes;
}

void ServiceBaud(Context& ctx, const Args& args) {
  const int32_t rate = int32_t(args.Number("RATE"));
  SetValue(ctx, "kaVSetGatewayServiceBaudrate", tamrik_kaVSetGatewayServiceBaudrate, rate);
  ctx.result["service_baud"] = rate;
}

}  // namespace tamrik::cli
