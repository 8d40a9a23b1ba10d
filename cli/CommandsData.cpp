// Process data, parameters, diagnosis, stream data, monitoring, DeviceNet, raw services, raw
// line blocks and privileged mode.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "Tool.h"

namespace tamrik::cli {
namespace {

// Room for an image at first; a larger one is asked for again with the room it needs.
constexpr size_t kImageRoom = 256;

using ArrayCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);

std::vector<uint8_t> ReadArray(Context& ctx, const char* method, ArrayCall call) {
  tamrik_com* com = ctx.Connect().com();
  return ValuesToBytes(ReceiveValues(method, kImageRoom, [&](int32_t* data, int32_t* count, int32_t* error) {
    return call(com, data, count, error);
  }));
}

// The methods that send the array and receive their answer into it: the request's length is
// also the room for the answer.
std::vector<uint8_t> Exchange(Context& ctx, const char* method, ArrayCall call, const std::vector<uint8_t>& request) {
  std::vector<int32_t> data = BytesToValues(request);
  data.push_back(0);  // never a null array, also for an empty request
  int32_t count = int32_t(request.size()), error = 0;
  Check(method, call(ctx.Connect().com(), data.data(), &count, &error), error);
  data.resize(size_t(std::clamp<int32_t>(count, 0, int32_t(request.size()))));
  return ValuesToBytes(data);
}

std::vector<uint8_t> BytesToWrite(const std::vector<std::string>& args) {
  const std::vector<uint8_t> bytes = ParseBytes(args);
  if (bytes.empty()) throw UsageError("no bytes to write");
  return bytes;
}

void Outputs(Context& ctx, const std::vector<std::string>& args) {
  if (!args.empty()) {
    const std::vector<uint8_t> bytes = BytesToWrite(args);
    ctx.RequireYes("write " + Json::Bytes(bytes).Text() + " to the output image");
    // The station's output image has a size of its own; more bytes than it holds would
    // land nowhere or somewhere unexpected.
    const size_t size = ReadOutputs(ctx).size();
    if (bytes.size() > size) {
      throw UsageError("the output image holds " + std::to_string(size) + " bytes; " + std::to_string(bytes.size()) +
                       " given, nothing was written");
    }
    WriteOutputs(ctx, bytes);
    ctx.result.Set("written", Json::Bytes(bytes));
  }
  const std::vector<uint8_t> image = ReadOutputs(ctx);
  ctx.result.Set("count", int64_t(image.size()));
  ctx.result.Set("outputs", Json::Bytes(image));
}

void Parameters(Context& ctx, const std::vector<std::string>& args) {
  if (!args.empty()) {
    const std::vector<uint8_t> bytes = BytesToWrite(args);
    ctx.RequireYes("write " + Json::Bytes(bytes).Text() + " to the module parameters");
    Exchange(ctx, "kaVSetParameterData", tamrik_kaVSetParameterData, bytes);
    ctx.result.Set("written", Json::Bytes(bytes));
  }
  const std::vector<uint8_t> image = ReadArray(ctx, "kaVGetParameterData", tamrik_kaVGetParameterData);
  ctx.result.Set("count", int64_t(image.size()));
  ctx.result.Set("parameters", Json::Bytes(image));
}

void Inputs(Context& ctx) {
  const std::vector<uint8_t> bytes = ReadInputs(ctx);
  ctx.result.Set("count", int64_t(bytes.size()));
  ctx.result.Set("inputs", Json::Bytes(bytes));
}

void Diagnosis(Context& ctx) {
  const std::vector<uint8_t> bytes = ReadArray(ctx, "kaVGetDiagData", tamrik_kaVGetDiagData);
  ctx.result.Set("count", int64_t(bytes.size()));
  ctx.result.Set("diagnosis", Json::Bytes(bytes));
  // The answer holds the gateway's own bytes, then each module's, by the module's identifier.
  Json modules = ReadModules(ctx);
  size_t moduleBytes = 0;
  for (size_t i = 0; i < modules.Size(); ++i) moduleBytes += size_t(modules[i].Find("diag_bytes")->AsInt());
  if (moduleBytes > bytes.size()) return;  // a layout the module list does not explain
  size_t at = bytes.size() - moduleBytes;
  ctx.result.Set("gateway", Json::Bytes(std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(at))));
  Json rows = Json::Array();
  for (size_t i = 0; i < modules.Size(); ++i) {
    const size_t length = size_t(modules[i].Find("diag_bytes")->AsInt());
    Json row = Json::Object();
    row.Set("slot", *modules[i].Find("slot"));
    row.Set("id", *modules[i].Find("id"));
    row.Set("bytes", Json::Bytes(std::vector<uint8_t>(bytes.begin() + long(at), bytes.begin() + long(at + length))));
    rows.Push(row);
    at += length;
  }
  if (rows.Size() > 0) ctx.result.Set("modules", rows);
}

