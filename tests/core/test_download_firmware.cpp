// Firmware line download: the start service, then one record per call to the boot loader.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "common/TestPeers.h"
#include "ResultCodes.h"
#include "SimBootLoader.h"
#include "core/DownloadTestSupport.h"
#include "protocol/Codec.h"

namespace tamrik {
namespace {

using namespace std::chrono_literals;
using sim::BootLoaderConfig;
using sim::SimBootLoader;
using test::Bytes;
using test::DriverInDir;
using test::HexRecord;
using test::RecordBytes;

BootLoaderConfig RecordsOnly() {
  BootLoaderConfig config;
  config.stages = false;
  return config;
}

TEST(FirmwareLineDownload, RecordsGoOutOneByOneAndTheFileClosesAfterTheLast) {
  SimBootLoader loader(RecordsOnly());
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  // Text ahead of the first record is skipped; line ends may be either kind, and the last
  // record needs none.
  const std::string r1 = HexRecord(0x0000, 0x00, {0x01, 0x02, 0x3A, 0xFF});  // 0x3A is ':' as data
  const std::string r2 = HexRecord(0x0004, 0x00, test::Sequence(16, 2));
  const std::string r3 = HexRecord(0x0000, 0x01, {});
  const std::string file = driver.Write("fw.hex", "firmware 1.2\n" + r1 + "\r\n" + r2 + "\n" + r3);
  ASSERT_EQ(driver.OpenLine(), 0);

  int32_t lines = -1;
  int32_t error = -1;
  EXPECT_EQ(driver.com->kaVInitFirmwareDownload(file.c_str(), &lines, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(lines, 3);
  EXPECT_EQ(CcomTestPeer::Port(*driver.com).Timings().activeTotalConstant, uint32_t(test::kFirmwareTimeoutMs));
  // The start request is an ordinary frame with no data.
  ASSERT_EQ(loader.Frames().size(), 1u);
  Bytes start = {0xAA, 0x07, 0x01, 0x00, 0x00, 0, 0};
  protocol::ComputeCheckValue(start.data(), start.size());
  EXPECT_EQ(loader.Frames()[0], start);

  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(CcomTestPeer::Port(*driver.com).HasLoadFile());
    int32_t line = 12345;  // neither read nor written
    error = -1;
    EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(line, 12345);
  }
  EXPECT_FALSE(CcomTestPeer::Port(*driver.com).HasLoadFile());
  const std::vector<Bytes> expected = {RecordBytes(r1), RecordBytes(r2), RecordBytes(r3)};
  EXPECT_EQ(loader.Records(), expected);

  // One call too many finds no file and leaves the line alone.
  int32_t line = 0;
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
  EXPECT_EQ(error, 1);
  EXPECT_EQ(loader.Records().size(), 3u);
  EXPECT_TRUE(loader.Stray().empty());

  // A second download starts over with a fresh count.
  const std::string again = driver.Write("fw2.hex", r3 + "\n");
  EXPECT_EQ(driver.com->kaVInitFirmwareDownload(again.c_str(), &lines, &error), 0u);
  EXPECT_EQ(lines, 1);
  EXPECT_EQ(loader.Frames().size(), 2u);
}

TEST(FirmwareLineDownload, RefusedRecordsAreRepeatedAtMostThreeTimes) {
  BootLoaderConfig config = RecordsOnly();
  // Record 1: three refusals, then accepted. Record 2: refused four times with varying
  // characters; the last one's code is the result. Record 3: a digit answer counts as
  // accepted. Record 4: a character outside the table is accepted too.
  config.recordAnswers = {'E', 'E', 'E', 'r', 'E', 'e', 't', 'c', '5', 'Q'};
  SimBootLoader loader(config);
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  std::vector<std::string> records;
  std::string text;
  for (uint16_t i = 0; i < 4; ++i) {
    records.push_back(HexRecord(uint16_t(i * 8), 0, test::Sequence(8, i)));
    text += records.back() + "\n";
  }
  ASSERT_EQ(driver.StartLines(text), 4);
  int32_t error = -1;

  int32_t line = 0;
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(loader.Records().size(), 4u);

  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
  EXPECT_EQ(error, 8);  // 'c'
  EXPECT_EQ(loader.Records().size(), 8u);

  // The counter has moved on: the next call sends the following record.
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u);
  EXPECT_EQ(error, 0);

  std::vector<Bytes> expected;
  for (int i = 0; i < 4; ++i) expected.push_back(RecordBytes(records[0]));
  for (int i = 0; i < 4; ++i) expected.push_back(RecordBytes(records[1]));
  expected.push_back(RecordBytes(records[2]));
  expected.push_back(RecordBytes(records[3]));
  EXPECT_EQ(loader.Records(), expected);
  EXPECT_FALSE(CcomTestPeer::Port(*driver.com).HasLoadFile());
}

TEST(FirmwareLineDownload, RecordsEndWhereTheReaderStops) {
  SimBootLoader loader(RecordsOnly());
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  const std::string longest = HexRecord(0, 0, test::Sequence(194, 7));  // 199 bytes after ':'
  const std::string tooLong = HexRecord(0, 0, test::Sequence(195, 8));  // 200 bytes
  ASSERT_EQ(driver.StartLines(":1020ab30\n"     // a lower-case letter opening a pair ends it
                              ":1a2B\n"         // ... while a second digit may be either case
                              ":0102 0304\n" +  // a blank ends it as well
                              longest + "\n" + tooLong + "\n:FF00"),  // no line end
            6);
  int32_t error = -1;

  int32_t line = 0;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u) << i;
  // The record beyond the buffer is refused before any of it is sent; the one after it
  // goes out as usual.
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
  EXPECT_EQ(error, 2);
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_FALSE(CcomTestPeer::Port(*driver.com).HasLoadFile());

