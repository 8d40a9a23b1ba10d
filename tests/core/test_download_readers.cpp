// The image file reader, the message boxes it shows, and the download file that a port
// holds at most once.
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/TestPeers.h"
#include "ComPort2.h"
#include "core/DownloadTestSupport.h"

namespace tamrik {
namespace {

using test::Bytes;
using test::TempDir;
using test::TraceCapture;

struct Block {
  int32_t number;
  Bytes bytes;
  bool operator==(const Block&) const = default;
};

std::vector<Block> AllBlocks(CComPort& port, uint32_t* lastResult) {
  std::vector<Block> blocks;
  for (int i = 0; i < 100 && port.HasLoadFile(); ++i) {
    uint8_t buffer[256];
    int32_t size = 256;
    int32_t number = 0;
    *lastResult = port.PopDownloadImageBlock(&size, buffer, &number);
    if (*lastResult != 0) break;
    blocks.push_back({number, Bytes(buffer, buffer + size)});
  }
  return blocks;
}

TEST(ImageFileReader, BlocksAreNumberedAndTheOneReachingTheEndIsMinusOne) {
  TempDir dir;
  TraceCapture trace;
  struct Case {
    size_t length;
    std::vector<std::pair<int32_t, size_t>> blocks;  // number and size
  };
  const Case cases[] = {
      {600, {{1, 256}, {2, 256}, {-1, 88}}},
      {512, {{1, 256}, {-1, 256}}},
      {513, {{1, 256}, {2, 256}, {-1, 1}}},
      {256, {{-1, 256}}},
      {1, {{-1, 1}}},
      {0, {{-1, 0}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    const Bytes content = test::Sequence(c.length, uint32_t(c.length));
    dir.Write("image.bin", std::string(content.begin(), content.end()));
    CComPort port;
    int32_t length = -1;
    ASSERT_EQ(port.InitDownloadImage(dir.File("image.bin").c_str(), &length), 0u);
    EXPECT_EQ(length, int32_t(c.length));
    uint32_t result = 0;
    const std::vector<Block> blocks = AllBlocks(port, &result);
    EXPECT_EQ(result, 0u);
    ASSERT_EQ(blocks.size(), c.blocks.size());
    Bytes joined;
    for (size_t i = 0; i < blocks.size(); ++i) {
      EXPECT_EQ(blocks[i].number, c.blocks[i].first) << i;
      EXPECT_EQ(blocks[i].bytes.size(), c.blocks[i].second) << i;
      joined.insert(joined.end(), blocks[i].bytes.begin(), blocks[i].bytes.end());
    }
    EXPECT_EQ(joined, content);
    EXPECT_FALSE(port.HasLoadFile());

    // One block too many: the message box and 1.
    trace.Clear();
    uint8_t buffer[256];
    int32_t size = 256;
    int32_t number = 0;
    EXPECT_EQ(port.PopDownloadImageBlock(&size, buffer, &number), 1u);
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"PopDownloadImageBlock: Error(1) pfLoadStream==NULL"});
  }
}

TEST(ImageFileReader, OpeningRewindsClosesAndRefuses) {
  TempDir dir;
  dir.Write("a.bin", std::string(300, 'a'));
  dir.Write("b.bin", std::string(10, 'b'));
  CComPort port;
  int32_t length = 0;
  ASSERT_EQ(port.InitDownloadImage(dir.File("a.bin").c_str(), &length), 0u);
  uint8_t buffer[256];
  int32_t size = 256;
  int32_t number = 0;
  ASSERT_EQ(port.PopDownloadImageBlock(&size, buffer, &number), 0u);
  EXPECT_EQ(number, 1);

  // Opening again starts from the first block.
  ASSERT_EQ(port.InitDownloadImage(dir.File("a.bin").c_str(), &length), 0u);
  size = 256;
  ASSERT_EQ(port.PopDownloadImageBlock(&size, buffer, &number), 0u);
  EXPECT_EQ(number, 1);
  EXPECT_EQ(size, 256);

  // No path only closes; a path that cannot be opened gives 1 and leaves nothing open.
  EXPECT_EQ(port.InitDownloadImage(nullptr, &length), 0u);
  EXPECT_EQ(length, 0);
  EXPECT_FALSE(port.HasLoadFile());
  EXPECT_EQ(CComPortTestPeer::LoadIndex(port), 1u);
  EXPECT_EQ(port.InitDownloadImage(dir.File("none.bin").c_str(), &length), 1u);
  EXPECT_FALSE(port.HasLoadFile());

  // Whichever download file is opened next, the one before it is closed: the process holds
  // no more descriptors afterwards than before.
  const int before = test::OpenDescriptors();
  dir.Write("fw.hex", ":00000001FF\n");
  dir.Write("stage.txt", "0102\n");
  int32_t records = 0;
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(port.InitDownloadImage(dir.File("a.bin").c_str(), &length), 0u);
    ASSERT_EQ(port.InitDownloadLines(dir.File("fw.hex").c_str(), &records), 0u);
    EXPECT_EQ(records, 1);
    ASSERT_EQ(port.InitDownloadImage(dir.File("b.bin").c_str(), &length), 0u);
    EXPECT_EQ(length, 10);
    ASSERT_EQ(port.InitDownloadLines(dir.File("fw.hex").c_str(), &records), 0u);
    // A stage reader takes over from the open line file and leaves nothing open; with no
    // link its write fails, after the file has been closed.
    EXPECT_NE(port.DownloadBootFile(dir.File("stage.txt").c_str()), 0u);
    EXPECT_FALSE(port.HasLoadFile());
  }
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST(ImageFileReader, ReadErrorsCloseTheFileAndShowTheirMessage) {
  TraceCapture trace;
  {
    SCOPED_TRACE("the block read fails");
    TempDir dir;
    CComPort port;
    // A directory opens as a stream but every read of it fails.
    FILE* directory = fopen(dir.path().c_str(), "rb");
    ASSERT_NE(directory, nullptr);
    CComPortTestPeer::SetLoadFile(port, directory, 1);
    uint8_t buffer[256];
    int32_t size = 256;
    int32_t number = 0;
    EXPECT_EQ(port.PopDownloadImageBlock(&size, buffer, &number), 2u);
    EXPECT_FALSE(port.HasLoadFile());
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"PopDownloadImageBlock: Error(2) ftell() "});
  }
  trace.Clear();
  {
    SCOPED_TRACE("the look-ahead fails");
    // A pseudo-terminal whose other side is gone gives the bytes still queued, then an error.
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    termios raw{};
    tcgetattr(slave, &raw);
    cfmakeraw(&raw);
    tcsetattr(slave, TCSANOW, &raw);
    const Bytes queued = test::Sequence(256, 5);
    ASSERT_EQ(write(slave, queued.data(), queued.size()), ssize_t(queued.size()));
    tcdrain(slave);
    close(slave);
    CComPort port;
    FILE* terminal = fdopen(master, "rb");
    ASSERT_NE(terminal, nullptr);
    CComPortTestPeer::SetLoadFile(port, terminal, 2);  // past the first block: nothing to rewind
    uint8_t buffer[256];
    int32_t size = 256;
    int32_t number = 0;
    EXPECT_EQ(port.PopDownloadImageBlock(&size, buffer, &number), 2u);
    EXPECT_EQ(size, 256);
    EXPECT_EQ(Bytes(buffer, buffer + size), queued);
    EXPECT_FALSE(port.HasLoadFile());
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"PopDownloadImageBlock: Error(3) fread()"});
  }
}

}  // namespace
}  // namespace tamrik
