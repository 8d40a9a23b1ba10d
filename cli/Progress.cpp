#include "Progress.h"

#include <cmath>
#include <cstdio>

namespace tamrik::cli {

std::string FormatBytes(double bytes) {
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%.0f B", bytes);
  } else if (bytes < 1024 * 1024) {
    std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024);
  } else {
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024 * 1024));
  }
  return text;
}

Progress::Progress(std::string label, uint64_t totalUnits, uint64_t totalBytes, std::string unitName, Mode mode)
    : label_(std::move(label)),
      totalUnits_(totalUnits),
      totalBytes_(totalBytes),
      unitName_(std::move(unitName)),
      mode_(mode),
      start_(std::chrono::steady_clock::now()) {
  if (mode_ == Mode::Live) {
    std::printf("%s", Line().c_str());
    std::fflush(stdout);
  }
}

Progress::~Progress() {
  // A download that failed half-way leaves its bar standing on a line of its own.
  if (mode_ == Mode::Live && !finished_) {
    std::printf("\n");
    std::fflush(stdout);
  }
}

double Progress::Seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string Progress::Line(int width) const {
  const double fraction = totalUnits_ > 0 ? double(units_) / double(totalUnits_) : 1.0;
  const int filled = int(std::lround(fraction * width));
  std::string bar = "[" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), '.') + "]";
  const double seconds = Seconds();
  const double rate = seconds > 0 ? double(bytes_) / seconds : 0.0;
  char text[200];
  std::snprintf(text, sizeof text, "%s %s %3d%%  %llu/%llu %s  %s/%s  %s/s", label_.c_str(), bar.c_str(),
                int(std::lround(fraction * 100)), static_cast<unsigned long long>(units_),
                static_cast<unsigned long long>(totalUnits_), unitName_.c_str(), FormatBytes(double(bytes_)).c_str(),
                FormatBytes(double(totalBytes_)).c_str(), FormatBytes(rate).c_str());
  return text;
}

void Progress::Update(uint64_t units, uint64_t bytes) {
  units_ = units;
  bytes_ = bytes;
  if (mode_ == Mode::Live) {
    // Redrawing costs more than a block over a fast link; a few times a second is enough.
    const auto now = std::chrono::steady_clock::now();
    if (now - lastDraw_ < std::chrono::milliseconds(50) && units_ < totalUnits_) return;
    lastDraw_ = now;
    std::printf("\r%s\033[K", Line().c_str());
    std::fflush(stdout);
  } else if (mode_ == Mode::Quarters && totalUnits_ > 0) {
    const int quarter = int(units_ * 4 / totalUnits_);
    while (quartersShown_ < quarter && quartersShown_ < 3) {
      ++quartersShown_;
      std::printf("%s\n", Line().c_str());
    }
    std::fflush(stdout);
  }
}

void Progress::Finish() {
  if (finished_) return;
  finished_ = true;
  if (mode_ == Mode::Live) {
    std::printf("\r%s\033[K\n", Line().c_str());
  } else if (mode_ == Mode::Quarters) {
    std::printf("%s\n", Line().c_str());
  }
  std::fflush(stdout);
}

}  // namespace tamrik::cli
