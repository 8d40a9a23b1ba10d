// tamrik-sim: the gateway simulator as a program. It serves the gateway service protocol on
// loopback TCP, UDP or a pseudo-terminal from a station model, can be told to answer badly,
// and can play the gateway's boot loader for the firmware downloads. Runs until SIGINT or
// SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "SimBootLoader.h"
#include "SimStation.h"
#include "Simulator.h"

namespace {

using tamrik::sim::Refusal;

bool ParseUnsigned(const std::string& text, uint32_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || errno != 0 || v > 0xFFFFFFFFull) return false;
  *value = uint32_t(v);
  return true;
}

// CODE[:BASE[:BYTE]]: refuse service CODE with the answer code CODE + BASE (0x8000 or 0xC000),
// with the one data byte BYTE when it is given.
bool ParseRefusal(const std::string& text, uint16_t* code, Refusal* refusal, std::string* error) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ':');) parts.push_back(part);
  uint32_t value = 0;
  if (parts.empty() || parts.size() > 3 || !ParseUnsigned(parts[0], &value) || value > 0x3FFF) {
    *error = "--refuse '" + text + "': CODE[:BASE[:BYTE]] with a service code up to 0x3FFF";
    return false;
  }
  *code = uint16_t(value);
  *refusal = Refusal{};
  if (parts.size() >= 2) {
    if (!ParseUnsigned(parts[1], &value) || (value != 0x8000 && value != 0xC000)) {
      *error = "--refuse '" + text + "': BASE must be 0x8000 or 0xC000";
      return false;
    }
    refusal->base = uint16_t(value);
  }
  if (parts.size() == 3) {
    if (!ParseUnsigned(parts[2], &value) || value > 0xFF) {
      *error = "--refuse '" + text + "': BYTE must be 0 to 0xFF";
      return false;
    }
    refusal->data = uint8_t(value);
  }
  return true;
}

// The records as a firmware line file: ':' and the record bytes as upper-case digit pairs.
void WriteRecords(const std::string& path, const std::vector<std::vector<uint8_t>>& records) {
  const std::string temporary = path + ".part";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    char pair[3];
    for (const auto& record : records) {
      out << ':';
      for (size_t i = record.empty() || record[0] != ':' ? 0 : 1; i < record.size(); ++i) {
        std::snprintf(pair, sizeof pair, "%02X", record[i]);
        out << pair;
      }
      out << '\n';
    }
  }
  // Readers never see half a file.
  std::error_code ignored;
  std::filesystem::rename(temporary, path, ignored);
}

int ServeBootLoader(const std::string& mode, bool withoutSetCtx, const std::string& link, const std::string& recordsOut,
                    bool log, sigset_t* stopSignals) {
  tamrik::sim::BootLoaderConfig config;
  config.stages = mode != "lines";
  // Without its SetCtx file the chain goes from stage 1 straight to stage 3.
  config.stage2 = !withoutSetCtx;
  tamrik::sim::SimBootLoader loader(config);
  if (!loader.ok()) {
    std::fprintf(stderr, "tamrik-sim: no pseudo-terminal for the boot loader\n");
    return 1;
  }
  if (!link.empty()) {
    std::error_code ec;
    if (std::filesystem::is_symlink(link, ec)) std::filesystem::remove(link, ec);
    std::filesystem::create_symlink(loader.slavePath(), link, ec);
    if (ec) {
      std::fprintf(stderr, "tamrik-sim: cannot make the link %s: %s\n", link.c_str(), ec.message().c_str());
      return 1;
    }
  }
  std::printf("boot %s %s%s%s\n", config.stages ? "chain" : "lines", loader.slavePath().c_str(),
              link.empty() ? "" : " link ", link.c_str());
  std::fflush(stdout);

  bool stageSeen[3] = {false, false, false};
  size_t recordsSeen = 0;
  timespec tick{0, 100 * 1000 * 1000};
  while (true) {
    const int sig = sigtimedwait(stopSignals, nullptr, &tick);
    // What arrived since the last look: logged, and the records file kept up to date.
    for (int stage = 1; stage <= 3; ++stage) {
      const auto bytes = loader.Stage(stage);
      if (!bytes || stageSeen[stage - 1]) continue;
      stageSeen[stage - 1] = true;
      if (log) std::printf("stage %d: %zu bytes\n", stage, bytes->size());
    }
    const auto records = loader.Records();
    if (records.size() != recordsSeen) {
      if (log) {
        for (size_t i = recordsSeen; i < records.size(); ++i) std::printf("record %zu: %zu bytes\n", i + 1, records[i].size());
      }
      recordsSeen = records.size();
      if (!recordsOut.empty()) WriteRecords(recordsOut, records);
    }
    std::fflush(stdout);
    if (sig == SIGINT || sig == SIGTERM) break;
  }
  if (!link.empty()) {
    std::error_code ignored;
    std::filesystem::remove(link, ignored);
  }
  return 0;
}

}  // namespace

