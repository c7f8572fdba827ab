// A Google Benchmark main that prints, after the usual table, the ratio of
// each of our benchmarks to its peers from the same run.
//
// Name benchmarks "<case>/ours" and "<case>/<peer>" (more name parts may
// follow, e.g. arguments); ratios are ours' time divided by the peer's, so
// below 1.0 means we are faster.
#ifndef ZELKIT3_BENCH_RATIO_REPORTER_H
#define ZELKIT3_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace zk3bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      mTimes[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-60s %-24s %8s\n", "ratio (ours / peer)", "peer", "ratio");
    for (const auto& ours : mTimes) {
      const std::string& name = ours.first;
      const std::string::size_type at = name.find("/ours");
      if (at == std::string::npos) continue;
      const std::string prefix = name.substr(0, at + 1);
      const std::string suffix = name.substr(at + 5);
      for (const auto& peer : mTimes) {
        const std::string& other = peer.first;
        if (other == name || other.compare(0, prefix.size(), prefix) != 0) continue;
        if (other.size() < suffix.size() ||
            other.compare(other.size() - suffix.size(), suffix.size(), suffix) != 0)
          continue;
        const std::string peerName =
            other.substr(prefix.size(), other.size() - prefix.size() - suffix.size());
        if (peerName.find('/') != std::string::npos || peerName.empty()) continue;
        std::printf("%-60s %-24s %8.3f\n", (prefix + "ours" + suffix).c_str(), peerName.c_str(),
                    ours.second / peer.second);
      }
    }
    std::fflush(stdout);
  }

 private:
  std::map<std::string, double> mTimes;
};

}  // namespace zk3bench

#define ZK3_BENCHMARK_MAIN()                                   \
  int main(int argc, char** argv) {                            \
    benchmark::Initialize(&argc, argv);                        \
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
    zk3bench::RatioReporter reporter;                          \
    benchmark::RunSpecifiedBenchmarks(&reporter);              \
    benchmark::Shutdown();                                     \
    return 0;                                                  \
  }

#endif  // ZELKIT3_BENCH_RATIO_REPORTER_H
