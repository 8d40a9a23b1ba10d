// What the simulated gateway is: its identity, its settings and the I/O modules of its
// station. The service engine answers from a Station and writes into it what the host sets,
// so a test can look at the same struct to see the effect of a request.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tamrik::sim {

// Diagnosis bytes of a module by bits 12 to 15 of its identifier, by the protocol's table:
// hosts lay out the diagnosis answer by it, so a module's default diagnosis size follows it.
uint16_t DiagLengthForId(uint32_t moduleId);

// Attribute keys all have one length; ordered byte by byte. (The standard order of byte
// vectors is the same, but GCC 12 warns about the memcmp it inlines for it.)
struct AttributeKeyLess {
  bool operator()(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) const {
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
      if (a[i] != b[i]) return a[i] < b[i];
    }
    return a.size() < b.size();
  }
};

struct Module {
  uint32_t id = 0;   // 24-bit identifier
  char type = 'D';   // 'D' digital, 'A' analogue: decides how the inputs move
  uint8_t status = 0x01;
  uint8_t swRevision = 0x10;
  uint8_t typeCode = 0;
  uint8_t streamSize = 0;
  // Sizes are the lengths of these vectors; the loader sizes them from its counts.
  std::vector<uint8_t> inputs;      // shown as they are when input animation is off
  std::vector<uint8_t> outputs;     // what the host wrote last
  std::vector<uint8_t> parameters;  // what the host wrote last
  std::vector<uint8_t> diagnosis;
};

// A module with zeroed images of the given sizes; the diagnosis size follows the identifier.
Module MakeModule(uint32_t id, char type, size_t inputs, size_t outputs, size_t parameters);

struct ErrorEntry {
  uint8_t code = 0;
  uint32_t durationMs = 0;
  std::vector<uint8_t> extra;
};

// How a request is refused: the answer code is the request code plus base (0x8000 or
// 0xC000); the answer carries no data, or the one byte given.
struct Refusal {
  uint16_t base = 0x8000;
  std::optional<uint8_t> data{};
};

// Beside each field, the services that read or set it, by their names in the service table.
struct Station {
  std::vector<Module> modules;

  std::string identity;       // GatewayIdString
  uint16_t version = 0;       // GatewayVersion
  std::string bootId;         // BootFunctionIdString
  uint16_t bootVersion = 0;   // BootVersion
  std::vector<ErrorEntry> errors;  // ErrorList
  uint8_t operationMode = 1;  // GetOperationMode, SetOperationMode
  std::string versionString;  // VersionString
  uint32_t gatewayId = 0;     // GatewayId
  uint8_t stationAddress = 0; // StationAddress
  uint8_t serviceBaudIndex = 0;  // SetServiceBaudrate
  uint16_t switches = 0;      // Switches
  uint16_t leds = 0;          // Leds
  std::vector<uint16_t> bootHwInfo;  // BootFctsHwInfo
  std::vector<uint8_t> gatewayDiagnosis;  // the gateway's own bytes ahead of the modules'

  // Inputs: a counter per analogue module and a walking bit per digital module, one step per
  // read of the input image. Off: each module's inputs vector is shown.
  bool animateInputs = true;

  // Clock (GatewayTime): milliseconds since the simulator started, or this value when set.
  // The same service hands out the privileged challenge, so a fixed clock fixes the challenge.
  std::optional<uint32_t> fixedClockMs;

  std::vector<uint8_t> trBuffer;  // GetTRBuffer; ClearTRBuffer clears it

  // Privileged access (PrivilegedRequest): the response must be gray(gather(challenge, table)).
  std::array<uint8_t, 32> privilegedTable{};  // identity by default
  uint16_t privilegedRefusalBase = 0x8000;
  uint32_t privilegedChannel = 0;  // PrivilegedChannel
  std::string privilegedName;      // PrivilegedName

  uint32_t dnetSerial = 0;         // DNetSerialNumber
  std::string toolIdent;           // DNetToolIdent
  // DNetGetAttribute, DNetSetAttribute: attribute values keyed by the first
  // attributeKeyLength request bytes.
  size_t attributeKeyLength = 3;
  std::map<std::vector<uint8_t>, std::vector<uint8_t>, AttributeKeyLess> attributes;

  std::vector<std::vector<uint8_t>> monitorFrames;  // FirstDataFrame, NextDataFrame: these first

  // A completed image download is also written here when not empty.
  std::string imageFile;

  // Answer to a code the gateway does not know; nullopt: no answer at all.
  std::optional<Refusal> unknownService = Refusal{};
};

// A small station of three modules with every value filled in.
Station DefaultStation();

// --- model files ----------------------------------------------------------------------

// A number as model files and the programs' options write it: decimal, or hexadecimal after
// 0x; no sign and no blanks. Nothing for any other text or for more than 64 bits.
std::optional<uint64_t> ParseNumber(std::string_view text);

// Reads a station from text (format at the top of SimStation.cpp and in sim/README.md),
// starting from DefaultStation(). On failure returns nullopt and, when error is given,
// sets it to a message naming the line.
std::optional<Station> ParseStation(std::string_view text, std::string* error = nullptr);
std::optional<Station> LoadStationFile(const std::string& path, std::string* error = nullptr);

}  // namespace tamrik::sim