void StreamSizes(Context& ctx) {
  const auto sizes = ReadArray(ctx, "kaVGetModuleStreamDataSizeList", tamrik_kaVGetModuleStreamDataSizeList);
  Json list = Json::Array();
  for (uint8_t s : sizes) list.Push(int(s));
  ctx.result.Set("count", int64_t(sizes.size()));
  ctx.result.Set("sizes", list);
}

void StreamPosition(Context& ctx, const std::string& a, const std::string& b) {
  const std::vector<uint8_t> position = {uint8_t(ParseNumber(a, "A", 0, 255)), uint8_t(ParseNumber(b, "B", 0, 255))};
  ctx.RequireYes("set the stream position to " + Json::Bytes(position).Text());
  int32_t data[16] = {position[0], position[1]};
  int32_t error = 0;
  Check("kaVSetModuleStreamDataPosition", tamrik_kaVSetModuleStreamDataPosition(ctx.Connect().com(), data, &error),
        error);
  ctx.result.Set("position", Json::Bytes(position));
}

void StreamWrite(Context& ctx, const std::string& header, const std::string& segment,
                 const std::vector<std::string>& args) {
  const std::vector<uint8_t> data = ParseBytes(args);
  if (data.empty() || data.size() > 127) throw UsageError("stream write takes 1 to 127 bytes");
  const int64_t seg = ParseNumber(segment, "SEGLEN", 1, 19);
  std::vector<uint8_t> values = {uint8_t(ParseNumber(header, "HEADER", 0, 255)), uint8_t(seg)};
  values.insert(values.end(), data.begin(), data.end());
  ctx.RequireYes("write " + std::to_string(data.size()) + " bytes of module stream data");
  Exchange(ctx, "kaVSetModuleStreamSegmentData", tamrik_kaVSetModuleStreamSegmentData, values);
  ctx.result.Set("written", Json::Bytes(data));
  ctx.result.Set("segments", (int64_t(data.size()) + seg - 1) / seg);
}

void Monitor(Context& ctx, const std::string& action, const std::vector<std::string>& args) {
  using Control = uint32_t (*)(tamrik_com*, int32_t*);
  struct Step {
    const char* action;
    const char* method;
    Control call;
    const char* done;
  };
  static constexpr Step kSteps[] = {
      {"reset", "kaVSrvMbResetMonitoring", tamrik_kaVSrvMbResetMonitoring, "reset"},
      {"start", "kaVSrvMbStartMonitoring", tamrik_kaVSrvMbStartMonitoring, "started"},
      {"stop", "kaVSrvMbStopMonitoring", tamrik_kaVSrvMbStopMonitoring, "stopped"},
  };
  for (const Step& step : kSteps) {
    if (action != step.action) continue;
    ctx.RequireYes(std::string(step.action) + " the service monitoring");
    int32_t error = 0;
    Check(step.method, step.call(ctx.Connect().com(), &error), error);
    ctx.result.Set("monitoring", step.done);
    return;
  }
  const auto request = ParseBytes(args);
  const auto frame = action == "first"
                         ? Exchange(ctx, "kaVSrvGetFirstDataFrame", tamrik_kaVSrvGetFirstDataFrame, request)
                         : Exchange(ctx, "kaVSrvGetNextDataFrame", tamrik_kaVSrvGetNextDataFrame, request);
  ctx.result.Set("count", int64_t(frame.size()));
  ctx.result.Set("frame", Json::Bytes(frame));
}

void DeviceNetAttribute(Context& ctx, const std::string& action, const std::vector<std::string>& args);

