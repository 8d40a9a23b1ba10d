// One run of the tool against one gateway: the embedded simulator when no gateway is named,
// the driver object configured in memory, and its link. Nothing is written to disk.
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
  // Serial: the read time-out in all; TCP and UDP: how long an answer may take to begin.
  // Unset: the driver's own default for the link.
  std::optional<int32_t> timeoutMs;
  int32_t firmwareTimeoutMs = 3000;  // serial read time-out during downloads
  std::optional<int32_t> segmentPauseMs;  // pause between stream segments
  std::string privilegedBits;        // 32 comma-separated numbers
  std::string bootFile;              // the boot-file list for boot --ini
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
  // Closes the link (for a reconnect); Open may follow.
  void Close();
  // Where the link goes, for a person ("TCP 127.0.0.1:40123 (simulated gateway)").
  const std::string& Describe() const { return description_; }
  // The peer as HOST:PORT for a TCP or UDP link, else empty.
  std::string Peer() const;
  bool demonstration() const { return demo_; }
  bool serial() const { return serialPort_ > 0; }
  bool udp() const { return ethernetPort_.find(",UDP") != std::string::npos; }
  int32_t serialPort() const { return serialPort_; }
  int32_t baud() const { return baud_; }

  // The embedded simulator, when there is one.
  sim::Simulator* simulator() const { return sim_.get(); }
  sim::SimBootLoader* loader() const { return loader_.get(); }

 private:
  void StartSimulator(const LinkOptions& options, Purpose purpose);
  void ChooseLink(const LinkOptions& options, Purpose purpose);
  void CreateDriver(const LinkOptions& options);

  std::string description_;
  bool demo_ = false;
  std::string demoFile_;
  int32_t serialPort_ = 0;
  int32_t baud_ = 9600;
  std::string serialDevice_;
  std::string ethernetPort_;  // "PORT" or "PORT,UDP"
  std::string ethernetHost_;
  std::optional<std::array<uint8_t, 32>> privilegedBits_;
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

// 32 numbers separated by commas or blanks that are a permutation of 0 to 31.
bool ParsePrivilegedBits(const std::string& text, std::array<uint8_t, 32>* table, std::string* error);

}  // namespace tamrik::cli
