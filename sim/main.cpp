// tamrik-sim: the gateway simulator as a program. It serves the gateway service protocol on
// loopback TCP, UDP or a pseudo-terminal from a station model, can be told to answer badly,
// and can play the gateway's boot loader for the firmware downloads. Runs until SIGINT or
// SIGTERM.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Control.h"
#include "Fleet.h"
#include "ProgramDocs.h"
#include "SimBootLoader.h"
#include "SimGateway.h"
#include "SimStation.h"
#include "Simulator.h"

namespace {

using tamrik::sim::BootEvent;
using tamrik::sim::Refusal;

constexpr const char* kProgram = "tamrik-sim";

// Every message starts with the program's name, also the lines of a message that has several.
void Message(const std::string& text) {
  std::string out;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) out += std::string(kProgram) + ": " + line + "\n";
  std::fputs(out.c_str(), stderr);
}

int UsageMistake(const std::string& text) {
  Message(text);
  Message(std::string("see '") + kProgram + " --help' for the options");
  return 2;
}

// One record as a line of a firmware line file: ':' and its bytes as upper-case digit pairs.
std::string RecordLine(const std::vector<uint8_t>& record) {
  std::string line = ":";
  char pair[3];
  for (size_t i = record.empty() || record[0] != ':' ? 0 : 1; i < record.size(); ++i) {
    std::snprintf(pair, sizeof pair, "%02X", record[i]);
    line += pair;
  }
  return line + "\n";
}

// What the boot loader hears, for the records file and the log. The loader calls Observe on
// its own thread before it answers, so the records file holds a record before the host has
// its answer: a host that reads the file once its last answer came finds every record. Log
// lines wait for the main thread, so that a slow reader of the output never holds an
// answer back.
class BootOutput {
 public:
  BootOutput(std::string recordsPath, bool log) : recordsPath_(std::move(recordsPath)), log_(log) {}
  ~BootOutput() { CloseRecords(); }
  BootOutput(const BootOutput&) = delete;
  BootOutput& operator=(const BootOutput&) = delete;

