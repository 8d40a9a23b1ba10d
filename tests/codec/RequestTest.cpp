// Request frames: check value, data rules per service code and the cases where no frame may
// be built.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "FrameBytes.h"
#include "protocol/Codec.h"

namespace tamrik::protocol {
namespace {

using testing::Bytes;
using testing::Frame;
using testing::Hex;

constexpr uint8_t kFill = 0xEE;

TEST(CheckValue, KnownValuesAndLiteralFrames) {
  const char* nine = "123456789";
  EXPECT_EQ(Crc16(reinterpret_cast<const uint8_t*>(nine), 9), 0x6F91);

  const Bytes literal[] = {
      {0xAA, 0x03, 0x00, 0x00, 0x00, 0x29, 0xB3},
      {0xAA, 0x06, 0x01, 0x01, 0x00, 0x02, 0x51, 0xFF},
      {0xAA, 0x13, 0x01, 0x02, 0x00, 0x34, 0x12, 0xE8, 0xE1},
      {0xAA, 0x03, 0x40, 0x02, 0x00, 0x11, 0x22, 0x36, 0x05},
  };
  for (const Bytes& f : literal) {
    EXPECT_TRUE(VerifyCheckValue(f.data(), f.size())) << Hex(f);
    Bytes recomputed = f;
    recomputed[recomputed.size() - 1] ^= 0xFF;
    ComputeCheckValue(recomputed.data(), recomputed.size());
    EXPECT_EQ(recomputed, f);
    Bytes corrupted = f;
    corrupted[5] ^= 0x01;
    EXPECT_FALSE(VerifyCheckValue(corrupted.data(), corrupted.size())) << Hex(f);
  }
}

// The check value bit by bit, as the polynomial defines it.
uint16_t BitwiseCrc(const uint8_t* data, size_t len, uint16_t crc) {
  for (size_t i = 0; i < len; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? uint16_t((crc >> 1) ^ 0x8408) : uint16_t(crc >> 1);
  }
  return crc;
}

TEST(CheckValue, EveryLengthAlignmentAndStartValueAgreesWithThePolynomial) {
  std::vector<uint8_t> bytes(8 + 300);
  uint32_t x = 0x9E3779B9;
  for (uint8_t& b : bytes) {
    x = x * 1664525u + 1013904223u;
    b = uint8_t(x >> 24);
  }
  for (size_t offset = 0; offset < 8; ++offset) {
    for (size_t len = 0; len <= 300; ++len) {
      for (uint16_t start : {uint16_t(0xFFFF), uint16_t(0), uint16_t(0x1D0F)}) {
        ASSERT_EQ(Crc16(bytes.data() + offset, len, start), BitwiseCrc(bytes.data() + offset, len, start))
            << "offset " << offset << ", length " << len << ", start " << start;
      }
    }
  }
  // A frame of any length verifies once its check value is written, and a flipped bit
  // anywhere in it is seen.
  for (size_t len : {size_t(7), size_t(8), size_t(9), size_t(15), size_t(16), size_t(17), size_t(263)}) {
    std::vector<uint8_t> frame(bytes.begin(), bytes.begin() + std::ptrdiff_t(len));
    ComputeCheckValue(frame.data(), frame.size());
    ASSERT_TRUE(VerifyCheckValue(frame.data(), frame.size())) << len;
    for (size_t at = 0; at < len; ++at) {
      frame[at] ^= uint8_t(1u << (at % 8));
      EXPECT_FALSE(VerifyCheckValue(frame.data(), frame.size())) << len << " at " << at;
      frame[at] ^= uint8_t(1u << (at % 8));
    }
  }
}

struct RequestCase {
  const char* name;
  uint32_t code;
  std::vector<int32_t> values;  // 32-bit values, or (raw rule) the bytes of `raw`
  Bytes raw;
  int32_t count;
  Bytes frame;  // expected; empty when no frame may be built
};

std::vector<RequestCase> RequestCases() {
  const Bytes noFrame;
  return {
      {"code 3, count and data ignored", 3, {}, {}, -5, {0xAA, 0x03, 0x00, 0x00, 0x00, 0x29, 0xB3}},
      {"code 0x106, one byte", 0x106, {0x00000102}, {}, 0, {0xAA, 0x06, 0x01, 0x01, 0x00, 0x02, 0x51, 0xFF}},
      {"code 0x113, 16-bit value", 0x113, {0x00001234}, {}, 0,
       {0xAA, 0x13, 0x01, 0x02, 0x00, 0x34, 0x12, 0xE8, 0xE1}},
      {"code 0x113 drops the upper bits", 0x113, {int32_t(0xFFFF1234)}, {}, 0,
       {0xAA, 0x13, 0x01, 0x02, 0x00, 0x34, 0x12, 0xE8, 0xE1}},
      {"code 5, byte per value", 5, {0x101, 0x2FF, 0x03}, {}, 3, Frame(0x0005, {0x01, 0xFF, 0x03})},
      {"code 5, count 0", 5, {}, {}, 0, Frame(0x0005, {})},
      {"code 0x912, count below the array", 0x912, {1, 2, 3, 4}, {}, 2, Frame(0x0912, {1, 2})},
      {"code 0x110, one byte of a negative value", 0x110, {-2}, {}, 0, Frame(0x0110, {0xFE})},
      {"code 0x121, raw bytes", 0x121, {}, {0x00, 0xAA, 0xFF}, 3, Frame(0x0121, {0x00, 0xAA, 0xFF})},
      {"raw request 0x10107", 0x10107, {}, {0x10, 0x20}, 2, Frame(0x0107, {0x10, 0x20})},
      {"raw request for code 0", 0x10000, {}, {0x7F}, 1, Frame(0x0000, {0x7F})},
      {"raw request keeps the low 16 bits", 0xABCD1234, {}, {}, 0, Frame(0x1234, {})},
      {"unassigned code 0", 0, {1}, {}, 1, noFrame},
      {"unassigned code 2", 2, {1}, {}, 1, noFrame},
      {"unassigned code 0x108", 0x108, {1}, {}, 1, noFrame},
      {"unassigned code 0xFFFF", 0xFFFF, {1}, {}, 1, noFrame},
      {"negative count, byte per value", 5, {1}, {}, -1, noFrame},
      {"count above 65535, byte per value", 7, {1}, {}, 65536, noFrame},
      {"negative count, raw", 0x10107, {}, {1}, -1, noFrame},
      {"count above 65535, raw", 0x121, {}, {1}, 65536, noFrame},
  };
}

TEST(BuildRequest, FramesPerRuleAndRejections) {
  for (const RequestCase& c : RequestCases()) {
    SCOPED_TRACE(c.name);
    const bool raw = RequestRuleFor(c.code) == RequestRule::RawBytes;
    const void* data = raw ? static_cast<const void*>(c.raw.data()) : c.values.data();
    std::vector<uint8_t> out(64, kFill);
    const size_t len = BuildRequest(c.code, data, &c.count, out.data(), out.size());
    ASSERT_EQ(len, c.frame.size());
    EXPECT_EQ(Hex(Bytes(out.begin(), out.begin() + len)), Hex(c.frame));
    for (size_t i = len; i < out.size(); ++i) ASSERT_EQ(out[i], kFill) << "byte " << i;
  }
}

TEST(BuildRequest, ReadsOnlyWhatTheRuleNeeds) {
  uint8_t out[16];
  // The empty rule reads neither data nor count.
  EXPECT_EQ(BuildRequest(3, nullptr, nullptr, out, sizeof out), 7u);
  EXPECT_EQ(Hex(Bytes(out, out + 7)), "AA 03 00 00 00 29 B3");
  EXPECT_EQ(BuildRequest(0x902, nullptr, nullptr, out, sizeof out), 7u);

  // One byte and 16-bit rules: a single value and no count suffice (ASan checks the reads).
  const int32_t* one = new int32_t(0x00000102);
  EXPECT_EQ(BuildRequest(0x106, one, nullptr, out, sizeof out), 8u);
  EXPECT_EQ(Hex(Bytes(out, out + 8)), "AA 06 01 01 00 02 51 FF");
  delete one;
  const int32_t* word = new int32_t(0x1234);
  EXPECT_EQ(BuildRequest(0x113, word, nullptr, out, sizeof out), 9u);
  EXPECT_EQ(Hex(Bytes(out, out + 9)), "AA 13 01 02 00 34 12 E8 E1");
  delete word;

  // Count 0 reads no data.
  const int32_t zero = 0;
  EXPECT_EQ(BuildRequest(5, nullptr, &zero, out, sizeof out), 7u);
  EXPECT_EQ(BuildRequest(0x10107, nullptr, &zero, out, sizeof out), 7u);

  // Null pointers the rule would read.
  const int32_t two = 2;
  EXPECT_EQ(BuildRequest(0x106, nullptr, nullptr, out, sizeof out), 0u);
  EXPECT_EQ(BuildRequest(0x113, nullptr, nullptr, out, sizeof out), 0u);
  EXPECT_EQ(BuildRequest(5, nullptr, &two, out, sizeof out), 0u);
  const int32_t values[2] = {1, 2};
  EXPECT_EQ(BuildRequest(5, values, nullptr, out, sizeof out), 0u);
  EXPECT_EQ(BuildRequest(0x121, values, nullptr, out, sizeof out), 0u);
  EXPECT_EQ(BuildRequest(3, nullptr, nullptr, nullptr, 64), 0u);
}

TEST(BuildRequest, CapacityIsRespected) {
  const int32_t values[3] = {0x101, 0x2FF, 0x03};
  const int32_t count = 3;
  const Bytes expected = Frame(0x0005, {0x01, 0xFF, 0x03});
  for (size_t capacity = 0; capacity <= expected.size() + 1; ++capacity) {
    std::vector<uint8_t> out(capacity + 4, kFill);
    const size_t len = BuildRequest(5, values, &count, out.data(), capacity);
    if (capacity < expected.size()) {
      EXPECT_EQ(len, 0u) << capacity;
    } else {
      ASSERT_EQ(len, expected.size()) << capacity;
      EXPECT_EQ(Bytes(out.begin(), out.begin() + len), expected);
    }
    for (size_t i = len == 0 ? capacity : len; i < out.size(); ++i) ASSERT_EQ(out[i], kFill);
  }
}

TEST(BuildRequest, LargestFrame) {
  std::vector<uint8_t> data(kMaxData);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7);
  std::vector<int32_t> values(kMaxData);
  for (size_t i = 0; i < values.size(); ++i) values[i] = int32_t(0x12345600 | data[i]);
  std::vector<uint8_t> out(kMaxFrame);
  const int32_t count = int32_t(kMaxData);

