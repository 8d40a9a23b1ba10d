// The gateway's service handling without any I/O: one request in, one answer out. The
// engine owns the station it answers from and writes into it what the host sets, so that a
// later read gives back what was written.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "SimStation.h"

namespace tamrik::sim {

struct Answer {
  uint16_t code = 0;
  std::vector<uint8_t> data;
};

// Data byte of a refusal for a request whose data do not fit its service.
inline constexpr uint8_t kRefusalBadLength = 0x01;
// Data bytes of a DeviceNet attribute refusal: too few request bytes, unknown attribute.
inline constexpr uint8_t kRefusalNotEnoughData = 0x13;
inline constexpr uint8_t kRefusalNoSuchAttribute = 0x14;

// The answer a gateway gives for a refused request: code + base, no data or one byte.
Answer RefusalAnswer(uint16_t requestCode, const Refusal& refusal);

// The response a host must give to a challenge with the station's bit table: the protocol's
// own rule, which the driver uses too.
uint32_t PrivilegedResponse(uint32_t challenge, const std::array<uint8_t, 32>& table);

struct ImageDownload {
  uint32_t announcedLength = 0;
  std::optional<uint32_t> startAddress;
  std::vector<uint8_t> data;
  uint32_t blocks = 0;
};

// What the engine keeps beside the station: counters of control requests and the state of
// multi-request procedures.
struct EngineState {
  uint8_t inputCounter = 0;  // shown by analogue modules: 1, 2, ... 255, 0, 1, ...
  uint8_t walkingBit = 0;    // shown by digital modules: 1, 2, 4, ... 128, 0, 1, ...

  std::optional<uint32_t> challenge;  // the last clock value handed out, until checked
  std::optional<std::string> privilegedClient;  // description of the host that passed
  uint32_t privilegedRefusals = 0;

  bool fbiRunning = true;
  uint32_t fbiResets = 0;
  uint32_t fbiStarts = 0;
  uint32_t hardwareResets = 0;
  uint32_t firmwareDownloadStarts = 0;

  std::vector<uint8_t> streamHeaders;  // first byte of each segment request
  std::vector<uint8_t> streamData;     // segment data, appended
  std::vector<uint8_t> streamPosition;

  bool monitoring = false;
  std::vector<std::vector<uint8_t>> monitorFrames;
  size_t monitorCursor = 0;

  std::optional<ImageDownload> imageInProgress;
  std::optional<ImageDownload> completedImage;
  uint32_t imageCancels = 0;
  bool imageFileWritten = false;
};

class ServiceEngine {
 public:
  explicit ServiceEngine(Station station = DefaultStation());

  // The answer to one request; nullopt when the gateway gives none.
  std::optional<Answer> Respond(uint16_t code, std::span<const uint8_t> data);

  // The same for a whole request frame: the answer frame, or nothing when the request is
  // not one frame with a correct check value or the gateway stays silent.
  std::vector<uint8_t> Serve(std::span<const uint8_t> requestFrame);

  // Replaces the station and starts the engine state afresh (as after power-up).
  void SetStation(Station station);
  Station& station() { return station_; }
  const Station& station() const { return station_; }
  const EngineState& state() const { return state_; }

  // The clock that the gateway time service reports, in ms.
  uint32_t ClockMs() const;

  // Byte images as the host sees them: every module's part in module order.
  std::vector<uint8_t> InputImage() const;
  std::vector<uint8_t> OutputImage() const;
  std::vector<uint8_t> ParameterImage() const;
  std::vector<uint8_t> DiagnosisImage() const;

 private:
  std::optional<Answer> Dispatch(uint16_t code, std::span<const uint8_t> data);
  // The services by what they touch. Each answers the codes of its own kind and returns
  // nothing for any other code.
  std::optional<Answer> ModuleData(uint16_t code, std::span<const uint8_t> data);
  std::optional<Answer> GatewayFacts(uint16_t code);
  std::optional<Answer> Control(uint16_t code, std::span<const uint8_t> data);
  std::optional<Answer> Monitor(uint16_t code);
  std::optional<Answer> Procedures(uint16_t code, std::span<const uint8_t> data);

  Answer Ok(uint16_t code, std::vector<uint8_t> data = {}) const;
  void StepInputs();
  void HardwareReset();
  void Record(uint16_t code, std::span<const uint8_t> data);
  Answer Privileged(uint16_t code, std::span<const uint8_t> data);
  Answer ImageAnnounce(uint16_t code, std::span<const uint8_t> data);
  Answer ImageBlock(uint16_t code, std::span<const uint8_t> data);
  Answer ImageEnd(uint16_t code);
  Answer Attribute(uint16_t code, std::span<const uint8_t> data);

  Station station_;
  EngineState state_;
  std::chrono::steady_clock::time_point clockStart_;
};

}  // namespace tamrik::sim
