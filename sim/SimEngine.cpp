#include "SimEngine.h"

#include <algorithm>
#include <fstream>

#include "SimFrame.h"
#include "protocol/Codec.h"
#include "protocol/ServiceTable.h"

namespace tamrik::sim {

namespace {

constexpr size_t kMaxMonitorFrames = 64;
constexpr size_t kMaxMonitorFrameBytes = 64;
constexpr size_t kImageReserveLimit = size_t(64) << 20;

void PutLe16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(uint8_t(v));
  out.push_back(uint8_t(v >> 8));
}

void PutLe32(std::vector<uint8_t>& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

uint32_t GetLe32(std::span<const uint8_t> d) {
  return uint32_t(d[0]) | uint32_t(d[1]) << 8 | uint32_t(d[2]) << 16 | uint32_t(d[3]) << 24;
}

std::vector<uint8_t> TextBytes(const std::string& s) { return {s.begin(), s.end()}; }

// Writes src over the front of the modules' images in module order; bytes beyond the
// station's image are not kept.
template <typename Member>
void Scatter(std::vector<Module>& modules, Member member, std::span<const uint8_t> src) {
  size_t i = 0;
  for (Module& m : modules)
    for (uint8_t& b : m.*member) {
      if (i == src.size()) return;
      b = src[i++];
    }
}

template <typename Member>
std::vector<uint8_t> Gather(const std::vector<Module>& modules, Member member) {
  std::vector<uint8_t> out;
  for (const Module& m : modules) out.insert(out.end(), (m.*member).begin(), (m.*member).end());
  return out;
}

// The service table says which requests carry no data; data sent with one of them make a
// malformed request, which a gateway refuses rather than ignores.
bool TakesNoData(uint16_t code) { return protocol::RequestRuleFor(code) == protocol::RequestRule::Empty; }

const Refusal kBadLength{protocol::kRefusalBit, kRefusalBadLength};

}  // namespace

Answer RefusalAnswer(uint16_t requestCode, const Refusal& refusal) {
  Answer a;
  a.code = uint16_t(requestCode + refusal.base);
  if (refusal.data) a.data.push_back(*refusal.data);
  return a;
}

uint32_t PrivilegedResponse(uint32_t challenge, const std::array<uint8_t, 32>& table) {
  return protocol::PrivilegedResponse(challenge, table.data());
}

ServiceEngine::ServiceEngine(Station station) { SetStation(std::move(station)); }

void ServiceEngine::SetStation(Station station) {
  station_ = std::move(station);
  state_ = EngineState{};
  state_.monitorFrames = station_.monitorFrames;
  clockStart_ = std::chrono::steady_clock::now();
}

uint32_t ServiceEngine::ClockMs() const {
  if (station_.fixedClockMs) return *station_.fixedClockMs;
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - clockStart_);
  return uint32_t(uint64_t(ms.count()));
}

std::vector<uint8_t> ServiceEngine::InputImage() const {
  if (!station_.animateInputs) return Gather(station_.modules, &Module::inputs);
  std::vector<uint8_t> out;
  for (const Module& m : station_.modules)
    out.insert(out.end(), m.inputs.size(), m.type == 'A' ? state_.inputCounter : state_.walkingBit);
  return out;
}

std::vector<uint8_t> ServiceEngine::OutputImage() const { return Gather(station_.modules, &Module::outputs); }

std::vector<uint8_t> ServiceEngine::ParameterImage() const {
  return Gather(station_.modules, &Module::parameters);
}

std::vector<uint8_t> ServiceEngine::DiagnosisImage() const {
  std::vector<uint8_t> out = station_.gatewayDiagnosis;
  const std::vector<uint8_t> modules = Gather(station_.modules, &Module::diagnosis);
  out.insert(out.end(), modules.begin(), modules.end());
  return out;
}

void ServiceEngine::StepInputs() {
  state_.inputCounter = uint8_t(state_.inputCounter + 1);
  // A walking bit with a rest step: after bit 7 one read shows no bit at all.
  if (state_.walkingBit == 0)
    state_.walkingBit = 1;
  else
    state_.walkingBit = uint8_t(state_.walkingBit << 1);
}

