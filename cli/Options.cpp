// The options before the command: the link, the simulated gateway, the output and the
// driver settings.
#include <CLI/CLI.hpp>

#include <array>
#include <cstdint>

#include "Tool.h"

namespace tamrik::cli {
namespace {

// The options' numbers go through the tool's one reading of numbers; CLI11's own conversion
// then sees them in decimal.
CLI::Validator IntegerIn(int64_t low, int64_t high) {
  return CLI::Validator(
      [low, high](std::string& text) {
        int64_t value = 0;
        if (!ParseInteger(text, low, high, &value))
          return "'" + text + "' is not a number from " + std::to_string(low) + " to " + std::to_string(high);
        text = std::to_string(value);
        return std::string();
      },
      "INT in [" + std::to_string(low) + " - " + std::to_string(high) + "]");
}

}  // namespace

void AddLinkOptions(CLI::App& app, Context& ctx, std::vector<CLI::Option*>* links) {
  LinkOptions& link = ctx.link;
  auto* serial = app.add_option("--serial", link.serial, "Serial line: a device path or COMn (COM1 is /dev/ttyS0)")
                     ->type_name("DEVICE|COMn")
                     ->group("Link");
  app.add_option("--baud", link.baud, "Baud rate of the serial line")
      ->type_name("BAUD")
      ->transform(IntegerIn(0, INT32_MAX).description(""))
      ->check(CLI::IsMember({9600, 19200, 38400, 57600, 115200}))
      ->group("Link");
  auto* tcp = app.add_option("--tcp", link.tcp, "TCP link to HOST:PORT")->type_name("HOST:PORT")->group("Link");
  auto* udp = app.add_option("--udp", link.udp, "UDP link to HOST:PORT")->type_name("HOST:PORT")->group("Link");
  auto demoFile = std::make_shared<std::string>();
  auto* demo = app.add_option("--demo", *demoFile,
                              "Demonstration mode: answers from KAVDMO.INI (default: the shipped kaVdmo.ini), "
                              "which also keeps what is written")
                   ->expected(0, 1)
                   ->type_name("[KAVDMO.INI]")
                   ->group("Link");
  auto* sim = app.add_flag("--sim", link.sim, "Simulated gateway in this process (the default)")->group("Link");
  serial->excludes(tcp, udp, demo, sim);
  tcp->excludes(udp, demo, sim);
  udp->excludes(demo, sim);
  demo->excludes(sim);
  app.final_callback([&ctx, demo, demoFile]() {
    if (demo->count() > 0) ctx.link.demo = *demoFile;
  });
  *links = {serial, tcp, udp, demo, sim};
  app.add_flag("-y,--yes", ctx.yes, "Let commands change a gateway on a serial, TCP or UDP link")->group("Link");

  app.add_option("--sim-link", link.simLink, "How the simulated gateway is reached: tcp, udp or pty")
      ->type_name("LINK")
      ->check(CLI::IsMember({"tcp", "udp", "pty"}))
      ->group("Simulated gateway");
  app.add_option("--sim-model", link.simModel, "Station model file for the simulated gateway")
      ->type_name("FILE")
      ->check(CLI::ExistingFile)
      ->group("Simulated gateway");
  app.add_option("--sim-refuse", link.simRefuse,
                 "Let the simulated gateway refuse service CODE (answer CODE+BASE, BASE 0x8000 or 0xC000, "
                 "with the data byte BYTE if given); repeatable")
      ->type_name("CODE[:BASE[:BYTE]]")
      ->group("Simulated gateway");
  app.add_flag("--sim-log", link.simLog, "Print each request the simulated gateway serves to stderr")
      ->group("Simulated gateway");
}

void AddOtherOptions(CLI::App& app, Context& ctx) {
  LinkOptions& link = ctx.link;
  app.add_flag("--json", ctx.json, "Print the result as one JSON document on stdout, failures too")->group("Output");
  app.add_flag("--trace", link.trace, "Show the driver's trace lines on stderr")->group("Output");
  app.add_flag("--no-progress", ctx.noProgress, "No progress bar for downloads")->group("Output");

  app.add_option("--timeout", link.timeoutMs,
                 "Answer time-out in ms: serial, the read time-out (default 500); TCP and UDP, how long an answer "
                 "may take to begin (default 110)")
      ->type_name("MS")
      ->transform(IntegerIn(1, 60000))
      ->group("Driver settings");
  app.add_option("--fw-timeout", link.firmwareTimeoutMs, "Serial read time-out during downloads in ms")
      ->type_name("MS")
      ->transform(IntegerIn(1, 600000))
      ->group("Driver settings");
  app.add_option("--segment-pause", link.segmentPauseMs, "Pause in ms between stream segments (driver default 255)")
      ->type_name("MS")
      ->transform(IntegerIn(0, 60000))
      ->group("Driver settings");
  app.add_option("--privileged-bits", link.privilegedBits,
                 "Bit table of the privileged response: 32 comma-separated numbers, a permutation of 0..31")
      ->type_name("LIST")
      ->check(CLI::Validator(
          [](std::string& text) {
            std::array<uint8_t, 32> table{};
            std::string error;
            return ParsePrivilegedBits(text, &table, &error) ? std::string() : error;
          },
          ""))
      ->group("Driver settings");
}

}  // namespace tamrik::cli
