// A profile write replaces the file in one step: a reader sees the old or the new content,
// never a part of it, and no temporary file is left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "common/TestSupport.h"
#include "platform/Platform.h"

namespace tamrik {
namespace {

TEST(ProfileReplace, AReaderNeverSeesAPartlyWrittenFile) {
  test::TempDir dir;
  const std::string file = dir.File("kaVcnf.ini");
  // Large enough that a write in place would be seen half done.
  const std::string a(200000, 'a'), b(200000, 'b');
  ASSERT_TRUE(platform::ProfileWriteString("Init", "Value", a.c_str(), file));
  const std::string wholeA = "[Init]\nValue=" + a + "\n", wholeB = "[Init]\nValue=" + b + "\n";

  std::atomic<bool> done{false};
  std::atomic<int> partial{0}, reads{0};
  std::thread reader([&] {
    while (!done.load()) {
      std::ifstream in(file, std::ios::binary);
      std::stringstream text;
      text << in.rdbuf();
      const std::string seen = text.str();
      if (seen != wholeA && seen != wholeB) partial.fetch_add(1);
      reads.fetch_add(1);
    }
  });
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(platform::ProfileWriteString("Init", "Value", (i % 2 == 0 ? b : a).c_str(), file));
  }
  done = true;
  reader.join();
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(partial.load(), 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);  // no temporary left
}

TEST(ProfileNames, AListCutShortNeverWritesPastTheBuffer) {
  test::TempDir dir;
  const std::string file = dir.File("kaVcnf.ini");
  dir.Write("kaVcnf.ini", "[A]\nx=1\n[B]\ny=2\n");
  // The first name fills the buffer up to the cut; the second must not be copied at all.
  char buffer[4] = {'?', '?', '?', '?'};
  EXPECT_EQ(platform::ProfileGetString(nullptr, nullptr, "", buffer, 3, file), 1u);
  EXPECT_EQ(std::string(buffer, 4), std::string("A\0\0?", 4));
}

}  // namespace
}  // namespace tamrik
