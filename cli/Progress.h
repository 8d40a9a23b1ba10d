// A progress bar for the downloads: units (blocks or records), bytes and rate. Drawn in
// place when stdout is a terminal; otherwise, when asked for, printed as a line at every
// quarter so that a log still shows the download moving.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tamrik::cli {

class Progress {
 public:
  enum class Mode { Off, Live, Quarters };

  Progress(std::string label, uint64_t totalUnits, uint64_t totalBytes, std::string unitName, Mode mode);
  ~Progress();

  void Update(uint64_t units, uint64_t bytes);
  // Draws the final state and ends the line.
  void Finish();

  double Seconds() const;
  // "12/40 blocks  3.0/10.0 KiB  120.5 KiB/s" with a bar of width cells in front.
  std::string Line(int width = 30) const;

 private:
  std::string label_;
  uint64_t totalUnits_;
  uint64_t totalBytes_;
  std::string unitName_;
  Mode mode_;
  uint64_t units_ = 0;
  uint64_t bytes_ = 0;
  int quartersShown_ = 0;
  bool finished_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_{};
};

std::string FormatBytes(double bytes);

}  // namespace tamrik::cli
