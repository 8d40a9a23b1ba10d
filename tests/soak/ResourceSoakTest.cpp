// Opening and closing each link kind ten thousand times leaves the process's descriptors and
// heap as they were. Part of the soak: each method-level cycle writes the configuration file.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "reliability/ReliabilitySupport.h"
#include "platform/Platform.h"

namespace tamrik {
namespace {

using test::Link;
using test::LinkedDriver;

constexpr int kCycles = 10000;

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// The simulator closes its end of a connection on its own thread, some time after the driver
// closed its own: count once the number has held still for a while.
size_t SettledDescriptors() {
  size_t settled = OpenDescriptors();
  for (int round = 0; round < 20; ++round) {
    bool still = true;
    for (int i = 0; i < 15 && still; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      still = OpenDescriptors() == settled;
    }
    if (still) return settled;
    settled = OpenDescriptors();
  }
  return settled;
}

size_t HeapInUse() { return mallinfo2().uordblks; }

class Resources : public ::testing::TestWithParam<Link> {};

TEST_P(Resources, TenThousandOpenAndCloseCyclesLeakNothing) {
  LinkedDriver d(GetParam());
  ASSERT_EQ(d.openResult(), 0);
  int32_t version = 0, error = -1;
  ASSERT_EQ(d.com().kaVGetGatewayVersion(&version, &error), 0u);
  // One cycle first, so that whatever is made once per process is made before counting.
  ASSERT_EQ(d.com().kaVCloseComPort(0, &error), 0u);
  ASSERT_EQ(d.Open(), 0);
  ASSERT_EQ(d.com().kaVCloseComPort(0, &error), 0u);

  const size_t descriptorsBefore = SettledDescriptors();
  const size_t heapBefore = HeapInUse();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(150);
  int cycles = 0;
  for (; cycles < kCycles && std::chrono::steady_clock::now() < deadline; ++cycles) {
    ASSERT_EQ(d.Open(), 0) << cycles;
    ASSERT_EQ(d.com().kaVCloseComPort(0, &error), 0u);
    ASSERT_EQ(error, 0);
  }
  const size_t descriptorsAfter = SettledDescriptors();
  const size_t heapAfter = HeapInUse();
  std::cout << test::LinkLabel(GetParam()) << ": " << cycles << " cycles, descriptors " << descriptorsBefore
            << " -> " << descriptorsAfter << ", heap in use " << heapBefore << " -> " << heapAfter << " bytes\n";
  EXPECT_EQ(cycles, kCycles);
  EXPECT_EQ(descriptorsAfter, descriptorsBefore);
  // Less than one byte per cycle: nothing is kept per open.
  EXPECT_LT(int64_t(heapAfter) - int64_t(heapBefore), int64_t(kCycles));

  // The link still works after all that.
  ASSERT_EQ(d.Open(), 0);
  version = 0;
  EXPECT_EQ(d.com().kaVGetGatewayVersion(&version, &error), 0u);
  EXPECT_EQ(version, 0x0102);
}

INSTANTIATE_TEST_SUITE_P(Links, Resources, ::testing::Values(Link::Pty, Link::Tcp, Link::Udp),
                         [](const auto& info) { return std::string(test::LinkLabel(info.param)); });

}  // namespace
}  // namespace tamrik
