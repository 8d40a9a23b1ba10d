// Identity, state and control of the gateway: info, modules, errors, clock, opmode,
// address, switches, leds, reset, fbi, tr, service-baud.
#include <CLI/CLI.hpp>

#include <cstring>
#include <vector>

#include "Tool.h"

namespace tamrik::cli {
namespace {

// Room for the largest answer a frame can carry (16-bit data length), one value per byte.
constexpr int32_t kMaxValues = 65536;

std::string ReadText(Context& ctx, const char* method,
                     uint32_t (*call)(tamrik_com*, char*, int32_t*, int32_t*)) {
  std::vector<char> text(256, '\0');
  int32_t size = 200;  // demonstration mode reads at most size - 1 characters
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), text.data(), &size, &error), error);
  return std::string(text.data(), size_t(std::clamp(size, 0, 200)));
}

int32_t ReadValue(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*, int32_t*)) {
  int32_t value = 0;
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &value, &error), error);
  return value;
}

void RunControl(Context& ctx, const char* method, uint32_t (*call)(tamrik_com*, int32_t*), const char* done) {
  int32_t error = 0;
  Check(method, call(ctx.Connect().com(), &error), error);
  ctx.result.Set("done", done);
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

void Info(Context& ctx) {
  Json identity = ReadIdentity(ctx);
  for (const auto& [key, value] : identity.Fields()) ctx.result.Set(key, value);
}

void Errors(Context& ctx) {
  std::vector<int32_t> data(kMaxValues, 0);
  int32_t entries = 0, size = kMaxValues, error = 0;
  Check("kaVGetGatewayErrorList",
        tamrik_kaVGetGatewayErrorList(ctx.Connect().com(), &entries, data.data(), &size, &error), error);
  Json list = Json::Array();
  size_t at = 0;
  for (int32_t n = 0; n < entries && at + 7 <= data.size(); ++n) {
    // Records lie back to back; the first value of each is its size in values.
    const int32_t recordSize = std::max(data[at], 7);
    Json row = Json::Object();
    row.Set("entry", n + 1);
    row.Set("code", Json::Hex(uint32_t(data[at + 1]) & 0xFF, 2));
    row.Set("duration", FormatDuration(data[at + 2], data[at + 3], data[at + 4], data[at + 5], data[at + 6]));
    row.Set("duration_ms", int64_t(data[at + 2]) * 86400000 + int64_t(data[at + 3]) * 3600000 +
                               int64_t(data[at + 4]) * 60000 + int64_t(data[at + 5]) * 1000 + data[at + 6]);
    std::vector<uint8_t> extra;
    for (int32_t k = 7; k < recordSize && at + size_t(k) < data.size(); ++k) extra.push_back(uint8_t(data[at + k]));
    row.Set("extra", Json::Bytes(extra));
    list.Push(row);
    at += size_t(recordSize);
  }
  ctx.result.Set("entries", entries);
  if (list.Size() > 0) ctx.result.Set("errors", list);
}

}  // namespace

Json ReadIdentity(Context& ctx) {
  Json info = Json::Object();
  {
    char version[16] = {};
    int32_t size = 0, error = 0;
    Check("kaVGetVersion", tamrik_kaVGetVersion(ctx.Connect().com(), version, &size, &error), error);
    info.Set("driver_version", std::string(version, size_t(std::clamp(size, 0, 11))));
  }
  info.Set("identity", ReadText(ctx, "kaVGetGatewayIdSring", tamrik_kaVGetGatewayIdSring));
  info.Set("version", Json::Hex(uint32_t(ReadValue(ctx, "kaVGetGatewayVersion", tamrik_kaVGetGatewayVersion)) & 0xFFFF, 4));
  info.Set("version_string", ReadText(ctx, "kaVGetGatewayVersionString", tamrik_kaVGetGatewayVersionString));
  info.Set("boot_id", ReadText(ctx, "kaVGetGatewayBootFunctionIdString", tamrik_kaVGetGatewayBootFunctionIdString));
  info.Set("boot_version",
           Json::Hex(uint32_t(ReadValue(ctx, "kaVGetGatewayBootVersion", tamrik_kaVGetGatewayBootVersion)) & 0xFFFF, 4));
  {
    std::vector<int32_t> words(kMaxValues, 0);
    int32_t count = 0, error = 0;
    Check("kavGetBootFctsHwInfo", tamrik_kavGetBootFctsHwInfo(ctx.Connect().com(), words.data(), &count, &error),
          error);
    // The count is in bytes; each value holds one 16-bit word.
    Json hw = Json::Array();
    for (int32_t i = 0; i < std::clamp(count / 2, 0, kMaxValues); ++i) hw.Push(Json::Hex(uint32_t(words[size_t(i)]) & 0xFFFF, 4));
    info.Set("boot_hw_info", hw);
  }
  info.Set("gateway_id", Json::Hex(uint32_t(ReadValue(ctx, "kaVGetGatewayId", tamrik_kaVGetGatewayId)), 8));
  info.Set("station_address", ReadValue(ctx, "kaVGetStationAddress", tamrik_kaVGetStationAddress));
  info.Set("operation_mode", ReadValue(ctx, "kaVGetGatewayOperationMode", tamrik_kaVGetGatewayOperationMode) & 0xFF);
  info.Set("switches", Json::Hex(uint32_t(ReadValue(ctx, "kaVGetCurrentGwSwitches", tamrik_kaVGetCurrentGwSwitches)) & 0xFFFF, 4));
  info.Set("clock", ReadClock(ctx).Find("text")->AsString());
  return info;
}

