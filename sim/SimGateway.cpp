#include "SimGateway.h"

#include <cstdio>

#include "protocol/Codec.h"
#include "protocol/ServiceTable.h"

namespace tamrik::sim {

namespace {

constexpr size_t kDefaultLogCapacity = 10000;

std::string Hex(std::span<const uint8_t> bytes, size_t limit = 24) {
  std::string out;
  char buf[4];
  for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
    std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", bytes[i]);
    out += buf;
  }
  if (bytes.size() > limit) out += " ...";
  return out;
}

}  // namespace

const char* LinkName(LinkKind link) {
  switch (link) {
    case LinkKind::Tcp: return "tcp";
    case LinkKind::Udp: return "udp";
    case LinkKind::Pty: return "pty";
    case LinkKind::Direct: break;
  }
  return "direct";
}

Gateway::Gateway(Station station)
    : engine_(std::move(station)), logCapacity_(kDefaultLogCapacity), start_(std::chrono::steady_clock::now()) {}

Gateway::~Gateway() = default;

AnswerFault Overlay(AnswerFault f, const AnswerFault& e) {
  if (f.noiseBytes == 0) f.noiseBytes = e.noiseBytes;
  f.corruptCheckValue = f.corruptCheckValue || e.corruptCheckValue;
  if (!f.refusal) f.refusal = e.refusal;
  f.silence = f.silence || e.silence;
  if (f.delayMs == 0) f.delayMs = e.delayMs;
  if (!f.truncateTo) f.truncateTo = e.truncateTo;
  if (f.lateMs == 0) f.lateMs = e.lateMs;
  f.dropConnection = f.dropConnection || e.dropConnection;
  if (f.paceBaud == 0) f.paceBaud = e.paceBaud;
  return f;
}

AnswerFault Gateway::EffectiveFault(const AnswerFault& oneShot) const { return Overlay(oneShot, faults_.every); }

std::vector<uint8_t> Gateway::Noise(uint32_t count) {
  // Varied, repeatable bytes; a start byte among them would make the noise a false frame.
  std::vector<uint8_t> out;
  out.reserve(count);
  while (out.size() < count) {
    const auto b = uint8_t(0x13 + 0x35 * noiseSeed_++);
    if (b != 0xAA) out.push_back(b);
  }
  return out;
}

Delivery Gateway::Serve(const ParsedFrame& request, LinkKind link) {
  std::string line;
  Delivery d;
  {
    std::lock_guard lock(mutex_);
    const AnswerFault byRule = faultRule_ ? faultRule_(request) : AnswerFault{};
    const AnswerFault f = EffectiveFault(Overlay(TakeOneShot(), byRule));
    d = Schedule(AnswerBytes(request, f), f);
    ++counters_.requests;
    // Without a log and a sink the record would be three copies made for nobody.
    if (logCapacity_ > 0 || sink_) {
      RequestRecord r{.link = link, .code = request.code, .data = request.data, .frame = request.raw,
                      .answer = d.bytes, .time = std::chrono::steady_clock::now()};
      if (sink_) line = LogLine(r, d);
      if (logCapacity_ > 0) log_.push_back(std::move(r));
      if (log_.size() > logCapacity_) log_.pop_front();
    }
  }
  logChanged_.notify_all();
  if (!line.empty()) Emit(line);
  return d;
}

AnswerFault Gateway::TakeOneShot() {
  AnswerFault oneShot;
  if (!oneShots_.empty()) {
    oneShot = oneShots_.front();
    oneShots_.pop_front();
  }
  return oneShot;
}

// A refused or scripted request does not reach the model.
std::optional<Answer> Gateway::ChooseAnswer(const ParsedFrame& request, const AnswerFault& f) {
  if (f.refusal) return RefusalAnswer(request.code, *f.refusal);
  if (const auto refusal = faults_.refusals.find(request.code); refusal != faults_.refusals.end())
    return RefusalAnswer(request.code, refusal->second);
  if (const auto scripted = overrides_.find(request.code); scripted != overrides_.end())
    return Answer{uint16_t(request.code + protocol::kAnswerBit), scripted->second};
  return engine_.Respond(request.code, request.data);
}

// The bytes that answer the request; empty when the gateway gives none. Raw answers go out
// as they were queued: the byte faults are for answers the gateway built itself.
std::vector<uint8_t> Gateway::AnswerBytes(const ParsedFrame& request, const AnswerFault& f) {
  if (!rawAnswers_.empty()) {
    std::vector<uint8_t> bytes = std::move(rawAnswers_.front());
    rawAnswers_.pop_front();
    return bytes;
  }
  const std::optional<Answer> answer = ChooseAnswer(request, f);
  if (!answer) return {};
  std::vector<uint8_t> bytes = BuildFrame(answer->code, answer->data);
  SpoilBytes(bytes, f);
  return bytes;
}

