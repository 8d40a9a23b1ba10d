// The bridge to the plant's broker: every change of the state goes out on its topic, the
// retained topics again after each (re)connect, and writes come in on outputs/set.
//
//   PREFIX/_service/status                 "online", "offline" (last will), retained
//   PREFIX/GATEWAY/status                  "online" or "offline", retained
//   PREFIX/GATEWAY/inputs|outputs|diagnosis {"ts": ..., "bytes": [..]} on change and every republish s
//   PREFIX/GATEWAY/modules|identity|errors  JSON, retained
//   PREFIX/GATEWAY/outputs/set             {"id": "...", "bytes": [..]} -> PREFIX/GATEWAY/outputs/result
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Config.h"
#include "Poller.h"
#include "MqttLoop.h"
#include "State.h"

struct mosquitto;
struct mosquitto_message;

namespace tamrik::serve {

class MqttBridge {
 public:
  // pollers[i] polls the gateway i of the store.
  MqttBridge(const MqttConfig& config, StateStore& store, std::vector<Poller*> pollers);
  ~MqttBridge();
  MqttBridge(const MqttBridge&) = delete;
  MqttBridge& operator=(const MqttBridge&) = delete;

  // Connects in the background (and again whenever the broker goes away). Throws
  // std::runtime_error when the client cannot be set up (TLS file unreadable, ...).
  void Start();
  // Publishes the service offline and disconnects, waiting a bounded time for the broker
  // to take what is still queued.
  void Stop();

  bool Connected() const { return connected_; }
  uint64_t Published(size_t index) const { return counts_[index].published; }
  uint64_t Received(size_t index) const { return counts_[index].received; }
  uint64_t Reconnects() const { return connects_ > 0 ? connects_ - 1 : 0; }

 private:
  struct Counts {
    std::atomic<uint64_t> published{0};
    std::atomic<uint64_t> received{0};
  };
  struct Command {
    size_t index;
    std::string payload;
  };

  static void OnConnect(mosquitto*, void* self, int rc);
  static void OnDisconnect(mosquitto*, void* self, int rc);
  static void OnPublish(mosquitto*, void* self, int mid);
  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message);

  void Connected(int rc);
  void OnChange(size_t index, Topic topic, const GatewayState& state);
  void PublishRetained(size_t index);
  void Publish(const std::string& topic, const std::string& payload, bool retain, size_t index = SIZE_MAX);
  void Handle(const Command& command);
  void RunCommands();
  void RunRepublish();

  MqttConfig config_;
  StateStore& store_;
  std::vector<Poller*> pollers_;
  std::unique_ptr<Counts[]> counts_;
  mosquitto* client_ = nullptr;
  std::unique_ptr<MqttLoop> network_;
  int32_t listener_ = 0;
  std::atomic<bool> connected_{false};
  std::atomic<uint64_t> connects_{0};
  std::atomic<uint64_t> sent_{0}, acknowledged_{0};

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Command> commands_;
  bool stopping_ = false;
  std::thread commandThread_, republishThread_;
};

}  // namespace tamrik::serve
