// Bad input at the C interface: null pointers, strings of any length, counts out of range,
// long profile directories. Every function of the method table is covered, generated from
// the table itself, so a function added there is checked here without further work.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "MethodTable.h"
#include "ReliabilitySupport.h"
#include "tamrik.h"

namespace tamrik {
namespace {

using test::InitSection;
using test::TempDir;

constexpr size_t kBufferBytes = 1 << 18;  // more than any answer could fill
constexpr uint8_t kFill = 0x5A;

// Trace output of the shared library, which has a sink of its own.
class LibraryTrace {
 public:
  LibraryTrace() { tamrik_set_trace(&LibraryTrace::Receive, this); }
  ~LibraryTrace() { tamrik_set_trace(nullptr, nullptr); }
  std::vector<std::string> Lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  void Clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  static void Receive(void* context, const char* text) {
    auto* self = static_cast<LibraryTrace*>(context);
    std::lock_guard lock(self->mutex_);
    self->lines_.emplace_back(text);
  }
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Pointer parameters point to filled buffers (zero-terminated, for the texts); the one at
// nullIndex is null. Number parameters get 1.
template <typename T>
T Argument(size_t index, size_t nullIndex, std::vector<std::vector<uint8_t>>& buffers) {
  if constexpr (std::is_pointer_v<T>) {
    if (index == nullIndex) return nullptr;
    buffers[index].assign(kBufferBytes, kFill);
    buffers[index].back() = 0;
    return reinterpret_cast<T>(buffers[index].data());
  } else {
    return T(1);
  }
}

template <typename... P, size_t... I>
uint32_t Call(uint32_t (*function)(tamrik_com*, P...), tamrik_com* com, size_t nullIndex,
              std::vector<std::vector<uint8_t>>& buffers, std::index_sequence<I...>) {
  return function(com, Argument<P>(I, nullIndex, buffers)...);
}

bool Untouched(const std::vector<uint8_t>& buffer) {
  for (size_t i = 0; i + 1 < buffer.size(); ++i) {
    if (buffer[i] != kFill) return false;
  }
  return buffer.empty() || buffer.back() == 0;
}

// Calls function once per pointer parameter with that one null, and once with a null object;
// each call must be refused and leave every buffer as it was. Returns the number of calls.
template <typename... P>
int CheckNulls(const char* name, uint32_t (*function)(tamrik_com*, P...), tamrik_com* com) {
  constexpr size_t kCount = sizeof...(P);
  constexpr bool kIsPointer[] = {std::is_pointer_v<P>...};
  int calls = 0;
  // kCount stands for "no null parameter, null object".
  for (size_t nullIndex = 0; nullIndex <= kCount; ++nullIndex) {
    if (nullIndex < kCount && !kIsPointer[nullIndex]) continue;
    std::vector<std::vector<uint8_t>> buffers(kCount);
    const uint32_t result =
        Call(function, nullIndex < kCount ? com : nullptr, nullIndex, buffers, std::index_sequence_for<P...>{});
    ++calls;
    EXPECT_EQ(result, rc::kBadArgument) << name << " with parameter " << nullIndex << " null";
    for (size_t i = 0; i < kCount; ++i) {
      if (kIsPointer[i] && i != nullIndex) {
        EXPECT_TRUE(Untouched(buffers[i])) << name << " touched parameter " << i;
      }
    }
  }
  return calls;
}

TEST(CInterfaceInput, EveryNullPointerIsRefusedAndNothingElseHappens) {
  LibraryTrace trace;
  sim::Simulator sim;
  const uint16_t port = sim.StartTcp();
  TempDir dir;
  const std::string config = InitSection(0, 1);
  dir.Write("kaVcnf.ini", config);
  tamrik_com* com = tamrik_create_in(dir.path().c_str());
  ASSERT_NE(com, nullptr);
  int32_t error = -1;
  ASSERT_EQ(tamrik_kaVOpenEthernet(com, std::to_string(port).c_str(), "127.0.0.1", &error), 0u);
  trace.Clear();

  int functions = 0;
  int calls = 0;
#define TAMRIK_CHECK_NULLS(dispid, name, params, args) \
  ++functions;                                          \
  calls += CheckNulls(#name, &tamrik_##name, com);
  TAMRIK_METHOD_TABLE(TAMRIK_CHECK_NULLS)
#undef TAMRIK_CHECK_NULLS
  EXPECT_EQ(functions, 67);
  EXPECT_GT(calls, 67 * 2);

  // Nothing was sent, traced or written.
  EXPECT_EQ(sim.GetCounters().requests, 0u);
  EXPECT_TRUE(trace.Lines().empty());
  EXPECT_EQ(dir.Read("kaVcnf.ini"), config);
  // And the object still works.
  int32_t version = 0;
  EXPECT_EQ(tamrik_kaVGetGatewayVersion(com, &version, &error), 0u);
  EXPECT_EQ(error, 0);
  tamrik_release(com);
}

TEST(CInterfaceInput, StringsOfAnyLengthAreSafeAndTraceLinesStayBounded) {
  LibraryTrace trace;
  sim::Simulator sim;
  const uint16_t port = sim.StartTcp();
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 1));
  tamrik_com* com = tamrik_create_in(dir.path().c_str());
  ASSERT_NE(com, nullptr);
  // Conversion directives in a host string are text, never formats.
  const std::string huge = "%s%n%x" + std::string(1 << 20, 'x');
  int32_t error = -1;

