#include "Scheduler.h"

#include <algorithm>
#include <functional>

#include "Poller.h"

namespace tamrik::serve {
namespace {

// Ranks that wait for a time; the others wait until they move up.
constexpr size_t kTimedRanks = 4;

}  // namespace

Scheduler::Scheduler(size_t workers)
    : workerCount_(std::max<size_t>(workers, 1)), wake_(new std::condition_variable[workerCount_]) {}

Scheduler::~Scheduler() { Stop(); }

void Scheduler::Start() {
  for (size_t id = 0; id < workerCount_; ++id) workers_.emplace_back([this, id] { Work(id); });
}

void Scheduler::Stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  for (size_t id = 0; id < workerCount_; ++id) wake_[id].notify_all();
  for (std::thread& worker : workers_) worker.join();
  workers_.clear();
}

void Scheduler::Add(Poller* poller, Clock::time_point due) {
  std::lock_guard lock(mutex_);
  Push({due, poller->Slack(), poller});
}

void Scheduler::Push(const Entry& entry) {
  const bool earlier = queue_.empty() || entry.due < queue_.front().due;
  queue_.push_back(entry);
  std::push_heap(queue_.begin(), queue_.end(), std::greater<>());
  // The idle workers wait for the old top: rank 0 waits for the new one instead.
  if (earlier && !idle_.empty()) wake_[idle_.front()].notify_one();
}

bool Scheduler::TakeDue(Clock::time_point now, bool busy, size_t rank, Entry* entry) {
  if (queue_.empty()) return false;
  const Entry& top = queue_.front();
  if (top.due > now || (!busy && top.due + top.slack * int32_t(rank) > now)) return false;
  *entry = top;
  std::pop_heap(queue_.begin(), queue_.end(), std::greater<>());
  queue_.pop_back();
  return true;
}

Scheduler::Clock::time_point Scheduler::Deadline(size_t rank) const {
  if (queue_.empty() || rank >= kTimedRanks) return Clock::time_point::max();
  return queue_.front().due + queue_.front().slack * int32_t(rank);
}

size_t Scheduler::RankOf(size_t id) const { return size_t(std::find(idle_.begin(), idle_.end(), id) - idle_.begin()); }

void Scheduler::Serve(std::unique_lock<std::mutex>& lock, const Entry& entry) {
  lock.unlock();
  const Clock::time_point next = entry.poller->Serve();
  lock.lock();
  if (next != Clock::time_point::max()) Push({next, entry.slack, entry.poller});
}

bool Scheduler::WaitForDue(std::unique_lock<std::mutex>& lock, size_t id, Entry* entry) {
  idle_.push_back(id);
  bool took = false;
  while (!stopping_ && !(took = TakeDue(Clock::now(), false, RankOf(id), entry))) {
    const Clock::time_point deadline = Deadline(RankOf(id));
    if (deadline == Clock::time_point::max()) {
      wake_[id].wait(lock);
    } else {
      wake_[id].wait_until(lock, deadline);
    }
  }
  const size_t rank = RankOf(id);
  idle_.erase(idle_.begin() + int32_t(rank));
  // The ranks behind move up: the one that now enters the timed ranks starts its wait.
  if (rank < kTimedRanks && idle_.size() >= kTimedRanks) wake_[idle_[kTimedRanks - 1]].notify_one();
  return took;
}

void Scheduler::Work(size_t id) {
  std::unique_lock lock(mutex_);
  Entry entry{};
  while (!stopping_) {
    if (!WaitForDue(lock, id, &entry)) continue;
    // Straight on with the next poll that is due, while the thread is awake anyway.
    do {
      Serve(lock, entry);
    } while (!stopping_ && TakeDue(Clock::now(), true, 0, &entry));
  }
}

}  // namespace tamrik::serve
