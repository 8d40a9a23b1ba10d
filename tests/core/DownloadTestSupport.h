// Helpers of the download tests: a driver object whose COM port number leads to a
// pseudo-terminal, firmware records in the line file format, and byte helpers.
#pragma once

#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "com.h"
#include "common/TestSupport.h"

namespace tamrik::test {

using Bytes = std::vector<uint8_t>;

// The COM port number that the tests map to their pseudo-terminal.
inline constexpr int32_t kLoaderPort = 7;
// Read time-outs short enough that a path that waits for a missing answer stays quick,
// long enough for a loader thread on a loaded machine.
inline constexpr int32_t kNormalTimeoutMs = 400;
inline constexpr int32_t kFirmwareTimeoutMs = 700;

// Configuration with both read time-outs and, when a device is given, the port mapping.
inline std::string DownloadConfig(int demo, int logfile, const std::string& device = {}) {
  std::ostringstream text;
  text << "[Init]\nVersion=" << demo << "\nLogfile=" << logfile << "\nComPort=" << kLoaderPort
       << "\nBaudrate=115200\nReadInterval=200\nReadTotalMultiplier=0\nReadTotalConstant="
       << kNormalTimeoutMs << "\nReadTotalConstantFW=" << kFirmwareTimeoutMs << "\n";
  if (!device.empty()) text << "[Ports]\nCom" << kLoaderPort << "=" << device << "\n";
  return text.str();
}

// A driver object in its own directory, configured for device.
struct DriverInDir {
  explicit DriverInDir(const std::string& device, int demo = 0, int logfile = 0) {
    dir.Write("kaVcnf.ini", DownloadConfig(demo, logfile, device));
    com = std::make_unique<Ccom>(dir.path());
  }
  std::string Write(const std::string& name, const std::string& content) const {
    dir.Write(name, content);
    return dir.File(name);
  }
  int32_t OpenLine() {
    int32_t error = -1;
    com->kaVOpenComPort(kLoaderPort, &error);
    return error;
  }
  // Writes text as the line file "fw.hex", opens the line and announces the file: the
  // number of records the driver counted, or -1 when a step failed.
  int32_t StartLines(const std::string& text) {
    const std::string file = Write("fw.hex", text);
    if (OpenLine() != 0) return -1;
    int32_t lines = 0;
    int32_t error = -1;
    if (com->kaVInitFirmwareDownload(file.c_str(), &lines, &error) != 0 || error != 0) return -1;
    return lines;
  }
  TempDir dir;
  std::unique_ptr<Ccom> com;
};

// One firmware record as a line of the line file: ':' and the upper-case digit pairs of
// count, address, type, data and check sum.
inline std::string HexRecord(uint16_t address, uint8_t type, const Bytes& data) {
  Bytes bytes = {uint8_t(data.size()), uint8_t(address >> 8), uint8_t(address), type};
  bytes.insert(bytes.end(), data.begin(), data.end());
  uint8_t sum = 0;
  for (uint8_t b : bytes) sum = uint8_t(sum + b);
  bytes.push_back(uint8_t(0x100 - sum));
  std::string line = ":";
  char pair[3];
  for (uint8_t b : bytes) {
    snprintf(pair, sizeof pair, "%02X", b);
    line += pair;
  }
  return line;
}

// The bytes the driver sends for a record of the line file: ':' and the pairs' values.
inline Bytes RecordBytes(const std::string& line) {
  Bytes out = {':'};
  for (size_t i = 1; i + 2 <= line.size(); i += 2) {
    out.push_back(uint8_t(std::stoul(line.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// Upper-case digit pairs of bytes, the way stage files hold them.
inline std::string HexText(const Bytes& bytes) {
  std::string text;
  char pair[3];
  for (uint8_t b : bytes) {
    snprintf(pair, sizeof pair, "%02X", b);
    text += pair;
  }
  return text;
}

inline Bytes Sequence(size_t count, uint32_t seed) {
  Bytes out(count);
  uint32_t x = seed * 2654435761u + 1;
  for (auto& b : out) {
    x = x * 1103515245u + 12345u;
    b = uint8_t(x >> 16);
  }
  return out;
}

inline Bytes ToBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

// Descriptors the process holds; a reader that forgets to close a file shows up here.
inline int OpenDescriptors() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

}  // namespace tamrik::test
