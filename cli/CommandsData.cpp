// Process data, parameters, diagnosis, watch, stream data, monitoring, DeviceNet, raw
// services, raw line blocks and privileged mode.
#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>
#include <vector>

#include "Tool.h"

namespace tamrik::cli {
namespace {

constexpr int32_t kMaxValues = 65536;

using ArrayCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);

std::vector<uint8_t> ReadArray(Context& ctx, const char* method, ArrayCall call, std::vector<int32_t> request = {}) {
  std::vector<int32_t> data(kMaxValues, 0);
  std::copy(request.begin(), request.end(), data.begin());
  int32_t count = int32_t(request.size()), error = 0;
  Check(method, call(ctx.Connect().com(), data.data(), &count, &error), error);
  return ValuesToBytes(data.data(), std::clamp(count, 0, kMaxValues));
}

// Reads an image, or writes BYTES and reads the image back.
void ReadOrWrite(Context& ctx, const std::vector<std::string>& args, const char* key, const char* readMethod,
                 ArrayCall read, const char* writeMethod, ArrayCall write) {
  if (!args.empty()) {
    const std::vector<uint8_t> bytes = ParseBytes(args);
    if (bytes.empty()) throw UsageError("no bytes to write");
    std::vector<int32_t> data(kMaxValues, 0);
    std::copy(bytes.begin(), bytes.end(), data.begin());
    int32_t count = int32_t(bytes.size()), error = 0;
    Check(writeMethod, write(ctx.Connect().com(), data.data(), &count, &error), error);
    ctx.result.Set("written", Json::Bytes(bytes));
  }
  const std::vector<uint8_t> image = ReadArray(ctx, readMethod, read);
  ctx.result.Set("count", int64_t(image.size()));
  ctx.result.Set(key, Json::Bytes(image));
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

volatile std::sig_atomic_t gInterrupted = 0;

void Watch(Context& ctx, int64_t count, int64_t intervalMs) {
  gInterrupted = 0;
  auto previousHandler = std::signal(SIGINT, [](int) { gInterrupted = 1; });
  Json samples = Json::Array();
  std::vector<uint8_t> previous;
  const auto start = std::chrono::steady_clock::now();
  int64_t changes = 0;
  for (int64_t n = 0; (count == 0 || n < count) && !gInterrupted; ++n) {
    if (n > 0) std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
    const std::vector<uint8_t> now = ReadInputs(ctx);
    const int64_t ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    Json changed = Json::Array();
    std::string text;
    char part[64];
    if (n == 0) {
      std::snprintf(part, sizeof part, "#%-3lld %6lld ms  ", static_cast<long long>(n) + 1, static_cast<long long>(ms));
      text = part + Json::Bytes(now).Text();
    } else {
      for (size_t i = 0; i < std::max(now.size(), previous.size()); ++i) {
        const int before = i < previous.size() ? previous[i] : -1;
        const int after = i < now.size() ? now[i] : -1;
        if (before == after) continue;
        Json change = Json::Object();
        change.Set("byte", int64_t(i));
        change.Set("from", before < 0 ? Json() : Json::Hex(uint32_t(before), 2));
        change.Set("to", after < 0 ? Json() : Json::Hex(uint32_t(after), 2));
        changed.Push(change);
        std::snprintf(part, sizeof part, "%s[%zu] %s->%s", text.empty() ? "" : ", ", i,
                      before < 0 ? "--" : Json::Hex(uint32_t(before), 2).Text().substr(2).c_str(),
                      after < 0 ? "--" : Json::Hex(uint32_t(after), 2).Text().substr(2).c_str());
        text += part;
      }
      changes += int64_t(changed.Size());
      std::snprintf(part, sizeof part, "#%-3lld %6lld ms  ", static_cast<long long>(n) + 1, static_cast<long long>(ms));
      text = part + (text.empty() ? std::string("no change") : text);
    }
    ctx.Say(text + "\n");
    Json sample = Json::Object();
    sample.Set("read", n + 1);
    sample.Set("ms", ms);
    sample.Set("inputs", Json::Bytes(now));
    if (n > 0) sample.Set("changes", changed);
    samples.Push(sample);
    previous = now;
  }
  std::signal(SIGINT, previousHandler);
  ctx.printed = true;
  ctx.result.Set("reads", int64_t(samples.Size()));
  ctx.result.Set("changes", changes);
  ctx.result.Set("samples", samples);
  ctx.Say(std::to_string(samples.Size()) + " reads, " + std::to_string(changes) + " bytes changed\n");
}

void Service(Context& ctx, const std::string& codeText, const std::vector<std::string>& args, int64_t capacity) {
  int32_t service = int32_t(ParseNumber(codeText, "CODE", 0, 0x10000));
  const std::vector<uint8_t> request = ParseBytes(args);
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
  const std::vector<uint8_t> answer(data.begin(), data.begin() + std::clamp<long>(receiveCount, 0, long(capacity)));
  ctx.result.Set("answer_code", Json::Hex(uint32_t(service) & 0xFFFF, 4));
  ctx.result.Set("received", Json::Bytes(answer));
  // The method reports the gateway's refusal in the answer code only; the tool reports it as
  // the driver's other methods would.
  if ((service & 0x8000) != 0) {
    const uint32_t code = answer.size() == 1 ? 0x30000u + answer[0] : 0x20000u + (uint32_t(service) & 0xFFFF);
    throw CallFailed("kaVDoService", code, ResultContext::Any, "the gateway refused the service");
  }
}

void Privileged(Context& ctx, const std::string& action, const std::string& description) {
  tamrik_com* com = ctx.Connect().com();
  int32_t error = 0;
  if (action == "enter") {
    // On a link in polling mode the answer may come later: ask again, a bounded number of times.
    uint32_t status = 0;
    for (int attempt = 0; attempt < 50; ++attempt) {
      error = 0;
      status = tamrik_kavEnterPrivilegedMode(com, description.c_str(), &error);
      if (uint32_t(error) != 0x10100) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    Check("kavEnterPrivilegedMode", status, error);
    ctx.result.Set("privileged", true);
    ctx.result.Set("description", description);
  } else if (action == "channel") {
    int32_t channel = 0;
    Check("kaVGetPrivilegedChannel", tamrik_kaVGetPrivilegedChannel(com, &channel, &error), error);
    ctx.result.Set("channel", channel);
  } else {
    char name[256] = {};
    int32_t size = 0;
    Check("kavGetPrivilegedName", tamrik_kavGetPrivilegedName(com, name, &size, &error), error);
    ctx.result.Set("name", std::string(name, size_t(std::clamp(size, 0, 200))));
  }
}

}  // namespace

std::vector<uint8_t> ReadInputs(Context& ctx) {
  return ReadArray(ctx, "kaVGetProcessInData", tamrik_kaVGetProcessInData);
}

std::vector<uint8_t> ReadOutputs(Context& ctx) {
  return ReadArray(ctx, "kaVGetProcessOutData", tamrik_kaVGetProcessOutData);
}

std::vector<uint8_t> WriteOutputs(Context& ctx, const std::vector<uint8_t>& bytes) {
  std::vector<int32_t> data(kMaxValues, 0);
  std::copy(bytes.begin(), bytes.end(), data.begin());
  int32_t count = int32_t(bytes.size()), error = 0;
  Check("kaVSetProcessOutData", tamrik_kaVSetProcessOutData(ctx.Connect().com(), data.data(), &count, &error), error);
  return ValuesToBytes(data.data(), std::clamp(count, 0, kMaxValues));
}

void AddDataCommands(CLI::App& app, Context& ctx) {
  app.add_subcommand("inputs", "Read the input process image")->callback([&ctx]() {
    ctx.run = [](Context& c) {
      const std::vector<uint8_t> bytes = ReadInputs(c);
      c.result.Set("count", int64_t(bytes.size()));
      c.result.Set("inputs", Json::Bytes(bytes));
    };
  });
  {
    auto* cmd = app.add_subcommand("outputs", "Read the output process image, or write BYTES and read it back");
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("BYTES", *args, "Hexadecimal bytes: 01 FF, 01FF or 0x01,0xFF");
    cmd->callback([&ctx, args]() {
      ctx.run = [args](Context& c) {
        ReadOrWrite(c, *args, "outputs", "kaVGetProcessOutData", tamrik_kaVGetProcessOutData, "kaVSetProcessOutData",
                    tamrik_kaVSetProcessOutData);
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("params", "Read the module parameters, or write BYTES and read them back");
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("BYTES", *args, "Hexadecimal bytes");
    cmd->callback([&ctx, args]() {
      ctx.run = [args](Context& c) {
        ReadOrWrite(c, *args, "parameters", "kaVGetParameterData", tamrik_kaVGetParameterData, "kaVSetParameterData",
                    tamrik_kaVSetParameterData);
      };
    });
  }
  app.add_subcommand("diag", "Read the diagnosis, split into the gateway's and each module's bytes")
      ->callback([&ctx]() { ctx.run = Diagnosis; });
  {
    auto* cmd = app.add_subcommand("watch", "Poll the inputs and show the bytes that changed");
    auto count = std::make_shared<int64_t>(10);
    auto interval = std::make_shared<int64_t>(500);
    cmd->add_option("-n,--count", *count, "Number of reads, 0 until Ctrl-C")->check(CLI::Range(int64_t(0), int64_t(1000000)));
    cmd->add_option("-i,--interval", *interval, "Milliseconds between reads")->check(CLI::Range(int64_t(0), int64_t(3600000)));
    cmd->callback([&ctx, count, interval]() {
      ctx.run = [count, interval](Context& c) { Watch(c, *count, *interval); };
    });
  }
  {
    auto* cmd = app.add_subcommand("stream", "Module stream data: sizes, position A B, write HEADER SEGLEN BYTES");
    cmd->require_subcommand(1);
    cmd->add_subcommand("sizes", "Read the list of stream data sizes")->callback([&ctx]() {
      ctx.run = [](Context& c) {
        const auto sizes = ReadArray(c, "kaVGetModuleStreamDataSizeList", tamrik_kaVGetModuleStreamDataSizeList);
        Json list = Json::Array();
        for (uint8_t s : sizes) list.Push(int(s));
        c.result.Set("count", int64_t(sizes.size()));
        c.result.Set("sizes", list);
      };
    });
    auto* position = cmd->add_subcommand("position", "Set the stream position to the two bytes A B");
    auto a = std::make_shared<std::string>(), b = std::make_shared<std::string>();
    position->add_option("A", *a, "First byte")->required();
    position->add_option("B", *b, "Second byte")->required();
    position->callback([&ctx, a, b]() {
      ctx.run = [a, b](Context& c) {
        int32_t data[16] = {int32_t(ParseNumber(*a, "A", 0, 255)), int32_t(ParseNumber(*b, "B", 0, 255))};
        int32_t error = 0;
        Check("kaVSetModuleStreamDataPosition", tamrik_kaVSetModuleStreamDataPosition(c.Connect().com(), data, &error),
              error);
        c.result.Set("position", Json::Bytes({uint8_t(ParseNumber(*a, "A", 0, 255)), uint8_t(ParseNumber(*b, "B", 0, 255))}));
      };
    });
    auto* write = cmd->add_subcommand("write", "Write BYTES in segments of SEGLEN bytes, each opened by HEADER");
    auto header = std::make_shared<std::string>(), segment = std::make_shared<std::string>();
    auto bytes = std::make_shared<std::vector<std::string>>();
    write->add_option("HEADER", *header, "Header byte of every segment")->required();
    write->add_option("SEGLEN", *segment, "Data bytes per segment, 1 to 19")->required();
    write->add_option("BYTES", *bytes, "1 to 127 hexadecimal data bytes")->required();
    write->callback([&ctx, header, segment, bytes]() {
      ctx.run = [header, segment, bytes](Context& c) {
        const std::vector<uint8_t> data = ParseBytes(*bytes);
        if (data.empty() || data.size() > 127) throw UsageError("stream write takes 1 to 127 bytes");
        std::vector<int32_t> values = {int32_t(ParseNumber(*header, "HEADER", 0, 255)),
                                       int32_t(ParseNumber(*segment, "SEGLEN", 1, 19))};
        values.insert(values.end(), data.begin(), data.end());
        int32_t count = int32_t(values.size()), error = 0;
        Check("kaVSetModuleStreamSegmentData",
              tamrik_kaVSetModuleStreamSegmentData(c.Connect().com(), values.data(), &count, &error), error);
        const int64_t seg = ParseNumber(*segment, "SEGLEN", 1, 19);
        c.result.Set("written", Json::Bytes(data));
        c.result.Set("segments", (int64_t(data.size()) + seg - 1) / seg);
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("monitor", "Service monitoring: reset, start, stop, first [BYTES], next [BYTES]");
    auto action = std::make_shared<std::string>();
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("ACTION", *action, "reset, start, stop, first or next")
        ->required()
        ->check(CLI::IsMember({"reset", "start", "stop", "first", "next"}));
    cmd->add_option("BYTES", *args, "Request bytes of first and next");
    cmd->callback([&ctx, action, args]() {
      ctx.run = [action, args](Context& c) {
        using Control = uint32_t (*)(tamrik_com*, int32_t*);
        const std::string& a = *action;
        if (a == "reset" || a == "start" || a == "stop") {
          const char* method = a == "reset" ? "kaVSrvMbResetMonitoring"
                               : a == "start" ? "kaVSrvMbStartMonitoring"
                                              : "kaVSrvMbStopMonitoring";
          Control call = a == "reset" ? tamrik_kaVSrvMbResetMonitoring
                         : a == "start" ? tamrik_kaVSrvMbStartMonitoring
                                        : tamrik_kaVSrvMbStopMonitoring;
          int32_t error = 0;
          Check(method, call(c.Connect().com(), &error), error);
          c.result.Set("monitoring", a == "reset" ? "reset" : a == "start" ? "started" : "stopped");
          return;
        }
        const auto request = ParseBytes(*args);
        const auto frame = a == "first"
                               ? ReadArray(c, "kaVSrvGetFirstDataFrame", tamrik_kaVSrvGetFirstDataFrame, BytesToValues(request))
                               : ReadArray(c, "kaVSrvGetNextDataFrame", tamrik_kaVSrvGetNextDataFrame, BytesToValues(request));
        c.result.Set("count", int64_t(frame.size()));
        c.result.Set("frame", Json::Bytes(frame));
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("dnet", "DeviceNet: serial, tool, get BYTES, set BYTES (class, instance, attribute[, value])");
    auto action = std::make_shared<std::string>();
    auto args = std::make_shared<std::vector<std::string>>();
    cmd->add_option("ACTION", *action, "serial, tool, get or set")
        ->required()
        ->check(CLI::IsMember({"serial", "tool", "get", "set"}));
    cmd->add_option("BYTES", *args, "Attribute address bytes, and for set the value bytes after them");
    cmd->callback([&ctx, action, args]() {
      ctx.run = [action, args](Context& c) {
        int32_t error = 0;
        if (*action == "serial") {
          int32_t serial = 0;
          Check("kaVSrvDNetGetEEPDNetSerialNumber",
                tamrik_kaVSrvDNetGetEEPDNetSerialNumber(c.Connect().com(), &serial, &error), error);
          c.result.Set("serial_number", Json::Hex(uint32_t(serial), 8));
        } else if (*action == "tool") {
          char name[256] = {};
          int32_t size = 0;
          Check("kaVSrvDNetGetEEPToolIdent", tamrik_kaVSrvDNetGetEEPToolIdent(c.Connect().com(), name, &size, &error),
                error);
          c.result.Set("tool_ident", std::string(name, size_t(std::clamp(size, 0, 200))));
        } else {
          const auto request = ParseBytes(*args);
          if (request.empty()) throw UsageError("dnet " + *action + " needs the attribute address bytes");
          const bool get = *action == "get";
          const auto answer =
              get ? ReadArray(c, "kaVSrvDNetGetClassInstAttr", tamrik_kaVSrvDNetGetClassInstAttr, BytesToValues(request))
                  : ReadArray(c, "kaVSrvDNetSetClassInstAttr", tamrik_kaVSrvDNetSetClassInstAttr, BytesToValues(request));
          c.result.Set("request", Json::Bytes(request));
          c.result.Set("answer", Json::Bytes(answer));
        }
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("service", "Send service CODE with BYTES and show the raw answer");
    auto code = std::make_shared<std::string>();
    auto args = std::make_shared<std::vector<std::string>>();
    auto capacity = std::make_shared<int64_t>(1024);
    cmd->add_option("CODE", *code, "Service code, e.g. 0x101 or 257 (0x10000 switches to polling mode)")->required();
    cmd->add_option("BYTES", *args, "Request data, hexadecimal bytes");
    cmd->add_option("--receive", *capacity, "Most answer bytes taken")->check(CLI::Range(int64_t(1), int64_t(65535)));
    cmd->callback([&ctx, code, args, capacity]() {
      ctx.run = [code, args, capacity](Context& c) { Service(c, *code, *args, *capacity); };
    });
  }
  {
    auto* cmd = app.add_subcommand("block", "Raw bytes on the line, no frame: write BYTES, read N");
    auto action = std::make_shared<std::string>();
    auto args = std::make_shared<std::vector<std::string>>();
    auto readAfter = std::make_shared<int64_t>(0);
    cmd->add_option("ACTION", *action, "write or read")->required()->check(CLI::IsMember({"write", "read"}));
    cmd->add_option("ARGS", *args, "write: hexadecimal bytes; read: number of bytes");
    cmd->add_option("--read", *readAfter, "After a write, read this many bytes")->check(CLI::Range(int64_t(0), int64_t(4096)));
    cmd->callback([&ctx, action, args, readAfter]() {
      ctx.run = [action, args, readAfter](Context& c) {
        tamrik_com* com = c.Connect().com();
        int64_t toRead = *readAfter;
        if (*action == "write") {
          const auto bytes = ParseBytes(*args);
          if (bytes.empty()) throw UsageError("no bytes to write");
          std::vector<int32_t> values = BytesToValues(bytes);
          int32_t count = int32_t(values.size()), error = 0;
          Check("kaVTestBlockWrite", tamrik_kaVTestBlockWrite(com, values.data(), &count, &error), error);
          c.result.Set("written", Json::Bytes(bytes));
        } else {
          if (args->size() != 1) throw UsageError("block read takes the number of bytes");
          toRead = ParseNumber(args->front(), "N", 1, 4096);
        }
        if (toRead > 0) {
          std::vector<int32_t> values(size_t(toRead), 0);
          int32_t count = int32_t(toRead), error = 0;
          Check("kaVTestBlockRead", tamrik_kaVTestBlockRead(com, values.data(), &count, &error), error);
          c.result.Set("read", Json::Bytes(ValuesToBytes(values.data(), int32_t(toRead))));
        }
      };
    });
  }
  {
    auto* cmd = app.add_subcommand("privileged", "Privileged mode: enter DESCRIPTION, channel, name");
    auto action = std::make_shared<std::string>();
    auto description = std::make_shared<std::string>();
    cmd->add_option("ACTION", *action, "enter, channel or name")
        ->required()
        ->check(CLI::IsMember({"enter", "channel", "name"}));
    cmd->add_option("DESCRIPTION", *description, "How the host describes itself (enter)");
    cmd->callback([&ctx, action, description]() {
      ctx.run = [action, description](Context& c) { Privileged(c, *action, *description); };
    });
  }
}

}  // namespace tamrik::cli
