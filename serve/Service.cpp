#include "Service.h"

namespace tamrik::serve {

Service::Service(Config config) : config_(std::move(config)) {
  std::vector<Poller*> pollers;
  for (const GatewayConfig& gateway : config_.gateways) {
    const size_t index = store_.Add(gateway.name, gateway.LinkText(), gateway.writable);
    pollers_.push_back(std::make_unique<Poller>(gateway, index, store_));
    pollers.push_back(pollers_.back().get());
  }
  if (config_.mqtt.enabled) mqtt_ = std::make_unique<MqttBridge>(config_.mqtt, store_, pollers);
  http_ = std::make_unique<HttpServer>(config_.http, store_, pollers, mqtt_.get());
}

Service::~Service() { Stop(); }

uint16_t Service::Start() {
  // The broker hears every gateway's first state, so it connects before the polling starts.
  if (mqtt_) mqtt_->Start();
  const uint16_t port = http_->Start();
  for (auto& poller : pollers_) poller->Start();
  return port;
}

void Service::Stop() {
  if (std::exchange(stopped_, true)) return;
  // Pollers first: their gateways go offline while the broker still hears it.
  for (auto& poller : pollers_) poller->RequestStop();
  for (auto& poller : pollers_) poller->Stop();
  if (mqtt_) mqtt_->Stop();
  http_->Stop();
}

}  // namespace tamrik::serve
