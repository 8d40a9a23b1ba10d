// The tour: what a gateway looks like through the driver, in half a minute of reading.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "Commands.h"
#include "Render.h"

namespace tamrik::cli {
namespace {

void Heading(Context& ctx, const std::string& title) { ctx.Say("\n" + title + "\n"); }

// The rendering of a result object, indented under a heading.
void Show(Context& ctx, const Json& value) {
  const std::string text = Render(value);
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
  Json outputs = Json::object();
  outputs["before"] = before;
  if (pattern.empty()) {
    outputs["note"] = "the station has no outputs";
  } else {
    WriteOutputs(ctx, pattern);
    const auto after = ReadOutputs(ctx);
    outputs["written"] = pattern;
    outputs["read_back"] = after;
    outputs["matches"] = after == pattern;
    // The outputs go back to what they were: the tour leaves no trace on the station.
    WriteOutputs(ctx, before);
    outputs["restored"] = ReadOutputs(ctx) == before;
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
  download["gateway_received_identical"] = same;
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
  ctx.result = Json::object();
  DownloadImage(ctx, file.path(), -1, true, "  image");
  Json download = std::move(ctx.result);
  ctx.result = std::move(saved);
  download["file"] = "demo-image.bin";
  if (const sim::Simulator* sim = session.simulator()) CompareImage(ctx, *sim, image, download);
  return download;
}

}  // namespace

void Tour(Context& ctx, const Args&) {
  ctx.printed = true;
  Session& session = ctx.Connect();
  ctx.Say("tamrik demonstration: " + session.Describe() + "\n");
  Json tour = Json::object();

  Heading(ctx, "Identity");
  Json identity = ReadIdentity(ctx, nullptr);
  Show(ctx, identity);
  tour["identity"] = identity;

  Heading(ctx, "Modules");
  Json modules = ReadModules(ctx);
  Show(ctx, {{"modules", modules}});
  tour["modules"] = modules;

  Heading(ctx, "Live inputs (three reads, 200 ms apart)");
  Json reads = Json::array();
  for (int n = 0; n < 3; ++n) {
    if (n > 0) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto inputs = ReadInputs(ctx);
    ctx.Say("  read " + std::to_string(n + 1) + "  " + BytesText(inputs) + "\n");
    reads.push_back(inputs);
  }
  tour["inputs"] = reads;
  tour["outputs"] = TourOutputs(ctx);

  Heading(ctx, "Image download");
  if (session.demonstration()) {
    ctx.Say("  skipped: in demonstration mode the driver sends no image\n");
  } else {
    tour["image"] = TourImage(ctx, session);
  }
  ctx.Say("\nDemonstration finished.\n");
  ctx.result.update(tour);
}

}  // namespace tamrik::cli
