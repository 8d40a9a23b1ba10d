#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Platform.h"

namespace tamrik::platform {
namespace {

namespace fs = std::filesystem;

class ProfileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tamrik-profile-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    file_ = dir_ + "/kaVcnf.ini";
  }
  void TearDown() override { fs::remove_all(dir_); }

  void Put(const std::string& content) { Put(file_, content); }
  static void Put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }
  std::string Get() const { return Get(file_); }
  static std::string Get(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  std::string Str(const char* section, const char* key, const char* def = "?") const {
    char buffer[256];
    uint32_t n = ProfileGetString(section, key, def, buffer, sizeof buffer, file_);
    EXPECT_EQ(n, std::strlen(buffer));
    return buffer;
  }
  std::vector<std::string> Entries() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir_)) names.push_back(e.path().filename().string());
    return names;
  }

  std::string dir_;
  std::string file_;
};

TEST_F(ProfileTest, ReadsLikeWindows) {
  Put("top=outside any section\n"
      "; a comment\n"
      "[Init]\n"
      "ReadInterval=200\n"
      "  spaced key   =   spaced value   \n"
      "Double=\"quoted value\"\n"
      "Single=' kept blanks '\n"
      "Mixed=\"not stripped'\n"
      "Inner=a \"b\" c\n"
      "Lone=\"\n"
      "Empty=\n"
      ";Commented=1\n"
      "ReadInterval=999\n"
      "[  iNiT  ]\n"
      "Second=from a repeated section\n"
      "[Other]\r\n"
      "Crlf=value\r\n"
      "Eq=a=b\r\n");

  EXPECT_EQ(Str("Init", "ReadInterval"), "200");  // the first of two keys wins
  EXPECT_EQ(Str("INIT", "readinterval"), "200");
  EXPECT_EQ(Str(" Init ", " ReadInterval "), "200");
  EXPECT_EQ(Str("Init", "Spaced Key"), "spaced value");
  EXPECT_EQ(Str("Init", "Double"), "quoted value");
  EXPECT_EQ(Str("Init", "Single"), " kept blanks ");
  EXPECT_EQ(Str("Init", "Mixed"), "\"not stripped'");
  EXPECT_EQ(Str("Init", "Inner"), "a \"b\" c");
  EXPECT_EQ(Str("Init", "Lone"), "\"");
  EXPECT_EQ(Str("Init", "Empty"), "");
  EXPECT_EQ(Str("Init", "Commented"), "?");
  EXPECT_EQ(Str("Init", "Second"), "?");  // only the first section of a name counts
  EXPECT_EQ(Str("Other", "Crlf"), "value");
  EXPECT_EQ(Str("Other", "Eq"), "a=b");
  EXPECT_EQ(Str("Other", "top"), "?");
  EXPECT_EQ(Str("Missing", "ReadInterval", "dflt"), "dflt");
  EXPECT_EQ(Str("Init", "Missing", "dflt  "), "dflt");  // a default loses trailing blanks
  EXPECT_EQ(Str("Init", "Missing", nullptr), "");

  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(ProfileGetString("Init", "Double", "", buffer, 5, file_), 4u);
  EXPECT_STREQ(buffer, "quot");
  EXPECT_EQ(buffer[5], 'x');
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(ProfileGetString("Init", "Double", "", buffer, 0, file_), 0u);
  EXPECT_EQ(buffer[0], 'x');
  EXPECT_EQ(ProfileGetString("Init", "Double", "", buffer, 1, file_), 0u);
  EXPECT_EQ(buffer[0], '\0');

  EXPECT_EQ(ProfileGetString("Init", "ReadInterval", "dflt", buffer, sizeof buffer,
                             dir_ + "/no-such.ini"), 4u);
  EXPECT_STREQ(buffer, "dflt");
}

