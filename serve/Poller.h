// One gateway, through one driver object of the C interface, on its own schedule: inputs,
// outputs, diagnosis, errors and clock each at their interval, identity and modules after
// each (re)connect, the driver's counters once a second.
//
// The driver's calls block. A thread per gateway made every poll two sleeps (until due, then
// for the answer), each waking an idle CPU, and cost twice the CPU per exchange. So a gateway
// that answers well is polled by the shared pool (Scheduler): its polls fall on a grid of
// phases 2.5 ms apart, each shared with about 25 gateways, and a worker that wakes finds a
// phase's polls due together and makes them back to back, one answer wait each. A gateway
// whose link is down, that is reconnecting, or whose round of polls took longer than 20 ms
// leaves the pool for a thread of its own, where a slow or silent gateway holds up nobody but
// itself; it returns after a round that went normally. Only the one poll that found it silent
// held a worker of the pool, and the other workers took the polls behind it. Every gateway
// starts on a thread of its own, to connect. After a failure of the link it is closed and
// opened again, waiting from 100 ms doubling to 10 s between attempts. Writes come from any
// thread; the driver object serves one call at a time.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "Config.h"
#include "Scheduler.h"
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

  using Clock = std::chrono::steady_clock;

  // Connects on a thread of its own, then joins pool. The gateway polls at multiples of
  // each interval shifted by phase, so that the gateways of one phase come due together.
  void Start(Scheduler& pool, Clock::duration phase);
  // Asks its own thread to end without waiting for it, so that many pollers end together.
  void RequestStop();
  // Ends its own thread, closes the link and marks the gateway offline. The pool is stopped
  // first.
  void Stop();

  // For the pool: makes the polls that are due; returns when the next is due, or
  // time_point::max() when the gateway left the pool for a thread of its own.
  Clock::time_point Serve();
  // How long a poll may stay overdue before the pool puts another worker on it.
  Clock::duration Slack() const { return slack_; }

  const GatewayConfig& config() const { return config_; }
  // Writes the output image and reads it back into the state; 0 or the driver's result code
  // (while the link is down, the code that brought it down). The caller checks writable.
  uint32_t WriteOutputs(const std::vector<uint8_t>& bytes);

 private:
  enum Item { kInputs, kOutputs, kDiagnosis, kErrors, kClock, kItems };
  // How a round of due polls went.
  enum class Round { Normal, Slow, Down };

  // Leaves the pool for a thread of its own; backOff: the link failed, wait before reopening.
  void StartLane(bool backOff);
  void Lane(bool backOff);
  bool Connect();
  void Disconnect(uint32_t code);
  void Schedule(Clock::time_point now);
  Clock::time_point NextDue() const;
  // The first time after `after` on this gateway's grid of period.
  Clock::time_point NextSlot(Clock::time_point after, Clock::duration period) const;
  Round PollDue(Clock::time_point now);
  bool Poll(Item item);
  bool ReadIdentity();
  bool ReadModules();
  bool ReadErrors();
  bool ReadClock();
  bool ReadImage(Item item);
  void ReportCounters();
  // Waits until then or a stop; true when stopping.
  bool WaitUntil(Clock::time_point then);

  // One call of the driver under its lock, timed; returns 0 or the result code. call(com,
  // &error) returns the method's status.
  template <typename F>
  uint32_t Call(F&& call);
  // Under driverMutex_: why a call cannot be made while the link is down.
  uint32_t DownCode() const;
  // Under driverMutex_: counts a call's duration for the histogram.
  void Count(Clock::duration duration);
  // A method that reads values into an array, asked again with the room the answer needs.
  using ValuesCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);
  // Into room, kept from call to call and grown when an answer needs it; count: the values
  // the answer holds (0 on a failure).
  uint32_t ReadRoom(ValuesCall call, std::vector<int32_t>& room, int32_t* count);
  // Into values, sized to the answer.
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
  // The rest is the polling side's, touched by one thread at a time (a worker of the pool or
  // its own thread, handed over through the pool's queue).
  Clock::duration phase_{};  // this gateway's offset on the grid of phases
  Clock::duration slack_{};
  std::array<Clock::time_point, kItems> due_{};
  Clock::time_point nextReport_{};
  std::chrono::milliseconds backoff_{100};
  bool everOpened_ = false;
  bool up_ = false;  // connected, identity and modules read
  std::vector<int32_t> image_;  // room for the images' values, kept between polls
  // Durations of the calls since the last report, merged into the state then.
  std::array<uint64_t, kDurationBounds.size() + 1> buckets_{};
  double durationSum_ = 0;
  // Polls made (and those of them late) since the last report, counted on the thread.
  uint64_t polls_ = 0;
  uint64_t late_ = 0;

  Scheduler* pool_ = nullptr;
  std::mutex waitMutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread lane_;  // its own thread while out of the pool
};

template <typename F>
uint32_t Poller::Call(F&& call) {
  std::lock_guard lock(driverMutex_);
  if (!open_) return DownCode();
  const auto start = Clock::now();
  int32_t error = 0;
  const uint32_t status = call(com_, &error);
  Count(Clock::now() - start);
  return error != 0 ? uint32_t(error) : status;
}

}  // namespace tamrik::serve
