// Process, parameter and diagnosis data, and the module list: one exchange each, or the
// bit strings of the demonstration file.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {

constexpr const char* kStation = "Station";
constexpr const char* kProcessData = "ProcessData";
constexpr const char* kDiagList = "DiagList";
constexpr const char* kMissingText = "Fehler";

constexpr uint32_t kBitStringBuffer = 200;
constexpr uint32_t kModuleIdBuffer = 10;

// A file may claim any number of modules; every one costs a look-up in the file, so the
// demonstration station is held to this many. (A missing count reads as 255.)
constexpr int32_t kMaxDemoModules = 1024;

// The module list cannot carry more identifiers than one answer holds.
constexpr int32_t kMaxRecordedModules = 65535 / 4;

std::string KeyName(const char* format, int32_t number) {
  char key[32];
  snprintf(key, sizeof key, format, number);
  return key;
}

int32_t ModuleCount(int32_t modNum) { return std::clamp(modNum, 0, kMaxDemoModules); }

bool SkippedBitString(const std::string& s, bool dashSkips) {
  return !s.empty() && (s[0] == 'F' || (dashSkips && s[0] == '-'));
}

// The demonstration refuses the counts that no request could carry, as the gateway path does.
bool RequestCountFits(int32_t count, int32_t* plError) {
  if (count >= 0 && size_t(count) <= protocol::kMaxData) return true;
  *plError = int32_t(rc::kBadArgument);
  return false;
}

// Bytes as the diagnosis list keeps them: "0a,ff,00".
std::string HexText(const int32_t* bytes, int64_t first, int64_t count) {
  std::string text;
  text.reserve(size_t(count) * 3);
  char part[4];
  for (int64_t i = 0; i < count; ++i) {
    snprintf(part, sizeof part, "%02x", uint32_t(uint8_t(bytes[first + i])));
    if (i > 0) text += ',';
    text += part;
  }
  return text;
}

}  // namespace

bool Ccom::DeliverDemo(const uint8_t* result, int32_t n, int32_t* plData, int32_t* plSizeOfData,
                       int32_t* error) const {
  if (countIsCapacity_ && n > *plSizeOfData) {
    *plSizeOfData = n;
    *error = int32_t(rc::kAnswerTooLong);
    return false;
  }
  for (int32_t i = 0; i < n; ++i) plData[i] = result[i];
  *plSizeOfData = n;
  return true;
}

uint32_t Ccom::LeadingHex(const char* text) {
  uint32_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    int digit;
    if (*p >= '0' && *p <= '9') digit = *p - '0';
    else if (*p >= 'a' && *p <= 'f') digit = *p - 'a' + 10;
    else if (*p >= 'A' && *p <= 'F') digit = *p - 'A' + 10;
    else break;
    value = (value << 4) | uint32_t(digit);
  }
  return value;
}

// --- demonstration file ----------------------------------------------------------------------

int32_t Ccom::DemoInt(const char* section, const char* key) const {
  return int32_t(platform::ProfileGetInt(section, key, 255, szDemoFile));
}

std::string Ccom::DemoText(const char* section, const char* key, uint32_t bufferSize) const {
  if (bufferSize == 0) return {};
  std::string text(bufferSize, '\0');
  const uint32_t length = platform::ProfileGetString(section, key, kMissingText, text.data(), bufferSize, szDemoFile);
  text.resize(std::min(length, bufferSize - 1));
  return text;
}

void Ccom::DemoWrite(const char* section, const char* key, const std::string& value) const {
  // A failed write is not reported: the demonstration goes on with the file as it is.
  if (!szDemoFile.empty()) platform::ProfileWriteString(section, key, value.c_str(), szDemoFile);
}

