// serve: many gateways polled at once, each on its own schedule, published to an MQTT broker
// and served over HTTP with a live page. With --sim N the gateways are simulated in this
// process, so that the service can be tried with nothing else installed.
#include <signal.h>

#include <cstdio>
#include <memory>

#include "Commands.h"
#include "Config.h"
#include "Fleet.h"
#include "Service.h"

namespace tamrik::cli {
namespace {

// A simulated gateway is polled as a real one would be by default, and may be written.
serve::GatewayConfig SimulatedGateway(const std::string& name, uint16_t port) {
  serve::GatewayConfig gateway;
  gateway.name = name;
  gateway.host = "127.0.0.1";
  gateway.port = port;
  gateway.diagnosisMs = 1000;
  gateway.writable = true;
  return gateway;
}

serve::Config ReadConfig(const Args& args) {
  if (args.Has("--config") == args.Has("--sim")) throw UsageError("serve needs one of --config FILE and --sim N");
  try {
    serve::Config config = args.Has("--config") ? serve::LoadConfig(args.Word("--config")) : serve::Config();
    if (args.Has("--mqtt")) serve::SetMqtt(config, args.Word("--mqtt"));
    if (args.Has("--http")) serve::SetHttp(config, args.Word("--http"));
    serve::Validate(config);
    return config;
  } catch (const serve::ConfigError& e) {
    throw UsageError(e.what());
  }
}

// Every gateway holds a socket, and a simulated one a listening socket and its peer too.
void RaiseDescriptorLimit(size_t gateways) {
  std::string error;
  if (!sim::RaiseDescriptorLimit(sim::FleetDescriptors(gateways) + gateways + 64, &error)) throw UsageError(error);
}

std::unique_ptr<sim::Fleet> StartFleet(size_t count, serve::Config& config) {
  sim::FleetOptions options;
  options.count = uint32_t(count);
  options.threads = count > 200 ? 2 : 1;
  auto fleet = std::make_unique<sim::Fleet>(options);
  for (size_t i = 0; i < count; ++i) {
    const std::string name = sim::FleetGatewayName(i, count);
    config.gateways.push_back(SimulatedGateway(name, fleet->TcpPort(i)));
    std::printf("sim: %s 127.0.0.1:%u\n", name.c_str(), unsigned(fleet->TcpPort(i)));
  }
  return fleet;
}

// SIGINT and SIGTERM go to this thread only: a worker that took one would see its blocking
// call end early and count a failure nobody caused. The threads started meanwhile inherit the
// mask; the destructor lets the signals in again for this thread.
class StopSignalsHere {
 public:
  StopSignalsHere() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  }
  ~StopSignalsHere() { pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr); }

 private:
  sigset_t signals_;
};

}  // namespace

void Serve(Context& ctx, const Args& args) {
  serve::Config config = ReadConfig(args);
  const size_t simulated = args.Has("--sim") ? size_t(args.Number("--sim")) : 0;
  RaiseDescriptorLimit(config.gateways.size() + simulated);
  Stoppable stop;
  std::unique_ptr<sim::Fleet> fleet;
  std::unique_ptr<serve::Service> service;
  uint16_t port = 0;
  {
    StopSignalsHere masked;
    if (simulated > 0) fleet = StartFleet(simulated, config);
    service = std::make_unique<serve::Service>(config);
    port = service->Start();
  }
  if (config.mqtt.enabled)
    std::printf("mqtt: publishing to %s:%u under %s/\n", config.mqtt.host.c_str(), unsigned(config.mqtt.port),
                config.mqtt.prefix.c_str());
  std::printf("http: listening on http://%s:%u\n", config.http.address.c_str(), unsigned(port));
  std::fflush(stdout);
  while (!Stoppable::Requested()) Stoppable::Sleep(200);
  service->Stop();
  ctx.printed = true;
}

}  // namespace tamrik::cli