  // Empties the records file, or makes it; false with a message when it cannot be written.
  bool StartRecords() {
    CloseRecords();
    recordsFd_ = ::open(recordsPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (recordsFd_ < 0) Message("cannot write the records file " + recordsPath_ + ": " + std::strerror(errno));
    return recordsFd_ >= 0;
  }

  void Observe(const BootEvent& event) {
    switch (event.kind) {
      case BootEvent::Kind::Download:
        // Opened anew for each download, so that the file holds that download's records and
        // comes back when the host removed it in between.
        if (!recordsPath_.empty()) StartRecords();
        Log("download " + std::to_string(event.download));
        break;
      case BootEvent::Kind::Stage:
        Log("stage " + std::to_string(event.stage) + ": " + std::to_string(event.bytes->size()) + " bytes");
        break;
      case BootEvent::Kind::Record:
        AppendRecord(*event.bytes);
        Log("record " + std::to_string(event.record) + ": " + std::to_string(event.bytes->size()) + " bytes");
        break;
    }
  }

  void PrintLog() {
    std::vector<std::string> lines;
    {
      std::lock_guard lock(mutex_);
      lines.swap(lines_);
    }
    for (const std::string& line : lines) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

 private:
  void AppendRecord(const std::vector<uint8_t>& record) {
    if (recordsFd_ < 0) return;
    const std::string line = RecordLine(record);
    size_t written = 0;
    while (written < line.size()) {
      const ssize_t n = ::write(recordsFd_, line.data() + written, line.size() - written);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        Message("cannot write the records file " + recordsPath_ + ": " + std::strerror(errno));
        CloseRecords();
        return;
      }
      written += size_t(n);
    }
  }

  void CloseRecords() {
    if (recordsFd_ >= 0) ::close(recordsFd_);
    recordsFd_ = -1;
  }

  void Log(std::string line) {
    if (!log_) return;
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }

  const std::string recordsPath_;
  const bool log_;
  int recordsFd_ = -1;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// What the command line asks for.
struct Options {
  // Links and station.
  std::optional<uint16_t> tcp, udp;
  bool pty = false;
  std::string link;
  uint32_t stallMs = 500;
  std::optional<uint32_t> gateways, threads;
  std::string model, imageOut;
  bool log = false;
  std::optional<uint16_t> control;
  // Faults, for every answer.
  uint32_t noise = 0, corruptEvery = 0, delayMs = 0, lateMs = 0, paceBaud = 0;
  std::optional<uint32_t> truncate;
  bool silence = false, drop = false;
  std::vector<std::string> refusals;
  // The boot loader instead of the gateway.
  bool boot = false;  // --boot given, with or without a mode
  std::string bootMode, recordsOut;
  bool withoutSetCtx = false;
  // For the build.
  bool manPage = false;
  std::string completionShell;
};

struct RefusalOption {
  uint16_t code = 0;
  Refusal refusal;
};

void AddLinkAndStationOptions(CLI::App& app, Options& o) {
  app.add_option("--tcp", o.tcp, "Listen for TCP on 127.0.0.1:PORT (0: a free port)")->type_name("PORT")->group("Links");
  app.add_option("--udp", o.udp, "Receive UDP on 127.0.0.1:PORT (0: a free port)")->type_name("PORT")->group("Links");
  app.add_flag("--pty", o.pty, "Serve a pseudo-terminal (a serial line for the driver)")->group("Links");
  app.add_option("--link", o.link, "Put a symbolic link to the pseudo-terminal at PATH")->type_name("PATH")->group("Links");
  app.add_option("--gateways", o.gateways,
                 "Serve N gateways, each on a TCP port of its own: PORT, PORT+1, ... with --tcp PORT, else free "
                 "ports; prints NAME 127.0.0.1:PORT per gateway")
      ->type_name("N")
      ->group("Links");
  app.add_option("--threads", o.threads, "Serve the gateways of --gateways with N threads (default 1)")
      ->type_name("N")
      ->group("Links");
  app.add_option("--stall", o.stallMs, "Give up an unfinished request frame after MS of quiet (0: never)")
      ->type_name("MS")
      ->group("Links");

  app.add_option("--model", o.model, "Station model file (format in docs/simulator.md)")
      ->type_name("FILE")
      ->check(CLI::ExistingFile)
      ->group("Station");
  app.add_option("--image-out", o.imageOut, "Write a completed image download to FILE")->type_name("FILE")->group("Station");
  app.add_flag("--log", o.log, "Print one line per request served")->group("Station");
  app.add_option("--control", o.control,
                 "Serve the control channel (HTTP/JSON: station, faults, request log) on 127.0.0.1:PORT (0: a free port)")
      ->type_name("PORT")
      ->group("Station");
}

void AddFaultOptions(CLI::App& app, Options& o) {
  app.add_option("--noise", o.noise, "N bytes (never 0xAA) before every answer")->type_name("N")->group("Faults");
  app.add_option("--corrupt-every", o.corruptEvery, "Every N-th answer gets a wrong check value")
      ->type_name("N")
      ->group("Faults");
  app.add_option("--refuse", o.refusals, "Refuse service CODE: answer CODE+BASE (0x8000 or 0xC000), with BYTE if given")
      ->type_name("CODE[:BASE[:BYTE]]")
      ->group("Faults");
  app.add_flag("--silence", o.silence, "Answer nothing")->group("Faults");
  app.add_option("--delay", o.delayMs, "Answer MS late (answers stay in order)")->type_name("MS")->group("Faults");
  app.add_option("--truncate", o.truncate, "Send only the first K bytes of every answer")->type_name("K")->group("Faults");
  app.add_option("--late", o.lateMs, "Hold each answer back MS and send it on its own, after the host gave up")
      ->type_name("MS")
      ->group("Faults");
  app.add_flag("--drop", o.drop, "TCP: close the connection instead of answering; UDP, pty: answer nothing")
      ->group("Faults");
  app.add_option("--pace", o.paceBaud, "Send answer bytes at BAUD (10 bits per byte)")->type_name("BAUD")->group("Faults");
}

// Returns --boot itself: whether it was given tells more than its value, which may be empty.
const CLI::Option* AddBootOptions(CLI::App& app, Options& o) {
  const CLI::Option* boot = app.add_option("--boot", o.bootMode,
                                           "Play the boot loader on a pseudo-terminal instead: 'chain' (default) for the "
                                           "boot-loader chain, 'lines' for the firmware line download")
                                ->expected(0, 1)
                                ->type_name("[chain|lines]")
                                ->group("Boot loader");
  app.add_flag("--no-setctx", o.withoutSetCtx, "The chain has no SetCtx stage: stage 3 follows stage 1")
      ->group("Boot loader");
  app.add_option("--records-out", o.recordsOut,
                 "Keep FILE as the latest download's records, one line each, each one written before it is answered")
      ->type_name("FILE")
      ->group("Boot loader");
  return boot;
}

void AddProgramOptions(CLI::App& app, Options& o) {
  app.set_version_flag("--version", std::string(kProgram) + " " + TAMRIK_VERSION, "Print the version and exit");
  // For the build, which installs what they print: the manual page and the bash completion,
  // both made from the options above.
  app.add_flag("--man", o.manPage)->group("");
  app.add_option("--completion", o.completionShell)->group("");
}

// What does not go with --gateways: the links and files that stand for one gateway.
std::string FleetMistake(const Options& o) {
  if (o.threads && !o.gateways) return "--threads needs --gateways";
  if (!o.gateways) return {};
  if (*o.gateways == 0) return "--gateways takes 1 or more";
  if (o.threads && *o.threads == 0) return "--threads takes 1 or more";
  if (o.udp || o.pty || o.boot) return "--gateways serves TCP only: --udp, --pty and --boot serve one gateway";
  if (o.control) return "--control steers one gateway; it does not go with --gateways";
  if (!o.imageOut.empty()) return "--image-out names one file; it does not go with --gateways";
  if (o.tcp && *o.tcp != 0 && uint32_t(*o.tcp) + *o.gateways - 1 > 65535)
    return "--tcp " + std::to_string(*o.tcp) + " with --gateways " + std::to_string(*o.gateways) +
           ": the ports would go beyond 65535";
  return {};
}

// The mistakes that only the options together show; empty when there is none.
std::string CombinationMistake(const Options& o) {
  if (!o.bootMode.empty() && o.bootMode != "chain" && o.bootMode != "lines") {
    return "--boot takes chain or lines, not '" + o.bootMode + "'";
  }
  if (o.boot && (o.tcp || o.udp || o.pty)) return "--boot serves a pseudo-terminal of its own; no other link goes with it";
  if (o.boot && o.control) return "--control steers the simulated gateway; the boot loader has no control channel";
  if ((!o.recordsOut.empty() || o.withoutSetCtx) && !o.boot) return "--records-out and --no-setctx need --boot";
  if (!o.link.empty() && !o.pty && !o.boot) return "--link needs --pty or --boot";
  return FleetMistake(o);
}

// Every --refuse read; the mistake of the first that cannot be read.
std::string ReadRefusals(const Options& o, std::vector<RefusalOption>* refusals) {
  for (const std::string& text : o.refusals) {
    RefusalOption r;
    std::string error;
    if (!tamrik::sim::ParseRefusal(text, &r.code, &r.refusal, &error)) return "--refuse " + error;
    refusals->push_back(r);
  }
  return {};
}

int ServeBootLoader(const Options& o, sigset_t* stopSignals) {
  BootOutput output(o.recordsOut, o.log);
  if (!o.recordsOut.empty() && !output.StartRecords()) return 1;
  tamrik::sim::BootLoaderConfig config;
  config.stages = o.bootMode != "lines";
  // Without its SetCtx file the chain goes from stage 1 straight to stage 3.
  config.stage2 = !o.withoutSetCtx;
  config.observer = [&output](const BootEvent& event) { output.Observe(event); };
  tamrik::sim::SimBootLoader loader(config);
  if (!loader.ok()) {
    Message("no pseudo-terminal for the boot loader");
    return 1;
  }
  if (!o.link.empty()) {
    std::error_code ec;
    if (std::filesystem::is_symlink(o.link, ec)) std::filesystem::remove(o.link, ec);
    std::filesystem::create_symlink(loader.slavePath(), o.link, ec);
    if (ec) {
      Message("cannot make the link " + o.link + ": " + ec.message());
      return 1;
    }
  }
  std::printf("boot %s %s%s%s\n", config.stages ? "chain" : "lines", loader.slavePath().c_str(),
              o.link.empty() ? "" : " link ", o.link.c_str());
  std::fflush(stdout);
  // Until SIGINT or SIGTERM, printing what the loader heard at every tick.
  const timespec tick{0, 50 * 1000 * 1000};
  for (int sig = 0; sig != SIGINT && sig != SIGTERM;) {
    sig = sigtimedwait(stopSignals, nullptr, &tick);
    output.PrintLog();
  }
  if (!o.link.empty()) {
    std::error_code ignored;
    std::filesystem::remove(o.link, ignored);
  }
  return 0;
}

// The station the options describe; nothing, with the message printed, for a model file with
// a mistake.
std::optional<tamrik::sim::Station> LoadStation(const Options& o) {
  tamrik::sim::Station station = tamrik::sim::DefaultStation();
  if (!o.model.empty()) {
    std::string error;
    auto loaded = tamrik::sim::LoadStationFile(o.model, &error);
    if (!loaded) {
      Message(error);
      return std::nullopt;
    }
    station = std::move(*loaded);
  }
  if (!o.imageOut.empty()) station.imageFile = o.imageOut;
  return station;
}

void SetFaults(tamrik::sim::Gateway& sim, const Options& o, const std::vector<RefusalOption>& refusals) {
  for (const RefusalOption& r : refusals) sim.RefuseService(r.code, r.refusal);
  sim.SetNoise(o.noise);
  sim.SetCorruptEvery(o.corruptEvery);
  sim.SetSilence(o.silence);
  sim.SetAnswerDelay(o.delayMs);
  sim.SetTruncation(o.truncate);
  sim.SetLateAnswers(o.lateMs);
  sim.SetDropConnection(o.drop);
  sim.SetPacing(o.paceBaud);
}

// Starts the links asked for (TCP on a free port when none is) and prints where each listens.
void StartLinks(tamrik::sim::Simulator& sim, const Options& o) {
  const bool none = !o.tcp && !o.udp && !o.pty;
  if (o.tcp || none) std::printf("tcp 127.0.0.1:%u\n", unsigned(sim.StartTcp(o.tcp.value_or(0))));
  if (o.udp) std::printf("udp 127.0.0.1:%u\n", unsigned(sim.StartUdp(*o.udp)));
  if (o.pty) {
    const std::string path = sim.StartPty(o.link);
    std::printf("pty %s%s%s\n", path.c_str(), o.link.empty() ? "" : " link ", o.link.c_str());
  }
  std::fflush(stdout);
}

int ServeGateway(const Options& o, sigset_t* stopSignals) {
  std::optional<tamrik::sim::Station> station = LoadStation(o);
  if (!station) return 1;
  std::vector<RefusalOption> refusals;
  if (const std::string mistake = ReadRefusals(o, &refusals); !mistake.empty()) return UsageMistake(mistake);
  try {
    tamrik::sim::Simulator sim(std::move(*station));
    SetFaults(sim, o, refusals);
    sim.SetStallTimeout(o.stallMs);
    if (o.log) {
      sim.SetLogSink([](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
      });
    }
    StartLinks(sim, o);
    // Last, so that its line follows those of the links; /reset goes back to the station the
    // simulator began with.
    std::unique_ptr<tamrik::sim::ControlChannel> control;
    if (o.control) {
      control = std::make_unique<tamrik::sim::ControlChannel>(sim, sim.GetStation());
      std::printf("control http://127.0.0.1:%u\n", unsigned(control->Start(*o.control)));
      std::fflush(stdout);
    }
    int sig = 0;
    sigwait(stopSignals, &sig);
    if (control) control->Stop();
    sim.Stop();
  } catch (const std::exception& e) {
    Message(e.what());
    return 1;
  }
  return 0;
}

// Every gateway gets the station and faults the options describe; the listing goes out once
// all of them serve as asked.
int ServeFleet(const Options& o, sigset_t* stopSignals) {
  std::optional<tamrik::sim::Station> station = LoadStation(o);
  if (!station) return 1;
  std::vector<RefusalOption> refusals;
  if (const std::string mistake = ReadRefusals(o, &refusals); !mistake.empty()) return UsageMistake(mistake);
  const uint32_t count = *o.gateways;
  std::string error;
  if (!tamrik::sim::RaiseDescriptorLimit(tamrik::sim::FleetDescriptors(count), &error)) {
    Message("cannot serve " + std::to_string(count) + " gateways: " + error);
    return 1;
  }
  try {
    tamrik::sim::FleetOptions options;
    options.count = count;
    options.firstPort = o.tcp.value_or(0);
    options.threads = o.threads.value_or(1);
    options.station = std::move(*station);
    options.stallMs = o.stallMs;
    tamrik::sim::Fleet fleet(std::move(options));
    std::string listing;
    for (size_t i = 0; i < fleet.Size(); ++i) {
      const std::string name = tamrik::sim::FleetGatewayName(i, fleet.Size());
      SetFaults(fleet.At(i), o, refusals);
      if (o.log) {
        fleet.At(i).SetLogSink([name](const std::string& line) {
          std::printf("%s %s\n", name.c_str(), line.c_str());
          std::fflush(stdout);
        });
      }
      listing += name + " " + fleet.Address() + ":" + std::to_string(fleet.TcpPort(i)) + "\n";
    }
    std::fputs(listing.c_str(), stdout);
    std::fflush(stdout);
    int sig = 0;
    sigwait(stopSignals, &sig);
  } catch (const std::exception& e) {
    Message(e.what());
    return 1;
  }
  return 0;
}

// What the manual page says beyond the option table.
tamrik::progdocs::ManPage ManPage() {
  tamrik::progdocs::ManPage page;
  page.name = kProgram;
  page.summary = "a simulated field-bus gateway for the tamrik driver and tool";
  page.source = std::string("tamrik ") + TAMRIK_VERSION;
  page.synopsis = {"[--tcp PORT] [--udp PORT] [--pty [--link PATH]] [--model FILE] [--log] [--control PORT] [faults...]",
                   "--gateways N [--tcp PORT] [--threads N] [--model FILE] [--log] [faults...]",
                   "--boot [chain|lines] [--no-setctx] [--link PATH] [--records-out FILE] [--log]",
                   "--version | --help"};
  page.sections = {
      {"OUTPUT",
       "One line per link, one for the control channel, then one line per request served with --log:\n"
       "  tcp 127.0.0.1:5020\n"
       "  udp 127.0.0.1:41977\n"
       "  pty /dev/pts/4 link /tmp/gateway\n"
       "  control http://127.0.0.1:8020\n"
       "\n"
       "With --gateways N one line per gateway, named gw1 to gwN with the number zero-padded to the width "
       "of N, then with --log the request lines, each after its gateway's name:\n"
       "  gw001 127.0.0.1:5020\n"
       "  gw002 127.0.0.1:5021\n"
       "\n"
       "With --boot one line names the loader's pseudo-terminal (boot chain /dev/pts/N, or boot lines ...); "
       "with --log one line follows per download, stage and record (download 2, stage 1: 200 bytes, "
       "record 3: 21 bytes)."},
      {"BOOT LOADER",
       "The loader serves any number of downloads in a row: a chain starts again with its wake byte, a line "
       "download with its start request. The records file holds the records of the latest download as a "
       "firmware line file, each record written before the loader answers it, so a host that reads the "
       "file after its last answer finds every record."},
      {"EXIT STATUS",
       "0\tstopped by SIGINT or SIGTERM; --help, --version\n"
       "1\ta failure: a station model with a mistake, no pseudo-terminal, a link or file that cannot be made, "
       "an open-file limit too low for --gateways\n"
       "2\ta usage mistake: an unknown option, a missing or bad value, options that do not go together"},
      {"EXAMPLES",
       "  tamrik-sim --tcp 5020 --log &\n"
       "  tamrik --tcp 127.0.0.1:5020 inputs\n"
       "\n"
       "  tamrik-sim --pty --link /tmp/slow-gw --pace 9600 --delay 50\n"
       "\n"
       "  tamrik-sim --gateways 1000 --tcp 0 --model station.txt > fleet.txt &\n"
       "\n"
       "  tamrik-sim --boot lines --link /tmp/loader --records-out /tmp/got.hex &\n"
       "  tamrik --serial /tmp/loader firmware fw.hex\n"
       "  cmp <(grep : fw.hex) /tmp/got.hex"},
      {"SEE ALSO", "tamrik(1); docs/simulator.md in the sources, which also describes the station model files."},
  };
  return page;
}

}  // namespace

static int Run(int argc, char** argv) {
  CLI::App app{
      "tamrik-sim: a simulated field-bus gateway for the tamrik driver and tool.\n"
      "Listens on 127.0.0.1 only. Without a link option it listens on TCP on a free port.\n"
      "Prints where it listens (\"tcp 127.0.0.1:40123\", \"pty /dev/pts/3\") and runs until\n"
      "SIGINT or SIGTERM.",
      "tamrik-sim"};
  Options options;
  AddLinkAndStationOptions(app, options);
  AddFaultOptions(app, options);
  const CLI::Option* boot = AddBootOptions(app, options);
  AddProgramOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end here too, with status 0.
    if (e.get_exit_code() == 0) return app.exit(e);
    return UsageMistake(e.what());
  }
  options.boot = boot->count() > 0;
  if (options.manPage) {
    std::fputs(tamrik::progdocs::RoffManPage(app, ManPage()).c_str(), stdout);
    return 0;
  }
  if (!options.completionShell.empty()) {
    if (options.completionShell != "bash") return UsageMistake("--completion knows bash only");
    std::fputs(tamrik::progdocs::BashCompletion(app, kProgram).c_str(), stdout);
    return 0;
  }
  if (const std::string mistake = CombinationMistake(options); !mistake.empty()) return UsageMistake(mistake);

  // Block the stop signals before any thread starts, so that only the main thread takes them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  if (options.boot) return ServeBootLoader(options, &stopSignals);
  if (options.gateways) return ServeFleet(options, &stopSignals);
  return ServeGateway(options, &stopSignals);
}

// Nothing may leave the program as an exception: whatever the libraries throw ends here with
// a message and a failure status.
int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    Message(e.what());
  } catch (...) {
    Message("unexpected failure");
  }
  return 1;
}
