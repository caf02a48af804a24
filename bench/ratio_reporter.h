// The console report of a benchmark run, followed by one line per pair of benchmarks: a peer's
// median time over ours, so that each run states how far ahead or behind we are. Above 1 ours
// is faster. Both real and CPU time are given: on a machine shared with other work the CPU time
// is the steadier of the two.
#ifndef KORCOMMON_BENCH_RATIO_REPORTER_H_
#define KORCOMMON_BENCH_RATIO_REPORTER_H_

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Only the medians of repeated benchmarks are compared; a benchmark that ran once, or a pair
// with a member that did not run (filtered out), prints no line.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  struct Pair {
    std::string label;
    std::string peer;  // benchmark names as registered, e.g. "BM_Peer/doc"
    std::string ours;
  };

  // Coloured on a terminal only, so that a report piped to a file or a script stays plain
  // text.
  explicit RatioReporter(std::vector<Pair> pairs)
      : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_ColorTabular : OO_Tabular),
        pairs_(std::move(pairs)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
      medians_[name] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const Pair& pair : pairs_) {
      const auto peer = medians_.find(pair.peer);
      const auto ours = medians_.find(pair.ours);
      if (peer == medians_.end() || ours == medians_.end()) continue;
      if (ours->second.real <= 0 || ours->second.cpu <= 0) continue;
      char line[256];
      std::snprintf(line, sizeof line,
                    "ratio %s (%s / %s, medians): real time %.2f, CPU time %.2f\n",
                    pair.label.c_str(), pair.peer.c_str(), pair.ours.c_str(),
                    peer->second.real / ours->second.real, peer->second.cpu / ours->second.cpu);
      GetOutputStream() << line;
    }
  }

 private:
  struct Times {
    double real = 0;
    double cpu = 0;
  };

  std::vector<Pair> pairs_;
  std::map<std::string, Times> medians_;
};

#endif  // KORCOMMON_BENCH_RATIO_REPORTER_H_
