// The driver object: construction from the configuration file, the method frame, and the
// two methods that belong to no group.
#include "com.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "ResultCodes.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {

constexpr const char* kInit = "Init";
constexpr int32_t kMissing = 255;  // the default that stands for a missing key

int32_t ReadInit(const char* key, const std::string& file) {
  return int32_t(platform::ProfileGetInt(kInit, key, kMissing, file));
}

// "Bits" of section "Privileged": 32 decimal numbers separated by commas that form a
// permutation of 0 to 31. Anything else leaves the identity table in place.
void ReadPrivilegedBits(const std::string& file, uint8_t bits[32]) {
  for (int i = 0; i < 32; ++i) bits[i] = uint8_t(i);
  char text[400];
  platform::ProfileGetString("Privileged", "Bits", "", text, sizeof text, file);
  uint8_t parsed[32];
  bool seen[32] = {};
  const char* p = text;
  for (int i = 0; i < 32; ++i) {
    while (*p == ' ' || *p == '\t') ++p;
    if (*p < '0' || *p > '9') return;
    uint32_t value = 0;
    while (*p >= '0' && *p <= '9' && value < 100) value = value * 10 + uint32_t(*p++ - '0');
    while (*p == ' ' || *p == '\t') ++p;
    if (value > 31 || seen[value]) return;
    seen[value] = true;
    parsed[i] = uint8_t(value);
    if (i < 31) {
      if (*p != ',') return;
      ++p;
    }
  }
  if (*p != '\0') return;
  memcpy(bits, parsed, 32);
}

}  // namespace

Ccom::Ccom() { Construct(platform::ModuleDirectory()); }

Ccom::Ccom(const std::string& directory) {
  std::string dir = directory;
  if (!dir.empty() && dir.back() != '/' && dir.back() != '\\') dir += '/';
  Construct(dir);
}

Ccom::Ccom(const DriverConfig& config) {
  nDemo = config.version;
  nLog = config.logfile;
  nComPort = config.comPort;
  nBaudrate = config.baudrate;
  port_->SetTracing(nLog == 1);
  port_->SetSerialDevices(config.ports);
  ApplyTimings(config.readInterval, config.readTotalMultiplier, config.readTotalConstant, config.readTotalConstantFW);
  port_->Timings().socketAnswerMs = uint32_t(std::max(config.socketAnswerMs, 1));
  segmentSleepWithoutFile_ = config.streamSegmentSleepTime;
  if (nDemo == 1) szDemoFile = config.demoFile;
  szBootFile = config.bootFile;
  std::copy(config.privilegedBits.begin(), config.privilegedBits.end(), abyPrivilegedBits);
}

void Ccom::ApplyTimings(int32_t interval, int32_t multiplier, int32_t constant, int32_t constantFW) {
  PortTimings& timings = port_->Timings();
  timings.readInterval = uint32_t(interval);
  timings.readTotalMultiplier = uint32_t(multiplier);
  timings.readTotalConstant = uint32_t(constant);
  timings.readTotalConstantFW = uint32_t(constantFW);
  timings.activeTotalConstant = uint32_t(constant);
}

void Ccom::Construct(const std::string& directory) {
  nDemoBit = 0;
  nDemoCount = 0;
  // Without a module directory the configuration path stays empty: every key then reads
  // as missing and nothing is written anywhere.
  if (!directory.empty()) {
    szConfigFile = directory + kConfigFileName;
    szBootFile = directory + kBootFileName;
  }
  nDemo = ReadInit("Version", szConfigFile);
  nLog = ReadInit("Logfile", szConfigFile);

  port_->SetTracing(nLog == 1);
  port_->SetConfigFile(szConfigFile);

  nComPort = ReadInit("ComPort", szConfigFile);
  nBaudrate = ReadInit("Baudrate", szConfigFile);
  const int32_t interval = ReadInit("ReadInterval", szConfigFile);
  const int32_t multiplier = ReadInit("ReadTotalMultiplier", szConfigFile);
  const int32_t constant = ReadInit("ReadTotalConstant", szConfigFile);
  const int32_t constantFW = ReadInit("ReadTotalConstantFW", szConfigFile);
  ApplyTimings(interval, multiplier, constant, constantFW);
  // Not one of the keys of the default set: a file without it keeps the bound of old.
  const int32_t socketAnswer = int32_t(
      platform::ProfileGetInt(kInit, "SocketAnswerTimeout", int32_t(kDefaultSocketAnswerMs), szConfigFile));
  port_->Timings().socketAnswerMs = socketAnswer > 0 ? uint32_t(socketAnswer) : kDefaultSocketAnswerMs;

  const int32_t read[] = {nDemo, nLog, nComPort, nBaudrate, interval, multiplier, constant, constantFW};
  bool incomplete = false;
  for (int32_t value : read) incomplete = incomplete || value == kMissing;
  if (incomplete) {
    // The defaults are those of a driver configured without a file, written in this order.
    const DriverConfig d;
    const std::pair<const char*, int32_t> defaults[] = {
        {"Version", d.version},
        {"ReadInterval", d.readInterval},
        {"ReadTotalMultiplier", d.readTotalMultiplier},
        {"ReadTotalConstant", d.readTotalConstant},
        {"ReadTotalConstantFW", d.readTotalConstantFW},
        {"Logfile", d.logfile},
        {"ComPort", d.comPort},
        {"Baudrate", d.baudrate}};
    for (const auto& [key, value] : defaults) WriteConfigInt(key, value);
    ApplyTimings(d.readInterval, d.readTotalMultiplier, d.readTotalConstant, d.readTotalConstantFW);
    nDemo = d.version;
    // The methods prepare their trace texts from here on, but the port object keeps the
    // switch the file gave it, so the trace still appears only when the file asked for it.
    nLog = 1;
    nBaudrate = d.baudrate;
  }
  if (nDemo == 1 && !directory.empty()) szDemoFile = directory + kDemoFileName;
  ReadPrivilegedBits(szConfigFile, abyPrivilegedBits);
}

Ccom::~Ccom() { port_->Close(); }

void Ccom::WriteConfigInt(const char* key, int32_t value) {
  if (szConfigFile.empty()) return;
  char text[16];
  snprintf(text, sizeof text, "%d", value);
  platform::ProfileWriteString(kInit, key, text, szConfigFile);
}

// --- methods of no group ---------------------------------------------------------------------

uint32_t Ccom::kaVControll(int32_t* plDemo, int32_t* plLog, int32_t* plError) {
  // The switches come only from the configuration file, before the object exists.
  return 0;
}

uint32_t Ccom::kaVGetVersion(char* psVersion, int32_t* plSizeOfData, int32_t* plError) {
  static constexpr char kVersion[] = "1.0 B2.1.38";
  if (countIsCapacity_) {
    size_t room = 0;
    if (!CallerRoom(plSizeOfData, plError, &room)) return rc::kBadArgument;
    if (room < sizeof kVersion - 1) {
      *plSizeOfData = int32_t(sizeof kVersion - 1);
      *plError = int32_t(rc::kAnswerTooLong);
      return rc::kAnswerFailed;
    }
  }
  memcpy(psVersion, kVersion, sizeof kVersion - 1);
  *plSizeOfData = int32_t(sizeof kVersion - 1);
  return 0;
}

}  // namespace tamrik
