// Frames out of the driver's trace or out of plain hexadecimal bytes, decoded by the codec's
// own rules, for `tamrik decode`. The same facts drive the Wireshark dissector (WireShown.h and
// the service table), so a frame reads alike in both.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Tool.h"

namespace tamrik::cli::wire {

enum class Direction : uint8_t { Unknown, Sent, Received };

// What one piece of the input is: a frame (complete or cut short), or bytes that belong to no
// frame (the boot loader's raw dialogue, a raw block).
struct Piece {
  Direction direction = Direction::Unknown;
  std::vector<uint8_t> noise;  // bytes before the start byte
  std::vector<uint8_t> bytes;  // the frame from its start byte, or the bytes outside frames
  bool frame = false;          // bytes starts with a start byte
  bool complete = false;       // ... and holds the whole frame
  std::string method;          // the driver's method the trace was in, when known
  size_t line = 0;             // the trace line that completed it (0: not from a trace)
};

// Whether text is the driver's trace (it has the stream lines the driver writes with tracing
// on) rather than plain hexadecimal bytes.
bool LooksLikeTrace(const std::string& text);

// The pieces of a trace, sent and received bytes apart, in the order they completed.
std::vector<Piece> PiecesOfTrace(const std::string& text);

// The pieces of plain hexadecimal bytes ("AA 01 01", "0xAA,0x01", several lines).
std::vector<Piece> PiecesOfHex(const std::string& text);

// One piece as a JSON object: the frame's fields and its data decoded.
Json Describe(const Piece& piece);

// The object of Describe as one line of text.
std::string DescribeLine(const Json& piece);

}  // namespace tamrik::cli::wire