  EXPECT_EQ(tamrik_kaVOpenEthernet(com, huge.c_str(), huge.c_str(), &error), rc::kConnectErrorBase + wsa::kAddrNotAvail);
  EXPECT_EQ(tamrik_kaVOpenEthernet(com, (std::to_string(port) + "," + huge).c_str(), "127.0.0.1", &error), 2u);
  ASSERT_EQ(tamrik_kaVOpenEthernet(com, (std::to_string(port) + ",TCP" + huge).c_str(), "127.0.0.1", &error), 0u);
  int32_t lines = 0;
  EXPECT_EQ(tamrik_kaVInitFirmwareDownload(com, huge.c_str(), &lines, &error), rc::kAnswerFailed);
  int32_t blocks = 0, start = -1;
  EXPECT_EQ(tamrik_kaVInitImageDownload(com, huge.c_str(), &start, &blocks, &error), 0u);
  EXPECT_NE(error, 0);
  EXPECT_EQ(tamrik_kaVBootFirmwareDownload(com, huge.c_str(), huge.c_str(), huge.c_str(), huge.c_str(), &error),
            rc::kStage1FileMissing);
  // The description that goes to the gateway is cut to its 128 characters.
  EXPECT_EQ(tamrik_kavEnterPrivilegedMode(com, huge.c_str(), &error), 0u);
  EXPECT_EQ(error, 0);
  const std::vector<sim::RequestRecord> requests = sim.Requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests.back().code, 0x130);
  EXPECT_EQ(requests.back().data.size(), 128u + 1 + 4);