void DeviceNet(Context& ctx, const std::string& action, const std::vector<std::string>& args) {
  if (action == "set" || action == "get") {
    DeviceNetAttribute(ctx, action, args);
    return;
  }
  tamrik_com* com = ctx.Connect().com();
  int32_t error = 0;
  if (action == "serial") {
    int32_t serial = 0;
    Check("kaVSrvDNetGetEEPDNetSerialNumber", tamrik_kaVSrvDNetGetEEPDNetSerialNumber(com, &serial, &error), error);
    ctx.result.Set("serial_number", Json::Hex(uint32_t(serial), 8));
    return;
  }
  if (action == "tool") {
    ctx.result.Set("tool_ident",
                   ReceiveText("kaVSrvDNetGetEEPToolIdent", 256, [&](char* text, int32_t* count, int32_t* failed) {
                     return tamrik_kaVSrvDNetGetEEPToolIdent(com, text, count, failed);
                   }));
  }
}

void DeviceNetAttribute(Context& ctx, const std::string& action, const std::vector<std::string>& args) {
  const auto request = ParseBytes(args);
  if (request.empty()) throw UsageError("dnet " + action + " needs the attribute address bytes");
  const bool get = action == "get";
  if (!get) ctx.RequireYes("write the DeviceNet attribute " + Json::Bytes(request).Text());
  const auto answer = get ? Exchange(ctx, "kaVSrvDNetGetClassInstAttr", tamrik_kaVSrvDNetGetClassInstAttr, request)
                          : Exchange(ctx, "kaVSrvDNetSetClassInstAttr", tamrik_kaVSrvDNetSetClassInstAttr, request);
  ctx.result.Set("request", Json::Bytes(request));
  ctx.result.Set("answer", Json::Bytes(answer));
}

void Service(Context& ctx, const std::string& codeText, const std::vector<std::string>& args, int64_t capacity) {
  int32_t service = int32_t(ParseNumber(codeText, "CODE", 0, 0x10000));
  const std::vector<uint8_t> request = ParseBytes(args);
  char what[96];
  std::snprintf(what, sizeof what, "send the raw service 0x%X with %zu data bytes", unsigned(service), request.size());
  ctx.RequireYes(what);
  std::vector<uint8_t> data(size_t(std::max<int64_t>(capacity, int64_t(request.size()))) + 1, 0);
  std::copy(request.begin(), request.end(), data.begin());
  int32_t sendCount = int32_t(request.size()), receiveCount = int32_t(capacity), error = 0;
  const int32_t asked = service;
  Check("kaVDoService",
        tamrik_kaVDoService(ctx.Connect().com(), &service, data.data(), &sendCount, &receiveCount, &error), error);
  ctx.result.Set("service", Json::Hex(uint32_t(asked), 4));
  ctx.result.Set("sent", Json::Bytes(request));
  if (asked == 0x10000) {
    ctx.result.Set("polling", true);
    ctx.result.Set("answer_code", Json::Hex(uint32_t(service), 4));
    return;
  }
  data.resize(size_t(std::clamp<int64_t>(receiveCount, 0, capacity)));
  const std::vector<uint8_t>& answer = data;
  ctx.result.Set("answer_code", Json::Hex(uint32_t(service) & 0xFFFF, 4));
  ctx.result.Set("count", int64_t(answer.size()));
  ctx.result.Set("received", Json::Bytes(answer));
  // The method reports the gateway's refusal in the answer code only; the tool reports it as
  // the driver's other methods would.
  if ((service & 0x8000) != 0) {
    const uint32_t code = answer.size() == 1 ? 0x30000u + answer[0] : 0x20000u + (uint32_t(service) & 0xFFFF);
    throw CallFailed("kaVDoService", code, "the gateway refused the service");
  }
}

void Block(Context& ctx, const std::string& action, const std::vector<std::string>& args, int64_t readAfter) {
  int64_t toRead = readAfter;
  std::vector<uint8_t> bytes;
  if (action == "write") {
    bytes = BytesToWrite(args);
    ctx.RequireYes("write " + std::to_string(bytes.size()) + " raw bytes to the line");
  } else {
    if (args.size() != 1) throw UsageError("block read takes the number of bytes");
    toRead = ParseNumber(args.front(), "N", 1, 4096);
  }
  tamrik_com* com = ctx.Connect().com();
  if (!bytes.empty()) {
    std::vector<int32_t> values = BytesToValues(bytes);
    int32_t count = int32_t(values.size()), error = 0;
    Check("kaVTestBlockWrite", tamrik_kaVTestBlockWrite(com, values.data(), &count, &error), error);
    ctx.result.Set("written", Json::Bytes(bytes));
  }
  if (toRead > 0) {
    std::vector<int32_t> values(size_t(toRead), 0);
    int32_t count = int32_t(toRead), error = 0;
    Check("kaVTestBlockRead", tamrik_kaVTestBlockRead(com, values.data(), &count, &error), error);
    ctx.result.Set("read", Json::Bytes(ValuesToBytes(values)));
  }
}

