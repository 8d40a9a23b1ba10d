#include "Events.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace tamrik::serve {
namespace {

constexpr auto kKeepalive = std::chrono::seconds(15);
// A viewer that does not read drops its oldest events rather than the service's memory.
constexpr size_t kMostQueued = 10000;

constexpr Topic kTopics[] = {Topic::Status, Topic::Inputs,  Topic::Outputs,  Topic::Diagnosis, Topic::Errors,
                             Topic::Clock,  Topic::Modules, Topic::Identity, Topic::Counters};

}  // namespace

bool EventFilter::Wants(const std::string& gateway, Topic topic) const {
  return (topics & (1u << uint32_t(topic))) != 0 && (gateways.empty() || gateways.count(gateway) != 0);
}

bool ParseTopics(const std::string& list, uint32_t* topics, std::string* error) {
  *topics = 0;
  size_t at = 0;
  while (at <= list.size()) {
    const size_t end = std::min(list.find(',', at), list.size());
    const std::string name = list.substr(at, end - at);
    const auto* found = std::find_if(std::begin(kTopics), std::end(kTopics),
                                     [&](Topic t) { return name == TopicName(t); });
    if (found == std::end(kTopics)) {
      *error = "unknown topic \"" + name + "\" (status, inputs, outputs, diagnosis, errors, clock, modules, " +
               "identity, counters)";
      return false;
    }
    *topics |= 1u << uint32_t(*found);
    at = end + 1;
  }
  return true;
}

std::string EventStream::Next() {
  std::unique_lock lock(mutex_);
  // The first chunk goes out at once, so that the viewer knows the stream is open.
  if (!std::exchange(started_, true)) return ": connected\n\n";
  wake_.wait_for(lock, kKeepalive, [this] { return closed_ || !queue_.empty(); });
  if (closed_) return {};
  if (queue_.empty()) return ": keepalive\n\n";
  std::string chunk;
  while (!queue_.empty()) {
    chunk += queue_.front();
    queue_.pop_front();
  }
  return chunk;
}

void EventStream::Push(const std::string& event) {
  {
    std::lock_guard lock(mutex_);
    if (queue_.size() >= kMostQueued) queue_.pop_front();
    queue_.push_back(event);
  }
  wake_.notify_one();
}

void EventStream::Close() {
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
  }
  wake_.notify_all();
}

EventHub::EventHub(StateStore& store) : store_(store) {
  listener_ = store_.Subscribe([this](size_t, Topic topic, const GatewayState& state) {
    std::lock_guard lock(mutex_);
    // Made only when some stream wants it: most changes of a large fleet go to nobody.
    std::string event;
    for (const auto& stream : streams_) {
      if (!stream->filter().Wants(state.name, topic)) continue;
      if (event.empty()) {
        const Json data = {{"gateway", state.name}, {"topic", TopicName(topic)}, {"value", TopicJson(state, topic)}};
        event = "event: change\ndata: " + data.dump() + "\n\n";
      }
      stream->Push(event);
    }
  });
}

EventHub::~EventHub() {
  store_.Unsubscribe(listener_);
  Close();
}

std::shared_ptr<EventStream> EventHub::Open(EventFilter filter) {
  auto stream = std::make_shared<EventStream>(std::move(filter));
  std::lock_guard lock(mutex_);
  if (closed_) stream->Close();
  else streams_.insert(stream);
  return stream;
}

void EventHub::Release(const std::shared_ptr<EventStream>& stream) {
  std::lock_guard lock(mutex_);
  streams_.erase(stream);
}

void EventHub::Close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  for (const auto& stream : streams_) stream->Close();
}

}  // namespace tamrik::serve
