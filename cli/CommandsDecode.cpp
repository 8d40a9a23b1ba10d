// decode: the frames of a trace someone sent, or of hexadecimal bytes, one line a frame.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>

#include "Commands.h"
#include "WireDecode.h"

namespace tamrik::cli {
namespace {

std::string ReadInput(const std::string& file) {
  if (file.empty() || file == "-") return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  std::ifstream in(file, std::ios::binary);
  if (!in) throw UsageError("cannot read " + file);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

void Decode(Context& ctx, const Args& args) {
  const std::string text = ReadInput(args.Word("FILE"));
  const bool trace = wire::LooksLikeTrace(text);
  std::vector<wire::Piece> pieces;
  try {
    pieces = trace ? wire::PiecesOfTrace(text) : wire::PiecesOfHex(text);
  } catch (const UsageError& e) {
    throw UsageError(std::string("neither the driver's trace nor hexadecimal bytes: ") + e.what());
  }
  if (pieces.empty()) throw UsageError(trace ? "the trace holds no transfers" : "no bytes to decode");
  Json frames = Json::array();
  size_t bad = 0;
  for (const wire::Piece& piece : pieces) {
    Json frame = {{"index", frames.size() + 1}};
    frame.update(wire::Describe(piece));
    if (frame.value("check_value_good", true) == false) ++bad;
    if (!ctx.json) std::printf("%s\n", wire::DescribeLine(frame).c_str());
    frames.push_back(std::move(frame));
  }
  ctx.printed = true;
  ctx.result["input"] = trace ? "trace" : "hex";
  ctx.result["count"] = frames.size();
  ctx.result["bad_check_values"] = bad;
  ctx.result["frames"] = frames;
}

}  // namespace tamrik::cli
