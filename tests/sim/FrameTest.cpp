#include <gtest/gtest.h>

#include "SimFrame.h"
#include "SimTestSupport.h"

namespace tamrik::sim::test {
namespace {

TEST(SimFrame, BuildsFramesByteForByte) {
  EXPECT_EQ(ToHex(BuildFrame(3, {})), "AA 03 00 00 00 29 B3");
  EXPECT_EQ(ToHex(BuildFrame(0x4101, HexBytes("02 01"))), "AA 01 41 02 00 02 01 44 AA");
  EXPECT_EQ(ToHex(BuildFrame(0x113, HexBytes("34 12"))), "AA 13 01 02 00 34 12 E8 E1");
}

TEST(SimFrame, ParseFrameAcceptsOnlyOneWholeCheckedFrame) {
  const auto ok = ParseFrame(HexBytes("AA 06 01 01 00 02 51 FF"));
  ASSERT_TRUE(ok);
  EXPECT_EQ(ok->code, 0x106);
  EXPECT_EQ(ok->data, HexBytes("02"));
  EXPECT_FALSE(ParseFrame(HexBytes("AA 06 01 01 00 02 51 FE")));     // check value
  EXPECT_FALSE(ParseFrame(HexBytes("AA 06 01 01 00 02 51 FF 00")));  // trailing byte
  EXPECT_FALSE(ParseFrame(HexBytes("AB 06 01 01 00 02 51 FF")));     // start byte
  EXPECT_FALSE(ParseFrame(HexBytes("AA 06 01")));
}

TEST(SimFrame, ParserFindsFramesAmongNoiseInAnySplit) {
  const Bytes stream = HexBytes("00 13 FF AA 03 00 00 00 29 B3 55 AA 01 01 00 00 83 D0");
  // All at once, then byte by byte: the same two frames and the same skipped count.
  for (const bool byteWise : {false, true}) {
    FrameParser parser;
    std::vector<uint16_t> codes;
    if (byteWise) {
      for (uint8_t b : stream) {
        parser.Feed({&b, 1});
        while (auto ev = parser.Next()) codes.push_back(ev->frame.code);
      }
    } else {
      parser.Feed(stream);
      while (auto ev = parser.Next()) {
        EXPECT_EQ(ev->kind, FrameParser::Kind::Frame);
        codes.push_back(ev->frame.code);
      }
    }
    EXPECT_EQ(codes, (std::vector<uint16_t>{3, 0x101})) << "byteWise " << byteWise;
    EXPECT_EQ(parser.SkippedBytes(), 4u);
    EXPECT_FALSE(parser.HasPartialFrame());
  }
}

TEST(SimFrame, ParserReportsBadCheckValueAndResynchronises) {
  FrameParser parser;
  // A frame with a damaged check value, then a good one that arrives in two pieces.
  const Bytes good = Request(4);
  parser.Feed(HexBytes("AA 03 00 00 00 29 B4"));
  parser.Feed({good.begin(), good.begin() + 5});
  auto ev = parser.Next();
  ASSERT_TRUE(ev);
  EXPECT_EQ(ev->kind, FrameParser::Kind::BadCheckValue);
  EXPECT_EQ(ToHex(ev->frame.raw), "AA 03 00 00 00 29 B4");
  EXPECT_FALSE(parser.Next());  // the second frame is not complete yet
  parser.Feed({good.begin() + 5, good.end()});
  ev = parser.Next();
  ASSERT_TRUE(ev);
  EXPECT_EQ(ev->kind, FrameParser::Kind::Frame);
  EXPECT_EQ(ev->frame.code, 4);

  // A stray start byte right before a real frame: the false frame fails its check and the
  // real one, which began inside it, is still found.
  parser.Reset();
  parser.Feed(HexBytes("AA AA 03 00 00 00 29 B3"));
  ev = parser.Next();
  ASSERT_TRUE(ev);
  EXPECT_EQ(ev->kind, FrameParser::Kind::BadCheckValue);
  ev = parser.Next();
  ASSERT_TRUE(ev);
  EXPECT_EQ(ev->kind, FrameParser::Kind::Frame);
  EXPECT_EQ(ev->frame.code, 3);
}

TEST(SimFrame, StalledStartByteCanBeDropped) {
  FrameParser parser;
  // Noise that announces 65535 data bytes would swallow the next request for good.
  parser.Feed(HexBytes("AA FF FF FF FF"));
  parser.Feed(HexBytes("AA 03 00 00 00 29 B3"));
  EXPECT_FALSE(parser.Next());
  EXPECT_TRUE(parser.HasPartialFrame());
  EXPECT_TRUE(parser.DropStalledStart());
  auto ev = parser.Next();
  ASSERT_TRUE(ev);
  EXPECT_EQ(ev->kind, FrameParser::Kind::Frame);
  EXPECT_EQ(ev->frame.code, 3);
  EXPECT_FALSE(parser.HasPartialFrame());
  EXPECT_FALSE(parser.DropStalledStart());
}

}  // namespace
}  // namespace tamrik::sim::test