  const std::vector<Bytes> expected = {
      {':', 0x10, 0x20}, {':', 0x1A, 0x2B}, {':', 0x01, 0x02}, RecordBytes(longest), {':', 0xFF, 0x00}};
  EXPECT_EQ(loader.Records(), expected);
  EXPECT_EQ(loader.Records()[3].size(), 200u);
}

TEST(FirmwareLineDownload, AFileWhoseCountNoLongerHoldsEndsWithTwoAndIsClosed) {
  SimBootLoader loader(RecordsOnly());
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  // An odd digit count lets the first record run on into the second one's ':', so the second
  // search finds no ':' left.
  ASSERT_EQ(driver.StartLines(":ABC\n:0102\n"), 2);
  int32_t error = -1;
  int32_t line = 0;
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), 0u);
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
  EXPECT_EQ(error, 2);
  EXPECT_FALSE(CcomTestPeer::Port(*driver.com).HasLoadFile());
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
  EXPECT_EQ(error, 1);
  EXPECT_EQ(loader.Records().size(), 1u);
}

TEST(FirmwareLineDownload, FailuresOfTheStart) {
  const std::string record = HexRecord(0, 0, {1, 2, 3});
  {
    SCOPED_TRACE("the file cannot be opened");
    SimBootLoader loader(RecordsOnly());
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    ASSERT_EQ(driver.OpenLine(), 0);
    int32_t lines = -1;
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVInitFirmwareDownload(driver.dir.File("none.hex").c_str(), &lines, &error),
              rc::kAnswerFailed);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(lines, 0);
    EXPECT_TRUE(loader.Frames().empty());
  }
  {
    SCOPED_TRACE("no line open: the request cannot be written");
    DriverInDir driver("");
    const std::string file = driver.Write("fw.hex", record);
    int32_t lines = -1;
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVInitFirmwareDownload(file.c_str(), &lines, &error), 0u);
    EXPECT_EQ(error, int32_t(rc::kWriteFailed));
  }
  {
    SCOPED_TRACE("the start request goes unanswered");
    BootLoaderConfig config = RecordsOnly();
    config.answerStartFrame = false;
    config.ready.reset();
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const std::string file = driver.Write("fw.hex", record);
    ASSERT_EQ(driver.OpenLine(), 0);
    int32_t lines = -1;
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVInitFirmwareDownload(file.c_str(), &lines, &error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kReadFailed));
  }
  {
    SCOPED_TRACE("the loader does not get ready");
    BootLoaderConfig config = RecordsOnly();
    config.ready = 'x';
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const std::string file = driver.Write("fw.hex", record);
    ASSERT_EQ(driver.OpenLine(), 0);
    int32_t lines = -1;
    int32_t error = -1;
    ASSERT_EQ(driver.com->kaVInitFirmwareDownload(file.c_str(), &lines, &error), 0u);
    int32_t line = 0;
    EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kLoaderNotReady));
    // Nothing of the record went out, and the file waits for a loader that gets ready.
    EXPECT_FALSE(loader.WaitForRecords(1, 100ms));
    EXPECT_TRUE(CcomTestPeer::Port(*driver.com).HasLoadFile());
  }
}

TEST(FirmwareLineDownload, DemonstrationModeSendsNothing) {
  SimBootLoader loader(RecordsOnly());
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath(), /*demo=*/1);
  const std::string file = driver.Write("fw.hex", HexRecord(0, 0, {1}) + "\n");
  ASSERT_EQ(driver.OpenLine(), 0);
  int32_t lines = -7;
  int32_t error = -1;
  EXPECT_EQ(driver.com->kaVInitFirmwareDownload(file.c_str(), &lines, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(lines, -7);
  // The firmware time-out is chosen all the same.
  EXPECT_EQ(CcomTestPeer::Port(*driver.com).Timings().activeTotalConstant, uint32_t(test::kFirmwareTimeoutMs));
  int32_t line = 0;
  EXPECT_EQ(driver.com->kaVDownloadFirmwareLines(&line, &error), rc::kAnswerFailed);
  EXPECT_EQ(error, 1);
  EXPECT_FALSE(loader.WaitForRecords(1, 100ms));
  EXPECT_TRUE(loader.Frames().empty());
  EXPECT_TRUE(loader.Stray().empty());
}

}  // namespace
}  // namespace tamrik