Json ReadModules(Context& ctx) {
  tamrik_com* com = ctx.Connect().com();
  std::vector<int32_t> ids(kMaxValues, 0);
  int32_t count = 256, error = 0;  // the count is the capacity in demonstration mode
  Check("kaVGetModuleList", tamrik_kaVGetModuleList(com, ids.data(), &count, &error), error);
  count = std::clamp(count, 0, 256);

  std::vector<int32_t> withStatus(kMaxValues, 0);
  int32_t statusCount = 256;
  Check("kaVGetModulIdStatusList", tamrik_kaVGetModulIdStatusList(com, withStatus.data(), &statusCount, &error), error);
  // Software revisions and types are not kept in demonstration data: the methods leave the
  // count as it was, 0 here, and the columns stay empty.
  std::vector<int32_t> revisions(kMaxValues, 0), types(kMaxValues, 0);
  int32_t revisionCount = 0, typeCount = 0;
  Check("kaVGetModuleSWRev", tamrik_kaVGetModuleSWRev(com, revisions.data(), &revisionCount, &error), error);
  Check("kaVGetModuleTyp", tamrik_kaVGetModuleTyp(com, types.data(), &typeCount, &error), error);

  Json rows = Json::Array();
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t id = uint32_t(ids[size_t(i)]) & 0xFFFFFF;
    Json row = Json::Object();
    row.Set("slot", i + 1);
    row.Set("id", Json::Hex(id, 6));
    // Live, each value of the status list carries the identifier above its status byte.
    const bool hasStatus = !ctx.session()->demonstration() && i < statusCount;
    row.Set("status", hasStatus ? Json::Hex(uint32_t(withStatus[size_t(i)]) & 0xFF, 2) : Json());
    row.Set("sw_revision", i < revisionCount ? Json::Hex(uint32_t(revisions[size_t(i)]) & 0xFF, 2) : Json());
    row.Set("type", i < typeCount ? Json::Hex(uint32_t(types[size_t(i)]) & 0xFF, 2) : Json());
    row.Set("diag_bytes", DiagLength(id));
    rows.Push(row);
  }
  return rows;
}

