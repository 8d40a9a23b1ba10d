#include "SimFrame.h"

#include <algorithm>

#include "protocol/Codec.h"

namespace tamrik::sim {

namespace p = tamrik::protocol;

std::vector<uint8_t> BuildFrame(uint16_t code, std::span<const uint8_t> data) {
  const size_t n = std::min(data.size(), p::kMaxData);
  std::vector<uint8_t> frame(n + p::kFrameOverhead);
  frame[0] = p::kStartByte;
  frame[1] = uint8_t(code & 0xFF);
  frame[2] = uint8_t(code >> 8);
  frame[3] = uint8_t(n & 0xFF);
  frame[4] = uint8_t(n >> 8);
  std::copy_n(data.begin(), n, frame.begin() + p::kHeaderSize);
  p::ComputeCheckValue(frame.data(), frame.size());
  return frame;
}

std::optional<ParsedFrame> ParseFrame(std::span<const uint8_t> frame) {
  if (frame.size() < p::kFrameOverhead || frame[0] != p::kStartByte) return std::nullopt;
  const p::AnswerHeader h = p::ParseHeader(frame.data() + 1);
  if (h.FrameLength() != frame.size()) return std::nullopt;
  if (!p::VerifyCheckValue(frame.data(), frame.size())) return std::nullopt;
  ParsedFrame out;
  out.code = h.code;
  out.data.assign(frame.begin() + p::kHeaderSize, frame.end() - 2);
  out.raw.assign(frame.begin(), frame.end());
  return out;
}

void FrameParser::Feed(std::span<const uint8_t> bytes) {
  // Compact now and then so that a long-lived link does not grow its buffer without end.
  if (pos_ > 0 && (pos_ >= buffer_.size() || pos_ > 4096)) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + std::ptrdiff_t(pos_));
    pos_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

void FrameParser::SkipToStart() {
  while (pos_ < buffer_.size() && buffer_[pos_] != p::kStartByte) {
    ++pos_;
    ++skipped_;
  }
}

std::optional<FrameParser::Event> FrameParser::Next() {
  SkipToStart();
  const size_t avail = buffer_.size() - pos_;
  if (avail < p::kHeaderSize) return std::nullopt;
  const size_t len = p::ParseHeader(&buffer_[pos_ + 1]).FrameLength();
  if (avail < len) return std::nullopt;

  const std::span<const uint8_t> bytes(&buffer_[pos_], len);
  Event ev;
  if (auto parsed = ParseFrame(bytes)) {
    ev.frame = std::move(*parsed);
    pos_ += len;
  } else {
    ev.kind = Kind::BadCheckValue;
    ev.frame.code = p::ParseHeader(bytes.data() + 1).code;
    ev.frame.raw.assign(bytes.begin(), bytes.end());
    ++pos_;  // resynchronise from the byte after this start byte
  }
  return ev;
}

bool FrameParser::HasPartialFrame() const {
  for (size_t i = pos_; i < buffer_.size(); ++i)
    if (buffer_[i] == p::kStartByte) return true;
  return false;
}

bool FrameParser::DropStalledStart() {
  SkipToStart();
  if (pos_ >= buffer_.size()) return false;
  ++pos_;
  ++skipped_;
  return true;
}

void FrameParser::Reset() {
  buffer_.clear();
  pos_ = 0;
  skipped_ = 0;
}

}  // namespace tamrik::sim