void EnterPrivileged(Context& ctx, const std::string& description) {
  ctx.RequireYes("enter privileged mode");
  tamrik_com* com = ctx.Connect().com();
  // On a link in polling mode the answer may come later: ask again, a bounded number of times.
  uint32_t status = 0;
  int32_t error = 0;
  for (int attempt = 0; attempt < 50; ++attempt) {
    error = 0;
    status = tamrik_kavEnterPrivilegedMode(com, description.c_str(), &error);
    if (uint32_t(error) != 0x10100) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  Check("kavEnterPrivilegedMode", status, error);
  ctx.result.Set("privileged", true);
  ctx.result.Set("description", description);
}

void Privileged(Context& ctx, const std::string& action, const std::string& description) {
  if (action == "enter") {
    EnterPrivileged(ctx, description);
    return;
  }
  tamrik_com* com = ctx.Connect().com();
  if (action == "channel") {
    int32_t channel = 0, error = 0;
    Check("kaVGetPrivilegedChannel", tamrik_kaVGetPrivilegedChannel(com, &channel, &error), error);
    ctx.result.Set("channel", channel);
    return;
  }
  ctx.result.Set("name", ReceiveText("kavGetPrivilegedName", 256, [&](char* text, int32_t* count, int32_t* error) {
                   return tamrik_kavGetPrivilegedName(com, text, count, error);
                 }));
}

// A command with an action word and free arguments after it.
struct ActionCommand {
  const char* name;
  const char* summary;
  std::vector<std::string> actions;
  const char* argsName;
  const char* argsHelp;
  void (*run)(Context&, const std::string&, const std::vector<std::string>&);
};

void PrivilegedAction(Context& ctx, const std::string& action, const std::vector<std::string>& args) {
  if (args.size() > 1) throw UsageError("privileged takes one DESCRIPTION; quote it when it has blanks");
  Privileged(ctx, action, args.empty() ? std::string() : args.front());
}

const ActionCommand kActionCommands[] = {
    {"monitor", "Service monitoring: reset, start, stop, first [BYTES], next [BYTES]",
     {"reset", "start", "stop", "first", "next"}, "BYTES", "Request bytes of first and next", Monitor},
    {"dnet", "DeviceNet: serial, tool, get BYTES, set BYTES (class, instance, attribute[, value])",
     {"serial", "tool", "get", "set"}, "BYTES", "Attribute address bytes, and for set the value bytes after them",
     DeviceNet},
    {"privileged", "Privileged mode: enter DESCRIPTION, channel, name", {"enter", "channel", "name"}, "DESCRIPTION",
     "How the host describes itself (enter)", PrivilegedAction},
};

// A command whose only arguments are bytes.
struct BytesCommand {
  const char* name;
  const char* summary;
  void (*run)(Context&, const std::vector<std::string>&);
};
const BytesCommand kBytesCommands[] = {
    {"outputs", "Read the output process image, or write BYTES and read it back", Outputs},
    {"params", "Read the module parameters, or write BYTES and read them back", Parameters},
};

void AddStreamCommand(CLI::App& app, Context& ctx) {
  auto* cmd = app.add_subcommand("stream", "Module stream data: sizes, position A B, write HEADER SEGLEN BYTES");
  cmd->require_subcommand(1);
  cmd->add_subcommand("sizes", "Read the list of stream data sizes")->callback([&ctx]() { ctx.run = StreamSizes; });
  auto* position = cmd->add_subcommand("position", "Set the stream position to the two bytes A B");
  auto a = std::make_shared<std::string>(), b = std::make_shared<std::string>();
  position->add_option("A", *a, "First byte")->required();
  position->add_option("B", *b, "Second byte")->required();
  position->callback([&ctx, a, b]() { ctx.run = [a, b](Context& c) { StreamPosition(c, *a, *b); }; });
  auto* write = cmd->add_subcommand("write", "Write BYTES in segments of SEGLEN bytes, each opened by HEADER");
  auto header = std::make_shared<std::string>(), segment = std::make_shared<std::string>();
  auto bytes = std::make_shared<std::vector<std::string>>();
  write->add_option("HEADER", *header, "Header byte of every segment")->required();
  write->add_option("SEGLEN", *segment, "Data bytes per segment, 1 to 19")->required();
  write->add_option("BYTES", *bytes, "1 to 127 hexadecimal data bytes")->required();
  write->callback([&ctx, header, segment, bytes]() {
    ctx.run = [header, segment, bytes](Context& c) { StreamWrite(c, *header, *segment, *bytes); };
  });
}

void AddRawCommands(CLI::App& app, Context& ctx) {
  auto* service = app.add_subcommand("service", "Send service CODE with BYTES and show the raw answer");
  auto code = std::make_shared<std::string>();
  auto args = std::make_shared<std::vector<std::string>>();
  auto capacity = std::make_shared<int64_t>(1024);
  service->add_option("CODE", *code, "Service code, e.g. 0x101 or 257 (0x10000 switches to polling mode)")->required();
  service->add_option("BYTES", *args, "Request data, hexadecimal bytes");
  service->add_option("--receive", *capacity, "Most answer bytes taken")->check(CLI::Range(int64_t(1), int64_t(65535)));
  service->callback([&ctx, code, args, capacity]() {
    ctx.run = [code, args, capacity](Context& c) { Service(c, *code, *args, *capacity); };
  });

  auto* block = app.add_subcommand("block", "Raw bytes on the line, no frame: write BYTES, read N");
  auto action = std::make_shared<std::string>();
  auto blockArgs = std::make_shared<std::vector<std::string>>();
  auto readAfter = std::make_shared<int64_t>(0);
  block->add_option("ACTION", *action, "write or read")->required()->check(CLI::IsMember({"write", "read"}));
  block->add_option("ARGS", *blockArgs, "write: hexadecimal bytes; read: number of bytes");
  block->add_option("--read", *readAfter, "After a write, read this many bytes")->check(CLI::Range(int64_t(0), int64_t(4096)));
  block->callback([&ctx, action, blockArgs, readAfter]() {
    ctx.run = [action, blockArgs, readAfter](Context& c) { Block(c, *action, *blockArgs, *readAfter); };
  });
}

}  // namespace

