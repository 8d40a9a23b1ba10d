#include "MqttLoop.h"

#include <mosquitto.h>
#include <poll.h>

#include <algorithm>
#include <chrono>

namespace tamrik::serve {
namespace {

constexpr int kWaitMs = 20;  // also how soon a publish left half-written goes on
constexpr auto kFirstDelay = std::chrono::seconds(1);
constexpr auto kLongestDelay = std::chrono::seconds(10);

}  // namespace

MqttLoop::MqttLoop(mosquitto* client) : client_(client), thread_([this] { Run(); }) {}

MqttLoop::~MqttLoop() { Stop(); }

void MqttLoop::Stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

bool MqttLoop::Round(int socket) {
  pollfd p{socket, short(POLLIN | (mosquitto_want_write(client_) ? POLLOUT : 0)), 0};
  const int ready = poll(&p, 1, kWaitMs);
  int rc = MOSQ_ERR_SUCCESS;
  if (ready > 0 && (p.revents & (POLLIN | POLLERR | POLLHUP)) != 0) rc = mosquitto_loop_read(client_, 1);
  if (rc == MOSQ_ERR_SUCCESS && mosquitto_want_write(client_)) rc = mosquitto_loop_write(client_, 1);
  if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_loop_misc(client_);
  return rc == MOSQ_ERR_SUCCESS;
}

void MqttLoop::Run() {
  auto delay = kFirstDelay;
  while (!stopping_) {
    const int socket = mosquitto_socket(client_);
    if (socket >= 0 && Round(socket)) {
      delay = kFirstDelay;
      continue;
    }
    // Lost, or never made: wait (in short steps, to notice a stop) and try again.
    const auto until = std::chrono::steady_clock::now() + delay;
    while (!stopping_ && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
    if (stopping_) break;
    delay = std::min(delay * 2, std::chrono::duration_cast<std::chrono::seconds>(kLongestDelay));
    mosquitto_reconnect(client_);
  }
}

}  // namespace tamrik::serve
