// CRC-16 with the reflected polynomial 0x8408 and the initial value 0xFFFF, no final
// exclusive-or. A table of 256 entries makes it one lookup per byte.
#include <array>

#include "protocol/Codec.h"

namespace tamrik::protocol {
namespace {

constexpr std::array<uint16_t, 256> MakeTable() {
  std::array<uint16_t, 256> table{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint16_t crc = uint16_t(byte);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? uint16_t((crc >> 1) ^ 0x8408) : uint16_t(crc >> 1);
    table[byte] = crc;
  }
  return table;
}

constexpr std::array<uint16_t, 256> kTable = MakeTable();

}  // namespace

uint16_t Crc16(const uint8_t* data, size_t len, uint16_t crc) {
  for (size_t i = 0; i < len; ++i) crc = uint16_t((crc >> 8) ^ kTable[(crc ^ data[i]) & 0xFF]);
  return crc;
}

void ComputeCheckValue(uint8_t* frame, size_t len) {
  const uint16_t crc = Crc16(frame, len - 2);
  frame[len - 2] = uint8_t(crc & 0xFF);
  frame[len - 1] = uint8_t(crc >> 8);
}

bool VerifyCheckValue(const uint8_t* frame, size_t len) { return Crc16(frame, len) == 0; }

}  // namespace tamrik::protocol
