// The tour: what a gateway looks like through the driver, in half a minute of reading.
#include <CLI/CLI.hpp>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "Tool.h"

namespace tamrik::cli {
namespace {

void Heading(Context& ctx, const std::string& title) { ctx.Say("\n" + title + "\n"); }

// The rendering of a result object, indented under a heading.
void Show(Context& ctx, const Json& value) {
  std::string text = value.Render();
  std::string indented;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    indented += "  " + text.substr(start, end - start) + "\n";
    start = end == std::string::npos ? text.size() : end + 1;
  }
  ctx.Say(indented);
}

// The tour's image exists in memory only: a file without a name, reached through /proc, so
// that nothing is left behind however the run ends.
class MemoryFile {
 public:
  explicit MemoryFile(const std::vector<char>& content) : fd_(memfd_create("tamrik-tour-image", MFD_CLOEXEC)) {
    if (fd_ < 0) throw CallFailed("memfd_create", 0, "no memory file for the tour's image");
    size_t written = 0;
    while (written < content.size()) {
      const ssize_t n = write(fd_, content.data() + written, content.size() - written);
      if (n <= 0) throw CallFailed("write", 0, "the tour's image could not be made");
      written += size_t(n);
    }
  }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

Json TourOutputs(Context& ctx) {
  Heading(ctx, "Output write, read back");
  const auto before = ReadOutputs(ctx);
  // A pattern that differs from what the outputs hold now in every byte, so the read-back
  // proves the write.
  std::vector<uint8_t> pattern(before.size());
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = uint8_t(before[i] ^ (i % 2 == 0 ? 0xA5 : 0x5A));
  Json outputs = Json::Object();
  outputs.Set("before", Json::Bytes(before));
  if (pattern.empty()) {
    outputs.Set("note", "the station has no outputs");
  } else {
    WriteOutputs(ctx, pattern);
    const auto after = ReadOutputs(ctx);
    outputs.Set("written", Json::Bytes(pattern));
    outputs.Set("read_back", Json::Bytes(after));
    outputs.Set("matches", after == pattern);
    // The outputs go back to what they were: the tour leaves no trace on the station.
    WriteOutputs(ctx, before);
    outputs.Set("restored", ReadOutputs(ctx) == before);
    if (after != pattern) {
      Show(ctx, outputs);
      throw CallFailed("kaVGetProcessOutData", 0, "the outputs read back differ from those written");
    }
  }
  Show(ctx, outputs);
  return outputs;
}

// The simulated gateway's image compared with what was sent.
void CompareImage(Context& ctx, const sim::Simulator& sim, const std::vector<char>& image, Json& download) {
  const auto received = sim.CompletedImage();
  const bool same = received && received->data.size() == image.size() &&
                    std::equal(image.begin(), image.end(), received->data.begin(),
                               [](char a, uint8_t b) { return uint8_t(a) == b; });
  download.Set("gateway_received_identical", same);
  ctx.Say(std::string("  the simulated gateway received ") + std::to_string(received ? received->data.size() : 0) +
          " bytes in " + std::to_string(received ? received->blocks : 0) + " blocks: " +
          (same ? "identical to the file" : "NOT the file") + "\n");
  if (!same) throw CallFailed("kaVDownloadImageBlock", 0, "the gateway's image differs from the file");
}

Json TourImage(Context& ctx, const Session& session) {
  std::vector<char> image(64 * 1024);
  for (size_t i = 0; i < image.size(); ++i) image[i] = char((i * 7 + i / 256) & 0xFF);
  const MemoryFile file(image);
  Json saved = std::move(ctx.result);
  ctx.result = Json::Object();
  DownloadImage(ctx, file.path(), -1, true, "  image");
  Json download = std::move(ctx.result);
  ctx.result = std::move(saved);
  download.Set("file", "demo-image.bin");
  if (const sim::Simulator* sim = session.simulator()) CompareImage(ctx, *sim, image, download);
  return download;
}

void Tour(Context& ctx) {
  ctx.RequireYes("write a test pattern to the output image (restored afterwards) and download a 64 KiB test image");
  ctx.printed = true;
  Session& session = ctx.Connect();
  ctx.Say("tamrik demonstration: " + session.Describe() + "\n");
  Json tour = Json::Object();

  Heading(ctx, "Identity");
  Json identity = ReadIdentity(ctx, nullptr);
  Show(ctx, identity);
  tour.Set("identity", identity);

  Heading(ctx, "Modules");
  Json modules = ReadModules(ctx);
  Json table = Json::Object();
  table.Set("modules", modules);
  Show(ctx, table);
  tour.Set("modules", modules);

  Heading(ctx, "Live inputs (three reads, 200 ms apart)");
  Json reads = Json::Array();
  for (int n = 0; n < 3; ++n) {
    if (n > 0) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto inputs = ReadInputs(ctx);
    ctx.Say("  read " + std::to_string(n + 1) + "  " + Json::Bytes(inputs).Text() + "\n");
    reads.Push(Json::Bytes(inputs));
  }
  tour.Set("inputs", reads);
  tour.Set("outputs", TourOutputs(ctx));

  Heading(ctx, "Image download");
  if (session.demonstration()) {
    ctx.Say("  skipped: in demonstration mode the driver sends no image\n");
  } else {
    tour.Set("image", TourImage(ctx, session));
  }
  ctx.Say("\nDemonstration finished.\n");
  for (const auto& [key, value] : tour.Fields()) ctx.result.Set(key, value);
}

}  // namespace

void AddDemoCommand(CLI::App& app, Context& ctx) {
  app.add_subcommand("demo", "A short tour: identity, modules, live inputs, an output write read back, an image download")
      ->callback([&ctx]() { ctx.run = Tour; });
}

void RunTour(Context& ctx) { Tour(ctx); }

}  // namespace tamrik::cli
