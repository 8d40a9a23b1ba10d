#include "SimFrame.h"

#include <algorithm>

#include "protocol/Codec.h"

namespace tamrik::sim {

namespace p = tamrik::protocol;

std::vector<uint8_t> BuildFrame(uint16_t code, std::span<const uint8_t> data) {
  std::vector<uint8_t> frame;
  BuildFrame(code, data, &frame);
  return frame;
}

void BuildFrame(uint16_t code, std::span<const uint8_t> data, std::vector<uint8_t>* into) {
  const size_t n = std::min(data.size(), p::kMaxData);
  std::vector<uint8_t>& frame = *into;
  frame.resize(n + p::kFrameOverhead);
  frame[0] = p::kStartByte;
  frame[1] = uint8_t(code & 0xFF);
  frame[2] = uint8_t(code >> 8);
  frame[3] = uint8_t(n & 0xFF);
  frame[4] = uint8_t(n >> 8);
  std::copy_n(data.begin(), n, frame.begin() + p::kHeaderSize);
  p::ComputeCheckValue(frame.data(), frame.size());
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
  Event ev;
  if (!Next(&ev)) return std::nullopt;
  return ev;
}

bool FrameParser::Next(Event* ev) {
  SkipToStart();
  const size_t avail = buffer_.size() - pos_;
  if (avail < p::kHeaderSize) return false;
  const p::AnswerHeader header = p::ParseHeader(&buffer_[pos_ + 1]);
  const size_t len = header.FrameLength();
  if (avail < len) return false;

  const uint8_t* bytes = &buffer_[pos_];
  ev->frame.code = header.code;
  ev->frame.raw.assign(bytes, bytes + len);
  if (p::VerifyCheckValue(bytes, len)) {
    ev->kind = Kind::Frame;
    ev->frame.data.assign(bytes + p::kHeaderSize, bytes + len - 2);
    pos_ += len;
  } else {
    ev->kind = Kind::BadCheckValue;
    ev->frame.data.clear();
    ++pos_;  // resynchronise from the byte after this start byte
  }
  return true;
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
