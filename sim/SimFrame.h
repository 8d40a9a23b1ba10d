// Service frames as the simulated gateway sees them: building answer frames and finding
// request frames in a byte stream that may carry noise, split frames and damaged frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tamrik::sim {

// A complete frame: 0xAA, code, length, data, check value (low byte first everywhere).
// Data beyond 65535 bytes cannot be carried and are cut off.
std::vector<uint8_t> BuildFrame(uint16_t code, std::span<const uint8_t> data);
// The same into *frame, whose room is kept from one frame to the next.
void BuildFrame(uint16_t code, std::span<const uint8_t> data, std::vector<uint8_t>* frame);

// Code and data of a frame whose check value has been verified.
struct ParsedFrame {
  uint16_t code = 0;
  std::vector<uint8_t> data;
  std::vector<uint8_t> raw;  // the whole frame as received
};

// Reads the code and data out of a complete frame; nullopt when the bytes are not one
// well-formed frame with a correct check value.
std::optional<ParsedFrame> ParseFrame(std::span<const uint8_t> frame);

// Incremental frame finder for one byte stream. Bytes before a start byte are skipped; a
// frame whose check value is wrong is reported and the search goes on from the byte after
// its start byte, because that start byte may have been noise and the real frame may begin
// inside what looked like its data.
class FrameParser {
 public:
  enum class Kind { Frame, BadCheckValue };
  struct Event {
    Kind kind = Kind::Frame;
    ParsedFrame frame;  // for BadCheckValue only raw is filled
  };

  void Feed(std::span<const uint8_t> bytes);

  // The next complete frame or damaged frame, in stream order; nullopt when more bytes are
  // needed.
  std::optional<Event> Next();
  // The same into *event, whose buffers are kept from one frame to the next; false when
  // more bytes are needed.
  bool Next(Event* event);

  // True while the bytes after a start byte do not yet form a whole frame.
  bool HasPartialFrame() const;

  // A start byte whose frame never completes (noise that looked like a start byte, or a
  // corrupted length field) would make the parser deaf; the link calls this when the line
  // has been idle for a while with a partial frame pending. Drops that start byte and
  // searches again from the byte after it. Returns true when something was dropped.
  bool DropStalledStart();

  void Reset();

  // Bytes skipped while searching for a start byte, since construction or Reset.
  uint64_t SkippedBytes() const { return skipped_; }

 private:
  void SkipToStart();

  std::vector<uint8_t> buffer_;
  size_t pos_ = 0;  // start of unconsumed bytes in buffer_
  uint64_t skipped_ = 0;
};

}  // namespace tamrik::sim
