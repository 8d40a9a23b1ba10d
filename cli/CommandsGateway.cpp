// Identity, state and control of the gateway: info, modules, errors, clock, opmode,
// address, switches, leds, reset, fbi, tr, service-baud.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

#include "Tool.h"

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

std::vector<int32_t> ReadValues(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*, int32_t*, int32_t*)) {
  tamrik_com* com = ctx.Connect().com();
  return ReceiveValues(method, kListRoom, [&](int32_t* data, int32_t* count, int32_t* error) {
    return call(com, data, count, error);
  });
}

void RunControl(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*), const char* done) {
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &error), error);
  ctx.result.Set("done", done);
}

// Sends one value with a set method; the caller has asked for --yes already.
void SetValue(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*, int32_t*), int32_t value) {
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &value, &error), error);
}

Json ReadClock(Context& ctx) {
  int32_t days = 0, hours = 0, minutes = 0, seconds = 0, error = 0;
  Check("kaVGetGatewayTime",
        tamrik_kaVGetGatewayTime(ctx.Connect().com(), &days, &hours, &minutes, &seconds, &error), error);
  Json clock = Json::Object();
  clock.Set("text", FormatDuration(days, hours, minutes, seconds));
  clock.Set("days", days);
  clock.Set("hours", hours);
  clock.Set("minutes", minutes);
  clock.Set("seconds", seconds);
  clock.Set("total_seconds", int64_t(days) * 86400 + hours * 3600 + minutes * 60 + seconds);
  return clock;
}

Json Hex16(int32_t value) { return Json::Hex(uint32_t(value) & 0xFFFF, 4); }

Json ReadBootHwInfo(Context& ctx) {
  // The count comes back in bytes; each value holds one 16-bit word.
  const std::vector<int32_t> words = ReadValues(ctx, "kavGetBootFctsHwInfo", tamrik_kavGetBootFctsHwInfo);
  Json hw = Json::Array();
  for (size_t i = 0; i < words.size() / 2; ++i) hw.Push(Hex16(words[i]));
  return hw;
}

void Info(Context& ctx) {
  std::vector<CallFailed> failures;
  Json identity = ReadIdentity(ctx, &failures);
  for (const auto& [key, value] : identity.Fields()) ctx.result.Set(key, value);
  if (failures.empty()) return;
  // What could be read is shown; the run still fails, with the first failure as its error.
  ctx.status = kExitFailed;
  for (const CallFailed& failure : failures)
    std::fprintf(stderr, "tamrik: %s failed: %s\n", failure.method.c_str(), FormatCode(failure.code).c_str());
  Json error = ErrorObject(failures.front().code);
  error.Set("method", failures.front().method);
  if (ctx.json) ctx.result.Set("error", error);
  std::fprintf(stderr, "tamrik: %zu of %zu parts of info could not be read\n", failures.size(), identity.Size());
}

Json ErrorRow(const std::vector<int32_t>& data, size_t at, int32_t entry, int32_t recordSize) {
  Json row = Json::Object();
  row.Set("entry", entry);
  row.Set("code", Json::Hex(uint32_t(data[at + 1]) & 0xFF, 2));
  row.Set("duration", FormatDuration(data[at + 2], data[at + 3], data[at + 4], data[at + 5], data[at + 6]));
  row.Set("duration_ms", int64_t(data[at + 2]) * 86400000 + int64_t(data[at + 3]) * 3600000 +
                             int64_t(data[at + 4]) * 60000 + int64_t(data[at + 5]) * 1000 + data[at + 6]);
  std::vector<uint8_t> extra;
  for (int32_t k = 7; k < recordSize && at + size_t(k) < data.size(); ++k) extra.push_back(uint8_t(data[at + k]));
  row.Set("extra", Json::Bytes(extra));
  return row;
}

