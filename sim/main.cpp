// tamrik-sim: the gateway simulator as a program, for trying the driver by hand.
//
//   tamrik-sim [--tcp PORT] [--udp PORT] [--pty [--link PATH]] [--model FILE] [--log]
//
// Without any link option it listens on TCP, on a port the system picks. Runs until
// SIGINT or SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "SimStation.h"
#include "Simulator.h"

namespace {

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: tamrik-sim [--tcp PORT] [--udp PORT] [--pty [--link PATH]] [--model FILE] [--log]\n"
               "  --tcp PORT    listen for TCP on 127.0.0.1:PORT (0: any free port)\n"
               "  --udp PORT    receive UDP on 127.0.0.1:PORT (0: any free port)\n"
               "  --pty         serve a pseudo-terminal; --link PATH puts a symbolic link to it\n"
               "  --model FILE  read the station from FILE (format in sim/README.md)\n"
               "  --log         print one line per request\n");
}

bool ParsePort(const char* text, uint16_t* port) {
  char* end = nullptr;
  const unsigned long v = std::strtoul(text, &end, 10);
  if (!*text || *end || v > 65535) return false;
  *port = uint16_t(v);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<uint16_t> tcp, udp;
  bool pty = false, log = false;
  std::string link, model;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    uint16_t port = 0;
    if (arg == "--tcp" && hasValue && ParsePort(argv[i + 1], &port)) {
      tcp = port;
      ++i;
    } else if (arg == "--udp" && hasValue && ParsePort(argv[i + 1], &port)) {
      udp = port;
      ++i;
    } else if (arg == "--pty") {
      pty = true;
    } else if (arg == "--link" && hasValue) {
      link = argv[++i];
    } else if (arg == "--model" && hasValue) {
      model = argv[++i];
    } else if (arg == "--log") {
      log = true;
    } else if (arg == "--help" || arg == "-h") {
      Usage(stdout);
      return 0;
    } else {
      std::fprintf(stderr, "tamrik-sim: bad argument '%s'\n", arg.c_str());
      Usage(stderr);
      return 2;
    }
  }
  if (!link.empty() && !pty) {
    std::fprintf(stderr, "tamrik-sim: --link needs --pty\n");
    return 2;
  }
  if (!tcp && !udp && !pty) tcp = 0;

  tamrik::sim::Station station = tamrik::sim::DefaultStation();
  if (!model.empty()) {
    std::string error;
    auto loaded = tamrik::sim::LoadStationFile(model, &error);
    if (!loaded) {
      std::fprintf(stderr, "tamrik-sim: %s\n", error.c_str());
      return 1;
    }
    station = std::move(*loaded);
  }

  // Block the stop signals before any link thread starts, so that only sigwait sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    tamrik::sim::Simulator sim(std::move(station));
    if (log) {
      sim.SetLogSink([](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
      });
    }
    if (tcp) std::printf("tcp 127.0.0.1:%u\n", unsigned(sim.StartTcp(*tcp)));
    if (udp) std::printf("udp 127.0.0.1:%u\n", unsigned(sim.StartUdp(*udp)));
    if (pty) {
      const std::string path = sim.StartPty(link);
      std::printf("pty %s%s%s\n", path.c_str(), link.empty() ? "" : " link ", link.c_str());
    }
    std::fflush(stdout);
    int sig = 0;
    sigwait(&stopSignals, &sig);
    sim.Stop();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tamrik-sim: %s\n", e.what());
    return 1;
  }
  return 0;
}