void Gateway::SpoilBytes(std::vector<uint8_t>& bytes, const AnswerFault& f) {
  ++answerFrames_;
  const bool nth = faults_.corruptEvery != 0 && answerFrames_ % faults_.corruptEvery == 0;
  if (f.corruptCheckValue || nth) bytes[bytes.size() - 2] ^= 0xFF;
  if (f.truncateTo && *f.truncateTo < bytes.size()) bytes.resize(*f.truncateTo);
  if (f.noiseBytes) {
    std::vector<uint8_t> noisy = Noise(f.noiseBytes);
    noisy.insert(noisy.end(), bytes.begin(), bytes.end());
    bytes = std::move(noisy);
  }
}

// What the link does with the bytes: the timing faults apply to every answer.
Delivery Gateway::Schedule(std::vector<uint8_t> bytes, const AnswerFault& f) {
  Delivery d;
  if (f.dropConnection)
    d.action = Delivery::Action::Drop;
  else if (f.silence || bytes.empty())
    d.action = Delivery::Action::Silence;
  else
    d.action = Delivery::Action::Send;
  if (d.action == Delivery::Action::Send) {
    d.bytes = std::move(bytes);
    ++counters_.answers;
  } else {
    ++counters_.silenced;
  }
  d.delayMs = f.lateMs ? f.lateMs : f.delayMs;
  d.late = f.lateMs != 0;
  d.paceBaud = f.paceBaud;
  return d;
}

std::string Gateway::LogLine(const RequestRecord& r, const Delivery& d) const {
  // Only a request code has a name: the table's names of 0x4101 or 0x8101 are those of the
  // answers to 0x0101, which would mislead here.
  const char* name = (r.code & ~0x3FFFu) == 0 ? protocol::ServiceName(r.code) : nullptr;
  char head[128];
  std::snprintf(head, sizeof head, "%10.3f %-6s 0x%04X%s%s [%zu]",
                std::chrono::duration<double>(r.time - start_).count(), LinkName(r.link), r.code,
                name ? " " : "", name ? name : "", r.data.size());
  std::string line = head;
  if (!r.data.empty()) line += " " + Hex(r.data);
  switch (d.action) {
    case Delivery::Action::Send: line += " -> " + Hex(d.bytes, 12); break;
    case Delivery::Action::Silence: line += " -> (no answer)"; break;
    case Delivery::Action::Drop: line += " -> (connection dropped)"; break;
  }
  if (d.late) line += " (late " + std::to_string(d.delayMs) + " ms)";
  else if (d.delayMs) line += " (after " + std::to_string(d.delayMs) + " ms)";
  return line;
}

Delivery Gateway::ServeFrame(std::span<const uint8_t> frame, LinkKind link) {
  if (auto parsed = ParseFrame(frame)) return Serve(*parsed, link);
  NoteBadFrame(frame, link);
  return Delivery{};
}

void Gateway::NoteBadFrame(std::span<const uint8_t> frame, LinkKind link) {
  std::string line;
  {
    std::lock_guard lock(mutex_);
    ++counters_.badCheckValues;
    if (sink_) {
      char head[64];
      std::snprintf(head, sizeof head, "%10.3f %-6s dropped, wrong check value: ",
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(),
                    LinkName(link));
      line = head + Hex(frame);
    }
  }
  if (!line.empty()) Emit(line);
}

void Gateway::Emit(const std::string& line) {
  std::function<void(const std::string&)> sink;
  {
    std::lock_guard lock(mutex_);
    sink = sink_;
  }
  if (sink) sink(line);
}

// --- station ------------------------------------------------------------------------------

Station Gateway::GetStation() const {
  std::lock_guard lock(mutex_);
  return engine_.station();
}

void Gateway::SetStation(Station station) {
  std::lock_guard lock(mutex_);
  engine_.SetStation(std::move(station));
}

void Gateway::EditStation(const std::function<void(Station&)>& edit) {
  std::lock_guard lock(mutex_);
  edit(engine_.station());
}

EngineState Gateway::GetEngineState() const {
  std::lock_guard lock(mutex_);
  return engine_.state();
}

std::optional<ImageDownload> Gateway::CompletedImage() const {
  std::lock_guard lock(mutex_);
  return engine_.state().completedImage;
}

std::vector<uint8_t> Gateway::OutputImage() const {
  std::lock_guard lock(mutex_);
  return engine_.OutputImage();
}

void Gateway::InspectEngine(const std::function<void(const ServiceEngine&)>& look) const {
  std::lock_guard lock(mutex_);
  look(engine_);
}

// --- faults -------------------------------------------------------------------------------

void Gateway::SetFaults(FaultSettings faults) {
  std::lock_guard lock(mutex_);
  faults_ = std::move(faults);
}

void Gateway::EditFaults(const std::function<void(FaultSettings&)>& edit) {
  std::lock_guard lock(mutex_);
  edit(faults_);
}

void Gateway::ClearFaults() {
  std::lock_guard lock(mutex_);
  faults_ = FaultSettings{};
  oneShots_.clear();
}

