// GET /api/events: every change of the state as a Server-Sent Event to each open stream that
// asked for it, and a keepalive comment when nothing happened for 15 s.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "State.h"

namespace tamrik::serve {

// What one stream wants: some gateways (none named: all) and some topics. A page that shows
// one gateway of a thousand asks for that one, and for the status and counters of the rest.
struct EventFilter {
  std::set<std::string, std::less<>> gateways;
  uint32_t topics = ~0u;  // bit (1 << Topic)
  bool Wants(const std::string& gateway, Topic topic) const;
};

// Reads "?gateway=a&gateway=b&topics=status,counters"-style lists; false (and why in error)
// for an unknown topic.
bool ParseTopics(const std::string& list, uint32_t* topics, std::string* error);

class EventStream {
 public:
  explicit EventStream(EventFilter filter = {}) : filter_(std::move(filter)) {}
  const EventFilter& filter() const { return filter_; }
  // What is queued (or ": keepalive" after 15 s of quiet); empty once the stream is closed.
  std::string Next();
  void Push(const std::string& event);
  void Close();

 private:
  const EventFilter filter_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::string> queue_;
  bool closed_ = false;
  bool started_ = false;
};

class EventHub {
 public:
  explicit EventHub(StateStore& store);
  ~EventHub();
  EventHub(const EventHub&) = delete;
  EventHub& operator=(const EventHub&) = delete;

  std::shared_ptr<EventStream> Open(EventFilter filter = {});
  void Release(const std::shared_ptr<EventStream>& stream);
  // Ends every stream, so that the server's threads can finish.
  void Close();

 private:
  StateStore& store_;
  int32_t listener_;
  std::mutex mutex_;
  std::set<std::shared_ptr<EventStream>> streams_;
  bool closed_ = false;
};

}  // namespace tamrik::serve
