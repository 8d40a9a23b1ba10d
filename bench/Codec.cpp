// The codec's share of one exchange of the input service: build the 7-byte request, check
// the 16-byte answer and decode its 9 data bytes into the host's values, as GenerateService
// and AnswerReception do around the transfers.
#include "Codec.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

#include "protocol/Codec.h"

namespace tamrik::bench {

namespace {

namespace p = tamrik::protocol;

constexpr uint32_t kServiceProcessIn = 0x003;

struct InputAnswer {
  uint8_t frame[16];
  InputAnswer() {
    const uint8_t head[5] = {p::kStartByte, 0x03, 0x40, 9, 0};
    std::memcpy(frame, head, sizeof head);
    for (int i = 0; i < 9; ++i) frame[5 + i] = uint8_t(0x11 * (i + 1));
    p::ComputeCheckValue(frame, sizeof frame);
  }
};

void BM_CodecExchange(benchmark::State& state) {
  const InputAnswer answer;
  uint8_t request[64];
  int32_t values[256];
  int32_t count = 0;
  for (auto _ : state) {
    const size_t length = p::BuildRequest(kServiceProcessIn, nullptr, nullptr, request, sizeof request);
    benchmark::DoNotOptimize(length);
    benchmark::DoNotOptimize(request);
    const p::AnswerHeader header = p::ParseHeader(answer.frame + 1);
    const bool good = p::VerifyCheckValue(answer.frame, header.FrameLength());
    const uint32_t result = p::DecodeAnswer(kServiceProcessIn, answer.frame, header.FrameLength(), values,
                                            sizeof values / sizeof values[0], &count);
    benchmark::DoNotOptimize(good);
    benchmark::DoNotOptimize(result);
    benchmark::DoNotOptimize(values);
    if (length != 7 || !good || result != 0 || count != 9) state.SkipWithError("codec gave a wrong result");
  }
}
BENCHMARK(BM_CodecExchange);

void BM_CodecBuildRequest(benchmark::State& state) {
  uint8_t request[64];
  for (auto _ : state) {
    const size_t length = p::BuildRequest(kServiceProcessIn, nullptr, nullptr, request, sizeof request);
    benchmark::DoNotOptimize(length);
    benchmark::DoNotOptimize(request);
  }
}
BENCHMARK(BM_CodecBuildRequest);

void BM_CodecCheckAndDecode(benchmark::State& state) {
  const InputAnswer answer;
  int32_t values[256];
  int32_t count = 0;
  for (auto _ : state) {
    const bool good = p::VerifyCheckValue(answer.frame, sizeof answer.frame);
    const uint32_t result =
        p::DecodeAnswer(kServiceProcessIn, answer.frame, sizeof answer.frame, values, 256, &count);
    benchmark::DoNotOptimize(good);
    benchmark::DoNotOptimize(result);
    benchmark::DoNotOptimize(values);
  }
}
BENCHMARK(BM_CodecCheckAndDecode);

class Collector : public benchmark::BenchmarkReporter {
 public:
  explicit Collector(std::vector<CodecResult>* out) : out_(out) {}
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        out_->push_back({run.benchmark_name() + " (" + run.error_message + ")", -1, 0});
        continue;
      }
      // Reported in the default unit, nanoseconds.
      out_->push_back({run.benchmark_name(), run.GetAdjustedCPUTime(), static_cast<long long>(run.iterations)});
    }
  }

 private:
  std::vector<CodecResult>* out_;
};

}  // namespace

std::vector<CodecResult> RunCodecBenchmarks(const std::string& filter, double minSeconds) {
  std::string minTime = "--benchmark_min_time=" + std::to_string(minSeconds);
  std::string program = "tamrik-bench";
  std::vector<char*> args = {program.data(), minTime.data()};
  int argc = int(args.size());
  benchmark::Initialize(&argc, args.data());
  std::vector<CodecResult> results;
  Collector collector(&results);
  benchmark::RunSpecifiedBenchmarks(&collector, filter.empty() ? std::string(".") : filter);
  return results;
}

}  // namespace tamrik::bench