TEST_F(ProfileTest, IntegersTakeTheLeadingDigits) {
  Put("[N]\n"
      "plain=42\n"
      "trail=12abc\n"
      "alpha=abc\n"
      "neg=-5\n"
      "plus=+7\n"
      "quoted=\"64\"\n"
      "max=4294967295\n"
      "wrap=4294967296\n"
      "empty=\n"
      "sign=-\n"
      "hex=0x10\n");
  EXPECT_EQ(ProfileGetInt("N", "plain", 1, file_), 42u);
  EXPECT_EQ(ProfileGetInt("N", "trail", 1, file_), 12u);
  EXPECT_EQ(ProfileGetInt("N", "alpha", 1, file_), 0u);
  EXPECT_EQ(ProfileGetInt("N", "neg", 1, file_), static_cast<uint32_t>(-5));
  EXPECT_EQ(ProfileGetInt("N", "plus", 1, file_), 7u);
  EXPECT_EQ(ProfileGetInt("n", "QUOTED", 1, file_), 64u);
  EXPECT_EQ(ProfileGetInt("N", "max", 1, file_), 0xFFFFFFFFu);
  EXPECT_EQ(ProfileGetInt("N", "wrap", 1, file_), 0u);
  EXPECT_EQ(ProfileGetInt("N", "empty", 255, file_), 255u);
  EXPECT_EQ(ProfileGetInt("N", "sign", 1, file_), 0u);
  EXPECT_EQ(ProfileGetInt("N", "hex", 1, file_), 0u);
  EXPECT_EQ(ProfileGetInt("N", "missing", -3, file_), static_cast<uint32_t>(-3));
  EXPECT_EQ(ProfileGetInt("None", "plain", 255, file_), 255u);
  EXPECT_EQ(ProfileGetInt("N", "plain", 255, dir_ + "/absent.ini"), 255u);
}

TEST_F(ProfileTest, WriteChangesOnlyTheKeyAndKeepsEverythingElse) {
  const std::string before =
      "; header comment\r\n"
      "[Init]\r\n"
      "ReadInterval = 200 \r\n"
      "ReadTotalConstant=500\r\n"
      "\r\n"
      "[Ports]\n"
      "  ; odd spacing and LF only in this section\n"
      "Com3=/dev/ttyUSB0\n"
      "\n"
      "[Last]\n"
      "x=1";  // no line end at the end of the file

  Put(before);
  ASSERT_TRUE(ProfileWriteString("init", "READINTERVAL", "150", file_));
  std::string expected = before;
  expected.replace(expected.find("200 "), 4, "150");
  EXPECT_EQ(Get(), expected);
  EXPECT_EQ(ProfileGetInt("Init", "ReadInterval", 0, file_), 150u);

  // A new key goes to the end of its section, before the blank line that ends it.
  ASSERT_TRUE(ProfileWriteString("Init", "ReadTotalConstantFW", "3000", file_));
  expected.insert(expected.find("\r\n\r\n[Ports]") + 2, "ReadTotalConstantFW=3000\r\n");
  EXPECT_EQ(Get(), expected);

  // The last section ends without a line end: one is added, then the key.
  ASSERT_TRUE(ProfileWriteString("Last", "y", "2", file_));
  expected += "\r\ny=2\r\n";
  EXPECT_EQ(Get(), expected);

  ASSERT_TRUE(ProfileWriteString("New Section", "Key", "v", file_));
  expected += "[New Section]\r\nKey=v\r\n";
  EXPECT_EQ(Get(), expected);

  // Deleting a key (no value) and a whole section (no key).
  ASSERT_TRUE(ProfileWriteString("Ports", "com3", nullptr, file_));
  expected.erase(expected.find("Com3=/dev/ttyUSB0\n"), std::strlen("Com3=/dev/ttyUSB0\n"));
  EXPECT_EQ(Get(), expected);
  ASSERT_TRUE(ProfileWriteString("last", nullptr, nullptr, file_));
  expected.erase(expected.find("[Last]"), std::strlen("[Last]\nx=1\r\ny=2\r\n"));
  EXPECT_EQ(Get(), expected);
  ASSERT_TRUE(ProfileWriteString("Nowhere", "k", nullptr, file_));
  EXPECT_EQ(Get(), expected);

  EXPECT_EQ(Str("Init", "ReadTotalConstant"), "500");
  EXPECT_EQ(Str("New Section", "key"), "v");
  EXPECT_EQ(Str("Ports", "Com3"), "?");
}

