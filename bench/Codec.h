// CPU cost of the codec alone, measured with Google Benchmark.
#pragma once

#include <string>
#include <vector>

namespace tamrik::bench {

struct CodecResult {
  std::string name;
  double cpuNs = 0;  // CPU time per iteration
  long long iterations = 0;
};

// Runs the codec benchmarks (filter: a Google Benchmark regular expression, empty for all)
// quietly and returns their results.
std::vector<CodecResult> RunCodecBenchmarks(const std::string& filter, double minSeconds);

}  // namespace tamrik::bench