void ServiceEngine::HardwareReset() {
  for (Module& m : station_.modules) std::fill(m.outputs.begin(), m.outputs.end(), 0);
  state_.inputCounter = 0;
  state_.walkingBit = 0;
  state_.challenge.reset();
  state_.privilegedClient.reset();
  state_.fbiRunning = true;
  state_.monitoring = false;
  state_.imageInProgress.reset();
  ++state_.hardwareResets;
  clockStart_ = std::chrono::steady_clock::now();
}

void ServiceEngine::Record(uint16_t code, std::span<const uint8_t> data) {
  // The monitor's own requests are not what a host wants to see recorded.
  if (!state_.monitoring || (code >= kServiceMonitorReset && code <= kServiceNextDataFrame)) return;
  if (state_.monitorFrames.size() >= kMaxMonitorFrames) return;
  std::vector<uint8_t> frame = BuildFrame(code, data);
  if (frame.size() > kMaxMonitorFrameBytes) frame.resize(kMaxMonitorFrameBytes);
  state_.monitorFrames.push_back(std::move(frame));
}

Answer ServiceEngine::Ok(uint16_t code, std::vector<uint8_t> data) const {
  return Answer{uint16_t(code + protocol::kAnswerBit), std::move(data)};
}

std::optional<Answer> ServiceEngine::Respond(uint16_t code, std::span<const uint8_t> data) {
  Record(code, data);
  return Dispatch(code, data);
}

std::vector<uint8_t> ServiceEngine::Serve(std::span<const uint8_t> requestFrame) {
  const auto req = ParseFrame(requestFrame);
  if (!req) return {};
  const auto answer = Respond(req->code, req->data);
  if (!answer) return {};
  return BuildFrame(answer->code, answer->data);
}

std::optional<Answer> ServiceEngine::Dispatch(uint16_t code, std::span<const uint8_t> data) {
  if (TakesNoData(code) && !data.empty()) return RefusalAnswer(code, kBadLength);
  if (auto answer = ModuleData(code, data)) return answer;
  if (auto answer = GatewayFacts(code)) return answer;
  if (auto answer = Control(code, data)) return answer;
  if (auto answer = Monitor(code)) return answer;
  if (auto answer = Procedures(code, data)) return answer;
  if (!station_.unknownService) return std::nullopt;
  return RefusalAnswer(code, *station_.unknownService);
}

// The modules' images and what the gateway lists per module.
std::optional<Answer> ServiceEngine::ModuleData(uint16_t code, std::span<const uint8_t> data) {
  std::vector<Module>& modules = station_.modules;
  std::vector<uint8_t> out;
  switch (code) {
    case kServiceModuleList:  // status byte, then the 24-bit identifier
      for (const Module& m : modules) PutLe32(out, uint32_t(m.status) | (m.id & 0xFFFFFF) << 8);
      return Ok(code, out);
    case kServiceProcessIn:
      if (station_.animateInputs) StepInputs();
      return Ok(code, InputImage());
    case kServiceProcessOutRead:
      return Ok(code, OutputImage());
    case kServiceProcessOutWrite:
      Scatter(modules, &Module::outputs, data);
      return Ok(code, {data.begin(), data.end()});
    case kServiceParameterRead:
      return Ok(code, ParameterImage());
    case kServiceParameterWrite:
      Scatter(modules, &Module::parameters, data);
      return Ok(code, {data.begin(), data.end()});
    case kServiceDiagnosis:
      return Ok(code, DiagnosisImage());
    case kServiceStreamSizeList:
      for (const Module& m : modules) out.push_back(m.streamSize);
      return Ok(code, out);
    case kServiceStreamSegment:
      if (data.empty()) return RefusalAnswer(code, kBadLength);
      state_.streamHeaders.push_back(data[0]);
      state_.streamData.insert(state_.streamData.end(), data.begin() + 1, data.end());
      return Ok(code);
    case kServiceStreamPosition:
      if (data.size() != 2) return RefusalAnswer(code, kBadLength);
      state_.streamPosition.assign(data.begin(), data.end());
      return Ok(code, state_.streamPosition);
    case kServiceModuleSWRev:
      for (const Module& m : modules) out.push_back(m.swRevision);
      return Ok(code, out);
    case kServiceModuleTyp:
      for (const Module& m : modules) out.push_back(m.typeCode);
      return Ok(code, out);
    default:
      return std::nullopt;
  }
}

