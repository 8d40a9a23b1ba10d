// Image download over the simulated gateway: announcement, blocks and the end service, over
// loopback TCP and UDP and over a pseudo-terminal.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/TestPeers.h"
#include "ResultCodes.h"
#include "Simulator.h"
#include "core/DownloadTestSupport.h"

namespace tamrik {
namespace {

using test::Bytes;
using test::TempDir;
using test::TraceCapture;

enum class Link { Tcp, Udp, Pty };

const char* LinkName(Link link) { return link == Link::Tcp ? "Tcp" : link == Link::Udp ? "Udp" : "Pty"; }

constexpr uint16_t kAnnounce = 288;
constexpr uint16_t kBlock = 289;
constexpr uint16_t kEnd = 290;

// A driver object linked to a simulated gateway on this machine.
class ImageDriver {
 public:
  explicit ImageDriver(Link link, int demo = 0, int logfile = 0) {
    std::string device;
    if (link == Link::Pty) device = sim_.StartPty();
    dir_.Write("kaVcnf.ini", test::DownloadConfig(demo, logfile, device));
    com_ = std::make_unique<Ccom>(dir_.path());
    int32_t error = -1;
    if (link == Link::Pty) {
      com_->kaVOpenComPort(test::kLoaderPort, &error);
    } else if (link == Link::Tcp) {
      com_->kaVOpenEthernet(std::to_string(sim_.StartTcp()).c_str(), "127.0.0.1", &error);
    } else {
      com_->kaVOpenEthernet((std::to_string(sim_.StartUdp()) + ",UDP").c_str(), "127.0.0.1", &error);
    }
    EXPECT_EQ(error, 0);
  }

  Ccom& com() { return *com_; }
  sim::Simulator& sim() { return sim_; }

  std::string WriteImage(const Bytes& content) {
    dir_.Write("image.bin", std::string(content.begin(), content.end()));
    return dir_.File("image.bin");
  }
  std::string MissingFile() const { return dir_.File("none.bin"); }
  // Writes content as the image and announces it with no start address: the method's
  // result, with its error in *error.
  uint32_t Announce(const Bytes& content, int32_t* error) {
    const std::string file = WriteImage(content);
    int32_t start = -1;
    int32_t blocks = 0;
    return com_->kaVInitImageDownload(file.c_str(), &start, &blocks, error);
  }

  std::vector<uint16_t> Codes() const {
    std::vector<uint16_t> out;
    for (const auto& r : sim_.Requests()) out.push_back(r.code);
    return out;
  }
  std::vector<size_t> BlockSizes() const {
    std::vector<size_t> out;
    for (const auto& r : sim_.Requests()) {
      if (r.code == kBlock) out.push_back(r.data.size());
    }
    return out;
  }