bool Ccom::DemoModuleList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) const {
  const int32_t modNum = DemoInt(kStation, "ModNum");
  if (modNum == 255) {
    *plError = int32_t(rc::kDemoNoModNum);
    return false;
  }
  // The count on entry is the caller's capacity; a host of the C interface learns that the
  // list did not fit instead of getting its beginning.
  if (*plSizeOfData < 0) {
    *plError = int32_t(rc::kBadArgument);
    return false;
  }
  if (countIsCapacity_ && modNum > *plSizeOfData) {
    *plSizeOfData = modNum;
    *plError = int32_t(rc::kAnswerTooLong);
    return false;
  }
  const int32_t n = std::max(0, std::min(modNum, *plSizeOfData));
  for (int32_t k = 1; k <= n; ++k) {
    const std::string id = DemoText(kStation, KeyName("ModId%d", k).c_str(), kModuleIdBuffer);
    if (id.size() != 6) {
      *plError = int32_t(rc::kDemoBadModIdBase + uint32_t(k - 1));
      *plSizeOfData = k - 1;
      return false;
    }
    plData[k - 1] = int32_t(LeadingHex(id.c_str()));
  }
  *plSizeOfData = n;
  return true;
}

// Bit strings are packed without regard to module borders: a module whose string is not a
// multiple of eight long shares its last byte with the next one. Only whole bytes count.
int32_t Ccom::DemoReadBits(const char* keyFormat, int32_t first, int32_t last, bool dashSkips,
                           uint8_t* result) const {
  memset(result, 0, kDemoResultSize);
  int32_t byteIndex = 0;
  int32_t bitPosition = 0;
  for (int32_t n = first; n <= last && byteIndex < kDemoResultSize; ++n) {
    std::string bits = DemoText(kProcessData, KeyName(keyFormat, n).c_str(), kBitStringBuffer);
    if (SkippedBitString(bits, dashSkips)) continue;
    if (bits.size() < 8) bits.resize(8, '0');
    for (char c : bits) {
      if (c == '1') result[byteIndex] |= uint8_t(1u << bitPosition);
      if (++bitPosition == 8) {
        bitPosition = 0;
        // Bits beyond the result buffer are dropped.
        if (++byteIndex == kDemoResultSize) break;
      }
    }
  }
  return byteIndex;
}

int32_t Ccom::DemoAnimatedInputs(uint8_t* result) {
  memset(result, 0, kDemoResultSize);
  nDemoCount = (nDemoCount + 1) % 256;
  nDemoBit = nDemoBit == 0 ? 1 : nDemoBit * 2;
  if (nDemoBit == 256) nDemoBit = 0;

  const int32_t modules = ModuleCount(DemoInt(kStation, "ModNum"));
  int32_t byteIndex = 0;
  int32_t bitPosition = 0;
  for (int32_t n = 1; n <= modules && byteIndex < kDemoResultSize; ++n) {
    const std::string type = DemoText(kProcessData, KeyName("Typ%d", n).c_str(), kBitStringBuffer);
    const std::string bits = DemoText(kProcessData, KeyName("Modi%d", n).c_str(), kBitStringBuffer);
    if (SkippedBitString(bits, false)) continue;
    const char t = type.empty() ? '\0' : type[0];
    const uint8_t value = t == 'A' ? uint8_t(nDemoCount) : t == 'D' ? uint8_t(nDemoBit) : 0;
    // Only the length of the input string counts here, not its characters.
    const size_t width = std::max<size_t>(bits.size(), 8);
    for (size_t step = 0; step < width; ++step) {
      if (++bitPosition == 8) {
        bitPosition = 0;
        result[byteIndex] = value;
        if (++byteIndex == kDemoResultSize) break;
      }
    }
  }
  return byteIndex;
}

// Unlike the reader, every module starts on a fresh byte. A caller that gives fewer bytes
// than the file's strings need leaves the characters of the missing bytes as they are.
void Ccom::DemoWriteBits(const char* keyFormat, int32_t first, int32_t last, bool dashSkips,
                         const int32_t* data, int32_t count) const {
  const int32_t available = std::max(count, 0);
  int32_t byteIndex = 0;
  for (int32_t n = first; n <= last; ++n) {
    const std::string key = KeyName(keyFormat, n);
    std::string bits = DemoText(kProcessData, key.c_str(), kBitStringBuffer);
    if (SkippedBitString(bits, dashSkips)) continue;
    uint32_t mask = 1;
    for (size_t j = 0; j < bits.size(); ++j) {
      if (j > 0 && j % 8 == 0) ++byteIndex;
      if (byteIndex < available) bits[j] = (uint32_t(data[byteIndex]) & mask) != 0 ? '1' : '0';
      mask = mask == 128 ? 1 : mask << 1;
    }
    ++byteIndex;
    DemoWrite(kProcessData, key.c_str(), bits);
  }
}

