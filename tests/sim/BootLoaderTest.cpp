// The boot loader met by a host on its pseudo-terminal: downloads in a row, a download given
// up half-way, and the observer that runs before each answer leaves.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "SimBootLoader.h"
#include "SimTestSupport.h"

namespace tamrik::sim::test {
namespace {

using namespace std::chrono_literals;

// What the observer saw, in order: "download 1", "stage 1 (3)", "record 1 (4)".
class Seen {
 public:
  void Add(const BootEvent& event) {
    using Kind = BootEvent::Kind;
    // Slow on purpose for records: an observer that ran after the answer would be seen late.
    if (event.kind == Kind::Record) std::this_thread::sleep_for(30ms);
    const std::string name = event.kind == Kind::Download ? "download " + std::to_string(event.download)
                             : event.kind == Kind::Stage  ? "stage " + std::to_string(event.stage)
                                                          : "record " + std::to_string(event.record);
    std::lock_guard lock(mutex_);
    events_.push_back(event.bytes == nullptr ? name : name + " (" + std::to_string(event.bytes->size()) + ")");
  }
  std::vector<std::string> Take() {
    std::lock_guard lock(mutex_);
    return std::exchange(events_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

// The host's side of the chain: each step written, then its one-byte answer awaited.
class ChainHost {
 public:
  explicit ChainHost(const std::string& path) : line_(path) {}
  bool ok() const { return line_.ok(); }
  // Writes bytes and gives the answer byte, or -1 when none came within a second.
  int Step(const Bytes& bytes) {
    if (!line_.Send(bytes)) return -1;
    const Bytes answer = line_.Read(1, 1000);
    return answer.empty() ? -1 : answer[0];
  }

 private:
  PtyClient line_;
};

TEST(SimBootLoader, ChainAfterChainAndADownloadGivenUpHalfWay) {
  Seen seen;
  BootLoaderConfig config;
  config.observer = [&seen](const BootEvent& event) { seen.Add(event); };
  SimBootLoader loader(config);
  ASSERT_TRUE(loader.ok());
  ChainHost host(loader.slavePath());
  ASSERT_TRUE(host.ok());
  const Bytes stage1 = {1, 2, 3}, stage2 = {4, 5, 6, 7}, stage3 = {8, 9};
  const Bytes record1 = HexBytes("3A 01 00 00 00 55 AA"), record2 = HexBytes("3A 00 00 00 01 FF");

  for (int download = 1; download <= 2; ++download) {
    SCOPED_TRACE("download " + std::to_string(download));
    EXPECT_EQ(host.Step({0x00}), 0xC5);
    EXPECT_EQ(host.Step(stage1), 'r');
    EXPECT_EQ(host.Step(stage2), 'K');
    EXPECT_EQ(host.Step(stage3), 'r');
    EXPECT_EQ(host.Step(record1), 'r');
    // The observer has seen the record by the time its answer is here.
    std::vector<std::string> expected = {"download " + std::to_string(download), "stage 1 (3)", "stage 2 (4)",
                                         "stage 3 (2)", "record 1 (7)"};
    EXPECT_EQ(seen.Take(), expected);
    EXPECT_EQ(host.Step(record2), 'r');
    EXPECT_EQ(seen.Take(), std::vector<std::string>{"record 2 (6)"});
  }

  // Given up after stage 1: the loader waits for stage 2 when the next wake byte comes.
  EXPECT_EQ(host.Step({0x00}), 0xC5);
  EXPECT_EQ(host.Step(stage1), 'r');
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(host.Step({0x00}), 0xC5);
  EXPECT_EQ(host.Step({0xEE}), 'r');
  EXPECT_EQ(host.Step(stage2), 'K');
  EXPECT_EQ(host.Step(stage3), 'r');
  EXPECT_EQ(host.Step(record2), 'r');
  EXPECT_EQ(seen.Take(), (std::vector<std::string>{"download 3", "stage 1 (3)", "download 4", "stage 1 (1)",
                                                   "stage 2 (4)", "stage 3 (2)", "record 1 (6)"}));

  EXPECT_EQ(loader.Downloads(), 4u);
  EXPECT_EQ(loader.WakeBytes(), 4u);
  // The stages are the latest download's; the records are all of them.
  EXPECT_EQ(loader.Stage(1), Bytes{0xEE});
  EXPECT_EQ(loader.Stage(3), stage3);
  EXPECT_EQ(loader.Records(), (std::vector<Bytes>{record1, record2, record1, record2, record2}));
  EXPECT_TRUE(loader.Stray().empty());
}

}  // namespace
}  // namespace tamrik::sim::test
