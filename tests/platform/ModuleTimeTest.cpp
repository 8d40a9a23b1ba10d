#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
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

// Sets an environment variable for one scope and puts the old value back.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    if (old != nullptr) old_ = old;
    hadOld_ = old != nullptr;
    if (value != nullptr) ::setenv(name, value, 1);
    else ::unsetenv(name);
  }
  ~ScopedVariable() {
    if (hadOld_) ::setenv(name_, old_.c_str(), 1);
    else ::unsetenv(name_);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::string old_;
  bool hadOld_ = false;
};

TEST(Module, UserConfigurationGoesWhereTheEnvironmentSaysAndIsMadeWhenMissing) {
  char pattern[] = "/tmp/tamrik-config-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const std::string base = pattern;
  EXPECT_TRUE(DirectoryExists(base));
  EXPECT_TRUE(DirectoryWritable(base));
  EXPECT_FALSE(DirectoryExists(base + "/none"));
  EXPECT_FALSE(DirectoryWritable(base + "/none"));
  {
    // The project's own variable first, made with its parents.
    ScopedVariable own("TAMRIK_CONFIG_DIR", (base + "/own/deeper").c_str());
    ScopedVariable xdg("XDG_CONFIG_HOME", (base + "/xdg").c_str());
    EXPECT_EQ(UserConfigDirectory(), base + "/own/deeper/");
    EXPECT_TRUE(DirectoryExists(base + "/own/deeper"));
  }
  {
    ScopedVariable own("TAMRIK_CONFIG_DIR", nullptr);
    ScopedVariable xdg("XDG_CONFIG_HOME", (base + "/xdg").c_str());
    EXPECT_EQ(UserConfigDirectory(), base + "/xdg/tamrik/");
  }
  {
    // A relative XDG_CONFIG_HOME does not count; the home directory's .config does.
    ScopedVariable own("TAMRIK_CONFIG_DIR", nullptr);
    ScopedVariable xdg("XDG_CONFIG_HOME", "relative");
    ScopedVariable home("HOME", (base + "/home").c_str());
    EXPECT_EQ(UserConfigDirectory(), base + "/home/.config/tamrik/");
    struct stat st {};
    ASSERT_EQ(::stat((base + "/home/.config/tamrik").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
  }
  {
    // A place that cannot be made gives nothing rather than a directory that is not there.
    ScopedVariable own("TAMRIK_CONFIG_DIR", "/proc/tamrik-cannot-be-made");
    EXPECT_EQ(UserConfigDirectory(), "");
  }
  std::filesystem::remove_all(base);
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
