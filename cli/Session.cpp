#include "Session.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "Address.h"
#include "SimGateway.h"
#include "SimStation.h"
#include "Tool.h"

namespace tamrik::cli {
namespace fs = std::filesystem;

namespace {

bool AllDigits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "COM3", "com3" or "3": the port number; 0 for anything else (a device path).
int32_t ComNumber(const std::string& text) {
  std::string digits = text;
  if (digits.size() > 3 && (digits.compare(0, 3, "COM") == 0 || digits.compare(0, 3, "com") == 0))
    digits = digits.substr(3);
  int64_t number = 0;
  return AllDigits(digits) && ParseInteger(digits, 1, 255, &number) ? int32_t(number) : 0;
}

}  // namespace

bool SplitHostPort(const std::string& text, std::string* address, std::string* port, std::string* error) {
  const auto split = serve::SplitHostPort(text);
  if (!split) {
    *error = "'" + text + "' is not HOST:PORT with a port from 1 to 65535";
    return false;
  }
  const auto ipv4 = serve::Ipv4Of(split->first);
  if (!ipv4) {
    *error = "host '" + split->first + "' has no IPv4 address";
    return false;
  }
  *address = *ipv4;
  *port = std::to_string(split->second);
  return true;
}

std::string ExecutableDirectory() {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string(".") : self.parent_path().string();
}

std::string ShippedDemoFile() {
  const fs::path dir = ExecutableDirectory();
  for (const fs::path& candidate : {dir / "kaVdmo.ini", dir / ".." / "share" / "tamrik" / "kaVdmo.ini"}) {
    if (fs::exists(candidate)) return candidate.lexically_normal().string();
  }
  return {};
}

bool ParsePrivilegedBits(const std::string& text, std::array<uint8_t, 32>* table, std::string* error) {
  std::vector<std::string> parts;
  std::string piece;
  for (char c : text + ",") {
    if (c == ',' || c == ' ' || c == '\t') {
      if (!piece.empty()) parts.push_back(piece);
      piece.clear();
    } else {
      piece += c;
    }
  }
  if (parts.size() != 32) {
    *error = "needs 32 numbers, got " + std::to_string(parts.size());
    return false;
  }
  std::array<bool, 32> seen{};
  for (size_t i = 0; i < parts.size(); ++i) {
    int64_t value = 0;
    if (!ParseInteger(parts[i], 0, 31, &value)) {
      *error = "'" + parts[i] + "' is not a bit number from 0 to 31";
      return false;
    }
    if (seen[value]) {
      *error = "bit " + std::to_string(value) + " appears twice; the table must name each of 0 to 31 once";
      return false;
    }
    seen[value] = true;
    (*table)[i] = uint8_t(value);
  }
  return true;
}

Session::Session(const LinkOptions& options, Purpose purpose) : baud_(options.baud) {
  if (!options.privilegedBits.empty()) {
    std::array<uint8_t, 32> table{};
    std::string error;
    if (!ParsePrivilegedBits(options.privilegedBits, &table, &error)) throw std::runtime_error("--privileged-bits: " + error);
    privilegedBits_ = table;
  }
  ChooseLink(options, purpose);
  CreateDriver(options);
}

Session::~Session() {
  if (com_ != nullptr) {
    Close();
    tamrik_release(com_);
  }
  loader_.reset();
  if (sim_) sim_->Stop();
}

void Session::ChooseLink(const LinkOptions& options, Purpose purpose) {
  if (options.demo) {
    demo_ = true;
    // The driver keeps what is written (outputs, parameters, operation mode) in this file.
    demoFile_ = options.demo->empty() ? ShippedDemoFile() : *options.demo;
    if (demoFile_.empty() || !fs::is_regular_file(demoFile_))
      throw std::runtime_error("no demonstration file " + (demoFile_.empty() ? std::string("kaVdmo.ini") : demoFile_));
    description_ = "demonstration data from " + demoFile_;
  } else if (!options.serial.empty()) {
    serialPort_ = ComNumber(options.serial);
    if (serialPort_ == 0) {
      serialPort_ = 1;
      serialDevice_ = options.serial;
    }
    description_ = "serial " + (serialDevice_.empty() ? "COM" + std::to_string(serialPort_) : serialDevice_) +
                   " at " + std::to_string(baud_) + " baud";
  } else if (!options.tcp.empty() || !options.udp.empty()) {
    const bool udp = options.tcp.empty();
    std::string error;
    if (!SplitHostPort(udp ? options.udp : options.tcp, &ethernetHost_, &ethernetPort_, &error))
      throw std::runtime_error(error);
    description_ = std::string(udp ? "UDP " : "TCP ") + ethernetHost_ + ":" + ethernetPort_;
    if (udp) ethernetPort_ += ",UDP";
  } else {
    StartSimulator(options, purpose);
  }
}

void Session::CreateDriver(const LinkOptions& options) {
  tamrik_config config;
  tamrik_config_defaults(&config);
  config.version = demo_ ? 1 : 0;
  config.logfile = options.trace ? 1 : 0;
  config.com_port = serialPort_ > 0 ? serialPort_ : 1;
  config.baudrate = baud_;
  config.read_total_constant_fw_ms = options.firmwareTimeoutMs;
  if (options.timeoutMs) {
    // One option for every link: the serial read bound, or the socket answer bound.
    if (serialPort_ > 0) config.read_total_constant_ms = *options.timeoutMs;
    else config.socket_answer_ms = *options.timeoutMs;
  }
  if (options.segmentPauseMs) config.stream_segment_sleep_ms = *options.segmentPauseMs;
  tamrik_port port{};
  port.port = serialPort_;
  port.device = serialDevice_.c_str();
  if (!serialDevice_.empty()) {
    config.ports = &port;
    config.port_count = 1;
  }
  if (privilegedBits_) std::copy(privilegedBits_->begin(), privilegedBits_->end(), config.privileged_bits);
  if (demo_) config.demo_file = demoFile_.c_str();
  if (!options.bootFile.empty()) config.boot_file = options.bootFile.c_str();
  com_ = tamrik_create_with(&config);
  if (com_ == nullptr) throw std::runtime_error("the driver object cannot be created");
}

void Session::StartSimulator(const LinkOptions& options, Purpose purpose) {
  if (purpose != Purpose::Gateway) {
    // The downloads talk to the gateway's boot loader over its serial line.
    sim::BootLoaderConfig config;
    config.stages = purpose != Purpose::FirmwareLines;
    // A chain without its SetCtx file goes from stage 1 straight to stage 3; the loader must
    // know, as it cannot tell the Boot file from a SetCtx file by its bytes.
    config.stage2 = purpose != Purpose::BootChainWithoutSetCtx;
    loader_ = std::make_unique<sim::SimBootLoader>(config);
    if (!loader_->ok()) throw std::runtime_error("no pseudo-terminal for the simulated boot loader");
    serialPort_ = 1;
    serialDevice_ = loader_->slavePath();
    description_ = "serial " + serialDevice_ + " (simulated boot loader)";
    return;
  }
  sim::Station station = sim::DefaultStation();
  if (!options.simModel.empty()) {
    std::string error;
    auto loaded = sim::LoadStationFile(options.simModel, &error);
    if (!loaded) throw std::runtime_error(error);
    station = std::move(*loaded);
  }
  // The driver must answer the simulated gateway's challenge with the gateway's own table.
  if (!privilegedBits_) privilegedBits_ = station.privilegedTable;
  sim_ = std::make_unique<sim::Simulator>(std::move(station));
  for (const std::string& text : options.simRefuse) {
    uint16_t code = 0;
    sim::Refusal refusal;
    std::string error;
    if (!sim::ParseRefusal(text, &code, &refusal, &error)) throw std::runtime_error("--sim-refuse " + error);
    sim_->RefuseService(code, refusal);
  }
  if (options.simLog) {
    sim_->SetLogSink([](const std::string& line) { std::fprintf(stderr, "sim: %s\n", line.c_str()); });
  }
  if (options.simLink == "udp") {
    ethernetHost_ = "127.0.0.1";
    ethernetPort_ = std::to_string(sim_->StartUdp()) + ",UDP";
    description_ = "UDP 127.0.0.1:" + ethernetPort_.substr(0, ethernetPort_.find(',')) + " (simulated gateway)";
  } else if (options.simLink == "pty") {
    serialPort_ = 1;
    serialDevice_ = sim_->StartPty();
    description_ = "serial " + serialDevice_ + " (simulated gateway)";
  } else if (options.simLink == "tcp") {
    ethernetHost_ = "127.0.0.1";
    ethernetPort_ = std::to_string(sim_->StartTcp());
    description_ = "TCP 127.0.0.1:" + ethernetPort_ + " (simulated gateway)";
  } else {
    throw std::runtime_error("--sim-link must be tcp, udp or pty");
  }
}

std::string Session::Peer() const {
  if (serialPort_ > 0 || demo_) return {};
  return ethernetHost_ + ":" + ethernetPort_.substr(0, ethernetPort_.find(','));
}

uint32_t Session::Open() {
  int32_t error = 0;
  uint32_t status = 0;
  if (demo_) return 0;
  if (serialPort_ > 0) {
    status = tamrik_kaVOpenComPort(com_, serialPort_, &error);
  } else {
    status = tamrik_kaVOpenEthernet(com_, ethernetPort_.c_str(), ethernetHost_.c_str(), &error);
  }
  if (error == 0 && status == 0) open_ = true;
  return error != 0 ? uint32_t(error) : status;
}

void Session::Close() {
  if (!open_) return;
  int32_t error = 0;
  tamrik_kaVCloseComPort(com_, serialPort_, &error);
  open_ = false;
}

}  // namespace tamrik::cli
