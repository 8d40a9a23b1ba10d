// Loading software into the gateway: firmware records to its boot loader, the boot-loader
// chain over the serial line, and a binary image in blocks. Every file is read through
// before the first byte goes out.
#include <chrono>
#include <filesystem>

#include "Commands.h"
#include "FileChecks.h"
#include "Progress.h"

namespace tamrik::cli {
namespace fs = std::filesystem;

namespace {

Progress::Mode ProgressMode(const Context& ctx, bool quartersOtherwise) {
  if (ctx.Interactive()) return Progress::Mode::Live;
  return quartersOtherwise && !ctx.json && !ctx.noProgress ? Progress::Mode::Quarters : Progress::Mode::Off;
}

void ShowLoader(Context& ctx, const sim::SimBootLoader& loader) {
  for (int stage = 1; stage <= 3; ++stage) {
    const auto bytes = loader.Stage(stage);
    ctx.result["loader_stage" + std::to_string(stage) + "_bytes"] = bytes ? int64_t(bytes->size()) : int64_t(0);
  }
  ctx.result["loader_received_records"] = int64_t(loader.Records().size());
}

void CancelImage(Context& ctx) {
  int32_t error = 0;
  Check("kaVCancelImageDownload", tamrik_kaVCancelImageDownload(ctx.Connect().com(), &error), error);
  ctx.result["done"] = "image download cancelled";
}

// A stop during the download: the gateway is told that the image is abandoned (an
// announcement of length 0), so that it does not wait for the rest.
[[noreturn]] void StopDownload(Context& ctx, int64_t taken, int32_t blocks) {
  int32_t error = 0;
  const uint32_t status = tamrik_kaVCancelImageDownload(ctx.session()->com(), &error);
  const bool cancelled = status == 0 && error == 0;
  ctx.result["count"] = taken;
  ctx.result["cancelled"] = cancelled;
  throw Interrupted("image download interrupted after " + std::to_string(taken) + " of " + std::to_string(blocks) +
                    " blocks; " +
                    (cancelled ? std::string("the cancel was sent to the gateway")
                               : "sending the cancel failed: " + FormatCode(error != 0 ? uint32_t(error) : status)));
}

}  // namespace

void Firmware(Context& ctx, const Args& args) {
  const std::string file = args.Word("FILE");
  const std::vector<size_t> sizes = CheckLineFile(file);
  Session& session = ctx.Connect(Purpose::FirmwareLines);
  int32_t lines = 0, error = 0;
  Check("kaVInitFirmwareDownload", tamrik_kaVInitFirmwareDownload(session.com(), file.c_str(), &lines, &error), error);
  if (session.demonstration()) {
    ctx.result["count"] = 0;
    ctx.result["note"] = "demonstration mode: nothing was sent";
    return;
  }
  uint64_t total = 0;
  for (size_t s : sizes) total += s;
  Progress progress("firmware", uint64_t(std::max(lines, 0)), total, "records", ProgressMode(ctx, false));
  uint64_t bytes = 0;
  for (int32_t n = 0; n < lines; ++n) {
    int32_t line = n + 1;
    error = 0;
    Check("kaVDownloadFirmwareLines", tamrik_kaVDownloadFirmwareLines(session.com(), &line, &error), error);
    bytes += size_t(n) < sizes.size() ? sizes[size_t(n)] : 0;
    progress.Update(uint64_t(n) + 1, bytes);
  }
  progress.Finish();
  ctx.result["file"] = file;
  ctx.result["count"] = lines;
  ctx.result["unit"] = "records";
  ctx.result["bytes"] = int64_t(bytes);
  ctx.result["seconds"] = progress.Seconds();
  if (sim::SimBootLoader* loader = session.loader()) {
    loader->WaitForRecords(size_t(std::max(lines, 0)), std::chrono::milliseconds(1000));
    ctx.result["loader_received_records"] = int64_t(loader->Records().size());
  }
}

std::vector<std::string> BootFiles(const Args& args) {
  const std::string ini = args.Word("--ini");
  if (args.Words("FILES").size() != 4 && ini.empty()) throw UsageError("boot: give the four files or --ini FILE");
  return ini.empty() ? args.Words("FILES") : ReadBootList(ini);
}

void Boot(Context& ctx, const Args& args) {
  const std::string ini = args.Word("--ini");
  const std::vector<std::string> names = BootFiles(args);
  CheckBootFiles(names[0], names[1], names[2], names[3]);
  const bool withoutSetCtx = names[1] == "-" || names[1].empty();
  // The driver reads the list itself, from where the user keeps it.
  if (!ini.empty()) ctx.link.bootFile = ini;
  Session& session = ctx.Connect(withoutSetCtx ? Purpose::BootChainWithoutSetCtx : Purpose::BootChain, false);
  if (!session.serial()) throw UsageError("the boot-loader chain needs a serial line (--serial, or --sim)");
  int32_t baud = session.baud(), error = 0;
  Check("kaVStartBootFirmwareDownload",
        tamrik_kaVStartBootFirmwareDownload(session.com(), session.serialPort(), &baud, &error), error);
  const auto start = std::chrono::steady_clock::now();
  ctx.Say("boot-loader chain on " + session.Describe() + " ...\n");
  if (!ini.empty()) {
    Check("kaVBootFirmwareDownload_FromIni", tamrik_kaVBootFirmwareDownload_FromIni(session.com(), &error), error);
  } else {
    // "-" stands for no SetCtx file: the stage is skipped.
    const std::string setCtx = withoutSetCtx ? std::string() : names[1];
    Check("kaVBootFirmwareDownload",
          tamrik_kaVBootFirmwareDownload(session.com(), names[0].c_str(), setCtx.c_str(), names[2].c_str(),
                                         names[3].c_str(), &error),
          error);
  }
  ctx.result["done"] = "boot-loader chain loaded";
  ctx.result["seconds"] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (sim::SimBootLoader* loader = session.loader()) ShowLoader(ctx, *loader);
}

bool CancelAsked(const Args& args) {
  if (args.Word("FILE").empty() == !args.Has("--cancel")) throw UsageError("image: give FILE or --cancel");
  return args.Has("--cancel");
}

void Image(Context& ctx, const Args& args) {
  if (CancelAsked(args)) {
    CancelImage(ctx);
    return;
  }
  const std::string file = args.Word("FILE");
  DownloadImage(ctx, file, int32_t(uint32_t(args.Number("--start"))), false);
  if (sim::Simulator* sim = ctx.session()->simulator()) {
    const auto image = sim->CompletedImage();
    const std::string content = ReadWholeFile(file);
    ctx.result["gateway_received_identical"] = image && std::string(image->data.begin(), image->data.end()) == content;
  }
}

// Runs an image download with its progress; returns the block count. Shared with the demo.
int64_t DownloadImage(Context& ctx, const std::string& file, int32_t startAddress, bool quarters,
                      const std::string& label) {
  std::error_code ec;
  const auto length = fs::file_size(file, ec);
  if (ec) throw UsageError("cannot read " + file);
  // The announcement of an empty image is the cancel: it would abandon a download, not load one.
  if (length == 0) throw UsageError(file + " is empty: no image to send (image --cancel abandons a download)");
  Stoppable stop;
  Session& session = ctx.Connect();
  int32_t start = startAddress, blocks = 0, error = 0;
  Check("kaVInitImageDownload", tamrik_kaVInitImageDownload(session.com(), file.c_str(), &start, &blocks, &error),
        error);
  Progress progress(label, uint64_t(std::max(blocks, 1)), length, "blocks", ProgressMode(ctx, quarters));
  int64_t taken = 0;
  // The loop ends at the block numbered -1, the last.
  for (int64_t guard = 0; guard <= int64_t(blocks); ++guard) {
    if (Stoppable::Requested()) StopDownload(ctx, taken, blocks);
    int32_t block = 0;
    error = 0;
    const uint32_t status = tamrik_kaVDownloadImageBlock(session.com(), &block, &error);
    if (Stoppable::Requested()) StopDownload(ctx, taken, blocks);
    Check("kaVDownloadImageBlock", status, error);
    ++taken;
    progress.Update(uint64_t(taken), std::min<uint64_t>(length, uint64_t(taken) * 256));
    if (block == -1) break;
  }
  progress.Finish();
  ctx.result["file"] = file;
  ctx.result["bytes"] = int64_t(length);
  ctx.result["count"] = taken;
  ctx.result["unit"] = "blocks";
  if (startAddress != -1) ctx.result["start_address"] = uint32_t(startAddress);
  ctx.result["seconds"] = progress.Seconds();
  ctx.result["rate_bytes_per_second"] = progress.Seconds() > 0 ? double(length) / progress.Seconds() : 0.0;
  return taken;
}

}  // namespace tamrik::cli