std::vector<uint8_t> ReadInputs(Context& ctx) {
  return ReadArray(ctx, "kaVGetProcessInData", tamrik_kaVGetProcessInData);
}

std::vector<uint8_t> ReadOutputs(Context& ctx) {
  return ReadArray(ctx, "kaVGetProcessOutData", tamrik_kaVGetProcessOutData);
}

std::vector<uint8_t> WriteOutputs(Context& ctx, const std::vector<uint8_t>& bytes) {
  return Exchange(ctx, "kaVSetProcessOutData", tamrik_kaVSetProcessOutData, bytes);
}

void AddDataCommands(CLI::App& app, Context& ctx) {
  app.add_subcommand("inputs", "Read the input process image")->callback([&ctx]() { ctx.run = Inputs; });
  for (const BytesCommand& command : kBytesCommands) {
    auto* cmd = app.add_subcommand(command.name, command.summary);
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("BYTES", *args, "Hexadecimal bytes: 01 FF, 01FF or 0x01,0xFF");
    cmd->callback([&ctx, args, run = command.run]() { ctx.run = [args, run](Context& c) { run(c, *args); }; });
  }
  app.add_subcommand("diag", "Read the diagnosis, split into the gateway's and each module's bytes")
      ->callback([&ctx]() { ctx.run = Diagnosis; });
  AddStreamCommand(app, ctx);
  for (const ActionCommand& command : kActionCommands) {
    auto* cmd = app.add_subcommand(command.name, command.summary);
    auto action = std::make_shared<std::string>();
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("ACTION", *action, "One of: " + CLI::detail::join(command.actions, ", "))
        ->required()
        ->check(CLI::IsMember(command.actions));
    cmd->add_option(command.argsName, *args, command.argsHelp);
    cmd->callback([&ctx, action, args, run = command.run]() {
      ctx.run = [action, args, run](Context& c) { run(c, *action, *args); };
    });
  }
  AddRawCommands(app, ctx);
}

}  // namespace tamrik::cli
