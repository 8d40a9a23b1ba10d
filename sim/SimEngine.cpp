#include "SimEngine.h"

#include <algorithm>
#include <fstream>

#include "SimFrame.h"

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

// Services whose request carries no data.
bool TakesNoData(uint16_t code) {
  switch (code) {
    case 1: case 3: case 4: case 6: case 8: case 13: case 14: case 15: case 18: case 19:
    case 21: case 22: case 23: case 24: case 25:
    case 256: case 257: case 258: case 259: case 260: case 261: case 263: case 265:
    case 266: case 267: case 268: case 271: case 274: case 276: case 290:
    case 305: case 306: case 2306: case 2308:
      return true;
    default:
      return false;
  }
}

}  // namespace

Answer RefusalAnswer(uint16_t requestCode, const Refusal& refusal) {
  Answer a;
  a.code = uint16_t(requestCode + refusal.base);
  if (refusal.data) a.data.push_back(*refusal.data);
  return a;
}

uint32_t PrivilegedResponse(uint32_t challenge, const std::array<uint8_t, 32>& table) {
  uint32_t r = 0;
  for (uint32_t i = 0; i < 32; ++i)
    if (challenge >> (table[i] % 32) & 1u) r |= 1u << i;
  return r ^ (r >> 1);
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
  if (!state_.monitoring || (code >= 23 && code <= 27)) return;
  if (state_.monitorFrames.size() >= kMaxMonitorFrames) return;
  std::vector<uint8_t> frame = BuildFrame(code, data);
  if (frame.size() > kMaxMonitorFrameBytes) frame.resize(kMaxMonitorFrameBytes);
  state_.monitorFrames.push_back(std::move(frame));
}

