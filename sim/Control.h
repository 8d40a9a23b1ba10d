// The simulator's control channel: a small HTTP/JSON interface on 127.0.0.1 through which a
// test reads and changes the station, injects faults and reads the request log while the
// simulator serves its links. docs/simulator.md shows each call.
#pragma once

#include <cstdint>
#include <memory>

#include "SimGateway.h"
#include "SimStation.h"

namespace tamrik::sim {

class ControlChannel {
 public:
  // Steers gateway; POST /reset brings back start, the station the simulator began with.
  ControlChannel(Gateway& gateway, Station start);
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  // Listens on 127.0.0.1:port (0: a free port) on threads of its own; returns the port.
  // Throws std::system_error when the port cannot be had.
  uint16_t Start(uint16_t port);
  // Stops serving; the destructor does it too.
  void Stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tamrik::sim