TEST_F(ProfileTest, WriteCreatesFilesAtomicallyAndKeepsTheirMode) {
  ASSERT_TRUE(ProfileWriteString("Init", "ReadInterval", "200", file_));
  ASSERT_TRUE(ProfileWriteString("Init", "Logfile", "0", file_));
  EXPECT_EQ(Get(), "[Init]\nReadInterval=200\nLogfile=0\n");

  ASSERT_EQ(::chmod(file_.c_str(), 0640), 0);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(ProfileWriteString("Init", "Counter", std::to_string(i).c_str(), file_));
  }
  EXPECT_EQ(ProfileGetInt("Init", "Counter", -1, file_), 19u);
  struct stat st {};
  ASSERT_EQ(::stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(Entries(), std::vector<std::string>{"kaVcnf.ini"});  // no temporary files left

  // A link is written through, not replaced by a file.
  std::string link = dir_ + "/link.ini";
  ASSERT_EQ(::symlink("kaVcnf.ini", link.c_str()), 0);
  ASSERT_TRUE(ProfileWriteString("Init", "Counter", "linked", link));
  struct stat lst {};
  ASSERT_EQ(::lstat(link.c_str(), &lst), 0);
  EXPECT_TRUE(S_ISLNK(lst.st_mode));
  EXPECT_EQ(Str("Init", "Counter"), "linked");

  // No directory, or a directory where the file should be: refused, nothing left over.
  EXPECT_FALSE(ProfileWriteString("S", "k", "v", dir_ + "/missing/kaVcnf.ini"));
  fs::create_directory(dir_ + "/adir");
  EXPECT_FALSE(ProfileWriteString("S", "k", "v", dir_ + "/adir"));
  EXPECT_FALSE(ProfileWriteString("S", "k", "line\nbreak", file_));
  EXPECT_TRUE(fs::is_empty(dir_ + "/adir"));
  auto entries = Entries();
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{"adir", "kaVcnf.ini", "link.ini"}));
}

TEST_F(ProfileTest, LongPathsWork) {
  std::string deep = dir_;
  while (deep.size() < 420) {
    deep += "/" + std::string(60, 'd');
    ASSERT_TRUE(fs::create_directory(deep));
  }
  std::string path = deep + "/" + std::string(100, 'f') + ".ini";
  ASSERT_GT(path.size(), 500u);
  ASSERT_TRUE(ProfileWriteString("Ports", "Com7", "/dev/ttyACM0", path));
  char buffer[64];
  EXPECT_EQ(ProfileGetString("Ports", "Com7", "", buffer, sizeof buffer, path), 12u);
  EXPECT_STREQ(buffer, "/dev/ttyACM0");
  EXPECT_EQ(fs::directory_iterator(deep)->path().string(), path);  // nothing else there
}

TEST_F(ProfileTest, MissingNamesListSectionsOrKeys) {
  Put("[Init]\nA=1\nb=2\n[Ports]\nCom1=x\n");
  char buffer[32];
  uint32_t n = ProfileGetString(nullptr, nullptr, "", buffer, sizeof buffer, file_);
  EXPECT_EQ(n, 11u);
  EXPECT_EQ(std::string(buffer, n + 1), std::string("Init\0Ports\0\0", 12));
  n = ProfileGetString("init", nullptr, "", buffer, sizeof buffer, file_);
  EXPECT_EQ(std::string(buffer, n + 1), std::string("A\0b\0\0", 5));
  // Too small: the list is cut and closed with two zeros.
  n = ProfileGetString(nullptr, nullptr, "", buffer, 8, file_);
  EXPECT_EQ(n, 6u);
  EXPECT_EQ(std::string(buffer, 8), std::string("Init\0P\0\0", 8));
}

}  // namespace
}  // namespace tamrik::platform
