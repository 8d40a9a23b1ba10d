// Small helpers shared by the test programs: a private temporary directory, the profile
// files in it, and a capture of the driver's debug output.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace tamrik::test {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tamrik-test-XXXXXX").string();
    char* made = mkdtemp(pattern.data());
    path_ = made != nullptr ? made : "";
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  void Write(const std::string& name, const std::string& content) const {
    std::ofstream(File(name), std::ios::binary) << content;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(File(name), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(File(name)); }

 private:
  std::string path_;
};

// A complete "Init" section, so that construction writes nothing back.
inline std::string InitSection(int version, int logfile, int comPort = 1, int baudrate = 9600,
                               int readTotalConstant = 500) {
  std::ostringstream text;
  text << "[Init]\r\nVersion=" << version << "\r\nLogfile=" << logfile << "\r\nComPort=" << comPort
       << "\r\nBaudrate=" << baudrate << "\r\nReadInterval=200\r\nReadTotalMultiplier=0\r\n"
       << "ReadTotalConstant=" << readTotalConstant << "\r\nReadTotalConstantFW=3000\r\n";
  return text.str();
}

// Collects every debug output call while it lives.
class TraceCapture {
 public:
  TraceCapture() { platform::SetDebugSink(&TraceCapture::Receive, this); }
  ~TraceCapture() { platform::SetDebugSink(nullptr, nullptr); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  static void Receive(void* context, const char* text) {
    auto* self = static_cast<TraceCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(text);
  }
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace tamrik::test