void Gateway::SetNoise(uint32_t bytes) { EditFaults([&](FaultSettings& f) { f.every.noiseBytes = bytes; }); }
void Gateway::SetCorruptEvery(uint32_t n) {
  std::lock_guard lock(mutex_);
  faults_.corruptEvery = n;
  answerFrames_ = 0;  // count from the moment of the setting
}
void Gateway::RefuseService(uint16_t code, Refusal refusal) {
  EditFaults([&](FaultSettings& f) { f.refusals[code] = refusal; });
}
void Gateway::StopRefusing(uint16_t code) { EditFaults([&](FaultSettings& f) { f.refusals.erase(code); }); }
void Gateway::SetSilence(bool on) { EditFaults([&](FaultSettings& f) { f.every.silence = on; }); }
void Gateway::SetAnswerDelay(uint32_t ms) { EditFaults([&](FaultSettings& f) { f.every.delayMs = ms; }); }
void Gateway::SetTruncation(std::optional<uint32_t> bytes) {
  EditFaults([&](FaultSettings& f) { f.every.truncateTo = bytes; });
}
void Gateway::SetLateAnswers(uint32_t ms) { EditFaults([&](FaultSettings& f) { f.every.lateMs = ms; }); }
void Gateway::SetDropConnection(bool on) { EditFaults([&](FaultSettings& f) { f.every.dropConnection = on; }); }
void Gateway::SetPacing(uint32_t baud) { EditFaults([&](FaultSettings& f) { f.every.paceBaud = baud; }); }

void Gateway::FaultNextAnswer(const AnswerFault& fault) {
  std::lock_guard lock(mutex_);
  oneShots_.push_back(fault);
}

size_t Gateway::PendingOneShotFaults() const {
  std::lock_guard lock(mutex_);
  return oneShots_.size();
}

void Gateway::SetFaultRule(std::function<AnswerFault(const ParsedFrame& request)> rule) {
  std::lock_guard lock(mutex_);
  faultRule_ = std::move(rule);
}

// --- scripted answers ---------------------------------------------------------------------

void Gateway::QueueRawAnswer(std::vector<uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  rawAnswers_.push_back(std::move(bytes));
}

size_t Gateway::PendingRawAnswers() const {
  std::lock_guard lock(mutex_);
  return rawAnswers_.size();
}

void Gateway::SetAnswerOverride(uint16_t code, std::vector<uint8_t> data) {
  std::lock_guard lock(mutex_);
  overrides_[code] = std::move(data);
}

void Gateway::ClearAnswerOverride(uint16_t code) {
  std::lock_guard lock(mutex_);
  overrides_.erase(code);
}

void Gateway::ClearScript() {
  std::lock_guard lock(mutex_);
  faults_ = FaultSettings{};
  oneShots_.clear();
  rawAnswers_.clear();
  overrides_.clear();
}

// --- request log ----------------------------------------------------------------------

std::vector<RequestRecord> Gateway::Requests() const {
  std::lock_guard lock(mutex_);
  return {log_.begin(), log_.end()};
}

void Gateway::SetLogCapacity(size_t records) {
  std::lock_guard lock(mutex_);
  logCapacity_ = records;
  while (log_.size() > logCapacity_) log_.pop_front();
}

size_t Gateway::LogCapacity() const {
  std::lock_guard lock(mutex_);
  return logCapacity_;
}

void Gateway::ClearRequests() {
  std::lock_guard lock(mutex_);
  log_.clear();
}

bool Gateway::WaitForRequests(size_t n, uint32_t timeoutMs) const {
  std::unique_lock lock(mutex_);
  return logChanged_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return log_.size() >= n; });
}

Counters Gateway::GetCounters() const {
  std::lock_guard lock(mutex_);
  return counters_;
}

void Gateway::SetLogSink(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
}

// --- refusals as text ------------------------------------------------------------------

namespace {

// The parts between colons, the empty ones too: "5:" is a mistake, not "5".
std::vector<std::string> SplitAtColons(const std::string& text) {
  std::vector<std::string> parts(1);
  for (char c : text) {
    if (c == ':')
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

}  // namespace

bool ParseRefusal(const std::string& text, uint16_t* code, Refusal* refusal, std::string* error) {
  const std::vector<std::string> parts = SplitAtColons(text);
  const std::optional<uint64_t> service = ParseNumber(parts[0]);
  if (parts.size() > 3 || !service || *service > 0x3FFF) {
    *error = "'" + text + "': CODE[:BASE[:BYTE]] with a service code up to 0x3FFF";
    return false;
  }
  Refusal parsed;
  if (parts.size() >= 2) {
    const std::optional<uint64_t> base = ParseNumber(parts[1]);
    if (!base || (*base != 0x8000 && *base != 0xC000)) {
      *error = "'" + text + "': BASE must be 0x8000 or 0xC000";
      return false;
    }
    parsed.base = uint16_t(*base);
  }
  if (parts.size() == 3) {
    const std::optional<uint64_t> byte = ParseNumber(parts[2]);
    if (!byte || *byte > 0xFF) {
      *error = "'" + text + "': BYTE must be 0 to 0xFF";
      return false;
    }
    parsed.data = uint8_t(*byte);
  }
  *code = uint16_t(*service);
  *refusal = parsed;
  return true;
}

}  // namespace tamrik::sim
