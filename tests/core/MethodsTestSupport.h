// Driver objects for the method tests: one that answers from a demonstration file, and one
// linked over loopback TCP to the gateway simulator.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "com.h"
#include "common/TestSupport.h"
#include "platform/Platform.h"
#include "SimFrame.h"
#include "Simulator.h"

namespace tamrik::test {

// The demonstration station that ships with the driver.
inline std::string ShippedDemoFile() {
  return (std::filesystem::path(__FILE__).parent_path() / "../../examples/kaVdmo.ini").lexically_normal().string();
}

inline std::string DemoValue(const std::string& file, const char* section, const char* key) {
  char value[256] = {};
  platform::ProfileGetString(section, key, "<missing>", value, sizeof value, file);
  return value;
}

// A driver object in demonstration mode over the given demonstration file.
class DemoDriver {
 public:
  explicit DemoDriver(const std::string& demoContent, int logfile = 0, int version = 1) {
    dir_.Write("kaVcnf.ini", InitSection(version, logfile));
    dir_.Write("kaVdmo.ini", demoContent);
    com_ = std::make_unique<Ccom>(dir_.path());
  }
  Ccom& com() { return *com_; }
  const TempDir& dir() const { return dir_; }
  std::string Value(const char* section, const char* key) const {
    return DemoValue(dir_.File("kaVdmo.ini"), section, key);
  }

 private:
  TempDir dir_;
  std::unique_ptr<Ccom> com_;
};

// A driver object linked to a simulated gateway on 127.0.0.1.
class LiveDriver {
 public:
  explicit LiveDriver(sim::Station station = sim::DefaultStation(), int logfile = 0,
                      const std::string& extraConfig = "")
      : sim_(std::move(station)) {
    dir_.Write("kaVcnf.ini", InitSection(0, logfile) + extraConfig);
    com_ = std::make_unique<Ccom>(dir_.path());
    const uint16_t port = sim_.StartTcp();
    int32_t error = -1;
    EXPECT_EQ(com_->kaVOpenEthernet(std::to_string(port).c_str(), "127.0.0.1", &error), 0u);
    EXPECT_EQ(error, 0);
  }
  ~LiveDriver() { com_.reset(); }

  Ccom& com() { return *com_; }
  sim::Simulator& sim() { return sim_; }
  const TempDir& dir() const { return dir_; }

  // Code and data of every request the gateway has received so far.
  std::vector<std::pair<uint16_t, std::vector<uint8_t>>> Requests() const {
    std::vector<std::pair<uint16_t, std::vector<uint8_t>>> out;
    for (const sim::RequestRecord& r : sim_.Requests()) out.emplace_back(r.code, r.data);
    return out;
  }
  // The next request is answered with this frame.
  void Answer(uint16_t code, const std::vector<uint8_t>& data) { sim_.QueueRawAnswer(sim::BuildFrame(code, data)); }

 private:
  TempDir dir_;
  sim::Simulator sim_;
  std::unique_ptr<Ccom> com_;
};

using Request = std::pair<uint16_t, std::vector<uint8_t>>;
using Bytes = std::vector<uint8_t>;

}  // namespace tamrik::test