static int Run(int argc, char** argv) {
  CLI::App app{
      "tamrik-sim: a simulated field-bus gateway for the tamrik driver and tool.\n"
      "Listens on 127.0.0.1 only. Without a link option it listens on TCP on a free port.\n"
      "Prints where it listens (\"tcp 127.0.0.1:40123\", \"pty /dev/pts/3\") and runs until\n"
      "SIGINT or SIGTERM.",
      "tamrik-sim"};
  std::optional<uint16_t> tcp, udp;
  bool pty = false, log = false;
  std::string link, model, imageOut, recordsOut, bootMode;
  bool withoutSetCtx = false;
  uint32_t noise = 0, corruptEvery = 0, delayMs = 0, lateMs = 0, paceBaud = 0, stallMs = 500;
  std::optional<uint32_t> truncate;
  bool silence = false, drop = false;
  std::vector<std::string> refusals;

  app.add_option("--tcp", tcp, "Listen for TCP on 127.0.0.1:PORT (0: a free port)")->type_name("PORT")->group("Links");
  app.add_option("--udp", udp, "Receive UDP on 127.0.0.1:PORT (0: a free port)")->type_name("PORT")->group("Links");
  app.add_flag("--pty", pty, "Serve a pseudo-terminal (a serial line for the driver)")->group("Links");
  app.add_option("--link", link, "Put a symbolic link to the pseudo-terminal at PATH")->type_name("PATH")->group("Links");
  app.add_option("--stall", stallMs, "Give up an unfinished request frame after MS of quiet (0: never)")
      ->type_name("MS")
      ->group("Links");

  app.add_option("--model", model, "Station model file (format in docs/simulator.md)")
      ->type_name("FILE")
      ->check(CLI::ExistingFile)
      ->group("Station");
  app.add_option("--image-out", imageOut, "Write a completed image download to FILE")->type_name("FILE")->group("Station");
  app.add_flag("--log", log, "Print one line per request served")->group("Station");

  app.add_option("--noise", noise, "N bytes (never 0xAA) before every answer")->type_name("N")->group("Faults");
  app.add_option("--corrupt-every", corruptEvery, "Every N-th answer gets a wrong check value")->type_name("N")->group("Faults");
  app.add_option("--refuse", refusals, "Refuse service CODE: answer CODE+BASE (0x8000 or 0xC000), with BYTE if given")
      ->type_name("CODE[:BASE[:BYTE]]")
      ->group("Faults");
  app.add_flag("--silence", silence, "Answer nothing")->group("Faults");
  app.add_option("--delay", delayMs, "Answer MS late (answers stay in order)")->type_name("MS")->group("Faults");
  app.add_option("--truncate", truncate, "Send only the first K bytes of every answer")->type_name("K")->group("Faults");
  app.add_option("--late", lateMs, "Hold each answer back MS and send it on its own, after the host gave up")
      ->type_name("MS")
      ->group("Faults");
  app.add_flag("--drop", drop, "TCP: close the connection instead of answering; UDP, pty: answer nothing")
      ->group("Faults");
  app.add_option("--pace", paceBaud, "Send answer bytes at BAUD (10 bits per byte)")->type_name("BAUD")->group("Faults");

  auto* boot = app.add_option("--boot", bootMode,
                              "Play the boot loader on a pseudo-terminal instead: 'chain' (default) for the "
                              "boot-loader chain, 'lines' for the firmware line download")
                   ->expected(0, 1)
                   ->type_name("[chain|lines]")
                   ->group("Boot loader");
  app.add_flag("--no-setctx", withoutSetCtx, "The chain has no SetCtx stage: stage 3 follows stage 1")
      ->group("Boot loader");
  app.add_option("--records-out", recordsOut, "Write the firmware records received to FILE, one line each")
      ->type_name("FILE")
      ->group("Boot loader");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (!bootMode.empty() && bootMode != "chain" && bootMode != "lines") {
    std::fprintf(stderr, "tamrik-sim: --boot takes chain or lines\n");
    return 2;
  }
  if (boot->count() > 0 && (tcp || udp || pty)) {
    std::fprintf(stderr, "tamrik-sim: --boot serves a pseudo-terminal of its own; no other link goes with it\n");
    return 2;
  }
  if ((!recordsOut.empty() || withoutSetCtx) && boot->count() == 0) {
    std::fprintf(stderr, "tamrik-sim: --records-out and --no-setctx need --boot\n");
    return 2;
  }
  if (!link.empty() && !pty && boot->count() == 0) {
    std::fprintf(stderr, "tamrik-sim: --link needs --pty or --boot\n");
    return 2;
  }

  // Block the stop signals before any thread starts, so that only the main thread takes them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  if (boot->count() > 0) return ServeBootLoader(bootMode, withoutSetCtx, link, recordsOut, log, &stopSignals);

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
  if (!imageOut.empty()) station.imageFile = imageOut;

  try {
    tamrik::sim::Simulator sim(std::move(station));
    for (const std::string& text : refusals) {
      uint16_t code = 0;
      Refusal refusal;
      std::string error;
      if (!ParseRefusal(text, &code, &refusal, &error)) {
        std::fprintf(stderr, "tamrik-sim: %s\n", error.c_str());
        return 2;
      }
      sim.RefuseService(code, refusal);
    }
    sim.SetNoise(noise);
    sim.SetCorruptEvery(corruptEvery);
    sim.SetSilence(silence);
    sim.SetAnswerDelay(delayMs);
    sim.SetTruncation(truncate);
    sim.SetLateAnswers(lateMs);
    sim.SetDropConnection(drop);
    sim.SetPacing(paceBaud);
    sim.SetStallTimeout(stallMs);
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

// Nothing may leave the program as an exception: whatever the libraries throw ends here with
// a message and a failure status.
int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tamrik-sim: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "tamrik-sim: unexpected failure\n");
  }
  return 1;
}