void Errors(Context& ctx) {
  tamrik_com* com = ctx.Connect().com();
  int32_t entries = 0;
  const std::vector<int32_t> data =
      ReceiveValues("kaVGetGatewayErrorList", 1024, [&](int32_t* values, int32_t* size, int32_t* error) {
        return tamrik_kaVGetGatewayErrorList(com, &entries, values, size, error);
      });
  Json list = Json::Array();
  size_t at = 0;
  for (int32_t n = 0; n < entries && at + 7 <= data.size(); ++n) {
    // Records lie back to back; the first value of each is its size in values.
    const int32_t recordSize = std::max(data[at], 7);
    list.Push(ErrorRow(data, at, n + 1, recordSize));
    at += size_t(recordSize);
  }
  ctx.result.Set("count", entries);
  if (list.Size() > 0) ctx.result.Set("errors", list);
}

// One part of the identity: its value, or (with failures to collect them) what made it fail.
void Part(Context& ctx, Json& info, const char* key, std::vector<CallFailed>* failures,
          const std::function<Json()>& read) {
  try {
    info.Set(key, read());
  } catch (const CallFailed& failure) {
    if (failures == nullptr) throw;
    failures->push_back(failure);
    if (ctx.json) {
      Json error = ErrorObject(failure.code);
      error.Set("method", failure.method);
      Json part = Json::Object();
      part.Set("error", error);
      info.Set(key, part);
    } else {
      info.Set(key, "FAILED " + FormatCode(failure.code) + " (" + failure.method + ")");
    }
  }
}

}  // namespace

Json ReadIdentity(Context& ctx, std::vector<CallFailed>* failures) {
  // A link that does not open fails the whole command, not each part alike.
  tamrik_com* com = ctx.Connect().com();
  Json info = Json::Object();
  Part(ctx, info, "driver_version", failures, [&]() -> Json {
    return ReceiveText("kaVGetVersion", 64, [&](char* text, int32_t* count, int32_t* error) {
      return tamrik_kaVGetVersion(com, text, count, error);
    });
  });
  Part(ctx, info, "identity", failures, [&]() -> Json { return ReadText(ctx, "kaVGetGatewayIdSring", tamrik_kaVGetGatewayIdSring); });
  Part(ctx, info, "version", failures, [&] { return Hex16(ReadValue(ctx, "kaVGetGatewayVersion", tamrik_kaVGetGatewayVersion)); });
  Part(ctx, info, "version_string", failures, [&]() -> Json {
    return ReadText(ctx, "kaVGetGatewayVersionString", tamrik_kaVGetGatewayVersionString);
  });
  Part(ctx, info, "boot_id", failures, [&]() -> Json {
    return ReadText(ctx, "kaVGetGatewayBootFunctionIdString", tamrik_kaVGetGatewayBootFunctionIdString);
  });
  Part(ctx, info, "boot_version", failures,
       [&] { return Hex16(ReadValue(ctx, "kaVGetGatewayBootVersion", tamrik_kaVGetGatewayBootVersion)); });
  Part(ctx, info, "boot_hw_info", failures, [&] { return ReadBootHwInfo(ctx); });
  Part(ctx, info, "gateway_id", failures, [&] {
    return Json::Hex(uint32_t(ReadValue(ctx, "kaVGetGatewayId", tamrik_kaVGetGatewayId)), 8);
  });
  Part(ctx, info, "station_address", failures,
       [&]() -> Json { return ReadValue(ctx, "kaVGetStationAddress", tamrik_kaVGetStationAddress); });
  Part(ctx, info, "operation_mode", failures, [&]() -> Json {
    return ReadValue(ctx, "kaVGetGatewayOperationMode", tamrik_kaVGetGatewayOperationMode) & 0xFF;
  });
  Part(ctx, info, "switches", failures,
       [&] { return Hex16(ReadValue(ctx, "kaVGetCurrentGwSwitches", tamrik_kaVGetCurrentGwSwitches)); });
  Part(ctx, info, "clock", failures, [&] { return *ReadClock(ctx).Find("text"); });
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
  Json rows = Json::Array();
  for (size_t i = 0; i < ids.size(); ++i) {
    const uint32_t id = uint32_t(ids[i]) & 0xFFFFFF;
    Json row = Json::Object();
    row.Set("slot", int64_t(i) + 1);
    row.Set("id", Json::Hex(id, 6));
    // Live, each value of the status list carries the identifier above its status byte.
    row.Set("status", live && i < withStatus.size() ? Json::Hex(uint32_t(withStatus[i]) & 0xFF, 2) : Json());
    row.Set("sw_revision", i < revisions.size() ? Json::Hex(uint32_t(revisions[i]) & 0xFF, 2) : Json());
    row.Set("type", i < types.size() ? Json::Hex(uint32_t(types[i]) & 0xFF, 2) : Json());
    row.Set("diag_bytes", DiagLength(id));
    rows.Push(row);
  }
  return rows;
}