  for (uint32_t code : {0x10121u, 0x121u, 0x912u}) {
    const void* in = code == 0x912 ? static_cast<const void*>(values.data()) : data.data();
    ASSERT_EQ(BuildRequest(code, in, &count, out.data(), out.size()), kMaxFrame);
    EXPECT_EQ(out[3], 0xFF);
    EXPECT_EQ(out[4], 0xFF);
    EXPECT_EQ(std::memcmp(out.data() + kHeaderSize, data.data(), data.size()), 0);
    EXPECT_TRUE(VerifyCheckValue(out.data(), out.size()));
  }
  EXPECT_EQ(BuildRequest(0x121, data.data(), &count, out.data(), out.size() - 1), 0u);

  // One more byte would not fit the length field, however much room there is.
  data.resize(kMaxData + 1);
  values.resize(kMaxData + 1);
  out.assign(kMaxFrame + 16, 0xEE);
  const int32_t tooMany = int32_t(kMaxData + 1);
  EXPECT_EQ(BuildRequest(0x121, data.data(), &tooMany, out.data(), out.size()), 0u);
  EXPECT_EQ(BuildRequest(0x10121, data.data(), &tooMany, out.data(), out.size()), 0u);
  EXPECT_EQ(BuildRequest(0x912, values.data(), &tooMany, out.data(), out.size()), 0u);
  EXPECT_EQ(out[0], 0xEE);
}

// The request rule of every service code, typed from the table of codes by rule (decimal).
struct CodeRange {
  uint32_t first, last;
  RequestRule rule;
};
constexpr RequestRule E = RequestRule::Empty, O = RequestRule::OneByte, W = RequestRule::Word16,
                      B = RequestRule::BytePerValue, R = RequestRule::RawBytes;
constexpr CodeRange kRequestRules[] = {
    {1, 1, E},       {3, 3, E},       {4, 4, E},       {6, 6, E},       {8, 8, E},
    {13, 13, E},     {14, 14, E},     {15, 15, E},     {18, 18, E},     {19, 19, E},
    {21, 25, E},     {256, 261, E},   {263, 263, E},   {265, 268, E},   {271, 271, E},
    {274, 274, E},   {276, 276, E},   {290, 290, E},   {305, 306, E},   {2306, 2306, E},
    {2308, 2308, E}, {262, 262, O},   {272, 273, O},   {277, 277, O},   {275, 275, W},
    {5, 5, B},       {7, 7, B},       {16, 17, B},     {26, 27, B},     {288, 288, B},
    {304, 304, B},   {2322, 2323, B}, {289, 289, R},
};

TEST(RequestRuleFor, EveryCodeMapsToItsRule) {
  for (uint32_t code = 0; code < 0x10000; ++code) {
    RequestRule expected = RequestRule::Unassigned;
    for (const CodeRange& r : kRequestRules) {
      if (code >= r.first && code <= r.last) expected = r.rule;
    }
    ASSERT_EQ(RequestRuleFor(code), expected) << "code " << code;
  }
  for (uint32_t code : {0x10000u, 0x10001u, 0x10107u, 0x1FFFFu, 0x20000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(RequestRuleFor(code), RequestRule::RawBytes) << code;
    EXPECT_TRUE(IsRawRequest(code));
  }
  EXPECT_FALSE(IsRawRequest(0xFFFF));
}

}  // namespace
}  // namespace tamrik::protocol
