// Answer decoding: every rule, refusals, raw requests, the error list and the bounds of the
// caller's buffer.
#include <gtest/gtest.h>

#include <vector>

#include "FrameBytes.h"
#include "ResultCodes.h"
#include "protocol/Codec.h"

namespace tamrik::protocol {
namespace {

using testing::Bytes;
using testing::Frame;
using testing::Hex;

constexpr int32_t kGuard = 0x5A5A5A5A;
constexpr int32_t kFree = -1;  // a value the decoder must leave alone
constexpr int32_t kPreset = int32_t(0xAABBCCDD);

std::vector<int32_t> Free(size_t n) { return std::vector<int32_t>(n, kFree); }

struct AnswerCase {
  const char* name;
  uint32_t request;
  Bytes frame;
  std::vector<int32_t> before;  // the caller's buffer; its size is the capacity
  uint32_t result;
  int32_t count;
  std::vector<int32_t> after;  // the whole buffer afterwards
};

// Error-list data with two entries: 6 bytes (1000 ms) and 8 bytes (10000 ms, two more bytes).
const Bytes kTwoEntries = {0x06, 0x11, 0xE8, 0x03, 0x00, 0x00, 0x08, 0x22,
                           0x10, 0x27, 0x00, 0x00, 0xAA, 0xBB};

std::vector<AnswerCase> AnswerCases() {
  const Bytes process = {0xAA, 0x03, 0x40, 0x02, 0x00, 0x11, 0x22, 0x36, 0x05};
  const Bytes oddWords = Frame(0x4114, {0x01, 0x00, 0x02});
  const int32_t oddUpper = oddWords[5 + 3];  // the check value's low byte
  return {
      // Byte per value.
      {"process image", 3, process, Free(4), 0, 2, {0x11, 0x22, kFree, kFree}},
      {"byte per value ignores the request code", 0x106, process, Free(2), 0, 2, {0x11, 0x22}},
      {"byte per value truncated", 3, Frame(0x4913, {1, 2, 3, 4, 5}), Free(3), 0, 3, {1, 2, 3}},
      {"byte per value, no room", 3, Frame(0x4003, {1}), {}, 0, 0, {}},
      {"byte per value zero-extends", 3, Frame(0x4120, {0xFF, 0x80}), Free(2), 0, 2, {0xFF, 0x80}},
      // Packed.
      {"packed with a remainder", 1, Frame(0x4001, {1, 2, 3, 4, 5, 6, 7}), Free(3), 0, 1,
       {0x04030201, int32_t(0xFF070605), kFree}},
      {"packed truncated", 1, Frame(0x4131, {1, 2, 3, 4, 5, 6, 7, 8, 9}), Free(2), 0, 2,
       {0x04030201, 0x08070605}},
      {"packed, no room", 1, Frame(0x410B, {1, 2, 3, 4}), {}, 0, 0, {}},
      // One, two and four bytes keep what they do not own.
      {"one byte", 0x105, Frame(0x4105, {0x7F}), {kPreset, kFree}, 0, 1, {int32_t(0xAABBCC7F), kFree}},
      {"two bytes", 0x101, Frame(0x4101, {0x02, 0x01}), {kPreset}, 0, 1, {int32_t(0xAABB0102)}},
      {"two bytes, 0x4112", 0x112, Frame(0x4112, {0xFF, 0xFF}), {0}, 0, 1, {0xFFFF}},
      {"four bytes", 0x902, Frame(0x4902, {0x78, 0x56, 0x34, 0x12}), {kPreset}, 0, 1, {0x12345678}},
      {"one byte, no room", 0x105, Frame(0x4105, {0x7F}), {}, 0, 0, {}},
      {"one byte, no data", 0x105, Frame(0x4105, {}), {kPreset}, 0, 0, {kPreset}},
      {"two bytes, one data byte", 0x101, Frame(0x4103, {0x02}), {kPreset}, 0, 0, {kPreset}},
      {"four bytes, three data bytes", 0x902, Frame(0x4902, {1, 2, 3}), {kPreset}, 0, 0, {kPreset}},
      // 16-bit words; the count is in bytes.
      {"words", 0x114, Frame(0x4114, {0x01, 0x00, 0x02, 0x00, 0x03, 0x00}), Free(4), 0, 6,
       {1, 2, 3, kFree}},
      {"words, odd length", 0x114, oddWords, Free(2), 0, 3, {1, 2 + 256 * oddUpper}},
      {"words truncated", 0x114, Frame(0x4114, {0x34, 0x12, 0x02, 0x00}), Free(1), 0, 2, {0x1234}},
      // Clock.
      {"clock, one day", 0x10F, Frame(0x410F, {0x00, 0x5C, 0x26, 0x05}), Free(5), 0, 4,
       {1, 0, 0, 0, kFree}},
      {"clock, largest", 0x10F, Frame(0x410F, {0xFF, 0xFF, 0xFF, 0xFF}), Free(4), 0, 4, {49, 17, 2, 47}},
      {"clock, count is N", 0x10F, Frame(0x410F, {0xFF, 0xFF, 0xFF, 0xFF, 9, 9}), Free(8), 0, 6,
       {49, 17, 2, 47, kFree, kFree, kFree, kFree}},
      {"clock truncated", 0x10F, Frame(0x410F, {0xFF, 0xFF, 0xFF, 0xFF}), Free(2), 0, 2, {49, 17}},
      {"clock, three data bytes", 0x10F, Frame(0x410F, {1, 2, 3}), Free(4), 0, 0, Free(4)},
      // Refusals.
      {"refusal without data", 3, Frame(0x8003, {}), Free(1), 0x28003, 0, Free(1)},
      {"refusal with one byte", 3, Frame(0x8003, {0x05}), Free(1), 0x30005, 1, Free(1)},
      {"refusal 0x8106", 0x106, Frame(0x8106, {}), Free(1), 0x28106, 0, Free(1)},
      {"refusal 0xC106", 0x106, Frame(0xC106, {}), Free(1), 0x2C106, 0, Free(1)},
      {"refusal 0xC913 with one byte", 0x913, Frame(0xC913, {0xFE}), Free(1), 0x300FE, 1, Free(1)},
      {"refusal with two bytes", 3, Frame(0x8003, {1, 2}), Free(2), 0, 2, Free(2)},
      // Codes of no rule: nothing copied, count N.
      {"not recognised", 3, Frame(0x4002, {1, 2, 3}), Free(3), 0, 3, Free(3)},
      {"0x8110 is no refusal", 0x110, Frame(0x8110, {}), Free(1), 0, 0, Free(1)},
      {"0x8002 is no refusal", 2, Frame(0x8002, {7}), Free(1), 0, 1, Free(1)},
      // Raw requests: bytes as values, whatever the answer code.
      {"raw answer", 0x10107, Frame(0x4107, {0x81, 0x02}), Free(3), 0xF4107, 2, {0x81, 0x02, kFree}},
      {"raw answer for code 0", 0x10000, Frame(0x4000, {}), Free(1), 0xF4000, 0, Free(1)},
      {"raw answer refused", 0x10107, Frame(0x8107, {0x05}), Free(1), 0xF8107, 1, {0x05}},
      {"raw answer with a rule code", 0x1010F, Frame(0x410F, {0x00, 0x5C, 0x26, 0x05}), Free(4), 0xF410F,
       4, {0x00, 0x5C, 0x26, 0x05}},
      {"raw answer truncated", 0x10107, Frame(0x4107, {1, 2, 3}), Free(2), 0xF4107, 2, {1, 2}},
      // Error list.
      {"error list, one plain entry", 0x104, Frame(0x4104, {0x06, 0x03, 0xE8, 0x03, 0x00, 0x00}), Free(8),
       0, 1, {7, 3, 0, 0, 0, 1, 0, kFree}},
      {"error list, one long entry", 0x104,
       Frame(0x4104, {0x08, 0x05, 0x10, 0x27, 0x00, 0x00, 0xAA, 0xBB}), Free(9), 0, 1,
       {9, 5, 0, 0, 0, 10, 0, 0xAA, 0xBB}},
      {"error list, two entries", 0x104, Frame(0x4104, kTwoEntries), Free(17), 0, 2,
       {7, 0x11, 0, 0, 0, 1, 0, 9, 0x22, 0, 0, 0, 10, 0, 0xAA, 0xBB, kFree}},
      {"error list, second record does not fit", 0x104, Frame(0x4104, kTwoEntries), Free(15), 0, 1,
       {7, 0x11, 0, 0, 0, 1, 0, kFree, kFree, kFree, kFree, kFree, kFree, kFree, kFree}},
      {"error list, no room", 0x104, Frame(0x4104, kTwoEntries), Free(6), 0, 0, Free(6)},
      {"error list, empty", 0x104, Frame(0x4104, {}), Free(2), 0, 0, Free(2)},
      {"error list, length byte 0", 0x104, Frame(0x4104, {0x00, 0x01, 0, 0, 0, 0}), Free(8),
       rc::kAnswerMalformed, 0, Free(8)},
      {"error list, length byte 5", 0x104, Frame(0x4104, {0x05, 0x01, 0, 0, 0, 0x06, 0x02, 0, 0, 0, 0}),
       Free(16), rc::kAnswerMalformed, 0, Free(16)},
      {"error list, last entry runs past", 0x104,
       Frame(0x4104, Bytes(kTwoEntries.begin(), kTwoEntries.end() - 1)), Free(17), rc::kAnswerMalformed, 0,
       Free(17)},
      {"error list, short last entry", 0x104, Frame(0x4104, {0x06, 0x11, 0xE8, 0x03, 0x00, 0x00, 0x06, 0x22}),
       Free(14), rc::kAnswerMalformed, 0, Free(14)},
  };
}

TEST(DecodeAnswer, EveryRuleWithinTheBuffer) {
  for (const AnswerCase& c : AnswerCases()) {
    SCOPED_TRACE(std::string(c.name) + ": " + Hex(c.frame));
    ASSERT_TRUE(VerifyCheckValue(c.frame.data(), c.frame.size()));
    ASSERT_EQ(c.before.size(), c.after.size());
    std::vector<int32_t> buffer = c.before;
    buffer.insert(buffer.end(), 4, kGuard);
    int32_t count = 12345;
    const uint32_t result =
        DecodeAnswer(c.request, c.frame.data(), c.frame.size(), buffer.data(), c.before.size(), &count);
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(std::vector<int32_t>(buffer.begin(), buffer.begin() + c.before.size()), c.after);
    for (size_t i = c.before.size(); i < buffer.size(); ++i) EXPECT_EQ(buffer[i], kGuard) << "guard " << i;
  }
}

Bytes ErrorEntries(size_t entries) {
  Bytes data;
  for (size_t i = 0; i < entries; ++i) {
    const Bytes entry = {0x06, uint8_t(i), 0x00, 0x5C, 0x26, 0x05};  // one day
    data.insert(data.end(), entry.begin(), entry.end());
  }
  return data;
}

TEST(DecodeAnswer, ErrorListHoldsAtMostThirtyEntries) {
  std::vector<int32_t> values(31 * 7 + 1, kGuard);
  int32_t count = -1;
  Bytes frame = Frame(0x4104, ErrorEntries(30));
  EXPECT_EQ(DecodeAnswer(0x104, frame.data(), frame.size(), values.data(), values.size(), &count), 0u);
  EXPECT_EQ(count, 30);
  for (int k = 0; k < 30; ++k) {
    const std::vector<int32_t> record(values.begin() + 7 * k, values.begin() + 7 * k + 7);
    EXPECT_EQ(record, (std::vector<int32_t>{7, k, 1, 0, 0, 0, 0})) << "record " << k;
  }
  EXPECT_EQ(values[30 * 7], kGuard);

  std::fill(values.begin(), values.end(), kGuard);
  frame = Frame(0x4104, ErrorEntries(31));
  EXPECT_EQ(DecodeAnswer(0x104, frame.data(), frame.size(), values.data(), values.size(), &count),
            rc::kAnswerMalformed);
  EXPECT_EQ(count, 0);
  for (int32_t v : values) EXPECT_EQ(v, kGuard);
}

TEST(DecodeAnswer, FrameShorterThanItsLengthFieldIsNotRead) {
  const Bytes frame = Frame(0x4003, {1, 2, 3, 4});
  int32_t values[8] = {};
  int32_t count = -1;
  EXPECT_EQ(DecodeAnswer(3, frame.data(), frame.size() - 1, values, 8, &count), rc::kAnswerMalformed);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(DecodeAnswer(3, frame.data(), 6, values, 8, &count), rc::kAnswerMalformed);
  EXPECT_EQ(DecodeAnswer(3, nullptr, 0, values, 8, &count), rc::kAnswerMalformed);
  EXPECT_EQ(DecodeAnswer(0x10003, frame.data(), frame.size() - 1, values, 8, &count),
            rc::kAnswerMalformed);
  EXPECT_EQ(DecodeClockRaw(frame.data(), frame.size() - 1, values, 8, &count), rc::kAnswerMalformed);
  for (int32_t v : values) EXPECT_EQ(v, 0);

  // An unbounded buffer is fine for the packed rule too.
  EXPECT_EQ(DecodeAnswer(1, Frame(0x4001, {1, 2, 3, 4}).data(), 11, values, kUnbounded, &count), 0u);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(values[0], 0x04030201);
}

TEST(DecodeClockRaw, DeliversTheCounterUnconverted) {
  int32_t values[3] = {kFree, kGuard, kGuard};
  int32_t count = -1;
  Bytes frame = Frame(0x410F, {0x00, 0x5C, 0x26, 0x05});
  EXPECT_EQ(DecodeClockRaw(frame.data(), frame.size(), values, 1, &count), 0u);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(values[0], 86'400'000);
  EXPECT_EQ(values[1], kGuard);

  frame = Frame(0x410F, {0xFF, 0xFF, 0xFF, 0xFE, 0x01});
  EXPECT_EQ(DecodeClockRaw(frame.data(), frame.size(), values, 1, &count), 0u);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(uint32_t(values[0]), 0xFEFFFFFFu);

  // Other answers, refusals included: nothing copied, count N.
  values[0] = kFree;
  for (const Bytes& other : {Frame(0x4003, {1, 2}), Frame(0x810F, {}), Frame(0xC10F, {5})}) {
    EXPECT_EQ(DecodeClockRaw(other.data(), other.size(), values, 1, &count), 0u);
    EXPECT_EQ(count, other[3]);
    EXPECT_EQ(values[0], kFree);
  }

  // Too few data bytes or no room: nothing copied, count 0.
  frame = Frame(0x410F, {1, 2, 3});
  EXPECT_EQ(DecodeClockRaw(frame.data(), frame.size(), values, 1, &count), 0u);
  EXPECT_EQ(count, 0);
  frame = Frame(0x410F, {1, 2, 3, 4});
  EXPECT_EQ(DecodeClockRaw(frame.data(), frame.size(), values, 0, &count), 0u);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(values[0], kFree);
}

// The answer rule of every code, typed from the decoding table (hexadecimal).
struct AnswerRange {
  uint32_t first, last;
  AnswerRule rule;
};
constexpr AnswerRule V = AnswerRule::BytePerValue, P = AnswerRule::Packed, O1 = AnswerRule::OneByte,
                     T = AnswerRule::TwoBytes, F = AnswerRule::FourBytes, W = AnswerRule::Words16,
                     C = AnswerRule::Clock, L = AnswerRule::ErrorList, X = AnswerRule::Refusal;
constexpr AnswerRange kAnswerRules[] = {
    {0x4003, 0x400A, V}, {0x400D, 0x4013, V}, {0x4015, 0x401B, V}, {0x4100, 0x4100, V},
    {0x4102, 0x4102, V}, {0x4106, 0x4106, V}, {0x4107, 0x4107, V}, {0x4109, 0x4109, V},
    {0x410A, 0x410A, V}, {0x410C, 0x410C, V}, {0x4110, 0x4110, V}, {0x4111, 0x4111, V},
    {0x4113, 0x4113, V}, {0x4115, 0x4115, V}, {0x4120, 0x4122, V}, {0x4130, 0x4130, V},
    {0x4132, 0x4132, V}, {0x4904, 0x4904, V}, {0x4912, 0x4912, V}, {0x4913, 0x4913, V},
    {0x4001, 0x4001, P}, {0x410B, 0x410B, P}, {0x410D, 0x410D, P}, {0x4131, 0x4131, P},
    {0x4105, 0x4105, O1}, {0x4101, 0x4101, T}, {0x4103, 0x4103, T}, {0x4112, 0x4112, T},
    {0x4902, 0x4902, F}, {0x4114, 0x4114, W}, {0x410F, 0x410F, C}, {0x4104, 0x4104, L},
    {0x8001, 0x8001, X}, {0x8003, 0x800A, X}, {0x800D, 0x8013, X}, {0x8015, 0x801B, X},
    {0x8100, 0x8107, X}, {0x8109, 0x810D, X}, {0x8111, 0x8115, X}, {0x8120, 0x8122, X},
    {0x8130, 0x8132, X}, {0x8902, 0x8902, X}, {0x8904, 0x8904, X}, {0x8912, 0x8913, X},
    {0xC001, 0xC001, X}, {0xC003, 0xC00A, X}, {0xC00D, 0xC013, X}, {0xC015, 0xC01B, X},
    {0xC100, 0xC107, X}, {0xC109, 0xC10D, X}, {0xC111, 0xC115, X}, {0xC120, 0xC122, X},
    {0xC130, 0xC132, X}, {0xC902, 0xC902, X}, {0xC904, 0xC904, X}, {0xC912, 0xC913, X},
};

TEST(AnswerRuleFor, EveryCodeMapsToItsRule) {
  for (uint32_t code = 0; code <= 0xFFFF; ++code) {
    AnswerRule expected = AnswerRule::NotRecognised;
    for (const AnswerRange& r : kAnswerRules) {
      if (code >= r.first && code <= r.last) expected = r.rule;
    }
    ASSERT_EQ(AnswerRuleFor(uint16_t(code)), expected) << std::hex << "code 0x" << code;
  }
}

TEST(AnswerMatchesRequest, AnswerAndBothRefusals) {
  struct Case {
    uint32_t request;
    uint16_t answer;
    bool matches;
  } const cases[] = {
      {3, 0x4003, true},        {3, 0x8003, true},        {3, 0xC003, true},
      {3, 0x0003, false},       {3, 0x4004, false},       {3, 0x4103, false},
      {0x10107, 0x4107, true},  {0x10107, 0xC107, true},  {0x10000, 0x4000, true},
      {0x10000, 0x0000, false}, {0xFFFF0003, 0x8003, true},
      // 16-bit arithmetic: the offsets wrap.
      {0xC001, 0x0001, true},   {0xC001, 0x4001, true},   {0xC001, 0x8001, true},
      {0xC001, 0xC001, false},  {0x4003, 0x4003, false},  {0x4003, 0x8003, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(AnswerMatchesRequest(c.request, c.answer), c.matches)
        << std::hex << c.request << " / " << c.answer;
  }
}

}  // namespace
}  // namespace tamrik::protocol
