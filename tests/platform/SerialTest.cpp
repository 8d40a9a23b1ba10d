#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Platform.h"

namespace tamrik::platform {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Upper bounds of timing checks are loose: the machine is shared.
constexpr int64_t kSlack = 400;

// A pseudo-terminal whose slave stands for COM port 3 in a configuration file of its own.
class SerialTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tamrik-serial-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    config_ = dir_ + "/kaVcnf.ini";
    char name[256];
    ASSERT_EQ(::openpty(&master_, &slave_, name, nullptr, nullptr), 0);
    slaveName_ = name;
    std::ofstream(config_) << "[Init]\nReadInterval=200\n[Ports]\nCom3 = \"" << slaveName_
                           << "\"\nCom5=" << dir_ << "/no-such-tty\n";
  }
  void TearDown() override {
    if (device_ != nullptr) SerialClose(device_);
    if (master_ >= 0) ::close(master_);
    if (slave_ >= 0) ::close(slave_);
    fs::remove_all(dir_);
  }

  // Opens port 3 and makes it raw at 115200.
  void OpenRaw(const SerialTimeouts& timeouts) {
    SerialOpenError error = SerialOpenError::Other;
    device_ = SerialOpen(3, config_, &error);
    ASSERT_NE(device_, nullptr);
    ASSERT_EQ(error, SerialOpenError::None);
    ASSERT_TRUE(SerialConfigure(device_, 115200, 0));
    SerialSetTimeouts(device_, timeouts);
  }

  void MasterWrite(const std::string& bytes) {
    ASSERT_EQ(::write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  // Reads from the master until count bytes came or a second passed.
  std::string MasterRead(size_t count) {
    std::string got;
    auto start = Clock::now();
    while (got.size() < count && MsSince(start) < 1000) {
      pollfd p{master_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char chunk[4096];
      ssize_t n = ::read(master_, chunk, sizeof chunk);
      if (n <= 0) break;
      got.append(chunk, static_cast<size_t>(n));
    }
    return got;
  }

  // A read while the master writes each piece after its pause, in milliseconds.
  struct TimedRead {
    bool ok = false;
    uint32_t done = 0;
    int64_t elapsedMs = 0;
  };
  TimedRead ReadWhileMasterWrites(uint8_t* buffer, uint32_t length,
                                  std::vector<std::pair<int, std::string>> pieces) {
    std::thread writer([this, pieces = std::move(pieces)] {
      for (const auto& [pauseMs, bytes] : pieces) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        MasterWrite(bytes);
      }
    });
    TimedRead r;
    const auto start = Clock::now();
    r.ok = SerialRead(device_, buffer, length, &r.done);
    r.elapsedMs = MsSince(start);
    writer.join();
    return r;
  }

  std::string dir_, config_, slaveName_;
  int master_ = -1, slave_ = -1;
  SerialDevice* device_ = nullptr;
};

TEST_F(SerialTest, OpenFindsTheConfiguredDeviceAndHoldsItExclusively) {
  SerialOpenError error = SerialOpenError::None;
  device_ = SerialOpen(3, config_, &error);
  ASSERT_NE(device_, nullptr);
  EXPECT_EQ(error, SerialOpenError::None);

  // It is the pty named for Com3: bytes from the master arrive.
  ASSERT_TRUE(SerialConfigure(device_, 9600, 0));
  SerialSetTimeouts(device_, {0, 0, 1000});
  MasterWrite("hi");
  uint8_t buffer[2];
  uint32_t done = 0;
  ASSERT_TRUE(SerialRead(device_, buffer, 2, &done));
  EXPECT_EQ(std::string(buffer, buffer + done), "hi");

  // Held: a second open fails as "in use", from this process and from another one.
  EXPECT_EQ(SerialOpen(3, config_, &error), nullptr);
  EXPECT_EQ(error, SerialOpenError::AccessDenied);
  pid_t child = ::fork();
  if (child == 0) {
    SerialOpenError childError = SerialOpenError::None;
    SerialDevice* other = SerialOpen(3, config_, &childError);
    ::_exit(other == nullptr && childError == SerialOpenError::AccessDenied ? 0 : 1);
  }
  ASSERT_GT(child, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "other process got the port";

  // Released by close.
  SerialClose(device_);
  device_ = SerialOpen(3, config_, &error);
  EXPECT_NE(device_, nullptr);
  EXPECT_EQ(error, SerialOpenError::None);

  // Configured to a missing device, or falling back to /dev/ttyS<n-1> names that
  // cannot exist.
  for (int32_t port : {5, 1000, 0, -7, INT32_MIN, INT32_MAX}) {
    error = SerialOpenError::None;
    EXPECT_EQ(SerialOpen(port, config_, &error), nullptr) << port;
    EXPECT_EQ(error, SerialOpenError::NotFound) << port;
  }
  // A file that is no device at all (a directory) fails otherwise.
  std::ofstream(config_, std::ios::app) << "Com6=" << dir_ << "\n";
  EXPECT_EQ(SerialOpen(6, config_, &error), nullptr);
  EXPECT_EQ(error, SerialOpenError::Other);
}

TEST_F(SerialTest, ConfigureMakesTheLineRaw8N1) {
  SerialOpenError error;
  device_ = SerialOpen(3, config_, &error);
  ASSERT_NE(device_, nullptr);

  // Start from a cooked line with parity, two stop bits and flow control.
  termios cooked{};
  ASSERT_EQ(::tcgetattr(slave_, &cooked), 0);
  cooked.c_iflag |= ICRNL | IXON | IXOFF | ISTRIP;
  cooked.c_oflag |= OPOST | ONLCR;
  cooked.c_lflag |= ICANON | ECHO | ISIG | IEXTEN;
  cooked.c_cflag = (cooked.c_cflag & ~CSIZE) | CS7 | PARENB | CSTOPB;
  ASSERT_EQ(::tcsetattr(slave_, TCSANOW, &cooked), 0);

  EXPECT_FALSE(SerialConfigure(device_, 14400, 0));
  EXPECT_FALSE(SerialConfigure(device_, 0, 0));
  ASSERT_TRUE(SerialConfigure(device_, 57600, 1));

  termios t{};
  ASSERT_EQ(::tcgetattr(slave_, &t), 0);
  EXPECT_EQ(::cfgetospeed(&t), static_cast<speed_t>(B57600));
  EXPECT_EQ(::cfgetispeed(&t), static_cast<speed_t>(B57600));
  EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
  EXPECT_EQ(t.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
  EXPECT_EQ(t.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
  EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ECHONL | ISIG | IEXTEN), 0u);
  EXPECT_EQ(t.c_iflag & (ICRNL | INLCR | IGNCR | IXON | IXOFF | ISTRIP | INPCK | BRKINT), 0u);
  EXPECT_EQ(t.c_oflag & OPOST, 0u);
  EXPECT_EQ(t.c_cc[VMIN], 0);
  EXPECT_EQ(t.c_cc[VTIME], 0);

  // Every byte value passes unchanged both ways: no CR/LF translation, no XON/XOFF, no
  // signal characters, no echo.
  SerialSetTimeouts(device_, {0, 0, 2000});
  std::string all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  MasterWrite(all);
  std::vector<uint8_t> in(256);
  uint32_t done = 0;
  ASSERT_TRUE(SerialRead(device_, in.data(), 256, &done));
  ASSERT_EQ(done, 256u);
  EXPECT_EQ(std::string(in.begin(), in.end()), all);
  ASSERT_TRUE(SerialWrite(device_, in.data(), 256, &done));
  EXPECT_EQ(done, 256u);
  EXPECT_EQ(MasterRead(256), all);

  // The handshake mode switches hardware flow control on, the others off.
  ASSERT_TRUE(SerialConfigure(device_, 9600, 2));
  ASSERT_EQ(::tcgetattr(slave_, &t), 0);
  EXPECT_NE(t.c_cflag & CRTSCTS, 0u);
  EXPECT_EQ(::cfgetospeed(&t), static_cast<speed_t>(B9600));
  for (uint8_t rts : {0, 3, 0xFD /* low bits 1 */}) {
    ASSERT_TRUE(SerialConfigure(device_, 19200, rts)) << int(rts);
    ASSERT_EQ(::tcgetattr(slave_, &t), 0);
    EXPECT_EQ(t.c_cflag & CRTSCTS, 0u) << int(rts);
  }
}

TEST_F(SerialTest, ReadEndsAtTheTotalTimeOut) {
  OpenRaw({0, 0, 300});
  uint8_t buffer[10];
  uint32_t done = 99;
  auto start = Clock::now();
  ASSERT_TRUE(SerialRead(device_, buffer, 10, &done));
  int64_t elapsed = MsSince(start);
  EXPECT_EQ(done, 0u);
  EXPECT_GE(elapsed, 300);
  EXPECT_LT(elapsed, 300 + kSlack);

  // The multiplier counts once per requested byte: 4 bytes wait 100 + 4 * 50 ms, 8 bytes
  // wait 100 + 8 * 50.
  SerialSetTimeouts(device_, {0, 50, 100});
  start = Clock::now();
  ASSERT_TRUE(SerialRead(device_, buffer, 4, &done));
  elapsed = MsSince(start);
  EXPECT_EQ(done, 0u);
  EXPECT_GE(elapsed, 300);
  EXPECT_LT(elapsed, 300 + kSlack);
  start = Clock::now();
  ASSERT_TRUE(SerialRead(device_, buffer, 8, &done));
  elapsed = MsSince(start);
  EXPECT_GE(elapsed, 500);
  EXPECT_LT(elapsed, 500 + kSlack);

  // Bytes that arrive during a total time-out are kept; a short read is no error.
  SerialSetTimeouts(device_, {0, 0, 400});
  const TimedRead partial = ReadWhileMasterWrites(buffer, 5, {{100, "\xAA\x01"}});
  ASSERT_TRUE(partial.ok);
  ASSERT_EQ(partial.done, 2u);
  EXPECT_EQ(buffer[0], 0xAA);
  EXPECT_EQ(buffer[1], 0x01);
  EXPECT_GE(partial.elapsedMs, 400);  // no interval limit: it waits for the rest until the end
  EXPECT_LT(partial.elapsedMs, 400 + kSlack);

  // Zero bytes: done at once.
  start = Clock::now();
  done = 7;
  EXPECT_TRUE(SerialRead(device_, buffer, 0, &done));
  EXPECT_EQ(done, 0u);
  EXPECT_LT(MsSince(start), 250);
}

TEST_F(SerialTest, ReadEndsWhenTheLineFallsSilentAfterTheFirstByte) {
  // The interval clock starts with the first byte: 300 ms of silence before it do not
  // end a read whose interval is 100 ms.
  OpenRaw({100, 0, 3000});
  uint8_t buffer[10];
  uint32_t done = 0;
  const TimedRead late = ReadWhileMasterWrites(buffer, 10, {{300, "ab"}, {40, "c"}});
  ASSERT_TRUE(late.ok);
  ASSERT_EQ(late.done, 3u);
  EXPECT_EQ(std::string(buffer, buffer + 3), "abc");
  EXPECT_GE(late.elapsedMs, 300 + 40 + 100);
  EXPECT_LT(late.elapsedMs, 440 + kSlack);

  // An interval without any total limit ends too, and only by the interval. Should it
  // not, the watchdog completes the read after two seconds instead of letting it hang.
  SerialSetTimeouts(device_, {150, 0, 0});
  MasterWrite("xyz");
  std::atomic<bool> finished{false};
  std::thread watchdog([this, &finished] {
    for (int i = 0; i < 40 && !finished; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!finished) MasterWrite("1234567");
  });
  auto start = Clock::now();
  bool ok = SerialRead(device_, buffer, 10, &done);
  int64_t elapsed = MsSince(start);
  finished = true;
  watchdog.join();
  ASSERT_TRUE(ok);
  EXPECT_EQ(done, 3u);
  EXPECT_GE(elapsed, 150);
  EXPECT_LT(elapsed, 150 + kSlack);
}

TEST_F(SerialTest, ReadReturnsAsSoonAsAllBytesAreThere) {
  OpenRaw({200, 0, 5000});
  uint8_t buffer[5];
  uint32_t done = 0;
  const TimedRead whole = ReadWhileMasterWrites(buffer, 5, {{100, "\xAA\x10\x20"}, {50, "\x30\x40"}});
  ASSERT_TRUE(whole.ok);
  EXPECT_EQ(whole.done, 5u);
  EXPECT_EQ(std::string(buffer, buffer + 5), "\xAA\x10\x20\x30\x40");
  EXPECT_GE(whole.elapsedMs, 150);
  EXPECT_LT(whole.elapsedMs, 150 + kSlack);

  // Bytes beyond the request stay queued for the next read.
  MasterWrite("12345678");
  ASSERT_TRUE(SerialRead(device_, buffer, 5, &done));
  EXPECT_EQ(std::string(buffer, buffer + done), "12345");
  ASSERT_TRUE(SerialRead(device_, buffer, 3, &done));
  EXPECT_EQ(std::string(buffer, buffer + done), "678");

  // Interval MAXDWORD with no total: take what is there and return at once.
  SerialSetTimeouts(device_, {UINT32_MAX, 0, 0});
  MasterWrite("qr");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto start = Clock::now();
  ASSERT_TRUE(SerialRead(device_, buffer, 5, &done));
  EXPECT_EQ(std::string(buffer, buffer + done), "qr");
  // Nothing there: still at once. Should it wait, the watchdog ends the wait.
  std::atomic<bool> finished{false};
  std::thread watchdog([this, &finished] {
    for (int i = 0; i < 20 && !finished; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!finished) MasterWrite("!");
  });
  bool ok2 = SerialRead(device_, buffer, 5, &done);
  finished = true;
  watchdog.join();
  EXPECT_TRUE(ok2);
  EXPECT_EQ(done, 0u);
  EXPECT_LT(MsSince(start), 250);
}

TEST_F(SerialTest, ReadAfterARequestKeepsTheBoundsOfAnyRead) {
  // After a write the read waits for the answer in whole tenths of a second and the rest:
  // 250 ms are 250 ms, neither 200 nor 300.
  OpenRaw({0, 0, 250});
  const uint8_t request[3] = {0xAA, 0x03, 0x00};
  uint8_t buffer[16];
  uint32_t done = 99;
  auto Request = [&] {
    ASSERT_TRUE(SerialWrite(device_, request, sizeof request, &done));
    ASSERT_EQ(done, sizeof request);
    EXPECT_EQ(MasterRead(sizeof request), std::string(request, request + sizeof request));
  };
  Request();
  auto start = Clock::now();
  ASSERT_TRUE(SerialRead(device_, buffer, 16, &done));
  int64_t elapsed = MsSince(start);
  EXPECT_EQ(done, 0u);
  EXPECT_GE(elapsed, 250);
  EXPECT_LT(elapsed, 250 + kSlack);

  // An answer that begins after the last whole tenth still counts.
  Request();
  const TimedRead late = ReadWhileMasterWrites(buffer, 2, {{220, "\xAA\x43"}});
  ASSERT_TRUE(late.ok);
  EXPECT_EQ(late.done, 2u);
  EXPECT_GE(late.elapsedMs, 200);

  // An answer in two pieces is read whole, as soon as it is there, and nothing beyond it
  // is lost.
  SerialSetTimeouts(device_, {0, 0, 2000});
  Request();
  const TimedRead pieces = ReadWhileMasterWrites(buffer, 5, {{50, "\xAA\x03\x40"}, {50, "\x01\x02xyz"}});
  ASSERT_TRUE(pieces.ok);
  EXPECT_EQ(std::string(buffer, buffer + pieces.done), "\xAA\x03\x40\x01\x02");
  EXPECT_GE(pieces.elapsedMs, 100);
  EXPECT_LT(pieces.elapsedMs, 100 + kSlack);
  ASSERT_TRUE(SerialRead(device_, buffer, 3, &done));
  EXPECT_EQ(std::string(buffer, buffer + done), "xyz");

  // The interval between bytes starts with the first byte of the answer, not with the
  // request: 300 ms of silence before it do not end a read whose interval is 100 ms.
  SerialSetTimeouts(device_, {100, 0, 3000});
  Request();
  const TimedRead slow = ReadWhileMasterWrites(buffer, 10, {{300, "ab"}, {40, "c"}});
  ASSERT_TRUE(slow.ok);
  EXPECT_EQ(std::string(buffer, buffer + slow.done), "abc");
  EXPECT_GE(slow.elapsedMs, 300 + 40 + 100);
  EXPECT_LT(slow.elapsedMs, 440 + kSlack);

  // A line that hangs up while the answer is awaited is an error at once, not a time-out.
  Request();
  std::thread hangUp([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ::close(master_);
    master_ = -1;
  });
  start = Clock::now();
  const bool ok = SerialRead(device_, buffer, 16, &done);
  elapsed = MsSince(start);
  hangUp.join();
  EXPECT_FALSE(ok);
  EXPECT_LT(elapsed, 1000);
}

TEST_F(SerialTest, HangUpIsAnErrorNotATimeOut) {
  OpenRaw({0, 0, 3000});
  ::close(master_);
  master_ = -1;
  uint8_t buffer[4] = {};
  uint32_t done = 0;
  auto start = Clock::now();
  EXPECT_FALSE(SerialRead(device_, buffer, 4, &done));
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_EQ(done, 0u);
  EXPECT_FALSE(SerialWrite(device_, buffer, 4, &done));
}

TEST_F(SerialTest, WriteGivesUpWhenTheLineStalls) {
  OpenRaw({0, 0, 100});
  // Nobody reads the master, so the pty's buffers fill. The kernel moves data between
  // them lazily: fill until even a pause frees no more room.
  std::vector<uint8_t> data(1 << 20, 0x55);
  ASSERT_EQ(::fcntl(slave_, F_SETFL, ::fcntl(slave_, F_GETFL) | O_NONBLOCK), 0);
  bool full = false;
  for (int round = 0; round < 50 && !full; ++round) {
    ssize_t first = ::write(slave_, data.data(), data.size());
    full = first < 0;
    while (::write(slave_, data.data(), data.size()) > 0) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_TRUE(full);

  uint32_t done = 0;
  auto start = Clock::now();
  ASSERT_TRUE(SerialWrite(device_, data.data(), static_cast<uint32_t>(data.size()), &done));
  int64_t elapsed = MsSince(start);
  EXPECT_LT(done, data.size());
  EXPECT_GE(elapsed, 5000);
  EXPECT_LT(elapsed, 5000 + 2000);
}

}  // namespace
}  // namespace tamrik::platform