  size_t longest = 0;
  for (const std::string& line : trace.Lines()) longest = std::max(longest, line.size());
  EXPECT_GT(longest, 0u);
  EXPECT_LT(longest, 400u);  // the longest is the dump of the privileged request
  tamrik_release(com);
}

TEST(CInterfaceInput, CountsOutOfRangeAreRefused) {
  sim::Simulator sim;
  const uint16_t port = sim.StartTcp();
  TempDir dir;
  dir.Write("kaVcnf.ini", InitSection(0, 0));
  tamrik_com* com = tamrik_create_in(dir.path().c_str());
  ASSERT_NE(com, nullptr);
  int32_t error = -1;
  ASSERT_EQ(tamrik_kaVOpenEthernet(com, std::to_string(port).c_str(), "127.0.0.1", &error), 0u);

  std::vector<int32_t> data(1 << 17, 1);
  data[1] = 2;  // a valid segment length for the stream method
  using CountMethod = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);
  const std::pair<const char*, CountMethod> methods[] = {
      {"kaVSetProcessOutData", &tamrik_kaVSetProcessOutData},
      {"kaVSetParameterData", &tamrik_kaVSetParameterData},
      {"kaVSetModuleStreamSegmentData", &tamrik_kaVSetModuleStreamSegmentData},
      {"kaVSrvGetFirstDataFrame", &tamrik_kaVSrvGetFirstDataFrame},
      {"kaVSrvGetNextDataFrame", &tamrik_kaVSrvGetNextDataFrame},
      {"kaVSrvDNetGetClassInstAttr", &tamrik_kaVSrvDNetGetClassInstAttr},
      {"kaVSrvDNetSetClassInstAttr", &tamrik_kaVSrvDNetSetClassInstAttr},
      {"kaVTestBlockRead", &tamrik_kaVTestBlockRead},
      {"kaVTestBlockWrite", &tamrik_kaVTestBlockWrite},
  };
  for (const int32_t bad : {-1, INT32_MIN, 65536, INT32_MAX}) {
    for (const auto& [name, method] : methods) {
      int32_t count = bad;
      error = -1;
      method(com, data.data(), &count, &error);
      EXPECT_EQ(uint32_t(error), rc::kBadArgument) << name << " " << bad;
    }
    int32_t service = 3, sendCount = bad, receiveCount = 4;
    error = -1;
    tamrik_kaVDoService(com, &service, reinterpret_cast<uint8_t*>(data.data()), &sendCount, &receiveCount, &error);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument) << "kaVDoService send " << bad;
    int16_t words[4] = {};
    // The memory area holds 65536 bytes, so its first count too large is one more.
    int32_t size = bad == 65536 ? Ccom::kPortAreaSize + 1 : bad, address = 0;
    error = -1;
    tamrik_SetPort(com, words, &size, &address, &error);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument) << "SetPort " << bad;
    error = -1;
    tamrik_GetPort(com, words, &size, &address, &error);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument) << "GetPort " << bad;
  }
  for (const int32_t bad : {-1, INT32_MIN}) {
    int32_t service = 3, sendCount = 0, receiveCount = bad, entries = 0, capacity = bad;
    error = -1;
    tamrik_kaVDoService(com, &service, reinterpret_cast<uint8_t*>(data.data()), &sendCount, &receiveCount, &error);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument) << "kaVDoService receive " << bad;
    error = -1;
    tamrik_kaVGetGatewayErrorList(com, &entries, data.data(), &capacity, &error);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument) << "kaVGetGatewayErrorList " << bad;
  }
  // Nothing went out for any of them; a huge buffer is taken for what an answer can fill.
  EXPECT_EQ(sim.GetCounters().requests, 0u);
  int32_t entries = 0, capacity = INT32_MAX;
  std::vector<int32_t> records(30 * 256, -1);
  EXPECT_EQ(tamrik_kaVGetGatewayErrorList(com, &entries, records.data(), &capacity, &error), 0u);
  EXPECT_EQ(error, 0);
  tamrik_release(com);

  // The demonstration refuses the same counts.
  TempDir demoDir;
  demoDir.Write("kaVcnf.ini", InitSection(1, 0));
  demoDir.Write("kaVdmo.ini", "[Station]\nModNum=1\nModId1=0x1234\n[ProcessData]\nModo1=10101010\nParam0=1\n");
  tamrik_com* demo = tamrik_create_in(demoDir.path().c_str());
  ASSERT_NE(demo, nullptr);
  const std::string before = demoDir.Read("kaVdmo.ini");
  for (const int32_t bad : {-1, INT32_MIN, 65536, INT32_MAX}) {
    int32_t count = bad;
    error = -1;
    EXPECT_EQ(tamrik_kaVSetProcessOutData(demo, data.data(), &count, &error), rc::kBadArgument);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument);
    error = -1;
    EXPECT_EQ(tamrik_kaVSetParameterData(demo, data.data(), &count, &error), rc::kBadArgument);
    EXPECT_EQ(uint32_t(error), rc::kBadArgument);
  }
  int32_t capacityForList = -1;
  error = -1;
  EXPECT_EQ(tamrik_kaVGetModuleList(demo, data.data(), &capacityForList, &error), rc::kBadArgument);
  EXPECT_EQ(uint32_t(error), rc::kBadArgument);
  EXPECT_EQ(demoDir.Read("kaVdmo.ini"), before);
  tamrik_release(demo);
}

TEST(CInterfaceInput, ProfileDirectoriesOfAnyLengthWork) {
  TempDir dir;
  // Far beyond the 250 characters of a fixed path buffer, up to the system's own path limit.
  for (const size_t length : {size_t(300), size_t(1000), size_t(PATH_MAX - 64)}) {
    std::string deep = dir.path();
    std::filesystem::path made(deep);
    while (deep.size() + 1 + 200 < length) {
      deep += "/" + std::string(200, 'd');
      std::filesystem::create_directory(deep);
    }
    deep += "/" + std::string(length - deep.size() - 1, 'e');
    ASSERT_TRUE(std::filesystem::create_directory(deep));
    ASSERT_EQ(deep.size(), length);

    tamrik_com* com = tamrik_create_in(deep.c_str());
    ASSERT_NE(com, nullptr);
    int32_t error = -1;
    EXPECT_EQ(tamrik_kaVSetBaudrate(com, 57600, &error), 0u);
    tamrik_release(com);
    char value[16] = {};
    platform::ProfileGetString("Init", "Baudrate", "", value, sizeof value, deep + "/kaVcnf.ini");
    EXPECT_STREQ(value, "57600") << length;
  }
}

}  // namespace
}  // namespace tamrik
