#include "Mqtt.h"

#include <mosquitto.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace tamrik::serve {
namespace {

constexpr int kKeepaliveS = 30;
constexpr auto kStopWait = std::chrono::seconds(2);
// Commands waiting for their gateway beyond this are answered as refused: a flood must not
// grow the queue without bound.
constexpr size_t kMostQueuedCommands = 1000;

struct Library {
  Library() { mosquitto_lib_init(); }
};

Json Refusal(const Json& id, const char* name, const std::string& text) {
  return {{"id", id}, {"ok", false}, {"code", 0}, {"name", name}, {"text", text}};
}

}  // namespace

MqttBridge::MqttBridge(const MqttConfig& config, StateStore& store, std::vector<Poller*> pollers)
    : config_(config), store_(store), pollers_(std::move(pollers)), counts_(new Counts[pollers_.size()]) {
  static Library library;
  if (config_.clientId.empty()) config_.clientId = "tamrik-serve-" + std::to_string(getpid());
}

MqttBridge::~MqttBridge() {
  Stop();
  if (network_) network_->Stop();
  if (client_ != nullptr) mosquitto_destroy(client_);
}

void MqttBridge::Start() {
  client_ = mosquitto_new(config_.clientId.c_str(), true, this);
  if (client_ == nullptr) throw std::runtime_error("mqtt: the client cannot be created");
  const std::string will = config_.prefix + "/_service/status";
  mosquitto_will_set(client_, will.c_str(), 7, "offline", config_.qos, true);
  if (!config_.user.empty())
    mosquitto_username_pw_set(client_, config_.user.c_str(), config_.password.empty() ? nullptr : config_.password.c_str());
  if (!config_.cafile.empty() && mosquitto_tls_set(client_, config_.cafile.c_str(), nullptr, nullptr, nullptr, nullptr) != 0)
    throw std::runtime_error("mqtt: cafile " + config_.cafile + " cannot be used for TLS");
  mosquitto_connect_callback_set(client_, OnConnect);
  mosquitto_disconnect_callback_set(client_, OnDisconnect);
  mosquitto_publish_callback_set(client_, OnPublish);
  mosquitto_message_callback_set(client_, OnMessage);
  listener_ = store_.Subscribe([this](size_t index, Topic topic, const GatewayState& state) { OnChange(index, topic, state); });
  // A broker that is not there yet is not a reason to stop: the loop keeps trying.
  const int rc = mosquitto_connect_async(client_, config_.host.c_str(), config_.port, kKeepaliveS);
  if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_ERRNO && rc != MOSQ_ERR_EAI)
    throw std::runtime_error(std::string("mqtt: ") + mosquitto_strerror(rc));
  network_ = std::make_unique<MqttLoop>(client_);
  commandThread_ = std::thread([this] { RunCommands(); });
  if (config_.republishS > 0) republishThread_ = std::thread([this] { RunRepublish(); });
}

