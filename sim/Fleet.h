// Many simulated gateways in one process, so that a plant of hundreds or thousands of
// gateways fits on one machine. Each gateway is a sim::Gateway (station, faults, counters)
// with a TCP port of its own on loopback; a few threads with epoll serve all of them, never
// a thread per gateway.
//
//   tamrik::sim::FleetOptions options;
//   options.count = 1000;
//   tamrik::sim::Fleet fleet(options);            // listening on return
//   fleet.At(7).SetSilence(true);                 // gateway 7 stops answering
//   fleet.SetListening(9, false);                 // gateway 9 unplugged: refused, connections closed
//   ... hosts talk to 127.0.0.1:fleet.TcpPort(i) ...
//
// Every gateway answers like a Simulator's TCP link: frames split or bunched, noise skipped,
// a frame that stays unfinished given up after the stall time, and the faults of
// sim::Gateway (delay, late, silence, drop, noise, corrupt, truncate, pace, refusals). A
// gateway accepts a few connections at once (kMaxConnectionsPerGateway); one more closes
// the oldest, as a gateway would give up a host that went away without a word.
//
// Changing a gateway's inputs from another thread: give the fleet a station with
// animateInputs off (the default station moves its inputs one step per read, so every poll
// sees a change) and edit the module's inputs under the gateway's lock:
//
//   fleet.At(i).EditStation([&](tamrik::sim::Station& s) { s.modules[0].inputs[0] = value; });
//
// EditStation keeps the engine's state (outputs, counters, procedures) and costs one lock;
// the next read of the inputs after it returns shows the new value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "SimGateway.h"
#include "SimStation.h"

namespace tamrik::sim {

struct FleetOptions {
  uint32_t count = 1;
  std::string address = "127.0.0.1";
  uint16_t firstPort = 0;  // 0: a free port each; else firstPort, firstPort + 1, ...
  uint32_t threads = 1;    // 0 counts as 1; never more than count
  Station station = DefaultStation();
  // Requests kept in each gateway's log (sim::Gateway::SetLogCapacity); 0 keeps none.
  size_t logCapacity = 16;
  // An unfinished request frame is given up after this long without bytes; 0: never.
  uint32_t stallMs = 500;
};

inline constexpr size_t kMaxConnectionsPerGateway = 4;

class Fleet {
 public:
  // Starts listening; throws std::system_error when it cannot (a port taken, too few file
  // descriptors, an address that is no IPv4 address).
  explicit Fleet(FleetOptions options);
  // Stops every thread, closes every socket.
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  size_t Size() const;
  uint16_t TcpPort(size_t i) const;
  const std::string& Address() const;
  Gateway& At(size_t i);

  // Unplugs gateway i (false): its listening socket and connections are closed, so hosts are
  // refused. Plugs it back in (true): listens again on the same port. Returns when done;
  // throws std::system_error when the port was taken meanwhile. Not to be called from a
  // gateway's log sink or fault rule, which run on the serving threads.
  void SetListening(size_t i, bool listening);
  bool Listening(size_t i) const;
  // Connections gateway i has accepted since the fleet started, and those open now.
  uint32_t ConnectionsAccepted(size_t i) const;
  uint32_t OpenConnections(size_t i) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The name of gateway i (from 0) of count in listings: gw1 .. gwN, the number zero-padded
// to the width of count (gw0001 .. gw1000).
std::string FleetGatewayName(size_t i, size_t count);

// Descriptors a fleet of count gateways needs with one connection each, and a few to spare.
size_t FleetDescriptors(size_t count);

// Raises the soft limit of open files to the hard one when it is below needed. False when
// even the hard limit is below needed, with a message in error that says what to do.
bool RaiseDescriptorLimit(size_t needed, std::string* error);

}  // namespace tamrik::sim