 private:
  sim::Simulator sim_;
  TempDir dir_;
  std::unique_ptr<Ccom> com_;
};

// Runs the host's loop: blocks until the one numbered -1, at most limit calls.
std::vector<int32_t> DownloadAllBlocks(Ccom& com, int limit, uint32_t* status, int32_t* error) {
  std::vector<int32_t> numbers;
  for (int i = 0; i < limit; ++i) {
    int32_t block = 0;
    *error = -1;
    *status = com.kaVDownloadImageBlock(&block, error);
    if (*status != 0 || *error != 0) break;
    numbers.push_back(block);
    if (block == -1) break;
  }
  return numbers;
}

class ImageDownloadOverLink : public ::testing::TestWithParam<Link> {};

TEST_P(ImageDownloadOverLink, BlocksFollowTheAnnouncementAndTheEndServiceCloses) {
  struct Case {
    size_t length;
    int32_t startAddress;
    int32_t blockCount;
    std::vector<int32_t> numbers;
    std::vector<size_t> sizes;
  };
  const Case cases[] = {
      {600, -1, 3, {1, 2, -1}, {256, 256, 88}},
      {512, 0x12345678, 2, {1, -1}, {256, 256}},
      {0, -1, 0, {-1}, {0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    ImageDriver driver(GetParam());
    const Bytes content = test::Sequence(c.length, 17);
    const std::string file = driver.WriteImage(content);
    int32_t start = c.startAddress;
    int32_t blocks = -1;
    int32_t error = -1;
    EXPECT_EQ(driver.com().kaVInitImageDownload(file.c_str(), &start, &blocks, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(blocks, c.blockCount);
    EXPECT_EQ(CcomTestPeer::Port(driver.com()).Timings().activeTotalConstant,
              GetParam() == Link::Pty ? uint32_t(test::kFirmwareTimeoutMs) : uint32_t(test::kNormalTimeoutMs))
        << "only the serial line has a firmware time-out";

    uint32_t status = 0;
    EXPECT_EQ(DownloadAllBlocks(driver.com(), 10, &status, &error), c.numbers);
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(error, 0);

    std::vector<uint16_t> codes = {kAnnounce};
    codes.insert(codes.end(), c.numbers.size(), kBlock);
    codes.push_back(kEnd);
    EXPECT_EQ(driver.Codes(), codes);
    EXPECT_EQ(driver.BlockSizes(), c.sizes);
    const auto requests = driver.sim().Requests();
    ASSERT_FALSE(requests.empty());
    Bytes announcement = {uint8_t(c.length), uint8_t(c.length >> 8), 0, 0};
    if (c.startAddress != -1) announcement.insert(announcement.end(), {0x78, 0x56, 0x34, 0x12});
    EXPECT_EQ(requests.front().data, announcement);
    EXPECT_TRUE(requests.back().data.empty());

    if (c.length > 0) {
      const std::optional<sim::ImageDownload> image = driver.sim().CompletedImage();
      ASSERT_TRUE(image.has_value());
      EXPECT_EQ(image->data, content);
      EXPECT_EQ(image->announcedLength, c.length);
      EXPECT_EQ(image->startAddress.has_value(), c.startAddress != -1);
    }

    // The file is closed after the block numbered -1.
    TraceCapture trace;
    int32_t block = 5;
    EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
    EXPECT_EQ(error, int32_t(rc::kImageBlockFailed));
    EXPECT_EQ(block, 5);
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"PopDownloadImageBlock: Error(1) pfLoadStream==NULL"});
    EXPECT_EQ(driver.Codes().size(), codes.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Links, ImageDownloadOverLink, ::testing::Values(Link::Tcp, Link::Udp, Link::Pty),
                         [](const ::testing::TestParamInfo<Link>& info) { return std::string(LinkName(info.param)); });

TEST(ImageDownload, OneMebibyteArrivesWhole) {
  ImageDriver driver(Link::Tcp);
  const Bytes content = test::Sequence(1 << 20, 23);
  const std::string file = driver.WriteImage(content);
  int32_t start = 0;
  int32_t blocks = 0;
  int32_t error = -1;
  ASSERT_EQ(driver.com().kaVInitImageDownload(file.c_str(), &start, &blocks, &error), 0u);
  ASSERT_EQ(blocks, 4096);
  uint32_t status = 0;
  const std::vector<int32_t> numbers = DownloadAllBlocks(driver.com(), 5000, &status, &error);
  EXPECT_EQ(status, 0u);
  EXPECT_EQ(error, 0);
  ASSERT_EQ(numbers.size(), 4096u);
  for (size_t i = 0; i + 1 < numbers.size(); ++i) ASSERT_EQ(numbers[i], int32_t(i + 1));
  EXPECT_EQ(numbers.back(), -1);
  const std::optional<sim::ImageDownload> image = driver.sim().CompletedImage();
  ASSERT_TRUE(image.has_value());
  EXPECT_EQ(image->blocks, 4096u);
  EXPECT_TRUE(image->data == content) << "the assembled image differs from the file";
}

TEST(ImageDownload, CancelAnnouncesNothingAndClosesTheFile) {
  ImageDriver driver(Link::Tcp);
  int32_t error = -1;
  ASSERT_EQ(driver.Announce(test::Sequence(1000, 3), &error), 0u);
  int32_t block = 0;
  ASSERT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  // The read time-out is left as it is.
  CcomTestPeer::Port(driver.com()).Timings().activeTotalConstant = 123;
  EXPECT_EQ(driver.com().kaVCancelImageDownload(&error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(CcomTestPeer::Port(driver.com()).Timings().activeTotalConstant, 123u);
  EXPECT_FALSE(CcomTestPeer::Port(driver.com()).HasLoadFile());
  const auto requests = driver.sim().Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[2].code, kAnnounce);
  EXPECT_EQ(requests[2].data, Bytes(4, 0));
  EXPECT_EQ(driver.sim().GetEngineState().imageCancels, 1u);

  TraceCapture trace;
  EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  EXPECT_EQ(error, int32_t(rc::kImageBlockFailed));
  EXPECT_EQ(trace.Lines(), std::vector<std::string>{"PopDownloadImageBlock: Error(1) pfLoadStream==NULL"});
}

TEST(ImageDownload, Failures) {
  {
    SCOPED_TRACE("the file cannot be opened");
    ImageDriver driver(Link::Tcp);
    int32_t start = -1;
    int32_t blocks = -7;
    int32_t error = -1;
    EXPECT_EQ(driver.com().kaVInitImageDownload(driver.MissingFile().c_str(), &start, &blocks, &error), 0u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(blocks, -7);
    EXPECT_TRUE(driver.Codes().empty());
  }
  {
    SCOPED_TRACE("the announcement is refused");
    ImageDriver driver(Link::Tcp);
    driver.sim().RefuseService(kAnnounce);
    int32_t error = -1;
    EXPECT_EQ(driver.Announce(test::Sequence(10, 1), &error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kRefusalBase + 0x8000 + kAnnounce));
  }
  {
    SCOPED_TRACE("a block goes unanswered, the next call takes the following block");
    ImageDriver driver(Link::Tcp);
    int32_t error = -1;
    ASSERT_EQ(driver.Announce(test::Sequence(700, 1), &error), 0u);
    sim::AnswerFault silent;
    silent.silence = true;
    driver.sim().FaultNextAnswer(silent);
    driver.sim().FaultNextAnswer(silent);
    int32_t block = 0;
    EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kImageBlockFailed));
    EXPECT_EQ(block, 1);
    EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), rc::kAnswerFailed);
    EXPECT_EQ(block, 2);
    EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(block, -1);
    EXPECT_EQ(driver.BlockSizes(), (std::vector<size_t>{256, 256, 188}));
  }
  {
    SCOPED_TRACE("the end service is refused");
    ImageDriver driver(Link::Tcp);
    driver.sim().RefuseService(kEnd);
    int32_t error = -1;
    ASSERT_EQ(driver.Announce(test::Sequence(10, 1), &error), 0u);
    int32_t block = 0;
    EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kRefusalBase + 0x8000 + kEnd));
    EXPECT_EQ(block, -1);
    EXPECT_FALSE(CcomTestPeer::Port(driver.com()).HasLoadFile());
  }
  {
    SCOPED_TRACE("no link: the requests cannot be written");
    TempDir dir;
    dir.Write("kaVcnf.ini", test::DownloadConfig(0, 0));
    dir.Write("image.bin", "abc");
    Ccom com(dir.path());
    int32_t start = -1;
    int32_t blocks = 0;
    int32_t error = -1;
    EXPECT_EQ(com.kaVInitImageDownload(dir.File("image.bin").c_str(), &start, &blocks, &error), 0u);
    EXPECT_EQ(error, int32_t(rc::kWriteFailed));
    int32_t block = 0;
    EXPECT_EQ(com.kaVDownloadImageBlock(&block, &error), 0u);
    EXPECT_EQ(error, int32_t(rc::kWriteFailed));
    EXPECT_EQ(com.kaVCancelImageDownload(&error), 0u);
    EXPECT_EQ(error, int32_t(rc::kWriteFailed));
  }
}

TEST(ImageDownload, DemonstrationModeTakesBlocksButSendsNothing) {
  TraceCapture trace;
  ImageDriver driver(Link::Tcp, /*demo=*/1);
  const std::string file = driver.WriteImage(test::Sequence(300, 9));
  int32_t start = 0x100;
  int32_t blocks = 0;
  int32_t error = -1;
  EXPECT_EQ(driver.com().kaVInitImageDownload(file.c_str(), &start, &blocks, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(blocks, 2);
  int32_t block = 0;
  EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  EXPECT_EQ(error, int32_t(rc::kDemoNoDownload));
  EXPECT_EQ(block, 1);
  EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  EXPECT_EQ(error, int32_t(rc::kDemoNoDownload));
  EXPECT_EQ(block, -1);
  trace.Clear();
  EXPECT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  EXPECT_EQ(error, int32_t(rc::kImageBlockFailed));
  EXPECT_EQ(trace.Lines(), std::vector<std::string>{"PopDownloadImageBlock: Error(1) pfLoadStream==NULL"});
  EXPECT_EQ(driver.com().kaVCancelImageDownload(&error), 0u);
  EXPECT_EQ(error, int32_t(rc::kDemoNoDownload));
  EXPECT_TRUE(driver.Codes().empty());
}

TEST(ImageDownload, TraceTexts) {
  TraceCapture trace;
  ImageDriver driver(Link::Tcp, 0, /*logfile=*/1);
  int32_t error = -1;
  trace.Clear();
  ASSERT_EQ(driver.Announce(test::Sequence(300, 9), &error), 0u);
  int32_t block = 0;
  ASSERT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  ASSERT_EQ(driver.com().kaVDownloadImageBlock(&block, &error), 0u);
  ASSERT_EQ(driver.com().kaVCancelImageDownload(&error), 0u);
  std::vector<std::string> methodLines;
  for (const std::string& line : trace.Lines()) {
    if (line.rfind("ComServer:kaV", 0) == 0) methodLines.push_back(line.substr(10));
  }
  const std::vector<std::string> expected = {
      "kaVInitImageDownload-->",
      "kaVInitImageDownload<--",
      "kaVDownloadImageBlock--> (BlockNo=1,SizeOfData=256)",
      "kaVDownloadImageBlock<-- (BlockNo=1,EOF=-1)",
      "kaVDownloadImageBlock<-- Finished..",
      "kaVDownloadImageBlock--> (BlockNo=-1,SizeOfData=44)",
      "kaVDownloadImageBlock<-- (BlockNo=-1,EOF=-1)",
      "kaVDownloadImageBlock: GenerateService(SRV_GW_DOWNLOAD_IMAGE_END)-->",
      "kaVDownloadImageBlock: GenerateService(SRV_GW_DOWNLOAD_IMAGE_END)<--",
      "kaVDownloadImageBlock<-- Finished..",
      "kaVCancelImageDownload-->",
      "kaVCancelImageDownload<--",
  };
  EXPECT_EQ(methodLines, expected);
}

}  // namespace
}  // namespace tamrik