void MqttBridge::Stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || client_ == nullptr) return;
    stopping_ = true;
  }
  wake_.notify_all();
  if (commandThread_.joinable()) commandThread_.join();
  if (republishThread_.joinable()) republishThread_.join();
  store_.Unsubscribe(listener_);
  if (connected_) {
    Publish(config_.prefix + "/_service/status", "offline", true);
    const auto end = std::chrono::steady_clock::now() + kStopWait;
    while (acknowledged_ < sent_ && connected_ && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  network_->Stop();
  mosquitto_disconnect(client_);
}

void MqttBridge::OnConnect(mosquitto*, void* self, int rc) { static_cast<MqttBridge*>(self)->Connected(rc); }

void MqttBridge::OnDisconnect(mosquitto*, void* self, int) { static_cast<MqttBridge*>(self)->connected_ = false; }

void MqttBridge::OnPublish(mosquitto*, void* self, int) { ++static_cast<MqttBridge*>(self)->acknowledged_; }

void MqttBridge::OnMessage(mosquitto*, void* self, const mosquitto_message* message) {
  auto* bridge = static_cast<MqttBridge*>(self);
  // PREFIX/GATEWAY/outputs/set; a gateway of another service on the same broker is not ours.
  const std::string topic = message->topic;
  const std::string head = bridge->config_.prefix + "/", tail = "/outputs/set";
  if (topic.size() <= head.size() + tail.size() || topic.compare(0, head.size(), head) != 0) return;
  const auto index = bridge->store_.Find(topic.substr(head.size(), topic.size() - head.size() - tail.size()));
  if (!index) return;
  ++bridge->counts_[*index].received;
  Command command{*index, std::string(static_cast<const char*>(message->payload), size_t(message->payloadlen))};
  {
    std::lock_guard lock(bridge->mutex_);
    if (bridge->commands_.size() < kMostQueuedCommands) {
      bridge->commands_.push_back(std::move(command));
      command.payload.clear();
    }
  }
  bridge->wake_.notify_all();
  if (!command.payload.empty())
    bridge->Publish(topic.substr(0, topic.size() - 4) + "/result",
                    Refusal(nullptr, "Busy", "too many commands are waiting").dump(), false, *index);
}

void MqttBridge::Connected(int rc) {
  if (rc != 0) return;
  connected_ = true;
  ++connects_;
  Publish(config_.prefix + "/_service/status", "online", true);
  const std::string commands = config_.prefix + "/+/outputs/set";
  mosquitto_subscribe(client_, nullptr, commands.c_str(), config_.qos);
  // Whatever changed while the broker was away: the retained topics are its memory.
  for (size_t i = 0; i < store_.Size(); ++i) PublishRetained(i);
}

void MqttBridge::PublishRetained(size_t index) {
  store_.Read(index, [&](const GatewayState& state) {
    const std::string base = config_.prefix + "/" + state.name + "/";
    Publish(base + "status", state.online ? "online" : "offline", true, index);
    for (Topic topic : {Topic::Modules, Topic::Identity, Topic::Errors})
      Publish(base + TopicName(topic), TopicJson(state, topic).dump(), true, index);
  });
}

void MqttBridge::OnChange(size_t index, Topic topic, const GatewayState& state) {
  // The counters and the clock change every second on every gateway and are not published.
  if (topic == Topic::Counters || topic == Topic::Clock) return;
  const std::string name = config_.prefix + "/" + state.name + "/" + TopicName(topic);
  if (topic == Topic::Status) Publish(name, state.online ? "online" : "offline", true, index);
  else Publish(name, TopicJson(state, topic).dump(), topic == Topic::Modules || topic == Topic::Identity ||
                                                         topic == Topic::Errors, index);
}

void MqttBridge::Publish(const std::string& topic, const std::string& payload, bool retain, size_t index) {
  // While the broker is away nothing is queued: the retained topics go out again on connect.
  if (!connected_) return;
  const int rc = mosquitto_publish(client_, nullptr, topic.c_str(), int(payload.size()), payload.data(), config_.qos, retain);
  if (rc != MOSQ_ERR_SUCCESS) return;
  ++sent_;
  if (index != SIZE_MAX) ++counts_[index].published;
}

void MqttBridge::Handle(const Command& command) {
  const std::string result = config_.prefix + "/" + pollers_[command.index]->config().name + "/outputs/result";
  const Json request = Json::parse(command.payload, nullptr, false);
  if (request.is_discarded() || !request.is_object()) {
    Publish(result, Refusal(nullptr, "Malformed", "the command is no JSON object").dump(), false, command.index);
    return;
  }
  const Json id = request.contains("id") ? request["id"] : Json(nullptr);
  if (!request.contains("bytes")) {
    Publish(result, Refusal(id, "Malformed", "the command has no \"bytes\"").dump(), false, command.index);
    return;
  }
  Json body = WriteOutputs(*pollers_[command.index], request["bytes"]).body;
  body["id"] = id;
  Publish(result, body.dump(), false, command.index);
}

void MqttBridge::RunCommands() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !commands_.empty(); });
    if (stopping_) return;
    const Command command = std::move(commands_.front());
    commands_.pop_front();
    lock.unlock();
    Handle(command);
    lock.lock();
  }
}

void MqttBridge::RunRepublish() {
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, std::chrono::seconds(config_.republishS), [this] { return stopping_; })) {
    lock.unlock();
    for (size_t i = 0; i < store_.Size(); ++i) {
      store_.Read(i, [&](const GatewayState& state) {
        for (Topic topic : {Topic::Inputs, Topic::Outputs, Topic::Diagnosis}) {
          const Json value = TopicJson(state, topic);
          if (!value.is_null()) Publish(config_.prefix + "/" + state.name + "/" + TopicName(topic), value.dump(), false, i);
        }
      });
    }
    lock.lock();
  }
}

}  // namespace tamrik::serve
