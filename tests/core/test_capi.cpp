// The C interface, loaded from a copy of libtamrik.so the way a foreign host loads it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ResultCodes.h"
#include "common/TestSupport.h"
#include "MethodTable.h"
#include "tamrik.h"

namespace tamrik {
namespace {

using test::InitSection;
using test::TempDir;

// The library opened from a directory of its own, with its functions looked up by name.
class LoadedLibrary {
 public:
  explicit LoadedLibrary(const std::string& directory) {
    const std::string copy = directory + "/libtamrik.so";
    std::filesystem::copy_file(TAMRIK_SHARED_LIBRARY, copy);
    handle_ = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  }
  ~LoadedLibrary() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  bool loaded() const { return handle_ != nullptr; }
  template <typename F>
  F* Get(const char* name) const {
    return reinterpret_cast<F*>(dlsym(handle_, name));
  }

 private:
  void* handle_ = nullptr;
};

TEST(CInterface, ACopyOfTheLibraryFindsItsProfileFilesBesideItself) {
  TempDir dir;
  LoadedLibrary library(dir.path());
  ASSERT_TRUE(library.loaded()) << dlerror();
  auto* create = library.Get<decltype(tamrik_create)>("tamrik_create");
  auto* release = library.Get<decltype(tamrik_release)>("tamrik_release");
  auto* setBaudrate = library.Get<decltype(tamrik_kaVSetBaudrate)>("tamrik_kaVSetBaudrate");
  ASSERT_NE(create, nullptr);
  ASSERT_NE(release, nullptr);
  ASSERT_NE(setBaudrate, nullptr);

  tamrik_com* com = create();
  ASSERT_NE(com, nullptr);
  // Construction completed the configuration beside the library.
  EXPECT_NE(dir.Read("kaVcnf.ini").find("Baudrate=9600"), std::string::npos);
  int32_t error = -1;
  EXPECT_EQ(setBaudrate(com, 57600, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_NE(dir.Read("kaVcnf.ini").find("Baudrate=57600"), std::string::npos);
  release(com);
}

TEST(CInterface, EveryMethodIsExportedAndRefusesNullPointers) {
  TempDir dir;
  LoadedLibrary library(dir.path());
  ASSERT_TRUE(library.loaded()) << dlerror();
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  auto* createIn = library.Get<decltype(tamrik_create_in)>("tamrik_create_in");
  auto* release = library.Get<decltype(tamrik_release)>("tamrik_release");
  ASSERT_NE(createIn, nullptr);
  tamrik_com* com = createIn(dir.path().c_str());
  ASSERT_NE(com, nullptr);

#define TAMRIK_CHECK_EXPORT(dispid, name, params, args) \
  EXPECT_NE(library.Get<void>("tamrik_" #name), nullptr) << #name;
  TAMRIK_METHOD_TABLE(TAMRIK_CHECK_EXPORT)
#undef TAMRIK_CHECK_EXPORT

  auto* getVersion = library.Get<decltype(tamrik_kaVGetVersion)>("tamrik_kaVGetVersion");
  auto* getInput = library.Get<decltype(tamrik_kaVGetProcessInData)>("tamrik_kaVGetProcessInData");
  auto* openEthernet = library.Get<decltype(tamrik_kaVOpenEthernet)>("tamrik_kaVOpenEthernet");
  char text[16] = "untouched";
  int32_t size = 5, error = 7;
  EXPECT_EQ(getVersion(com, text, &size, nullptr), rc::kBadArgument);
  EXPECT_EQ(getVersion(nullptr, text, &size, &error), rc::kBadArgument);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(size, 5);
  int32_t data[4] = {9, 9, 9, 9};
  EXPECT_EQ(getInput(com, data, nullptr, &error), rc::kBadArgument);
  EXPECT_EQ(error, 7);
  EXPECT_EQ(data[0], 9);
  EXPECT_EQ(openEthernet(com, nullptr, "127.0.0.1", &error), rc::kBadArgument);
  EXPECT_EQ(error, 7);
  // The count on entry is the capacity: five characters are too few for the version text.
  EXPECT_EQ(getVersion(com, text, &size, &error), rc::kAnswerFailed);
  EXPECT_EQ(uint32_t(error), rc::kAnswerTooLong);
  EXPECT_EQ(size, 11);
  EXPECT_STREQ(text, "untouched");
  size = -1;
  EXPECT_EQ(getVersion(com, text, &size, &error), rc::kBadArgument);
  EXPECT_EQ(uint32_t(error), rc::kBadArgument);
  size = int32_t(sizeof text);
  EXPECT_EQ(getVersion(com, text, &size, &error), 0u);
  EXPECT_EQ(size, 11);
  EXPECT_EQ(std::string(text, 11), "1.0 B2.1.38");
  release(com);
}

TEST(CInterface, TraceSinkReceivesEveryOutputCallUnchanged) {
  TempDir dir;
  LoadedLibrary library(dir.path());
  ASSERT_TRUE(library.loaded()) << dlerror();
  dir.Write("kaVcnf.ini", InitSection(0, 1));
  auto* createIn = library.Get<decltype(tamrik_create_in)>("tamrik_create_in");
  auto* release = library.Get<decltype(tamrik_release)>("tamrik_release");
  auto* setTrace = library.Get<decltype(tamrik_set_trace)>("tamrik_set_trace");
  auto* close = library.Get<decltype(tamrik_kaVCloseComPort)>("tamrik_kaVCloseComPort");

  std::vector<std::string> lines;
  setTrace([](void* context, const char* text) { static_cast<std::vector<std::string>*>(context)->emplace_back(text); },
           &lines);
  tamrik_com* com = createIn(dir.path().c_str());
  int32_t error = 0;
  close(com, 2, &error);
  setTrace(nullptr, nullptr);
  close(com, 2, &error);
  release(com);
  const std::vector<std::string> expected = {"ComServer:kaVCloseComPort 2<--",
                                             "ComServer:kaVCloseComPort<--ComPort 0x10015"};
  EXPECT_EQ(lines, expected);
}

}  // namespace
}  // namespace tamrik
