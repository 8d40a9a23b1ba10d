// The boot loader chain: wake byte, three stage files, then the firmware records.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <string>
#include <vector>

#include "ResultCodes.h"
#include "SimBootLoader.h"
#include "core/DownloadTestSupport.h"

namespace tamrik {
namespace {

using namespace std::chrono_literals;
using sim::BootLoaderConfig;
using sim::SimBootLoader;
using test::Bytes;
using test::DriverInDir;
using test::HexRecord;
using test::HexText;
using test::RecordBytes;
using test::Sequence;

// The contents of one chain, written as real files are: digit pairs and a line end.
struct Chain {
  Bytes bsl = Sequence(200, 1);
  Bytes setCtx = Sequence(1000, 2);
  Bytes boot = Sequence(5000, 3);
  std::vector<std::string> records = {HexRecord(0, 0, Sequence(16, 4)), HexRecord(16, 0, Sequence(16, 5)),
                                      HexRecord(0, 1, {})};

  BootLoaderConfig Loader() const {
    BootLoaderConfig config;
    config.stage1Length = bsl.size();
    config.stage2Length = setCtx.size();
    config.stage3Length = boot.size();
    return config;
  }
  std::vector<Bytes> SentRecords() const {
    std::vector<Bytes> out;
    for (const auto& r : records) out.push_back(RecordBytes(r));
    return out;
  }
};

struct ChainFiles {
  std::string bsl, setCtx, boot, firmware;
};

ChainFiles WriteChain(const DriverInDir& driver, const Chain& chain) {
  ChainFiles files;
  files.bsl = driver.Write("loader.bsl", HexText(chain.bsl) + "\r\n");
  files.setCtx = driver.Write("context.txt", HexText(chain.setCtx) + "\n");
  files.boot = driver.Write("boot.txt", HexText(chain.boot) + "\n \n");
  std::string text;
  for (const auto& r : chain.records) text += r + "\r\n";
  files.firmware = driver.Write("fw.hex", text);
  return files;
}

void StartBoot(DriverInDir& driver) {
  int32_t baud = 57600;
  int32_t error = -1;
  EXPECT_EQ(driver.com->kaVStartBootFirmwareDownload(test::kLoaderPort, &baud, &error), 0u);
  EXPECT_EQ(error, 0);
}

uint32_t RunChain(DriverInDir& driver, const ChainFiles& files, int32_t* error) {
  return driver.com->kaVBootFirmwareDownload(files.bsl.c_str(), files.setCtx.c_str(), files.boot.c_str(),
                                             files.firmware.c_str(), error);
}

TEST(BootFirmwareDownload, TheWholeChainArrivesAndTheLineIsClosed) {
  const Chain chain;
  SimBootLoader loader(chain.Loader());
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  const ChainFiles files = WriteChain(driver, chain);
  driver.com->nComPort = 1;
  driver.com->nBaudrate = 9600;

  StartBoot(driver);
  EXPECT_EQ(driver.com->nComPort, test::kLoaderPort);
  EXPECT_EQ(driver.com->nBaudrate, 57600);
  EXPECT_EQ(driver.com->pComPort->bComOpen, 1);

  int32_t error = -1;
  EXPECT_EQ(RunChain(driver, files, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(loader.WakeBytes(), 1u);
  EXPECT_EQ(loader.Stage(1), chain.bsl);
  EXPECT_EQ(loader.Stage(2), chain.setCtx);
  EXPECT_EQ(loader.Stage(3), chain.boot);
  EXPECT_EQ(loader.Records(), chain.SentRecords());
  EXPECT_TRUE(loader.Stray().empty());
  // Closed after success: closing again finds nothing open.
  EXPECT_EQ(driver.com->pComPort->bComOpen, 0);
  EXPECT_EQ(driver.com->kaVCloseComPort(test::kLoaderPort, &error), 0u);
  EXPECT_EQ(error, int32_t(rc::kNothingOpen));

  // A line that cannot be reopened is still reported as 0, and shows itself in the chain.
  DriverInDir nowhere(driver.dir.File("no-such-device"));
  StartBoot(nowhere);
  EXPECT_EQ(nowhere.com->pComPort->bComOpen, 0);
  const ChainFiles other = WriteChain(nowhere, chain);
  EXPECT_EQ(RunChain(nowhere, other, &error), rc::kWriteFailed);
  EXPECT_EQ(error, int32_t(rc::kWriteFailed));
}

TEST(BootFirmwareDownload, TheStageOneAnswerDecides) {
  struct Case {
    std::optional<uint8_t> answer;
    uint32_t result;
  };
  const Case cases[] = {{'0', 0x3003}, {'7', 0x3703}, {'E', 5}, {std::nullopt, rc::kReadFailed},
                        {'x', 0},      {'!', 0},      {'r', 0}, {'Q', 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer ? std::string(1, char(*c.answer)) : "no answer");
    Chain chain;
    chain.records.clear();  // once the stages pass, nothing more is waited for
    BootLoaderConfig config = chain.Loader();
    config.stage1Answer = c.answer;
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(RunChain(driver, files, &error), c.result);
    EXPECT_EQ(error, int32_t(c.result));
    EXPECT_EQ(loader.Stage(1), chain.bsl);
    if (c.result != 0) {
      // The chain stops at once and the line stays open.
      EXPECT_FALSE(loader.WaitForStage(2, 100ms));
      EXPECT_EQ(driver.com->pComPort->bComOpen, 1);
    } else {
      EXPECT_TRUE(loader.WaitForStage(3, 1000ms));
      EXPECT_EQ(driver.com->pComPort->bComOpen, 0);
    }
  }
}

TEST(BootFirmwareDownload, StageTwo) {
  const Chain chain;
  {
    SCOPED_TRACE("an empty argument skips it");
    BootLoaderConfig config = chain.Loader();
    config.stage2 = false;
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVBootFirmwareDownload(files.bsl.c_str(), "", files.boot.c_str(),
                                                  files.firmware.c_str(), &error),
              0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(loader.Stage(3), chain.boot);
    EXPECT_EQ(loader.Records(), chain.SentRecords());
    EXPECT_TRUE(loader.Stray().empty());
  }
  {
    SCOPED_TRACE("a file of white space sends nothing");
    BootLoaderConfig config = chain.Loader();
    config.stage2 = false;
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    ChainFiles files = WriteChain(driver, chain);
    files.setCtx = driver.Write("context.txt", "\r\n");
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(RunChain(driver, files, &error), 0u);
    EXPECT_EQ(loader.Stage(3), chain.boot);
    EXPECT_TRUE(loader.Stray().empty());
  }
  for (uint8_t answer : {'r', 'E', '3'}) {
    SCOPED_TRACE(std::string("answer ") + char(answer));
    BootLoaderConfig config = chain.Loader();
    config.stage2Answer = answer;
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    StartBoot(driver);
    int32_t error = -1;
    // Only a character outside the table lets this stage pass.
    const uint32_t expected = answer == 'r' ? 1u : answer == 'E' ? 5u : 0x3303u;
    EXPECT_EQ(RunChain(driver, files, &error), expected);
    EXPECT_EQ(error, int32_t(expected));
    EXPECT_EQ(loader.Stage(2), chain.setCtx);
    EXPECT_FALSE(loader.WaitForStage(3, 100ms));
  }
}

TEST(BootFirmwareDownload, StageFilesThatCannotBeSent) {
  const Chain chain;
  struct Case {
    const char* what;
    int stage;            // 1 to 3: the file replaced
    std::string content;  // empty: the file does not exist
    uint32_t result;
  };
  const Case cases[] = {
      {"stage 1 missing", 1, "", 100100},
      {"stage 2 missing", 2, "", 100101},
      {"stage 3 missing", 3, "", 100102},
      {"201 pairs for stage 1", 1, HexText(Sequence(201, 9)) + "\n", 2},
      {"1001 pairs for stage 2", 2, HexText(Sequence(1001, 9)), 2},
      {"5001 pairs for stage 3", 3, HexText(Sequence(5001, 9)) + "\r\n", 2},
      {"a blank between pairs", 2, "0102 0304\n", 2},
      {"a letter beyond F", 3, "01G2\n", 2},
      {"a line end inside", 1, "0102\n0304\n", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SimBootLoader loader(chain.Loader());
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    ChainFiles files = WriteChain(driver, chain);
    std::string* target = c.stage == 1 ? &files.bsl : c.stage == 2 ? &files.setCtx : &files.boot;
    if (c.content.empty()) {
      *target = driver.dir.File("absent.txt");
    } else {
      *target = driver.Write("replaced.txt", c.content);
    }
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(RunChain(driver, files, &error), c.result);
    EXPECT_EQ(error, int32_t(c.result));
    // Nothing of the refused stage reached the line.
    if (c.stage == 1) {
      EXPECT_FALSE(loader.WaitForStage(1, 100ms));
      EXPECT_EQ(loader.WakeBytes(), 0u);
    } else {
      EXPECT_FALSE(loader.WaitForStage(c.stage, 100ms));
      EXPECT_EQ(loader.Stage(c.stage - 1), c.stage == 2 ? chain.bsl : chain.setCtx);
    }
    EXPECT_EQ(driver.com->pComPort->pfLoadStream, nullptr);
  }
}

TEST(BootFirmwareDownload, StageFileContents) {
  // Lower-case digits are digits; an empty boot file is a write of no bytes; the records
  // follow as usual.
  Chain chain;
  chain.boot.clear();
  BootLoaderConfig config = chain.Loader();
  SimBootLoader loader(config);
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  ChainFiles files = WriteChain(driver, chain);
  std::string lower = HexText(chain.bsl);
  for (char& ch : lower) ch = char(tolower(ch));
  files.bsl = driver.Write("lower.bsl", lower);
  files.boot = driver.Write("empty.txt", "");
  StartBoot(driver);
  int32_t error = -1;
  EXPECT_EQ(RunChain(driver, files, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(loader.Stage(1), chain.bsl);
  EXPECT_EQ(loader.Stage(3), Bytes{});
  EXPECT_EQ(loader.Records(), chain.SentRecords());
}

TEST(BootFirmwareDownload, RecordFailuresAndDemonstrationMode) {
  const Chain chain;
  {
    SCOPED_TRACE("the loader never gets ready");
    BootLoaderConfig config = chain.Loader();
    config.ready.reset();
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(RunChain(driver, files, &error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kLoaderNotReady));
    EXPECT_TRUE(loader.Records().empty());
    EXPECT_EQ(driver.com->pComPort->bComOpen, 1);
  }
  {
    SCOPED_TRACE("the second record is refused four times");
    BootLoaderConfig config = chain.Loader();
    config.recordAnswers = {'r', 'b', 'b', 'b', 'b'};
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(RunChain(driver, files, &error), rc::kAnswerFailed);
    EXPECT_EQ(error, 9);  // 'b'
    EXPECT_EQ(loader.Records().size(), 5u);
    EXPECT_EQ(driver.com->pComPort->bComOpen, 1);
  }
  {
    SCOPED_TRACE("demonstration mode");
    SimBootLoader loader(chain.Loader());
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath(), /*demo=*/1);
    const ChainFiles files = WriteChain(driver, chain);
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(RunChain(driver, files, &error), 0u);
    EXPECT_EQ(error, 0);
    // The stages still go over the line; the records do not.
    EXPECT_TRUE(loader.WaitForStage(3, 2000ms));
    EXPECT_EQ(loader.Stage(3), chain.boot);
    EXPECT_TRUE(loader.Records().empty());
    EXPECT_EQ(driver.com->pComPort->bComOpen, 0);
  }
}

// Runs the body in a fresh working directory and goes back afterwards, since the name that
// stands for a missing key is opened relative to it.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path) {
    char buffer[PATH_MAX];
    if (getcwd(buffer, sizeof buffer) != nullptr) previous_ = buffer;
    ok_ = chdir(path.c_str()) == 0;
  }
  ~WorkingDirectory() {
    if (!previous_.empty()) (void)!chdir(previous_.c_str());
  }
  bool ok() const { return ok_; }

 private:
  std::string previous_;
  bool ok_ = false;
};

TEST(BootFirmwareDownload, FileNamesFromTheBootFileList) {
  const Chain chain;
  test::TempDir work;
  WorkingDirectory cwd(work.path());
  ASSERT_TRUE(cwd.ok());
  {
    SCOPED_TRACE("Boot_File missing, no file of the stand-in name");
    BootLoaderConfig config = chain.Loader();
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    driver.Write("kaVBoot.ini", "[BSL-Files]\nBSL_File=" + files.bsl + "\nSetCtx_File=" + files.setCtx +
                                    "\nBoot_Firmware=" + files.firmware + "\n");
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVBootFirmwareDownload_FromIni(&error), 100102u);
    EXPECT_EQ(error, 100102);
    EXPECT_EQ(loader.Stage(2), chain.setCtx);
  }
  {
    SCOPED_TRACE("Boot_File missing, the stand-in name exists");
    const Bytes standIn = Sequence(40, 11);
    work.Write("Fehler", HexText(standIn) + "\n");
    BootLoaderConfig config = chain.Loader();
    config.stage3Length = standIn.size();
    SimBootLoader loader(config);
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    driver.Write("kaVBoot.ini", "[BSL-Files]\nBSL_File=" + files.bsl + "\nSetCtx_File=" + files.setCtx +
                                    "\nBoot_Firmware=" + files.firmware + "\n");
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVBootFirmwareDownload_FromIni(&error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(loader.Stage(3), standIn);
    EXPECT_EQ(loader.Records(), chain.SentRecords());
    std::remove(work.File("Fehler").c_str());
  }
  {
    SCOPED_TRACE("an empty SetCtx_File still runs stage 2");
    SimBootLoader loader(chain.Loader());
    ASSERT_TRUE(loader.ok());
    DriverInDir driver(loader.slavePath());
    const ChainFiles files = WriteChain(driver, chain);
    driver.Write("kaVBoot.ini", "[BSL-Files]\nBSL_File=" + files.bsl + "\nSetCtx_File=\nBoot_File=" +
                                    files.boot + "\nBoot_Firmware=" + files.firmware + "\n");
    StartBoot(driver);
    int32_t error = -1;
    EXPECT_EQ(driver.com->kaVBootFirmwareDownload_FromIni(&error), 100101u);
    EXPECT_EQ(error, 100101);
    EXPECT_EQ(loader.Stage(1), chain.bsl);
  }
}

}  // namespace
}  // namespace tamrik