Answer ServiceEngine::Ok(uint16_t code, std::vector<uint8_t> data) const {
  return Answer{uint16_t(code + 0x4000), std::move(data)};
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
  const Refusal badLength{0x8000, kRefusalBadLength};
  if (TakesNoData(code) && !data.empty()) return RefusalAnswer(code, badLength);

  Station& s = station_;
  std::vector<uint8_t> out;
  switch (code) {
    case 1:  // module list: status byte, then the 24-bit identifier
      for (const Module& m : s.modules) PutLe32(out, uint32_t(m.status) | (m.id & 0xFFFFFF) << 8);
      return Ok(code, out);
    case 3:
      if (s.animateInputs) StepInputs();
      return Ok(code, InputImage());
    case 4:
      return Ok(code, OutputImage());
    case 5:
      Scatter(s.modules, &Module::outputs, data);
      return Ok(code, {data.begin(), data.end()});
    case 6:
      return Ok(code, ParameterImage());
    case 7:
      Scatter(s.modules, &Module::parameters, data);
      return Ok(code, {data.begin(), data.end()});
    case 8:
      return Ok(code, DiagnosisImage());
    case 13:
      state_.fbiRunning = false;
      ++state_.fbiResets;
      return Ok(code);
    case 14:
      state_.fbiRunning = true;
      ++state_.fbiStarts;
      return Ok(code);
    case 15:
      for (const Module& m : s.modules) out.push_back(m.streamSize);
      return Ok(code, out);
    case 16:
      if (data.empty()) return RefusalAnswer(code, badLength);
      state_.streamHeaders.push_back(data[0]);
      state_.streamData.insert(state_.streamData.end(), data.begin() + 1, data.end());
      return Ok(code);
    case 17:
      if (data.size() != 2) return RefusalAnswer(code, badLength);
      state_.streamPosition.assign(data.begin(), data.end());
      return Ok(code, state_.streamPosition);
    case 18:
      for (const Module& m : s.modules) out.push_back(m.swRevision);
      return Ok(code, out);
    case 19:
      for (const Module& m : s.modules) out.push_back(m.typeCode);
      return Ok(code, out);
    case 21:
      s.trBuffer.clear();
      return Ok(code);
    case 22:
      return Ok(code, s.trBuffer);
    case 23:
      state_.monitorFrames.clear();
      state_.monitorCursor = 0;
      return Ok(code);
    case 24:
      state_.monitoring = true;
      return Ok(code);
    case 25:
      state_.monitoring = false;
      return Ok(code);
    case 26:
    case 27:
      // The host's request values say nothing the simulated monitor needs.
      if (code == 26) state_.monitorCursor = 0;
      if (state_.monitorCursor < state_.monitorFrames.size())
        out = state_.monitorFrames[state_.monitorCursor++];
      return Ok(code, out);
    case 256:
      return Ok(code, TextBytes(s.identity));
    case 257:
      PutLe16(out, s.version);
      return Ok(code, out);
    case 258:
      return Ok(code, TextBytes(s.bootId));
    case 259:
      PutLe16(out, s.bootVersion);
      return Ok(code, out);
    case 260:
      for (const ErrorEntry& e : s.errors) {
        out.push_back(uint8_t(6 + e.extra.size()));
        out.push_back(e.code);
        PutLe32(out, e.durationMs);
        out.insert(out.end(), e.extra.begin(), e.extra.end());
      }
      return Ok(code, out);
    case 261:
      return Ok(code, {s.operationMode});
    case 262:
      if (data.size() != 1) return RefusalAnswer(code, badLength);
      s.operationMode = data[0];
      return Ok(code, {s.operationMode});
    case 263:
      ++state_.firmwareDownloadStarts;
      return Ok(code);
    case 265:
      return Ok(code, TextBytes(s.versionString));
    case 266:
      HardwareReset();
      return Ok(code);
    case 267:
      PutLe32(out, s.gatewayId);
      return Ok(code, out);
    case 268:
      return Ok(code, {s.stationAddress});
    case 271: {
      const uint32_t now = ClockMs();
      state_.challenge = now;
      PutLe32(out, now);
      return Ok(code, out);
    }
    case 272:
      if (data.size() != 1) return RefusalAnswer(code, badLength);
      s.serviceBaudIndex = data[0];
      return Ok(code);
    case 274:
      PutLe16(out, s.switches);
      return Ok(code, out);
    case 275:
      if (data.size() != 2) return RefusalAnswer(code, badLength);
      s.leds = uint16_t(data[0] | data[1] << 8);
      return Ok(code);
    case 276:
      for (uint16_t w : s.bootHwInfo) PutLe16(out, w);
      return Ok(code, out);
    case 288:
    case 289:
    case 290:
      return ImageService(code, data);
    case 304:
      return Privileged(code, data);
    case 305:
      PutLe32(out, s.privilegedChannel);
      return Ok(code, out);
    case 306:
      return Ok(code, TextBytes(s.privilegedName));
    case 2306:
      PutLe32(out, s.dnetSerial);
      return Ok(code, out);
    case 2308:
      return Ok(code, TextBytes(s.toolIdent));
    case 2322:
    case 2323:
      return Attribute(code, data);
    default:
      if (!s.unknownService) return std::nullopt;
      return RefusalAnswer(code, *s.unknownService);
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

Answer ServiceEngine::ImageService(uint16_t code, std::span<const uint8_t> data) {
  auto& progress = state_.imageInProgress;
  if (code == 288) {
    if (data.size() != 4 && data.size() != 8) return RefusalAnswer(code, {0x8000, kRefusalBadLength});
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
  if (code == 289) {
    // Blocks without an announcement (a host sending an empty image announces length 0,
    // which is a cancel) are taken and dropped.
    if (progress) {
      progress->data.insert(progress->data.end(), data.begin(), data.end());
      ++progress->blocks;
    }
    return Ok(code);
  }
  // 290: the image is complete only when exactly the announced bytes came.
  if (!progress) return Ok(code);
  ImageDownload done = std::move(*progress);
  progress.reset();
  if (done.data.size() != done.announcedLength) return RefusalAnswer(code, {0x8000, std::nullopt});
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
  if (data.size() < k) return RefusalAnswer(code, {0x8000, kRefusalNotEnoughData});
  std::vector<uint8_t> key(data.begin(), data.begin() + std::ptrdiff_t(k));
  if (code == 2323) {
    station_.attributes[std::move(key)].assign(data.begin() + std::ptrdiff_t(k), data.end());
    return Ok(code);
  }
  const auto it = station_.attributes.find(key);
  if (it == station_.attributes.end()) return RefusalAnswer(code, {0x8000, kRefusalNoSuchAttribute});
  return Ok(code, it->second);
}

}  // namespace tamrik::sim