// What the gateway tells about itself and the host cannot change.
std::optional<Answer> ServiceEngine::GatewayFacts(uint16_t code) {
  const Station& s = station_;
  std::vector<uint8_t> out;
  switch (code) {
    case kServiceGatewayIdString: out = TextBytes(s.identity); break;
    case kServiceBootFunctionIdString: out = TextBytes(s.bootId); break;
    case kServiceVersionString: out = TextBytes(s.versionString); break;
    case kServicePrivilegedName: out = TextBytes(s.privilegedName); break;
    case kServiceDNetToolIdent: out = TextBytes(s.toolIdent); break;
    case kServiceStationAddress: out.push_back(s.stationAddress); break;
    case kServiceGatewayVersion: PutLe16(out, s.version); break;
    case kServiceBootVersion: PutLe16(out, s.bootVersion); break;
    case kServiceSwitches: PutLe16(out, s.switches); break;
    case kServiceGatewayId: PutLe32(out, s.gatewayId); break;
    case kServicePrivilegedChannel: PutLe32(out, s.privilegedChannel); break;
    case kServiceDNetSerialNumber: PutLe32(out, s.dnetSerial); break;
    case kServiceBootFctsHwInfo:
      for (uint16_t w : s.bootHwInfo) PutLe16(out, w);
      break;
    case kServiceErrorList:  // per entry: its length, the code, the duration, extra bytes
      for (const ErrorEntry& e : s.errors) {
        out.push_back(uint8_t(6 + e.extra.size()));
        out.push_back(e.code);
        PutLe32(out, e.durationMs);
        out.insert(out.end(), e.extra.begin(), e.extra.end());
      }
      break;
    default:
      return std::nullopt;
  }
  return Ok(code, out);
}

// Requests that set or reset something in the gateway, and the reads of what they set.
std::optional<Answer> ServiceEngine::Control(uint16_t code, std::span<const uint8_t> data) {
  Station& s = station_;
  std::vector<uint8_t> out;
  switch (code) {
    case kServiceFbiReset:
      state_.fbiRunning = false;
      ++state_.fbiResets;
      return Ok(code);
    case kServiceFbiStart:
      state_.fbiRunning = true;
      ++state_.fbiStarts;
      return Ok(code);
    case kServiceClearTRBuffer:
      s.trBuffer.clear();
      return Ok(code);
    case kServiceGetTRBuffer:
      return Ok(code, s.trBuffer);
    case kServiceGetOperationMode:
      return Ok(code, {s.operationMode});
    case kServiceSetOperationMode:
      if (data.size() != 1) return RefusalAnswer(code, kBadLength);
      s.operationMode = data[0];
      return Ok(code, {s.operationMode});
    case kServiceFirmwareDownload:
      ++state_.firmwareDownloadStarts;
      return Ok(code);
    case kServiceHardwareReset:
      HardwareReset();
      return Ok(code);
    case kServiceGatewayTime:  // the clock value is also the challenge of the privileged check
      state_.challenge = ClockMs();
      PutLe32(out, *state_.challenge);
      return Ok(code, out);
    case kServiceSetServiceBaudrate:
      if (data.size() != 1) return RefusalAnswer(code, kBadLength);
      s.serviceBaudIndex = data[0];
      return Ok(code);
    case kServiceLeds:
      if (data.size() != 2) return RefusalAnswer(code, kBadLength);
      s.leds = uint16_t(data[0] | data[1] << 8);
      return Ok(code);
    default:
      return std::nullopt;
  }
}

std::optional<Answer> ServiceEngine::Monitor(uint16_t code) {
  std::vector<uint8_t> out;
  switch (code) {
    case kServiceMonitorReset:
      state_.monitorFrames.clear();
      state_.monitorCursor = 0;
      return Ok(code);
    case kServiceMonitorStart:
      state_.monitoring = true;
      return Ok(code);
    case kServiceMonitorStop:
      state_.monitoring = false;
      return Ok(code);
    case kServiceFirstDataFrame:
    case kServiceNextDataFrame:
      // The host's request values say nothing the simulated monitor needs.
      if (code == kServiceFirstDataFrame) state_.monitorCursor = 0;
      if (state_.monitorCursor < state_.monitorFrames.size()) out = state_.monitorFrames[state_.monitorCursor++];
      return Ok(code, out);
    default:
      return std::nullopt;
  }
}

