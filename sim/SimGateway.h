// The simulated gateway without its links: the service engine, the faults that a test sets
// to bend its answers, scripted answers, and the log of the requests it served. Every
// member function may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "SimEngine.h"
#include "SimFrame.h"
#include "SimStation.h"

namespace tamrik::sim {

// What happens to one answer. Zero, false and nullopt mean "no fault". Noise, the wrong
// check value, the refusal and truncation change the bytes; the rest change when and
// whether they are sent.
struct AnswerFault {
  uint32_t noiseBytes = 0;         // bytes ahead of the start byte, none of them 0xAA
  bool corruptCheckValue = false;  // the check value's low byte inverted
  std::optional<Refusal> refusal{};  // refuse whatever the request was
  bool silence = false;            // no answer at all
  uint32_t delayMs = 0;            // wait this long before answering, answers stay in order
  std::optional<uint32_t> truncateTo{};  // send only the first k bytes of the frame
  // Hold the answer back and send it this many ms later on its own, so that it arrives
  // after the host has given up on it, while it waits for the answer to a later request.
  uint32_t lateMs = 0;
  // TCP: close the connection instead of answering. UDP: no answer. Pseudo-terminal: no
  // answer, and request bytes not yet read are thrown away.
  bool dropConnection = false;
  // Send the answer bytes at this line speed (10 bits per byte). UDP: the datagram goes out
  // when the last byte would have.
  uint32_t paceBaud = 0;

  // Chainable setters: sim.FaultNextAnswer(AnswerFault().Noise(3).Delay(50)).
  AnswerFault& Noise(uint32_t bytes) { noiseBytes = bytes; return *this; }
  AnswerFault& Corrupt() { corruptCheckValue = true; return *this; }
  AnswerFault& Refuse(Refusal r = {}) { refusal = r; return *this; }
  AnswerFault& Silent() { silence = true; return *this; }
  AnswerFault& Delay(uint32_t ms) { delayMs = ms; return *this; }
  AnswerFault& Truncate(uint32_t bytes) { truncateTo = bytes; return *this; }
  AnswerFault& Late(uint32_t ms) { lateMs = ms; return *this; }
  AnswerFault& Drop() { dropConnection = true; return *this; }
  AnswerFault& Pace(uint32_t baud) { paceBaud = baud; return *this; }
};

// The fault of top where it sets something, else that of under.
AnswerFault Overlay(AnswerFault top, const AnswerFault& under);

struct FaultSettings {
  AnswerFault every;                     // applied to every answer
  uint32_t corruptEvery = 0;             // n: the n-th, 2n-th, ... answer has a wrong check value
  std::map<uint16_t, Refusal> refusals;  // request code -> how it is refused
};

enum class LinkKind { Direct, Tcp, Udp, Pty };
const char* LinkName(LinkKind link);

struct RequestRecord {
  LinkKind link = LinkKind::Direct;
  uint16_t code = 0;
  std::vector<uint8_t> data;
  std::vector<uint8_t> frame;   // the request as received
  std::vector<uint8_t> answer;  // the bytes scheduled in reply; empty when none
  std::chrono::steady_clock::time_point time;
};

// What a link does with one served request.
struct Delivery {
  enum class Action { Send, Silence, Drop };
  Action action = Action::Silence;
  std::vector<uint8_t> bytes;
  uint32_t delayMs = 0;
  bool late = false;  // scheduled on its own, later answers do not wait for it
  uint32_t paceBaud = 0;
};

struct Counters {
  uint64_t requests = 0;        // frames served
  uint64_t answers = 0;         // deliveries with bytes to send
  uint64_t silenced = 0;        // requests left without answer (silence, drop, unknown)
  uint64_t badCheckValues = 0;  // request frames dropped for their check value
};

class Gateway {
 public:
  explicit Gateway(Station station = DefaultStation());
  virtual ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  // --- serving (the links call these) ---------------------------------------------------
  Delivery Serve(const ParsedFrame& request, LinkKind link = LinkKind::Direct);
  // Serves a whole frame; a frame with a wrong check value is dropped (Silence) and logged.
  Delivery ServeFrame(std::span<const uint8_t> frame, LinkKind link = LinkKind::Direct);
  void NoteBadFrame(std::span<const uint8_t> frame, LinkKind link);

  // --- the station ------------------------------------------------------------------------
  Station GetStation() const;
  void SetStation(Station station);  // also starts the engine state afresh
  void EditStation(const std::function<void(Station&)>& edit);
  EngineState GetEngineState() const;
  std::optional<ImageDownload> CompletedImage() const;
  std::vector<uint8_t> OutputImage() const;
  // Looks at the engine under the lock: the images and the clock as a host would read them.
  void InspectEngine(const std::function<void(const ServiceEngine&)>& look) const;

