#include "Service.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace tamrik::serve {
namespace {

// Enough workers that a few held by gateways that stopped answering leave others free, and
// that each, taking its turn, runs seldom enough to be let on a busy CPU at once.
size_t PoolSize() { return std::max<size_t>(16, 4 * size_t(std::thread::hardware_concurrency())); }

// The gateways are dealt round the phases of a grid 2.5 ms apart, about 25 to a phase: few
// phases make few wake-ups, and a phase is polled well within a tenth of 100 ms even when
// other programs hold the CPUs and every answer waits for its turn.
constexpr std::chrono::microseconds kPhaseStep{2500};
constexpr size_t kGatewaysPerPhase = 25;
constexpr size_t kMostPhases = 40;

}  // namespace

Service::Service(Config config) : config_(std::move(config)), pool_(PoolSize()) {
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
  pool_.Start();
  const size_t phases = std::clamp<size_t>(pollers_.size() / kGatewaysPerPhase, 1, kMostPhases);
  for (size_t i = 0; i < pollers_.size(); ++i) pollers_[i]->Start(pool_, kPhaseStep * int32_t(i % phases));
  return port;
}

void Service::Stop() {
  if (std::exchange(stopped_, true)) return;
  // Pollers first: their gateways go offline while the broker still hears it. The pool ends
  // before them, so that no gateway leaves it for a thread of its own any more.
  for (auto& poller : pollers_) poller->RequestStop();
  pool_.Stop();
  for (auto& poller : pollers_) poller->Stop();
  if (mqtt_) mqtt_->Stop();
  http_->Stop();
}

}  // namespace tamrik::serve
