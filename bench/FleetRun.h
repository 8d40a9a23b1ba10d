// The fleet section: many simulated gateways in this process, `tamrik serve` polling their
// inputs and publishing them through mosquitto on loopback, and a subscriber here that
// times every change from the simulator to its message.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tamrik::bench {

struct FleetVerdict {
  std::string target;
  std::string measured;
  bool holds = false;
};

struct FleetOptions {
  std::vector<size_t> sizes{100, 1000};
  double seconds = 20;  // measured window of each size, after the start-up
  std::string tool;     // the tamrik program
  std::string broker = "/usr/sbin/mosquitto";
  std::string dir;      // for the broker's and the service's files
};

// Prints the section's table and returns the verdicts on the fleet's targets.
std::vector<FleetVerdict> RunFleet(const FleetOptions& options);

}  // namespace tamrik::bench