// --- diagnosis list --------------------------------------------------------------------------

void Ccom::RecordModuleLayout(const int32_t* identifiers, int32_t count) {
  if (szConfigFile.empty()) return;
  auto write = [this](const std::string& key, const std::string& value) {
    platform::ProfileWriteString(kDiagList, key.c_str(), value.c_str(), szConfigFile);
  };
  write("ModCnt", std::to_string(count));
  write("GWDiagLen", "");
  write("GWDiagData", "");
  for (int32_t i = 0; i < count; ++i) {
    write(KeyName("MoDiagLen%i", i), std::to_string(protocol::DiagnosisLength(uint32_t(identifiers[i]))));
  }
}

// The answer is laid out as the gateway's own bytes, then module 0's, module 1's and so on,
// each module with the length the last module list recorded. When the recorded lengths add
// up to more than the answer, a module gets only those of its bytes that lie inside the
// answer (none when all lie before it) and the gateway's own bytes keep their old record.
void Ccom::RecordDiagnosis(const int32_t* bytes, int32_t count) {
  if (szConfigFile.empty()) return;
  auto write = [this](const std::string& key, const std::string& value) {
    platform::ProfileWriteString(kDiagList, key.c_str(), value.c_str(), szConfigFile);
  };
  const int64_t n = std::max(count, 0);
  write("GWDiagLen", std::to_string(n));
  const int32_t modules =
      std::clamp(int32_t(platform::ProfileGetInt(kDiagList, "ModCnt", 0, szConfigFile)), 0, kMaxRecordedModules);
  int64_t sum = 0;
  for (int32_t i = modules - 1; i >= 0; --i) {
    const std::string lengthKey = KeyName("MoDiagLen%i", i);
    const int64_t length = std::max(int32_t(platform::ProfileGetInt(kDiagList, lengthKey.c_str(), 0, szConfigFile)), 0);
    sum += length;
    const int64_t start = n - sum;
    const int64_t from = std::max<int64_t>(start, 0);
    const int64_t to = std::min(start + length, n);
    write(KeyName("MoDiagData%i", i), length < 1 || to <= from ? std::string() : HexText(bytes, from, to - from));
  }
  if (n - sum > 0) write("GWDiagData", HexText(bytes, 0, n - sum));
}

// --- methods ---------------------------------------------------------------------------------

uint32_t Ccom::kaVGetModuleList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return RunExchange({.name = "kaVGetModuleList",
                      .service = kServiceModuleList,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError,
                      .demo = [&] { return DemoModuleStep(plData, plSizeOfData, plError); },
                      .afterAnswer = [&]() -> std::optional<uint32_t> {
                        // Each four-byte group starts with a byte of its own; the other three are the identifier.
                        const int32_t count = std::max(*plSizeOfData, 0);
                        for (int32_t i = 0; i < count; ++i) plData[i] = int32_t((uint32_t(plData[i]) >> 8) & 0xFFFFFF);
                        if (port_->Tracing()) RecordModuleLayout(plData, std::min(count, kMaxRecordedModules));
                        return std::nullopt;
                      }});
}

// The process, parameter and diagnosis methods: one caller at a time, and what goes to or
// comes from the gateway is the caller's buffer as it stands.
uint32_t Ccom::DataMethod(const char* name, uint32_t serviceCode, bool sendsData, int32_t* plData,
                          int32_t* plSizeOfData, int32_t* plError, Step demo, Step afterAnswer) {
  return RunExchange({.name = name,
                      .service = serviceCode,
                      .request = sendsData ? plData : nullptr,
                      .requestCount = sendsData ? plSizeOfData : nullptr,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError,
                      .onRequestFailure = RequestFailure::ReturnCode,
                      .busyGuarded = true,
                      .demo = demo,
                      .afterAnswer = afterAnswer});
}

