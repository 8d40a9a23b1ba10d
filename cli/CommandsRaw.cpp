// Service monitoring, DeviceNet, raw services, raw line blocks and privileged mode.
#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "Commands.h"

namespace tamrik::cli {
namespace {

void DeviceNetAttribute(Context& ctx, const std::string& action, const std::vector<uint8_t>& request) {
  if (request.empty()) throw UsageError("dnet " + action + " needs the attribute address bytes");
  const auto answer = action == "get"
                          ? Exchange(ctx, "kaVSrvDNetGetClassInstAttr", tamrik_kaVSrvDNetGetClassInstAttr, request)
                          : Exchange(ctx, "kaVSrvDNetSetClassInstAttr", tamrik_kaVSrvDNetSetClassInstAttr, request);
  ctx.result["request"] = request;
  ctx.result["answer"] = answer;
}

// The answer of kaVDoService into the result; a refusal ends the command as a failure.
void ServiceAnswer(Context& ctx, int32_t service, std::vector<uint8_t> data, int64_t received, int64_t capacity) {
  data.resize(size_t(std::clamp<int64_t>(received, 0, capacity)));
  ctx.result["answer_code"] = uint32_t(service) & 0xFFFF;
  ctx.result["count"] = data.size();
  ctx.result["received"] = data;
  // The method reports the gateway's refusal in the answer code only; the tool reports it as
  // the driver's other methods would.
  if ((service & 0x8000) != 0) {
    const uint32_t code = data.size() == 1 ? 0x30000u + data[0] : 0x20000u + (uint32_t(service) & 0xFFFF);
    throw CallFailed("kaVDoService", code, "the gateway refused the service");
  }
}

void EnterPrivileged(Context& ctx, const std::string& description) {
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
  ctx.result["privileged"] = true;
  ctx.result["description"] = description;
}

}  // namespace

void Monitor(Context& ctx, const Args& args) {
  struct Step {
    const char* action;
    const char* method;
    uint32_t (*call)(tamrik_com*, int32_t*);
    const char* done;
  };
  static constexpr Step kSteps[] = {
      {"reset", "kaVSrvMbResetMonitoring", tamrik_kaVSrvMbResetMonitoring, "reset"},
      {"start", "kaVSrvMbStartMonitoring", tamrik_kaVSrvMbStartMonitoring, "started"},
      {"stop", "kaVSrvMbStopMonitoring", tamrik_kaVSrvMbStopMonitoring, "stopped"},
  };
  const std::string action = args.Word("ACTION");
  for (const Step& step : kSteps) {
    if (action != step.action) continue;
    int32_t error = 0;
    Check(step.method, step.call(ctx.Connect().com(), &error), error);
    ctx.result["monitoring"] = step.done;
    return;
  }
  const std::vector<uint8_t>& request = args.Bytes("BYTES");
  const auto frame = action == "first"
                         ? Exchange(ctx, "kaVSrvGetFirstDataFrame", tamrik_kaVSrvGetFirstDataFrame, request)
                         : Exchange(ctx, "kaVSrvGetNextDataFrame", tamrik_kaVSrvGetNextDataFrame, request);
  ctx.result["count"] = frame.size();
  ctx.result["frame"] = frame;
}

void DeviceNet(Context& ctx, const Args& args) {
  const std::string action = args.Word("ACTION");
  if (action == "set" || action == "get") {
    DeviceNetAttribute(ctx, action, args.Bytes("BYTES"));
    return;
  }
  tamrik_com* com = ctx.Connect().com();
  if (action == "serial") {
    int32_t serial = 0, error = 0;
    Check("kaVSrvDNetGetEEPDNetSerialNumber", tamrik_kaVSrvDNetGetEEPDNetSerialNumber(com, &serial, &error), error);
    ctx.result["serial_number"] = uint32_t(serial);
    return;
  }
  ctx.result["tool_ident"] =
      ReceiveText("kaVSrvDNetGetEEPToolIdent", 256, [&](char* text, int32_t* count, int32_t* error) {
        return tamrik_kaVSrvDNetGetEEPToolIdent(com, text, count, error);
      });
}

void Service(Context& ctx, const Args& args) {
  const int32_t asked = int32_t(args.Number("CODE"));
  const int64_t capacity = args.Number("--receive");
  const std::vector<uint8_t>& request = args.Bytes("BYTES");
  std::vector<uint8_t> data(size_t(std::max<int64_t>(capacity, int64_t(request.size()))) + 1, 0);
  std::copy(request.begin(), request.end(), data.begin());
  int32_t service = asked, sendCount = int32_t(request.size()), receiveCount = int32_t(capacity), error = 0;
  Check("kaVDoService",
        tamrik_kaVDoService(ctx.Connect().com(), &service, data.data(), &sendCount, &receiveCount, &error), error);
  ctx.result["service"] = asked;
  ctx.result["sent"] = request;
  if (asked == 0x10000) {
    ctx.result["polling"] = true;
    ctx.result["answer_code"] = service;
    return;
  }
  ServiceAnswer(ctx, service, std::move(data), receiveCount, capacity);
}

void Block(Context& ctx, const Args& args) {
  const bool write = args.Word("ACTION") == "write";
  const std::vector<std::string>& words = args.Words("ARGS");
  if (!write && words.size() != 1) throw UsageError("block read takes the number of bytes");
  const std::vector<uint8_t> bytes = write ? ParseBytes(words) : std::vector<uint8_t>();
  if (write && bytes.empty()) throw UsageError("no bytes to write");
  const int64_t toRead = write ? args.Number("--read") : ParseNumber(words.front(), "N", 1, 4096);
  tamrik_com* com = ctx.Connect().com();
  if (write) {
    std::vector<int32_t> values = BytesToValues(bytes);
    int32_t count = int32_t(values.size()), error = 0;
    Check("kaVTestBlockWrite", tamrik_kaVTestBlockWrite(com, values.data(), &count, &error), error);
    ctx.result["written"] = bytes;
  }
  if (toRead > 0) {
    std::vector<int32_t> values(size_t(toRead), 0);
    int32_t count = int32_t(toRead), error = 0;
    Check("kaVTestBlockRead", tamrik_kaVTestBlockRead(com, values.data(), &count, &error), error);
    ctx.result["read"] = ValuesToBytes(values);
  }
}

void Privileged(Context& ctx, const Args& args) {
  const std::vector<std::string>& words = args.Words("DESCRIPTION");
  if (words.size() > 1) throw UsageError("privileged takes one DESCRIPTION; quote it when it has blanks");
  const std::string action = args.Word("ACTION");
  if (action == "enter") {
    EnterPrivileged(ctx, args.Word("DESCRIPTION"));
    return;
  }
  tamrik_com* com = ctx.Connect().com();
  if (action == "channel") {
    int32_t channel = 0, error = 0;
    Check("kaVGetPrivilegedChannel", tamrik_kaVGetPrivilegedChannel(com, &channel, &error), error);
    ctx.result["channel"] = channel;
    return;
  }
  ctx.result["name"] = ReceiveText("kavGetPrivilegedName", 256, [&](char* text, int32_t* count, int32_t* error) {
    return tamrik_kavGetPrivilegedName(com, text, count, error);
  });
}

}  // namespace tamrik::cli
