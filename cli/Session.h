// One run of the tool against one gateway: a private directory for the driver's profile
// files, the embedded simulator when no gateway is named, the driver object and its link.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SimBootLoader.h"
#include "Simulator.h"
#include "tamrik.h"

namespace tamrik::cli {

struct LinkOptions {
  std::string serial;  // device path, or "COMn" / "n"
  int32_t baud = 9600;
  std::string tcp;     // HOST:PORT
  std::string udp;     // HOST:PORT
  std::optional<std::string> demo;  // kaVdmo.ini; empty text: the shipped one
  bool sim = false;
  std::string simLink = "tcp";       // tcp, udp or pty
  std::string simModel;              // station model file
  std::vector<std::string> simRefuse;  // CODE[:base[:byte]]
  bool simLog = false;
  bool trace = false;
  int32_t timeoutMs = 500;           // serial read time-out in all
  int32_t firmwareTimeoutMs = 3000;  // the same during downloads
  std::optional<int32_t> segmentPauseMs;  // pause between stream segments
  std::string privilegedBits;        // 32 comma-separated numbers
};

// What the link is needed for: the embedded simulator plays a gateway for ordinary services
// and a boot loader for the two firmware downloads.
enum class Purpose { Gateway, FirmwareLines, BootChain, BootChainWithoutSetCtx };

class Session {
 public:
  // Throws std::runtime_error with a message for a person when the run cannot be set up.
  Session(const LinkOptions& options, Purpose purpose);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  tamrik_com* com() const { return com_; }
  // Opens the link; returns the result code (0 when the link needs no opening).
  uint32_t Open();
  // Where the link goes, for a person ("TCP 127.0.0.1:40123 (simulated gateway)").
  const std::string& Describe() const { return description_; }
  bool demonstration() const { return demo_; }
  bool serial() const { return serialPort_ > 0; }
  int32_t serialPort() const { return serialPort_; }
  int32_t baud() const { return baud_; }
  const std::string& directory() const { return directory_; }
  std::string File(const std::string& name) const { return directory_ + "/" + name; }

  // The embedded simulator, when there is one.
  sim::Simulator* simulator() const { return sim_.get(); }
  sim::SimBootLoader* loader() const { return loader_.get(); }

 private:
  void WriteConfig(const LinkOptions& options);
  void StartSimulator(const LinkOptions& options, Purpose purpose);

  std::string directory_;
  std::string description_;
  bool demo_ = false;
  int32_t serialPort_ = 0;
  int32_t baud_ = 9600;
  std::string serialDevice_;
  std::string ethernetPort_;  // "PORT" or "PORT,UDP"
  std::string ethernetHost_;
  std::string privilegedBits_;
  std::unique_ptr<sim::Simulator> sim_;
  std::unique_ptr<sim::SimBootLoader> loader_;
  tamrik_com* com_ = nullptr;
  bool open_ = false;
};

// "HOST:PORT" with an IPv4 address or a host name that resolves to one.
bool SplitHostPort(const std::string& text, std::string* address, std::string* port, std::string* error);

// The directory of the running executable, with no trailing separator.
std::string ExecutableDirectory();
// The shipped demonstration station: beside the tool, in ../share/tamrik, or in the source tree.
std::string ShippedDemoFile();

// CODE[:base[:byte]] as the simulator's refusal of a service.
bool ParseRefusal(const std::string& text, uint16_t* code, sim::Refusal* refusal, std::string* error);

}  // namespace tamrik::cli
