// An MQTT client's network traffic, run with poll() on a thread of its own. libmosquitto's own
// loop thread waits with select(), which cannot watch a descriptor above 1023, and a service
// with a thousand gateway links gets its broker connection up there: that loop then fails
// without a word and nothing is sent or received. Other threads may publish at any time (the
// client is left unthreaded, so a publish writes at once); this loop reads, writes what is
// left over, keeps the connection alive and reconnects, waiting 1 s doubling to 10 s.
#pragma once

#include <atomic>
#include <thread>

struct mosquitto;

namespace tamrik::serve {

class MqttLoop {
 public:
  // The client has been connected with mosquitto_connect or mosquitto_connect_async (or the
  // attempt failed: the loop tries again).
  explicit MqttLoop(mosquitto* client);
  ~MqttLoop();
  MqttLoop(const MqttLoop&) = delete;
  MqttLoop& operator=(const MqttLoop&) = delete;

  // Ends the thread; the connection stays as it is, for the caller to disconnect.
  void Stop();

 private:
  void Run();
  // One round: a wait of at most 20 ms and what the socket is ready for; false when the
  // connection is lost.
  bool Round(int socket);

  mosquitto* client_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace tamrik::serve
