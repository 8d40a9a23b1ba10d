// The pool that polls the gateways that answer well: one queue of pollers ordered by when
// each is next due, served by a pool of worker threads. A worker that finishes a poll takes the
// next one that is due without sleeping, so a phase of gateways due together is polled back
// to back by one thread while it keeps up; a worker sleeps only when nothing is due.
//
// Idle workers wait in ranks, by how long they have been idle: rank 0 until the first poll is
// due, rank k until it has been due for k slacks without anyone taking it; the ranks from
// kTimedRanks on wait to move up, and each worker that steps in moves them up, so that all
// join while the queue stays behind. So one worker wakes for a phase, and the others step in
// only while the queue falls behind (a long phase, a worker held by a gateway that stopped
// answering, or a CPU taken by other programs). The phases go round the workers, so that each
// runs seldom: the kernel's scheduler lets a thread that used little CPU lately run at once
// when it wakes, and a few threads that poll all the time would wait behind every other
// program for their turns.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tamrik::serve {

class Poller;

class Scheduler {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Scheduler(size_t workers);
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  void Start();
  // Ends the workers once their polls in hand are done; the queue stays as it is.
  void Stop();
  // Queues poller, due at due; from any thread.
  void Add(Poller* poller, Clock::time_point due);

 private:
  struct Entry {
    Clock::time_point due;
    Clock::duration slack;  // how long it may stay overdue before another worker steps in
    Poller* poller;
    bool operator>(const Entry& other) const { return due > other.due; }
  };

  void Work(size_t id);
  // Waits in the ranks of the idle workers until an entry is due for worker id; false when
  // stopping.
  bool WaitForDue(std::unique_lock<std::mutex>& lock, size_t id, Entry* entry);
  size_t RankOf(size_t id) const;
  // Polls entry's gateway with the lock released, and queues it again unless it left the pool.
  void Serve(std::unique_lock<std::mutex>& lock, const Entry& entry);
  // Takes the entry on top when it is due for a worker of that rank (a busy one takes any
  // entry that is due).
  bool TakeDue(Clock::time_point now, bool busy, size_t rank, Entry* entry);
  Clock::time_point Deadline(size_t rank) const;
  void Push(const Entry& entry);

  const size_t workerCount_;
  std::mutex mutex_;
  std::vector<Entry> queue_;  // a heap, earliest due on top
  std::deque<size_t> idle_;   // the idle workers, longest idle first: their ranks
  // One per worker, so that an earlier poll wakes only the worker of rank 0.
  std::unique_ptr<std::condition_variable[]> wake_;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace tamrik::serve