// The services that take more than one request, or check what an earlier one handed out.
std::optional<Answer> ServiceEngine::Procedures(uint16_t code, std::span<const uint8_t> data) {
  switch (code) {
    case kServiceImageAnnounce: return ImageAnnounce(code, data);
    case kServiceImageBlock: return ImageBlock(code, data);
    case kServiceImageEnd: return ImageEnd(code);
    case kServicePrivilegedRequest: return Privileged(code, data);
    case kServiceDNetGetAttribute:
    case kServiceDNetSetAttribute: return Attribute(code, data);
    default: return std::nullopt;
  }
}

Answer ServiceEngine::Privileged(uint16_t code, std::span<const uint8_t> data) {
  // Description bytes, 0x00, then the response low byte first. Each challenge is good for
  // one check, so that a response cannot be replayed.
  const std::optional<uint32_t> challenge = state_.challenge;
  state_.challenge.reset();
  const bool wellFormed = data.size() >= 5 && data[data.size() - 5] == 0x00;
  if (wellFormed && challenge &&
      GetLe32(data.subspan(data.size() - 4)) == PrivilegedResponse(*challenge, station_.privilegedTable)) {
    state_.privilegedClient = std::string(data.begin(), data.end() - 5);
    return Ok(code);
  }
  ++state_.privilegedRefusals;
  return RefusalAnswer(code, Refusal{station_.privilegedRefusalBase, std::nullopt});
}

Answer ServiceEngine::ImageAnnounce(uint16_t code, std::span<const uint8_t> data) {
  auto& progress = state_.imageInProgress;
  if (data.size() != 4 && data.size() != 8) return RefusalAnswer(code, kBadLength);
  const uint32_t length = GetLe32(data);
  if (length == 0) {  // an announcement of nothing abandons the download
    if (progress) ++state_.imageCancels;
    progress.reset();
    return Ok(code);
  }
  progress = ImageDownload{};
  progress->announcedLength = length;
  // The announced size at once: a buffer that grows block by block copies itself and
  // touches fresh pages all the way, which costs more than answering the blocks does.
  // An announcement beyond any real image gets no more than a plausible size up front.
  progress->data.reserve(std::min<size_t>(length, kImageReserveLimit));
  if (data.size() == 8) progress->startAddress = GetLe32(data.subspan(4));
  return Ok(code);
}

Answer ServiceEngine::ImageBlock(uint16_t code, std::span<const uint8_t> data) {
  // Blocks without an announcement (a host sending an empty image announces length 0,
  // which is a cancel) are taken and dropped.
  if (auto& progress = state_.imageInProgress) {
    progress->data.insert(progress->data.end(), data.begin(), data.end());
    ++progress->blocks;
  }
  return Ok(code);
}

// The image is complete only when exactly the announced bytes came.
Answer ServiceEngine::ImageEnd(uint16_t code) {
  auto& progress = state_.imageInProgress;
  if (!progress) return Ok(code);
  ImageDownload done = std::move(*progress);
  progress.reset();
  if (done.data.size() != done.announcedLength) return RefusalAnswer(code, {protocol::kRefusalBit, std::nullopt});
  state_.imageFileWritten = false;
  if (!station_.imageFile.empty()) {
    std::ofstream f(station_.imageFile, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(done.data.data()), std::streamsize(done.data.size()));
    state_.imageFileWritten = bool(f.flush());
  }
  state_.completedImage = std::move(done);
  return Ok(code);
}

Answer ServiceEngine::Attribute(uint16_t code, std::span<const uint8_t> data) {
  const size_t k = station_.attributeKeyLength;
  if (data.size() < k) return RefusalAnswer(code, {protocol::kRefusalBit, kRefusalNotEnoughData});
  std::vector<uint8_t> key(data.begin(), data.begin() + std::ptrdiff_t(k));
  if (code == kServiceDNetSetAttribute) {
    station_.attributes[std::move(key)].assign(data.begin() + std::ptrdiff_t(k), data.end());
    return Ok(code);
  }
  const auto it = station_.attributes.find(key);
  if (it == station_.attributes.end()) return RefusalAnswer(code, {protocol::kRefusalBit, kRefusalNoSuchAttribute});
  return Ok(code, it->second);
}

}  // namespace tamrik::sim