uint32_t Ccom::kaVGetProcessInData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return DataMethod("kaVGetProcessInData", kServiceProcessIn, false, plData, plSizeOfData, plError,
                    [&]() -> std::optional<uint32_t> {
                      uint8_t result[kDemoResultSize];
                      int32_t n = 0;
                      const int32_t mode = DemoInt(kProcessData, "Mode");
                      if (mode == 1) {
                        n = DemoReadBits("Modi%d", 1, ModuleCount(DemoInt(kStation, "ModNum")), false, result);
                      } else if (mode == 2) {
                        n = DemoAnimatedInputs(result);
                      }
                      if (!DeliverDemo(result, n, plData, plSizeOfData, plError)) return rc::kAnswerFailed;
                      return std::nullopt;
                    });
}

uint32_t Ccom::kaVGetProcessOutData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return DataMethod("kaVGetProcessOutData", kServiceProcessOutRead, false, plData, plSizeOfData, plError,
                    [&]() -> std::optional<uint32_t> {
                      uint8_t result[kDemoResultSize];
                      const int32_t n =
                          DemoReadBits("Modo%d", 1, ModuleCount(DemoInt(kStation, "ModNum")), false, result);
                      if (!DeliverDemo(result, n, plData, plSizeOfData, plError)) return rc::kAnswerFailed;
                      return std::nullopt;
                    });
}

uint32_t Ccom::kaVSetProcessOutData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return DataMethod("kaVSetProcessOutData", kServiceProcessOutWrite, true, plData, plSizeOfData, plError,
                    [&]() -> std::optional<uint32_t> {
                      if (!RequestCountFits(*plSizeOfData, plError)) return rc::kBadArgument;
                      DemoWriteBits("Modo%d", 1, ModuleCount(DemoInt(kStation, "ModNum")), false, plData,
                                    *plSizeOfData);
                      return std::nullopt;
                    });
}

uint32_t Ccom::kaVGetParameterData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return DataMethod("kaVGetParameterData", kServiceParameterRead, false, plData, plSizeOfData, plError,
                    [&]() -> std::optional<uint32_t> {
                      uint8_t result[kDemoResultSize];
                      const int32_t n =
                          DemoReadBits("Param%d", 0, ModuleCount(DemoInt(kStation, "ModNum")) - 1, true, result);
                      if (!DeliverDemo(result, n, plData, plSizeOfData, plError)) return rc::kAnswerFailed;
                      return std::nullopt;
                    });
}

uint32_t Ccom::kaVSetParameterData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return DataMethod("kaVSetParameterData", kServiceParameterWrite, true, plData, plSizeOfData, plError,
                    [&]() -> std::optional<uint32_t> {
                      if (!RequestCountFits(*plSizeOfData, plError)) return rc::kBadArgument;
                      DemoWriteBits("Param%d", 0, ModuleCount(DemoInt(kStation, "ModNum")) - 1, true, plData,
                                    *plSizeOfData);
                      return std::nullopt;
                    });
}

uint32_t Ccom::kaVGetDiagData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return DataMethod(
      "kaVGetDiagData", kServiceDiagnosis, false, plData, plSizeOfData, plError,
      [&]() -> std::optional<uint32_t> {
        // One entry for the gateway itself and one per module: Diag0 to DiagModNum.
        uint8_t result[kDemoResultSize];
        const int32_t n = DemoReadBits("Diag%d", 0, ModuleCount(DemoInt(kStation, "ModNum")), true, result);
        if (!DeliverDemo(result, n, plData, plSizeOfData, plError)) return rc::kAnswerFailed;
        return std::nullopt;
      },
      [&]() -> std::optional<uint32_t> {
        if (port_->Tracing()) RecordDiagnosis(plData, *plSizeOfData);
        return std::nullopt;
      });
}

}  // namespace tamrik