  // --- faults -------------------------------------------------------------------------------
  void SetFaults(FaultSettings faults);
  void EditFaults(const std::function<void(FaultSettings&)>& edit);
  // Clears the fault settings and the one-shot faults not yet used.
  void ClearFaults();

  void SetNoise(uint32_t bytes);
  void SetCorruptEvery(uint32_t n);
  void RefuseService(uint16_t code, Refusal refusal = {});
  void StopRefusing(uint16_t code);
  void SetSilence(bool on);
  void SetAnswerDelay(uint32_t ms);
  void SetTruncation(std::optional<uint32_t> bytes);
  void SetLateAnswers(uint32_t ms);
  void SetDropConnection(bool on);
  void SetPacing(uint32_t baud);

  // One-shot faults: each served request takes the oldest one queued; its settings win
  // over those for every answer where it sets something.
  void FaultNextAnswer(const AnswerFault& fault);
  size_t PendingOneShotFaults() const;
  // A fault chosen by what the request is, weaker than a one-shot fault and stronger than
  // the faults for every answer. Called under the lock for every request served: it must not
  // call the gateway. Null removes it.
  void SetFaultRule(std::function<AnswerFault(const ParsedFrame& request)> rule);

  // --- scripted answers -----------------------------------------------------------------
  // The next request is answered with exactly these bytes; the model is not asked. Only the
  // timing faults (silence, delay, late, drop, pacing) still apply to them.
  void QueueRawAnswer(std::vector<uint8_t> bytes);
  size_t PendingRawAnswers() const;
  // Requests with this code get an answer code + 0x4000 with these data instead of the
  // model's; the model is not asked. Refusals set for the code take precedence.
  void SetAnswerOverride(uint16_t code, std::vector<uint8_t> data);
  void ClearAnswerOverride(uint16_t code);
  // Clears faults, one-shot faults, raw answers and overrides.
  void ClearScript();

  // --- request log --------------------------------------------------------------------
  // The most recent requests (at most the log capacity), oldest first.
  std::vector<RequestRecord> Requests() const;
  // How many requests the log keeps (default 10000); older ones are dropped at once when it
  // shrinks. 0 keeps no log, for gateways served by the thousand: WaitForRequests then
  // waits in vain, and GetCounters is what still counts.
  void SetLogCapacity(size_t records);
  size_t LogCapacity() const;
  void ClearRequests();
  // Waits until the log holds at least n requests; false when timeoutMs passed first.
  bool WaitForRequests(size_t n, uint32_t timeoutMs) const;
  Counters GetCounters() const;
  // Receives one line per served request (time, link, service code and the table's name of
  // it, data, what went back) and per dropped frame. Called outside the lock, on the link's
  // thread.
  void SetLogSink(std::function<void(const std::string&)> sink);

 private:
  // The steps of serving one request, all under the lock.
  AnswerFault TakeOneShot();
  AnswerFault EffectiveFault(const AnswerFault& oneShot) const;
  std::optional<Answer> ChooseAnswer(const ParsedFrame& request, const AnswerFault& fault);
  std::vector<uint8_t> AnswerBytes(const ParsedFrame& request, const AnswerFault& fault);
  void SpoilBytes(std::vector<uint8_t>& bytes, const AnswerFault& fault);
  Delivery Schedule(std::vector<uint8_t> bytes, const AnswerFault& fault);
  std::string LogLine(const RequestRecord& record, const Delivery& delivery) const;

  std::vector<uint8_t> Noise(uint32_t count);
  void Emit(const std::string& line);

  mutable std::mutex mutex_;
  mutable std::condition_variable logChanged_;
  ServiceEngine engine_;
  FaultSettings faults_;
  std::deque<AnswerFault> oneShots_;
  std::deque<std::vector<uint8_t>> rawAnswers_;
  std::map<uint16_t, std::vector<uint8_t>> overrides_;
  std::deque<RequestRecord> log_;
  size_t logCapacity_;
  Counters counters_;
  uint64_t answerFrames_ = 0;  // for corruptEvery
  uint32_t noiseSeed_ = 0;
  std::function<void(const std::string&)> sink_;
  std::function<AnswerFault(const ParsedFrame&)> faultRule_;
  std::chrono::steady_clock::time_point start_;
};

// Reads a refusal as the programs' options write it, CODE[:BASE[:BYTE]]: service CODE (up to
// 0x3FFF) is refused with the answer code CODE + BASE (0x8000 when not given, or 0xC000) and
// the one data byte BYTE when it is given. Numbers are decimal or 0x hexadecimal; a value that
// does not fit its field is a mistake, never cut to fit. On a mistake, returns false, leaves
// code and refusal as they were and sets error to a message that quotes the text.
bool ParseRefusal(const std::string& text, uint16_t* code, Refusal* refusal, std::string* error);

}  // namespace tamrik::sim
