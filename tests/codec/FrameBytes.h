// Small helpers shared by the codec tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/Codec.h"

namespace tamrik::protocol::testing {

using Bytes = std::vector<uint8_t>;

// A frame with code and data whose check value the codec computes; used only where no literal
// frame is known.
inline Bytes Frame(uint16_t code, const Bytes& data) {
  Bytes f(data.size() + kFrameOverhead);
  f[0] = kStartByte;
  f[1] = uint8_t(code);
  f[2] = uint8_t(code >> 8);
  f[3] = uint8_t(data.size());
  f[4] = uint8_t(data.size() >> 8);
  for (size_t i = 0; i < data.size(); ++i) f[kHeaderSize + i] = data[i];
  ComputeCheckValue(f.data(), f.size());
  return f;
}

inline std::string Hex(const Bytes& bytes) {
  static const char* digits = "0123456789ABCDEF";
  std::string s;
  for (uint8_t b : bytes) {
    if (!s.empty()) s += ' ';
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

}  // namespace tamrik::protocol::testing
