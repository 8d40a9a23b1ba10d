#include "Session.h"

#include <netdb.h>
#include <sys/socket.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "SimStation.h"

namespace tamrik::cli {
namespace fs = std::filesystem;

namespace {

// "COM3", "com3" or "3": the port number; 0 for anything else (a device path).
int32_t ComNumber(const std::string& text) {
  std::string digits = text;
  if (digits.size() > 3 && (digits.compare(0, 3, "COM") == 0 || digits.compare(0, 3, "com") == 0))
    digits = digits.substr(3);
  if (digits.empty() || digits.size() > 3) return 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return 0;
  }
  const int32_t n = int32_t(std::strtol(digits.c_str(), nullptr, 10));
  return n >= 1 && n <= 255 ? n : 0;
}

std::string BitsText(const std::array<uint8_t, 32>& table) {
  std::string text;
  for (size_t i = 0; i < table.size(); ++i) {
    if (i) text += ',';
    text += std::to_string(table[i]);
  }
  return text;
}

bool ParseNumber(const std::string& text, uint32_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  const unsigned long v = std::strtoul(text.c_str(), &end, 0);
  if (*end != '\0') return false;
  *value = uint32_t(v);
  return true;
}

}  // namespace

bool SplitHostPort(const std::string& text, std::string* address, std::string* port, std::string* error) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
    *error = "'" + text + "' is not HOST:PORT";
    return false;
  }
  const std::string host = text.substr(0, colon);
  *port = text.substr(colon + 1);
  for (char c : *port) {
    if (c < '0' || c > '9') {
      *error = "'" + *port + "' is not a port number";
      return false;
    }
  }
  const auto number = port->size() > 5 ? 0 : std::strtol(port->c_str(), nullptr, 10);
  if (number < 1 || number > 65535) {
    *error = "port " + *port + " is out of range";
    return false;
  }
  // The driver takes dotted IPv4 text only; a name is looked up here.
  in_addr parsed{};
  if (inet_pton(AF_INET, host.c_str(), &parsed) == 1) {
    *address = host;
    return true;
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
    *error = "host '" + host + "' has no IPv4 address";
    return false;
  }
  char buffer[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr, buffer, sizeof buffer);
  freeaddrinfo(found);
  *address = buffer;
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
#ifdef TAMRIK_SOURCE_DEMO_FILE
  if (fs::exists(TAMRIK_SOURCE_DEMO_FILE)) return TAMRIK_SOURCE_DEMO_FILE;
#endif
  return {};
}

bool ParseRefusal(const std::string& text, uint16_t* code, sim::Refusal* refusal, std::string* error) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ':');) parts.push_back(part);
  uint32_t value = 0;
  if (parts.empty() || parts.size() > 3 || !ParseNumber(parts[0], &value) || value > 0x3FFF) {
    *error = "'" + text + "' is not CODE[:BASE[:BYTE]] with a service code up to 0x3FFF";
    return false;
  }
  *code = uint16_t(value);
  *refusal = sim::Refusal{};
  if (parts.size() >= 2) {
    if (!ParseNumber(parts[1], &value) || (value != 0x8000 && value != 0xC000)) {
      *error = "refusal base in '" + text + "' must be 0x8000 or 0xC000";
      return false;
    }
    refusal->base = uint16_t(value);
  }
  if (parts.size() == 3) {
    if (!ParseNumber(parts[2], &value) || value > 0xFF) {
      *error = "refusal byte in '" + text + "' must be 0 to 0xFF";
      return false;
    }
    refusal->data = uint8_t(value);
  }
  return true;
}

Session::Session(const LinkOptions& options, Purpose purpose) : baud_(options.baud) {
  std::string pattern = (fs::temp_directory_path() / "tamrik-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a private directory");
  directory_ = pattern;
  try {
    privilegedBits_ = options.privilegedBits;
    if (options.demo) {
      demo_ = true;
      const std::string source = options.demo->empty() ? ShippedDemoFile() : *options.demo;
      if (source.empty() || !fs::exists(source))
        throw std::runtime_error("no demonstration file " + (source.empty() ? std::string("kaVdmo.ini") : source));
      // The driver writes outputs, parameters and the operation mode back into its file; a
      // copy keeps the user's file (and the installed one) as it was.
      fs::copy_file(source, File("kaVdmo.ini"), fs::copy_options::overwrite_existing);
      description_ = "demonstration data from " + source;
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
    WriteConfig(options);
    com_ = tamrik_create_in(directory_.c_str());
    if (com_ == nullptr) throw std::runtime_error("the driver object cannot be created");
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
    throw;
  }
}

Session::~Session() {
  if (com_ != nullptr) {
    int32_t error = 0;
    if (open_) tamrik_kaVCloseComPort(com_, serialPort_, &error);
    tamrik_release(com_);
  }
  loader_.reset();
  if (sim_) sim_->Stop();
  std::error_code ignored;
  fs::remove_all(directory_, ignored);
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
  if (privilegedBits_.empty()) privilegedBits_ = BitsText(station.privilegedTable);
  sim_ = std::make_unique<sim::Simulator>(std::move(station));
  for (const std::string& text : options.simRefuse) {
    uint16_t code = 0;
    sim::Refusal refusal;
    std::string error;
    if (!ParseRefusal(text, &code, &refusal, &error)) throw std::runtime_error(error);
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

void Session::WriteConfig(const LinkOptions& options) {
  std::ofstream out(File("kaVcnf.ini"), std::ios::binary);
  out << "[Init]\n"
      << "Version=" << (demo_ ? 1 : 0) << "\n"
      << "Logfile=" << (options.trace ? 1 : 0) << "\n"
      << "ComPort=" << (serialPort_ > 0 ? serialPort_ : 1) << "\n"
      << "Baudrate=" << baud_ << "\n"
      << "ReadInterval=200\n"
      << "ReadTotalMultiplier=0\n"
      << "ReadTotalConstant=" << options.timeoutMs << "\n"
      << "ReadTotalConstantFW=" << options.firmwareTimeoutMs << "\n";
  if (options.segmentPauseMs) out << "StreamSegmentSleepTime=" << *options.segmentPauseMs << "\n";
  if (!serialDevice_.empty()) out << "[Ports]\nCom" << serialPort_ << "=" << serialDevice_ << "\n";
  if (!privilegedBits_.empty()) out << "[Privileged]\nBits=" << privilegedBits_ << "\n";
  if (!out) throw std::runtime_error("cannot write " + File("kaVcnf.ini"));
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

}  // namespace tamrik::cli
