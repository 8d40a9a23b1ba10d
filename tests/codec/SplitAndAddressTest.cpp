// The millisecond split and dotted IPv4 text.
#include <gtest/gtest.h>

#include <cstring>

#include "protocol/Codec.h"

namespace tamrik::protocol {
namespace {

TEST(MillisecondSplit, Boundaries) {
  struct Case {
    uint32_t ms;
    uint32_t d, h, m, s, milli;
  } const cases[] = {
      {0, 0, 0, 0, 0, 0},
      {999, 0, 0, 0, 0, 999},
      {86'399'999, 0, 23, 59, 59, 999},
      {86'400'000, 1, 0, 0, 0, 0},
      {90'061'001, 1, 1, 1, 1, 1},
      {0xFFFFFFFF, 49, 17, 2, 47, 295},
  };
  for (const Case& c : cases) {
    const MillisecondParts p = MillisecondSplit(c.ms);
    EXPECT_EQ(p.days, c.d) << c.ms;
    EXPECT_EQ(p.hours, c.h) << c.ms;
    EXPECT_EQ(p.minutes, c.m) << c.ms;
    EXPECT_EQ(p.seconds, c.s) << c.ms;
    EXPECT_EQ(p.milliseconds, c.milli) << c.ms;
  }
}

TEST(ParseIpv4, ClassicForms) {
  struct Case {
    const char* text;
    uint8_t a, b, c, d;
  } const accepted[] = {
      {"127.0.0.1", 127, 0, 0, 1},
      {"10.1.2.3", 10, 1, 2, 3},
      {"127.1", 127, 0, 0, 1},
      {"1.2.3", 1, 2, 0, 3},
      {"1.2.0x304", 1, 2, 3, 4},
      {"1.0xFFFFFF", 1, 255, 255, 255},
      {"0x7f.1", 127, 0, 0, 1},
      {"0X7F.0.0.0x1", 127, 0, 0, 1},
      {"0177.0.0.01", 127, 0, 0, 1},
      {"2130706433", 127, 0, 0, 1},
      {"0x7F000001", 127, 0, 0, 1},
      {"017700000001", 127, 0, 0, 1},
      {"0", 0, 0, 0, 0},
      {"00.0.0.0", 0, 0, 0, 0},
      {"4294967295", 255, 255, 255, 255},
      {"255.255.255.255", 255, 255, 255, 255},
      {"1.2.3.4 ", 1, 2, 3, 4},
      {"1.2.3.4\t\r\n", 1, 2, 3, 4},
      {"0001.2.3.4", 1, 2, 3, 4},
  };
  for (const Case& c : accepted) {
    uint32_t address = 0x12345678;
    ASSERT_TRUE(ParseIpv4(c.text, &address)) << c.text;
    uint8_t bytes[4];
    std::memcpy(bytes, &address, 4);
    EXPECT_EQ(bytes[0], c.a) << c.text;
    EXPECT_EQ(bytes[1], c.b) << c.text;
    EXPECT_EQ(bytes[2], c.c) << c.text;
    EXPECT_EQ(bytes[3], c.d) << c.text;
  }

  const char* rejected[] = {
      "",          " 1.2.3.4",   "1.2.3.4.5",  "256.1.1.1",  "1.256.1.1",    "1.2.3.256",
      "1.2.65536", "1.16777216", "4294967296", "99999999999999999999",     "08",
      "1.2.3.09",  "0x",         "0x.1.2.3",   "1..2",       "1.2.3.",       ".1.2.3",
      "1.2.3.4x",  "1.2.3.4 x",  "-1",         "+1",         "1.2.3.a",      "0xg",
      "1,2,3,4",   "0x100.1",    "1.2.3.0x100", "localhost",
  };
  for (const char* text : rejected) {
    uint32_t address = 0;
    EXPECT_FALSE(ParseIpv4(text, &address)) << '"' << text << '"';
  }
  uint32_t address = 0;
  EXPECT_FALSE(ParseIpv4(nullptr, &address));
  EXPECT_FALSE(ParseIpv4("1.2.3.4", nullptr));
}

}  // namespace
}  // namespace tamrik::protocol
