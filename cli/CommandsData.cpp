// Process data, parameters, diagnosis and stream data.
#include <algorithm>
#include <vector>

#include "Commands.h"

namespace tamrik::cli {
namespace {

// Room for an image at first; a larger one is asked for again with the room it needs.
constexpr size_t kImageRoom = 256;

std::vector<uint8_t> BytesToWrite(const Args& args) {
  const std::vector<uint8_t>& bytes = args.Bytes("BYTES");
  if (bytes.empty()) throw UsageError("no bytes to write");
  return bytes;
}

// The diagnosis bytes of each module, which follow the gateway's own at the end of the answer.
Json ModuleDiagnosis(const Json& modules, const std::vector<uint8_t>& bytes, size_t at) {
  Json rows = Json::array();
  for (const Json& module : modules) {
    const size_t length = module.at("diag_bytes").get<size_t>();
    const std::vector<uint8_t> own(bytes.begin() + long(at), bytes.begin() + long(at + length));
    rows.push_back({{"slot", module.at("slot")}, {"id", module.at("id")}, {"bytes", own}});
    at += length;
  }
  return rows;
}

}  // namespace

std::vector<uint8_t> ReadArray(Context& ctx, const char* method, ArrayCall call) {
  tamrik_com* com = ctx.Connect().com();
  return ValuesToBytes(ReceiveValues(method, kImageRoom, [&](int32_t* data, int32_t* count, int32_t* error) {
    return call(com, data, count, error);
  }));
}

std::vector<uint8_t> Exchange(Context& ctx, const char* method, ArrayCall call, const std::vector<uint8_t>& request) {
  std::vector<int32_t> data = BytesToValues(request);
  data.push_back(0);  // never a null array, also for an empty request
  int32_t count = int32_t(request.size()), error = 0;
  Check(method, call(ctx.Connect().com(), data.data(), &count, &error), error);
  data.resize(size_t(std::clamp<int32_t>(count, 0, int32_t(request.size()))));
  return ValuesToBytes(data);
}

std::vector<uint8_t> ReadInputs(Context& ctx) {
  return ReadArray(ctx, "kaVGetProcessInData", tamrik_kaVGetProcessInData);
}

std::vector<uint8_t> ReadOutputs(Context& ctx) {
  return ReadArray(ctx, "kaVGetProcessOutData", tamrik_kaVGetProcessOutData);
}

std::vector<uint8_t> WriteOutputs(Context& ctx, const std::vector<uint8_t>& bytes) {
  return Exchange(ctx, "kaVSetProcessOutData", tamrik_kaVSetProcessOutData, bytes);
}

void Inputs(Context& ctx, const Args&) {
  const std::vector<uint8_t> bytes = ReadInputs(ctx);
  ctx.result["count"] = bytes.size();
  ctx.result["inputs"] = bytes;
}

void Outputs(Context& ctx, const Args& args) {
  if (args.Has("BYTES")) {
    const std::vector<uint8_t> bytes = BytesToWrite(args);
    // The station's output image has a size of its own; more bytes than it holds would
    // land nowhere or somewhere unexpected.
    const size_t size = ReadOutputs(ctx).size();
    if (bytes.size() > size) {
      throw UsageError("the output image holds " + std::to_string(size) + " bytes; " + std::to_string(bytes.size()) +
                       " given, nothing was written");
    }
    WriteOutputs(ctx, bytes);
    ctx.result["written"] = bytes;
  }
  const std::vector<uint8_t> image = ReadOutputs(ctx);
  ctx.result["count"] = image.size();
  ctx.result["outputs"] = image;
}

void Parameters(Context& ctx, const Args& args) {
  if (args.Has("BYTES")) {
    const std::vector<uint8_t> bytes = BytesToWrite(args);
    Exchange(ctx, "kaVSetParameterData", tamrik_kaVSetParameterData, bytes);
    ctx.result["written"] = bytes;
  }
  const std::vector<uint8_t> image = ReadArray(ctx, "kaVGetParameterData", tamrik_kaVGetParameterData);
  ctx.result["count"] = image.size();
  ctx.result["parameters"] = image;
}

void Diagnosis(Context& ctx, const Args&) {
  const std::vector<uint8_t> bytes = ReadArray(ctx, "kaVGetDiagData", tamrik_kaVGetDiagData);
  ctx.result["count"] = bytes.size();
  ctx.result["diagnosis"] = bytes;
  // The answer holds the gateway's own bytes, then each module's, by the module's identifier.
  const Json modules = ReadModules(ctx);
  size_t moduleBytes = 0;
  for (const Json& module : modules) moduleBytes += module.at("diag_bytes").get<size_t>();
  if (moduleBytes > bytes.size()) return;  // a layout the module list does not explain
  const size_t at = bytes.size() - moduleBytes;
  ctx.result["gateway"] = std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(at));
  if (!modules.empty()) ctx.result["modules"] = ModuleDiagnosis(modules, bytes, at);
}

void StreamSizes(Context& ctx, const Args&) {
  const auto sizes = ReadArray(ctx, "kaVGetModuleStreamDataSizeList", tamrik_kaVGetModuleStreamDataSizeList);
  ctx.result["count"] = sizes.size();
  ctx.result["sizes"] = sizes;
}

void StreamPosition(Context& ctx, const Args& args) {
  const std::vector<uint8_t> position = {uint8_t(args.Number("A")), uint8_t(args.Number("B"))};
  int32_t data[16] = {position[0], position[1]};
  int32_t error = 0;
  Check("kaVSetModuleStreamDataPosition", tamrik_kaVSetModuleStreamDataPosition(ctx.Connect().com(), data, &error),
        error);
  ctx.result["position"] = position;
}

void StreamWrite(Context& ctx, const Args& args) {
  const std::vector<uint8_t>& data = args.Bytes("BYTES");
  if (data.empty() || data.size() > 127) throw UsageError("stream write takes 1 to 127 bytes");
  const int64_t segment = args.Number("SEGLEN");
  std::vector<uint8_t> values = {uint8_t(args.Number("HEADER")), uint8_t(segment)};
  values.insert(values.end(), data.begin(), data.end());
  Exchange(ctx, "kaVSetModuleStreamSegmentData", tamrik_kaVSetModuleStreamSegmentData, values);
  ctx.result["written"] = data;
  ctx.result["segments"] = (int64_t(data.size()) + segment - 1) / segment;
}

}  // namespace tamrik::cli
