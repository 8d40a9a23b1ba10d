// The HTTP interface: the gateways as JSON, their changes as Server-Sent Events, writes of
// the outputs, the metrics, and the page. With a token configured, every /api and /metrics
// request carries it (Authorization: Bearer TOKEN, or ?token=TOKEN).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Config.h"
#include "Mqtt.h"
#include "Poller.h"
#include "State.h"

namespace httplib {
class Server;
}

namespace tamrik::serve {

class EventHub;

class HttpServer {
 public:
  // mqtt: null when no broker is used.
  HttpServer(const HttpConfig& config, StateStore& store, std::vector<Poller*> pollers, const MqttBridge* mqtt);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds and serves in the background; returns the port (the real one when 0 was asked).
  // Throws std::runtime_error when the address cannot be bound.
  uint16_t Start();
  void Stop();

 private:
  void Routes();
  void ApiRoutes();
  bool Authorized(const std::string& path, const std::string& header, const std::string& query) const;

  HttpConfig config_;
  StateStore& store_;
  std::vector<Poller*> pollers_;
  const MqttBridge* mqtt_;
  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<EventHub> events_;
  std::thread thread_;
};

}  // namespace tamrik::serve
