// What the service's tests share: the tool's `serve` as a subprocess, Debian's mosquitto on a
// free loopback port, an MQTT subscriber that keeps what it receives, and bounded waits.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/TestSupport.h"

struct mosquitto;

namespace tamrik::test {

using Json = nlohmann::json;

// Polls condition every 20 ms until it holds or timeoutMs passed.
bool WaitFor(const std::function<bool()>& condition, int64_t timeoutMs);

// A free loopback TCP port.
uint16_t FreePort();

// `tamrik serve ARGS`, its stdout read up to the line that names the HTTP port.
class ServeProcess {
 public:
  explicit ServeProcess(const std::vector<std::string>& args);
  ~ServeProcess();  // SIGKILL when still running
  ServeProcess(const ServeProcess&) = delete;
  ServeProcess& operator=(const ServeProcess&) = delete;

  bool started() const { return port_ != 0; }
  uint16_t port() const { return port_; }
  const std::vector<std::string>& lines() const { return lines_; }
  // Sends signal and waits up to timeoutMs; the exit status, or -1 when it did not end.
  int Stop(int signal = 15, int64_t timeoutMs = 10000);

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  uint16_t port_ = 0;
  std::vector<std::string> lines_;
};

// A program run to its end: exit status and what it wrote on stderr.
struct Finished {
  int status = -1;
  std::string err;
};
Finished RunServe(const std::vector<std::string>& args, int64_t timeoutMs = 10000);

// GET or POST against the service; status -1 when no answer came.
struct Reply {
  int status = -1;
  Json body;
  std::string text;
};
Reply Get(uint16_t port, const std::string& path, const std::string& token = {});
Reply Post(uint16_t port, const std::string& path, const std::string& body, const std::string& token = {});

// mosquitto on 127.0.0.1 and a free port, anonymous; Restart keeps the port.
class Broker {
 public:
  Broker();
  ~Broker();
  bool running() const { return pid_ > 0; }
  uint16_t port() const { return port_; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  void Stop();
  bool Start();

 private:
  TempDir dir_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
};

struct Message {
  std::string topic;
  std::string payload;
  bool retained = false;
};

// Subscribes to a filter (and can publish); keeps every message it receives.
class Subscriber {
 public:
  Subscriber(uint16_t port, const std::string& filter);
  ~Subscriber();
  bool connected() const { return connected_; }
  std::vector<Message> Messages() const;
  std::vector<Message> On(const std::string& topic) const;
  // Waits until a message on topic satisfies check.
  std::optional<Message> WaitOn(const std::string& topic, const std::function<bool(const Message&)>& check,
                                int64_t timeoutMs);
  void Publish(const std::string& topic, const std::string& payload);

 private:
  mosquitto* client_ = nullptr;
  bool connected_ = false;
  mutable std::mutex mutex_;
  std::vector<Message> messages_;
};

// A [[gateway]] table for a simulator on loopback.
std::string GatewayTable(const std::string& name, uint16_t port, bool writable, int32_t inputsMs = 100);

}  // namespace tamrik::test
