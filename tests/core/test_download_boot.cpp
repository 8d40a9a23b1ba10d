// The boot loader chain: wake byte, three stage files, then the firmware records.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <optional>
#include <string>
#include <vector>

#include "common/TestPeers.h"
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

// A boot loader, a driver whose line leads to it, the chain's files, and the line reopened
// for the chain.
struct Rig {
  Rig(const Chain& chain, const BootLoaderConfig& config, int demo = 0)
      : loader(config), driver(loader.slavePath(), demo), files(WriteChain(driver, chain)) {
    EXPECT_TRUE(loader.ok());
    StartBoot(driver);
  }
  uint32_t Run(int32_t* error) { return RunChain(driver, files, error); }
  bool LineOpen() const { return CComPortTestPeer::LinkOpen(CcomTestPeer::Port(*driver.com)) != 0; }

  SimBootLoader loader;
  DriverInDir driver;
  ChainFiles files;
};

TEST(BootFirmwareDownload, TheWholeChainArrivesAndTheLineIsClosed) {
  const Chain chain;
  SimBootLoader loader(chain.Loader());
  ASSERT_TRUE(loader.ok());
  DriverInDir driver(loader.slavePath());
  const ChainFiles files = WriteChain(driver, chain);
  CcomTestPeer::ComPortNumber(*driver.com) = 1;
  CcomTestPeer::Baudrate(*driver.com) = 9600;

  StartBoot(driver);
  EXPECT_EQ(CcomTestPeer::ComPortNumber(*driver.com), test::kLoaderPort);
  EXPECT_EQ(CcomTestPeer::Baudrate(*driver.com), 57600);
  EXPECT_EQ(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(*driver.com)), 1);

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
  EXPECT_EQ(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(*driver.com)), 0);
  EXPECT_EQ(driver.com->kaVCloseComPort(test::kLoaderPort, &error), 0u);
  EXPECT_EQ(error, int32_t(rc::kNothingOpen));

  // A line that cannot be reopened is still reported as 0, and shows itself in the chain.
  DriverInDir nowhere(driver.dir.File("no-such-device"));
  StartBoot(nowhere);
  EXPECT_EQ(CComPortTestPeer::LinkOpen(CcomTestPeer::Port(*nowhere.com)), 0);
  const ChainFiles other = WriteChain(nowhere, chain);
  EXPECT_EQ(RunChain(nowhere, other, &error), rc::kWriteFailed);
  EXPECT_EQ(error, int32_t(rc::kWriteFailed));
}

TEST(BootFirmwareDownload, TheStageOneAnswerDecides) {
  struct Case {
    std::optional<uint8_t> answer;
    uint32_t result;
  };
  const Case cases[] = {{'0', 0x3003}, {'E', 5}, {std::nullopt, rc::kReadFailed}, {'x', 0}, {'Q', 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer ? std::string(1, char(*c.answer)) : "no answer");
    Chain chain;
    chain.records.clear();  // once the stages pass, nothing more is waited for
    BootLoaderConfig config = chain.Loader();
    config.stage1Answer = c.answer;
    Rig rig(chain, config);
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), c.result);
    EXPECT_EQ(error, int32_t(c.result));
    EXPECT_EQ(rig.loader.Stage(1), chain.bsl);
    // A failure stops the chain at once and leaves the line open.
    EXPECT_EQ(rig.loader.WaitForStage(3, c.result == 0 ? 1000ms : 100ms), c.result == 0);
    EXPECT_EQ(rig.LineOpen(), c.result != 0);
  }
}

TEST(BootFirmwareDownload, StageTwo) {
  const Chain chain;
  BootLoaderConfig withoutStage2 = chain.Loader();
  withoutStage2.stage2 = false;
  {
    SCOPED_TRACE("an empty argument skips it");
    Rig rig(chain, withoutStage2);
    rig.files.setCtx.clear();
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), 0u);
    EXPECT_EQ(rig.loader.Stage(3), chain.boot);
    EXPECT_EQ(rig.loader.Records(), chain.SentRecords());
    EXPECT_TRUE(rig.loader.Stray().empty());
  }
  {
    SCOPED_TRACE("a file of white space sends nothing");
    Rig rig(chain, withoutStage2);
    rig.files.setCtx = rig.driver.Write("context.txt", "\r\n");
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), 0u);
    EXPECT_EQ(rig.loader.Stage(3), chain.boot);
    EXPECT_TRUE(rig.loader.Stray().empty());
  }
  {
    SCOPED_TRACE("only a character outside the table lets it pass");
    BootLoaderConfig config = chain.Loader();
    config.stage2Answer = 'r';
    Rig rig(chain, config);
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), 1u);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(rig.loader.Stage(2), chain.setCtx);
    EXPECT_FALSE(rig.loader.WaitForStage(3, 100ms));
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
    Rig rig(chain, chain.Loader());
    std::string* target = c.stage == 1 ? &rig.files.bsl : c.stage == 2 ? &rig.files.setCtx : &rig.files.boot;
    *target = c.content.empty() ? rig.driver.dir.File("absent.txt") : rig.driver.Write("replaced.txt", c.content);
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), c.result);
    EXPECT_EQ(error, int32_t(c.result));
    // Nothing of the refused stage reached the line.
    EXPECT_FALSE(rig.loader.WaitForStage(c.stage, 100ms));
    if (c.stage == 1) {
      EXPECT_EQ(rig.loader.WakeBytes(), 0u);
    } else {
      EXPECT_EQ(rig.loader.Stage(c.stage - 1), c.stage == 2 ? chain.bsl : chain.setCtx);
    }
    EXPECT_FALSE(CcomTestPeer::Port(*rig.driver.com).HasLoadFile());
  }
}