void AddGatewayCommands(CLI::App& app, Context& ctx) {
  app.add_subcommand("info", "Identity, versions, station address, gateway id, operation mode, switches, clock")
      ->callback([&ctx]() { ctx.run = Info; });

  app.add_subcommand("modules", "Module list: identifiers, status, software revision, type, diagnosis size")
      ->callback([&ctx]() {
        ctx.run = [](Context& c) {
          Json modules = ReadModules(c);
          c.result.Set("count", int64_t(modules.Size()));
          c.result.Set("modules", modules);
        };
      });

  app.add_subcommand("errors", "The gateway's error list: code, duration, extra bytes")
      ->callback([&ctx]() { ctx.run = Errors; });

  app.add_subcommand("clock", "The gateway's clock (time since start)")->callback([&ctx]() {
    ctx.run = [](Context& c) {
      const Json clock = ReadClock(c);
      for (const auto& [key, value] : clock.Fields()) c.result.Set(key == "text" ? "clock" : key, value);
    };
  });

  {
    auto* cmd = app.add_subcommand("opmode", "Read the operation mode, or set it to MODE and read it back");
    auto mode = std::make_shared<std::string>();
    cmd->add_option("MODE", *mode, "New operation mode (0 to 255)");
    cmd->callback([&ctx, mode]() {
      ctx.run = [mode](Context& c) {
        if (!mode->empty()) {
          int32_t value = int32_t(ParseNumber(*mode, "MODE", 0, 255)), error = 0;
          Check("kaVSetGatewayOperationMode", tamrik_kaVSetGatewayOperationMode(c.Connect().com(), &value, &error), error);
          c.result.Set("set", int32_t(ParseNumber(*mode, "MODE", 0, 255)));
        }
        c.result.Set("operation_mode",
                     ReadValue(c, "kaVGetGatewayOperationMode", tamrik_kaVGetGatewayOperationMode) & 0xFF);
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("address", "Read the station address, or set it to ADDRESS and read it back");
    auto address = std::make_shared<std::string>();
    cmd->add_option("ADDRESS", *address, "New station address (0 to 255)");
    cmd->callback([&ctx, address]() {
      ctx.run = [address](Context& c) {
        if (!address->empty()) {
          int32_t value = int32_t(ParseNumber(*address, "ADDRESS", 0, 255)), error = 0;
          Check("kaVSetStationAddress", tamrik_kaVSetStationAddress(c.Connect().com(), &value, &error), error);
          c.result.Set("set", int32_t(ParseNumber(*address, "ADDRESS", 0, 255)));
        }
        const int32_t now = ReadValue(c, "kaVGetStationAddress", tamrik_kaVGetStationAddress);
        c.result.Set("station_address", now);
        if (!address->empty() && now != ParseNumber(*address, "ADDRESS", 0, 255)) {
          // The driver has no service of its own for this and sends the operation-mode service.
          c.result.Set("note", "the gateway did not take the new address: the driver sends it with the "
                               "operation-mode service (262), which a gateway may take for a new operation mode");
        }
      };
    });
  }
  app.add_subcommand("switches", "Current positions of the gateway's switches")->callback([&ctx]() {
    ctx.run = [](Context& c) {
      c.result.Set("switches",
                   Json::Hex(uint32_t(ReadValue(c, "kaVGetCurrentGwSwitches", tamrik_kaVGetCurrentGwSwitches)) & 0xFFFF, 4));
    };
  });
  {
    auto* cmd = app.add_subcommand("leds", "Set the gateway's LEDs to VALUE (16 bits)");
    auto value = std::make_shared<std::string>();
    cmd->add_option("VALUE", *value, "LED pattern, e.g. 0x0102")->required();
    cmd->callback([&ctx, value]() {
      ctx.run = [value](Context& c) {
        int32_t leds = int32_t(ParseNumber(*value, "VALUE", 0, 0xFFFF)), error = 0;
        Check("kaVSetGatewayLeds", tamrik_kaVSetGatewayLeds(c.Connect().com(), &leds, &error), error);
        c.result.Set("leds", Json::Hex(uint32_t(ParseNumber(*value, "VALUE", 0, 0xFFFF)), 4));
      };
    });
  }
  app.add_subcommand("reset", "Hardware reset of the gateway")->callback([&ctx]() {
    ctx.run = [](Context& c) { RunControl(c, "kaVExecHardwareReset", tamrik_kaVExecHardwareReset, "hardware reset"); };
  });
  {
    auto* cmd = app.add_subcommand("fbi", "Start or reset the gateway's field-bus interface");
    auto action = std::make_shared<std::string>();
    cmd->add_option("ACTION", *action, "start or reset")->required()->check(CLI::IsMember({"start", "reset"}));
    cmd->callback([&ctx, action]() {
      ctx.run = [action](Context& c) {
        if (*action == "start") {
          RunControl(c, "kaVGatewayFbiStart", tamrik_kaVGatewayFbiStart, "field-bus interface started");
        } else {
          RunControl(c, "kaVGatewayFbiReset", tamrik_kaVGatewayFbiReset, "field-bus interface reset");
        }
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("tr", "Read (default) or clear the gateway's TR buffer");
    auto action = std::make_shared<std::string>("read");
    cmd->add_option("ACTION", *action, "read or clear")->check(CLI::IsMember({"read", "clear"}));
    cmd->callback([&ctx, action]() {
      ctx.run = [action](Context& c) {
        if (*action == "clear") {
          RunControl(c, "kaVClearTRBuffer", tamrik_kaVClearTRBuffer, "TR buffer cleared");
          return;
        }
        std::vector<int32_t> data(kMaxValues, 0);
        int32_t count = 0, error = 0;
        Check("kaVGetTRBuffer", tamrik_kaVGetTRBuffer(c.Connect().com(), data.data(), &count, &error), error);
        c.result.Set("count", count);
        c.result.Set("tr_buffer", Json::Bytes(ValuesToBytes(data.data(), std::clamp(count, 0, kMaxValues))));
      };
    });
  }
  {
    auto* cmd = app.add_subcommand(
        "service-baud", "Set the baud rate of the gateway's service interface (9600 to 115200); the line keeps its own");
    auto rate = std::make_shared<int32_t>(0);
    cmd->add_option("RATE", *rate, "9600, 19200, 38400, 57600 or 115200")
        ->required()
        ->check(CLI::IsMember({9600, 19200, 38400, 57600, 115200}));
    cmd->callback([&ctx, rate]() {
      ctx.run = [rate](Context& c) {
        int32_t value = *rate, error = 0;
        Check("kaVSetGatewayServiceBaudrate", tamrik_kaVSetGatewayServiceBaudrate(c.Connect().com(), &value, &error),
              error);
        c.result.Set("service_baud", *rate);
      };
    });
  }
}

}  // namespace tamrik::cli
