// A host program that talks to a gateway through the C interface of libtamrik.so. With no
// arguments it starts the bundled simulator on a private loopback port and talks to that:
//
//   tamrik-example                      simulated gateway, TCP on 127.0.0.1
//   tamrik-example HOST PORT [udp]      a gateway of your own
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>


#include "Simulator.h"
#include "tamrik.h"

namespace {

bool Check(const char* what, uint32_t status, int32_t error) {
  if (status == 0 && error == 0) return true;
  std::printf("%-28s failed: result 0x%X, status 0x%X\n", what, uint32_t(error), status);
  return false;
}

// The gateway's identity texts, its version and its module list, as far as they can be read.
void ShowGateway(tamrik_com* com) {
  int32_t error = 0;
  // Every count on entry is the room of its array; the driver refuses answers that need more.
  char text[200] = {};
  int32_t size = sizeof text;
  if (Check("identity", tamrik_kaVGetGatewayIdSring(com, text, &size, &error), error))
    std::printf("%-28s %.*s\n", "identity", int(size), text);
  int32_t version = 0;
  if (Check("gateway version", tamrik_kaVGetGatewayVersion(com, &version, &error), error))
    std::printf("%-28s %04X\n", "gateway version", uint32_t(version) & 0xFFFF);
  size = sizeof text;
  if (Check("version string", tamrik_kaVGetGatewayVersionString(com, text, &size, &error), error))
    std::printf("%-28s %.*s\n", "version string", int(size), text);

  int32_t modules[64] = {};
  int32_t count = 64;
  if (Check("module list", tamrik_kaVGetModuleList(com, modules, &count, &error), error)) {
    std::printf("%-28s", "modules");
    for (int32_t i = 0; i < count; ++i) std::printf(" %06X", uint32_t(modules[i]));
    std::printf("\n");
  }
}

// Three reads of the input image; false when one fails.
bool ShowInputs(tamrik_com* com) {
  int32_t error = 0;
  for (int round = 0; round < 3; ++round) {
    int32_t inputs[256] = {};
    int32_t count = 256;
    if (!Check("input image", tamrik_kaVGetProcessInData(com, inputs, &count, &error), error)) return false;
    std::printf("%-28s", ("input image, read " + std::to_string(round + 1)).c_str());
    for (int32_t i = 0; i < count; ++i) std::printf(" %02X", uint32_t(inputs[i]));
    std::printf("\n");
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::unique_ptr<tamrik::sim::Simulator> simulator;
  std::string host = "127.0.0.1";
  std::string port;
  if (argc >= 3) {
    host = argv[1];
    port = argv[2];
    if (argc >= 4 && std::strcmp(argv[3], "udp") == 0) port += ",UDP";
  } else {
    simulator = std::make_unique<tamrik::sim::Simulator>();
    port = std::to_string(simulator->StartTcp());
    std::printf("simulated gateway on %s:%s (TCP)\n", host.c_str(), port.c_str());
  }

  // Configured in memory: the example reads and writes no profile file.
  tamrik_config config;
  tamrik_config_defaults(&config);
  tamrik_com* com = tamrik_create_with(&config);
  if (com == nullptr) {
    std::printf("no driver object\n");
    return 1;
  }
  int32_t error = 0;
  bool ok = Check("open link", tamrik_kaVOpenEthernet(com, port.c_str(), host.c_str(), &error), error);
  if (ok) {
    ShowGateway(com);
    ok = ShowInputs(com);
    tamrik_kaVCloseComPort(com, 0, &error);
  }
  tamrik_release(com);
  return ok ? 0 : 1;
}
