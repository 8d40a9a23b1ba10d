// Loading software into the gateway: firmware records to its boot loader, the boot-loader
// chain over the serial line, and a binary image in blocks.
#include <CLI/CLI.hpp>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "Progress.h"
#include "Tool.h"

namespace tamrik::cli {
namespace fs = std::filesystem;

namespace {

Progress::Mode ProgressMode(const Context& ctx, bool quartersOtherwise) {
  if (ctx.Interactive()) return Progress::Mode::Live;
  return quartersOtherwise && !ctx.json && !ctx.noProgress ? Progress::Mode::Quarters : Progress::Mode::Off;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw UsageError("cannot read " + path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Byte count of each record of a line file as it goes on the line: ':' and one byte per
// digit pair, so the progress bar counts bytes the loader receives.
std::vector<size_t> RecordSizes(const std::string& text) {
  std::vector<size_t> sizes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != ':') continue;
    size_t digits = 0;
    while (i + 1 + digits < text.size() && text[i + 1 + digits] >= '0' && text[i + 1 + digits] <= 'Z') ++digits;
    sizes.push_back(1 + digits / 2);
  }
  return sizes;
}

void Firmware(Context& ctx, const std::string& file) {
  const std::vector<size_t> sizes = RecordSizes(ReadFile(file));
  Session& session = ctx.Connect(Purpose::FirmwareLines);
  int32_t lines = 0, error = 0;
  Check("kaVInitFirmwareDownload", tamrik_kaVInitFirmwareDownload(session.com(), file.c_str(), &lines, &error), error,
        ResultContext::Loader);
  if (session.demonstration()) {
    ctx.result.Set("records", 0);
    ctx.result.Set("note", "demonstration mode: nothing was sent");
    return;
  }
  uint64_t total = 0;
  for (size_t s : sizes) total += s;
  Progress progress("firmware", uint64_t(std::max(lines, 0)), total, "records", ProgressMode(ctx, false));
  uint64_t bytes = 0;
  for (int32_t n = 0; n < lines; ++n) {
    int32_t line = n + 1;
    error = 0;
    Check("kaVDownloadFirmwareLines", tamrik_kaVDownloadFirmwareLines(session.com(), &line, &error), error,
          ResultContext::Loader);
    bytes += size_t(n) < sizes.size() ? sizes[size_t(n)] : 0;
    progress.Update(uint64_t(n) + 1, bytes);
  }
  progress.Finish();
  ctx.result.Set("file", file);
  ctx.result.Set("records", lines);
  ctx.result.Set("bytes", int64_t(bytes));
  ctx.result.Set("seconds", progress.Seconds());
  if (sim::SimBootLoader* loader = session.loader()) {
    loader->WaitForRecords(size_t(std::max(lines, 0)), std::chrono::milliseconds(1000));
    ctx.result.Set("loader_received_records", int64_t(loader->Records().size()));
  }
}

void Boot(Context& ctx, const std::vector<std::string>& files, const std::string& ini) {
  const bool withoutSetCtx = ini.empty() && (files[1] == "-" || files[1].empty());
  Session& session = ctx.Connect(withoutSetCtx ? Purpose::BootChainWithoutSetCtx : Purpose::BootChain, false);
  if (!session.serial()) throw UsageError("the boot-loader chain needs a serial line (--serial, or --sim)");
  int32_t baud = session.baud(), error = 0;
  Check("kaVStartBootFirmwareDownload",
        tamrik_kaVStartBootFirmwareDownload(session.com(), session.serialPort(), &baud, &error), error);
  const auto start = std::chrono::steady_clock::now();
  ctx.Say("boot-loader chain on " + session.Describe() + " ...\n");
  if (!ini.empty()) {
    // The driver reads the list from its own directory.
    fs::copy_file(ini, session.File("kaVBoot.ini"), fs::copy_options::overwrite_existing);
    Check("kaVBootFirmwareDownload_FromIni", tamrik_kaVBootFirmwareDownload_FromIni(session.com(), &error), error,
          ResultContext::Loader);
  } else {
    // "-" stands for no SetCtx file: the stage is skipped.
    const std::string setCtx = withoutSetCtx ? std::string() : files[1];
    Check("kaVBootFirmwareDownload",
          tamrik_kaVBootFirmwareDownload(session.com(), files[0].c_str(), setCtx.c_str(), files[2].c_str(),
                                         files[3].c_str(), &error),
          error, ResultContext::Loader);
  }
  ctx.result.Set("done", "boot-loader chain loaded");
  ctx.result.Set("seconds", std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  if (sim::SimBootLoader* loader = session.loader()) {
    for (int stage = 1; stage <= 3; ++stage) {
      const auto bytes = loader->Stage(stage);
      ctx.result.Set("loader_stage" + std::to_string(stage) + "_bytes", bytes ? int64_t(bytes->size()) : int64_t(0));
    }
    ctx.result.Set("loader_received_records", int64_t(loader->Records().size()));
  }
}

}  // namespace

// Runs an image download with its progress; returns the block count. Shared with the demo.
int64_t DownloadImage(Context& ctx, const std::string& file, int32_t startAddress, bool quarters,
                      const std::string& label) {
  Session& session = ctx.Connect();
  std::error_code ec;
  const auto length = fs::file_size(file, ec);
  if (ec) throw UsageError("cannot read " + file);
  int32_t start = startAddress, blocks = 0, error = 0;
  Check("kaVInitImageDownload", tamrik_kaVInitImageDownload(session.com(), file.c_str(), &start, &blocks, &error),
        error, ResultContext::Image);
  Progress progress(label, uint64_t(std::max(blocks, 1)), length, "blocks", ProgressMode(ctx, quarters));
  uint64_t sent = 0;
  int64_t taken = 0;
  // An empty image still takes one (empty) block; the loop ends at the block numbered -1.
  for (int64_t guard = 0; guard <= int64_t(blocks); ++guard) {
    int32_t block = 0;
    error = 0;
    Check("kaVDownloadImageBlock", tamrik_kaVDownloadImageBlock(session.com(), &block, &error), error,
          ResultContext::Image);
    ++taken;
    sent = std::min<uint64_t>(length, uint64_t(taken) * 256);
    progress.Update(uint64_t(taken), sent);
    if (block == -1) break;
  }
  progress.Finish();
  ctx.result.Set("file", file);
  ctx.result.Set("bytes", int64_t(length));
  ctx.result.Set("blocks", taken);
  if (startAddress != -1) ctx.result.Set("start_address", Json::Hex(uint32_t(startAddress), 8));
  ctx.result.Set("seconds", progress.Seconds());
  ctx.result.Set("rate_bytes_per_second", progress.Seconds() > 0 ? double(sent) / progress.Seconds() : 0.0);
  return taken;
}

void AddDownloadCommands(CLI::App& app, Context& ctx) {
  {
    auto* cmd = app.add_subcommand("firmware", "Firmware line download: FILE's records to the boot loader");
    auto file = std::make_shared<std::string>();
    cmd->add_option("FILE", *file, "Firmware line file (records starting with ':')")->required()->check(CLI::ExistingFile);
    cmd->callback([&ctx, file]() { ctx.run = [file](Context& c) { Firmware(c, *file); }; });
  }
  {
    auto* cmd = app.add_subcommand(
        "boot", "Boot-loader chain over the serial line: BSL SETCTX BOOT FIRMWARE (SETCTX '-': none), or --ini FILE");
    auto files = std::make_shared<std::vector<std::string>>();
    auto ini = std::make_shared<std::string>();
    cmd->add_option("FILES", *files, "BSL, SetCtx, Boot and firmware line files")->expected(4);
    cmd->add_option("--ini", *ini, "A kaVBoot.ini naming the four files (section BSL-Files)")->check(CLI::ExistingFile);
    cmd->callback([&ctx, files, ini]() {
      if (files->size() != 4 && ini->empty()) throw CLI::ValidationError("boot", "give the four files or --ini FILE");
      ctx.run = [files, ini](Context& c) { Boot(c, *files, *ini); };
    });
  }
  {
    auto* cmd = app.add_subcommand("image", "Image download: FILE in blocks of 256 bytes; --cancel abandons one");
    auto file = std::make_shared<std::string>();
    auto start = std::make_shared<std::string>("-1");
    auto cancel = std::make_shared<bool>(false);
    cmd->add_option("FILE", *file, "Binary image file")->check(CLI::ExistingFile);
    cmd->add_option("--start", *start, "Start address sent with the announcement (-1: none)");
    cmd->add_flag("--cancel", *cancel, "Announce an empty image: abandons a download in progress");
    cmd->callback([&ctx, file, start, cancel]() {
      if (file->empty() == !*cancel) throw CLI::ValidationError("image", "give FILE or --cancel");
      ctx.run = [file, start, cancel](Context& c) {
        if (*cancel) {
          int32_t error = 0;
          Check("kaVCancelImageDownload", tamrik_kaVCancelImageDownload(c.Connect().com(), &error), error,
                ResultContext::Image);
          c.result.Set("done", "image download cancelled");
          return;
        }
        const int32_t address = int32_t(uint32_t(ParseNumber(*start, "--start", -1, 0xFFFFFFFFLL)));
        DownloadImage(c, *file, address, false);
        if (sim::Simulator* sim = c.session()->simulator()) {
          const auto image = sim->CompletedImage();
          const std::string content = ReadFile(*file);
          c.result.Set("gateway_received_identical",
                       image && std::string(image->data.begin(), image->data.end()) == content);
        }
      };
    });
  }
}

}  // namespace tamrik::cli
