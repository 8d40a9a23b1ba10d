// `tamrik serve` as one object: a poller per gateway and the pool that polls them, the state
// they share, the MQTT bridge when a broker is configured, and the HTTP interface with the
// page.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Config.h"
#include "Http.h"
#include "Mqtt.h"
#include "Poller.h"
#include "Scheduler.h"
#include "State.h"

namespace tamrik::serve {

class Service {
 public:
  // Creates a driver object per gateway; throws std::runtime_error when one cannot be made.
  explicit Service(Config config);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Starts polling, the broker connection and the listener; returns the HTTP port.
  // Throws std::runtime_error when the listener or the MQTT client cannot be set up.
  uint16_t Start();
  // Every gateway offline (and published so), links closed, broker disconnected.
  void Stop();

  StateStore& store() { return store_; }
  const Config& config() const { return config_; }

 private:
  Config config_;
  StateStore store_;
  Scheduler pool_;
  std::vector<std::unique_ptr<Poller>> pollers_;
  std::unique_ptr<MqttBridge> mqtt_;
  std::unique_ptr<HttpServer> http_;
  bool stopped_ = false;
};

}  // namespace tamrik::serve