namespace {

void Modules(Context& ctx) {
  Json modules = ReadModules(ctx);
  ctx.result.Set("count", int64_t(modules.Size()));
  ctx.result.Set("modules", modules);
}

void Clock(Context& ctx) {
  const Json clock = ReadClock(ctx);
  for (const auto& [key, value] : clock.Fields()) ctx.result.Set(key == "text" ? "clock" : key, value);
}

void Switches(Context& ctx) {
  ctx.result.Set("switches", Hex16(ReadValue(ctx, "kaVGetCurrentGwSwitches", tamrik_kaVGetCurrentGwSwitches)));
}

void Reset(Context& ctx) {
  ctx.RequireYes("reset the gateway (hardware reset)");
  RunControl(ctx, "kaVExecHardwareReset", tamrik_kaVExecHardwareReset, "hardware reset");
}

void OperationMode(Context& ctx, const std::string& text) {
  if (!text.empty()) {
    const int32_t mode = int32_t(ParseNumber(text, "MODE", 0, 255));
    ctx.RequireYes("set the operation mode to " + std::to_string(mode));
    SetValue(ctx, "kaVSetGatewayOperationMode", tamrik_kaVSetGatewayOperationMode, mode);
    ctx.result.Set("set", mode);
  }
  ctx.result.Set("operation_mode", ReadValue(ctx, "kaVGetGatewayOperationMode", tamrik_kaVGetGatewayOperationMode) & 0xFF);
}

void StationAddress(Context& ctx, const std::string& text) {
  std::optional<int32_t> wanted;
  if (!text.empty()) {
    wanted = int32_t(ParseNumber(text, "ADDRESS", 0, 255));
    // The driver has no service of its own for the address and sends the operation-mode one.
    ctx.RequireYes("set the station address to " + std::to_string(*wanted) +
                   " (the request carries the operation-mode service code 262, so the gateway may take " +
                   std::to_string(*wanted) + " for a new operation mode)");
    SetValue(ctx, "kaVSetStationAddress", tamrik_kaVSetStationAddress, *wanted);
    ctx.result.Set("set", *wanted);
  }
  const int32_t now = ReadValue(ctx, "kaVGetStationAddress", tamrik_kaVGetStationAddress);
  ctx.result.Set("station_address", now);
  if (wanted && now != *wanted) {
    ctx.result.Set("note", "the gateway did not take the new address: the driver sends it with the "
                           "operation-mode service (262), which a gateway may take for a new operation mode");
  }
}

void Leds(Context& ctx, const std::string& text) {
  const int32_t leds = int32_t(ParseNumber(text, "VALUE", 0, 0xFFFF));
  ctx.RequireYes("set the LEDs to " + Hex16(leds).Text());
  SetValue(ctx, "kaVSetGatewayLeds", tamrik_kaVSetGatewayLeds, leds);
  ctx.result.Set("leds", Hex16(leds));
}

void FieldBus(Context& ctx, const std::string& action) {
  ctx.RequireYes(action + " the field-bus interface");
  if (action == "start") {
    RunControl(ctx, "kaVGatewayFbiStart", tamrik_kaVGatewayFbiStart, "field-bus interface started");
  } else {
    RunControl(ctx, "kaVGatewayFbiReset", tamrik_kaVGatewayFbiReset, "field-bus interface reset");
  }
}

void TrBuffer(Context& ctx, const std::string& action) {
  if (action == "clear") {
    ctx.RequireYes("clear the TR buffer");
    RunControl(ctx, "kaVClearTRBuffer", tamrik_kaVClearTRBuffer, "TR buffer cleared");
    return;
  }
  const std::vector<uint8_t> bytes = ValuesToBytes(ReadValues(ctx, "kaVGetTRBuffer", tamrik_kaVGetTRBuffer));
  ctx.result.Set("count", int64_t(bytes.size()));
  ctx.result.Set("tr_buffer", Json::Bytes(bytes));
}

void ServiceBaud(Context& ctx, const std::string& text) {
  const int32_t rate = int32_t(ParseNumber(text, "RATE", 9600, 115200));
  if (rate != 9600 && rate != 19200 && rate != 38400 && rate != 57600 && rate != 115200)
    throw UsageError("RATE must be 9600, 19200, 38400, 57600 or 115200");
  ctx.RequireYes("set the service interface's baud rate to " + std::to_string(rate));
  SetValue(ctx, "kaVSetGatewayServiceBaudrate", tamrik_kaVSetGatewayServiceBaudrate, rate);
  ctx.result.Set("service_baud", rate);
}

// Commands without arguments.
struct PlainCommand {
  const char* name;
  const char* summary;
  void (*run)(Context&);
};
constexpr PlainCommand kPlainCommands[] = {
    {"info", "Identity, versions, station address, gateway id, operation mode, switches, clock", Info},
    {"modules", "Module list: identifiers, status, software revision, type, diagnosis size", Modules},
    {"errors", "The gateway's error list: code, duration, extra bytes", Errors},
    {"clock", "The gateway's clock (time since start)", Clock},
    {"switches", "Current positions of the gateway's switches", Switches},
    {"reset", "Hardware reset of the gateway (changes the gateway)", Reset},
};

// Commands with one word or number; choices, when given, are the words it may be.
struct WordCommand {
  const char* name;
  const char* summary;
  const char* word;
  const char* wordHelp;
  bool required;
  std::vector<std::string> choices;
  const char* fallback;  // the word when none is given
  void (*run)(Context&, const std::string&);
};
const WordCommand kWordCommands[] = {
    {"opmode", "Read the operation mode, or set it to MODE and read it back", "MODE", "New operation mode (0 to 255)",
     false, {}, "", OperationMode},
    {"address", "Read the station address, or set it to ADDRESS and read it back (sent with the operation-mode service)",
     "ADDRESS", "New station address (0 to 255)", false, {}, "", StationAddress},
    {"leds", "Set the gateway's LEDs to VALUE (16 bits)", "VALUE", "LED pattern, e.g. 0x0102", true, {}, "", Leds},
    {"fbi", "Start or reset the gateway's field-bus interface", "ACTION", "start or reset", true, {"start", "reset"}, "",
     FieldBus},
    {"tr", "Read (default) or clear the gateway's TR buffer", "ACTION", "read or clear", false, {"read", "clear"}, "read",
     TrBuffer},
    {"service-baud", "Set the baud rate of the gateway's service interface; the line keeps its own", "RATE",
     "9600, 19200, 38400, 57600 or 115200", true, {"9600", "19200", "38400", "57600", "115200"}, "", ServiceBaud},
};

}  // namespace

void AddGatewayCommands(CLI::App& app, Context& ctx) {
  for (const PlainCommand& command : kPlainCommands) {
    app.add_subcommand(command.name, command.summary)->callback([&ctx, run = command.run]() { ctx.run = run; });
  }
  for (const WordCommand& command : kWordCommands) {
    auto* cmd = app.add_subcommand(command.name, command.summary);
    auto word = std::make_shared<std::string>(command.fallback);
    auto* option = cmd->add_option(command.word, *word, command.wordHelp);
    if (command.required) option->required();
    if (!command.choices.empty()) option->check(CLI::IsMember(command.choices));
    cmd->callback([&ctx, word, run = command.run]() { ctx.run = [word, run](Context& c) { run(c, *word); }; });
  }
}

}  // namespace tamrik::cli
