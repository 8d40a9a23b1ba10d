// One gateway polled on its own schedule by a thread of its own, through one driver object
// of the C interface. The driver's calls block, so a gateway that is slow, silent or gone
// holds up nobody but itself. After a failure of the link it is closed and opened again,
// waiting from 100 ms doubling to 10 s between attempts.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "Config.h"
#include "State.h"

struct tamrik_com;

namespace tamrik::serve {

// The answer to a request to write a gateway's outputs, for the HTTP interface and the MQTT
// bridge alike: body is {"ok": true} or {"ok": false, "code", "name", "text"}.
struct WriteOutcome {
  enum Kind { Ok, Malformed, NotWritable, DriverFailure };
  Kind kind = Ok;
  Json body;
};

class Poller;
// Checks bytes (an array of numbers from 0 to 255) and writable, then writes.
WriteOutcome WriteOutputs(Poller& poller, const Json& bytes);

class Poller {
 public:
  // Throws std::runtime_error when the driver object cannot be created.
  Poller(GatewayConfig config, size_t index, StateStore& store);
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  void Start();
  // Asks the thread to end without waiting for it, so that many pollers end together.
  void RequestStop();
  // Ends the thread, closes the link and marks the gateway offline.
  void Stop();

  const GatewayConfig& config() const { return config_; }
  // Writes the output image and reads it back into the state; 0 or the driver's result code
  // (while the link is down, the code that brought it down). The caller checks writable.
  uint32_t WriteOutputs(const std::vector<uint8_t>& bytes);

 private:
  using Clock = std::chrono::steady_clock;
  enum Item { kInputs, kOutputs, kDiagnosis, kErrors, kClock, kItems };

  void Run();
  bool Connect();
  void Disconnect(uint32_t code);
  void Schedule(Clock::time_point now);
  bool PollDue(Clock::time_point now);
  bool Poll(Item item);
  bool ReadIdentity();
  bool ReadModules();
  bool ReadErrors();
  bool ReadClock();
  bool ReadImage(Item item);
  void ReportCounters();
  // Waits until then or a stop; true when stopping.
  bool WaitUntil(Clock::time_point then);

  // One call of the driver under its lock, timed; returns 0 or the result code.
  uint32_t Call(const std::function<uint32_t(tamrik_com*, int32_t* error)>& call);
  // A method that reads values into an array, asked again with the room the answer needs.
  using ValuesCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);
  uint32_t ReadValues(ValuesCall call, std::vector<int32_t>* values);
  // Notes a failed exchange; true when it leaves the link usable (the gateway answered).
  bool Failed(uint32_t code);

  GatewayConfig config_;
  size_t index_;
  StateStore& store_;
  tamrik_com* com_ = nullptr;
  std::mutex driverMutex_;  // the driver object serves one call at a time
  bool open_ = false;       // under driverMutex_
  uint32_t downCode_ = 0;   // under driverMutex_: why the link is down
  std::array<uint32_t, kItems> intervalMs_{};
  std::array<Clock::time_point, kItems> due_{};
  Clock::time_point nextReport_{};
  std::chrono::milliseconds backoff_{100};
  bool everOpened_ = false;
  // Durations of the calls since the last report, merged into the state then.
  std::array<uint64_t, kDurationBounds.size() + 1> buckets_{};
  double durationSum_ = 0;
  // Polls made (and those of them late) since the last report, counted on the thread.
  uint64_t polls_ = 0;
  uint64_t late_ = 0;

  std::mutex waitMutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace tamrik::serve
