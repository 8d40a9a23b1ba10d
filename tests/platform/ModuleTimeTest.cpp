#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "platform/Platform.h"

namespace tamrik::platform {
namespace {

TEST(Module, DirectoryIsAbsoluteAndHoldsThisProgram) {
  std::string dir = ModuleDirectory();
  ASSERT_FALSE(dir.empty());
  EXPECT_EQ(dir.front(), '/');
  EXPECT_EQ(dir.back(), '/');
  struct stat st {};
  EXPECT_EQ(::stat((dir + "tamrik_platform_tests").c_str(), &st), 0) << dir;

  // Not derived from the working directory: the answer stays when it changes.
  char* cwd = ::getcwd(nullptr, 0);
  ASSERT_EQ(::chdir("/"), 0);
  EXPECT_EQ(ModuleDirectory(), dir);
  ASSERT_EQ(::chdir(cwd), 0);
  ::free(cwd);
}

void OnAlarm(int) {}

TEST(Time, SleepLastsItsTimeEvenWhenSignalsArrive) {
  struct sigaction action {};
  struct sigaction old {};
  action.sa_handler = &OnAlarm;  // no SA_RESTART: nanosleep sees EINTR
  ASSERT_EQ(::sigaction(SIGALRM, &action, &old), 0);
  itimerval timer{{0, 20000}, {0, 20000}};  // every 20 ms
  ASSERT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);

  uint64_t before = MonotonicMs();
  auto start = std::chrono::steady_clock::now();
  SleepMs(150);
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now() - start).count();
  uint64_t after = MonotonicMs();

  itimerval off{};
  ::setitimer(ITIMER_REAL, &off, nullptr);
  ::sigaction(SIGALRM, &old, nullptr);

  EXPECT_GE(elapsed, 150);
  EXPECT_LT(elapsed, 150 + 400);
  // The monotonic clock counts milliseconds: it saw the same pause.
  EXPECT_GE(after - before, 149u);
  EXPECT_LE(after - before, static_cast<uint64_t>(elapsed) + 2);
}

}  // namespace
}  // namespace tamrik::platform