TEST(BootFirmwareDownload, StageFileContents) {
  // Lower-case digits are digits; an empty boot file is a write of no bytes; the records
  // follow as usual.
  Chain chain;
  chain.boot.clear();
  Rig rig(chain, chain.Loader());
  std::string lower = HexText(chain.bsl);
  for (char& ch : lower) ch = char(tolower(ch));
  rig.files.bsl = rig.driver.Write("lower.bsl", lower);
  rig.files.boot = rig.driver.Write("empty.txt", "");
  int32_t error = -1;
  EXPECT_EQ(rig.Run(&error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(rig.loader.Stage(1), chain.bsl);
  EXPECT_EQ(rig.loader.Stage(3), Bytes{});
  EXPECT_EQ(rig.loader.Records(), chain.SentRecords());
}

TEST(BootFirmwareDownload, RecordFailuresAndDemonstrationMode) {
  const Chain chain;
  {
    SCOPED_TRACE("the loader never gets ready");
    BootLoaderConfig config = chain.Loader();
    config.ready.reset();
    Rig rig(chain, config);
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), rc::kAnswerFailed);
    EXPECT_EQ(error, int32_t(rc::kLoaderNotReady));
    EXPECT_TRUE(rig.loader.Records().empty());
    EXPECT_TRUE(rig.LineOpen());
  }
  {
    SCOPED_TRACE("the second record is refused four times");
    BootLoaderConfig config = chain.Loader();
    config.recordAnswers = {'r', 'b', 'b', 'b', 'b'};
    Rig rig(chain, config);
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), rc::kAnswerFailed);
    EXPECT_EQ(error, 9);  // 'b'
    EXPECT_EQ(rig.loader.Records().size(), 5u);
    EXPECT_TRUE(rig.LineOpen());
  }
  {
    SCOPED_TRACE("demonstration mode");
    Rig rig(chain, chain.Loader(), /*demo=*/1);
    int32_t error = -1;
    EXPECT_EQ(rig.Run(&error), 0u);
    EXPECT_EQ(error, 0);
    // The stages still go over the line; the records do not.
    EXPECT_TRUE(rig.loader.WaitForStage(3, 2000ms));
    EXPECT_EQ(rig.loader.Stage(3), chain.boot);
    EXPECT_TRUE(rig.loader.Records().empty());
    EXPECT_FALSE(rig.LineOpen());
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
  const auto list = [](const ChainFiles& f, bool withBoot, const std::string& setCtx) {
    return "[BSL-Files]\nBSL_File=" + f.bsl + "\nSetCtx_File=" + setCtx + "\n" +
           (withBoot ? "Boot_File=" + f.boot + "\n" : "") + "Boot_Firmware=" + f.firmware + "\n";
  };
  {
    SCOPED_TRACE("Boot_File missing, no file of the stand-in name");
    Rig rig(chain, chain.Loader());
    rig.driver.Write("kaVBoot.ini", list(rig.files, false, rig.files.setCtx));
    int32_t error = -1;
    EXPECT_EQ(rig.driver.com->kaVBootFirmwareDownload_FromIni(&error), 100102u);
    EXPECT_EQ(error, 100102);
    EXPECT_EQ(rig.loader.Stage(2), chain.setCtx);
  }
  {
    SCOPED_TRACE("Boot_File missing, the stand-in name exists");
    const Bytes standIn = Sequence(40, 11);
    work.Write("Fehler", HexText(standIn) + "\n");
    BootLoaderConfig config = chain.Loader();
    config.stage3Length = standIn.size();
    Rig rig(chain, config);
    rig.driver.Write("kaVBoot.ini", list(rig.files, false, rig.files.setCtx));
    int32_t error = -1;
    EXPECT_EQ(rig.driver.com->kaVBootFirmwareDownload_FromIni(&error), 0u);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(rig.loader.Stage(3), standIn);
    EXPECT_EQ(rig.loader.Records(), chain.SentRecords());
    std::remove(work.File("Fehler").c_str());
  }
  {
    SCOPED_TRACE("an empty SetCtx_File still runs stage 2");
    Rig rig(chain, chain.Loader());
    rig.driver.Write("kaVBoot.ini", list(rig.files, true, ""));
    int32_t error = -1;
    EXPECT_EQ(rig.driver.com->kaVBootFirmwareDownload_FromIni(&error), 100101u);
    EXPECT_EQ(error, 100101);
    EXPECT_EQ(rig.loader.Stage(1), chain.bsl);
  }
}

}  // namespace
}  // namespace tamrik
