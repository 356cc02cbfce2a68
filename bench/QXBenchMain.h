// QXBenchMain.h: the start of every Google Benchmark program in bench/.
#ifndef QXBENCHMAIN_H
#define QXBENCHMAIN_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

// Adds the default run settings unless the caller chose repetitions: three repetitions in random
// order, aggregates only, so that a drift of the machine (other work on the same cores or memory)
// falls on the anchor and on the library alike. Then initialises Google Benchmark; false when an
// argument is not understood.
inline bool QXBenchInitialize(std::vector<char*>& args) {
  bool repetitionsGiven = false;
  for (char* a : args)
    repetitionsGiven |= std::strncmp(a, "--benchmark_repetitions", 23) == 0;
  static char repetitions[] = "--benchmark_repetitions=3";
  static char aggregatesOnly[] = "--benchmark_report_aggregates_only=true";
  static char interleaved[] = "--benchmark_enable_random_interleaving=true";
  if (!repetitionsGiven) {
    args.push_back(repetitions);
    args.push_back(aggregatesOnly);
    args.push_back(interleaved);
  }
  int count = int(args.size());
  benchmark::Initialize(&count, args.data());
  return !benchmark::ReportUnrecognizedArguments(count, args.data());
}

// Passes every run on to the console and keeps, for each benchmark, the median of its repetitions:
// the time per iteration (in the benchmark's own unit) and, when it counts bytes, the bytes per
// second. The key is the benchmark's name, then "/" and its arguments when it has any. Read the
// figures after RunSpecifiedBenchmarks; 0 for a benchmark that did not run.
class QXBenchMedians : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      std::string key = run.run_name.function_name;
      if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
      const auto rate = run.counters.find("bytes_per_second");
      const double bytes = rate == run.counters.end() ? 0 : double(rate->second.value);
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        times_.medians[key] = run.GetAdjustedRealTime();
        rates_.medians[key] = bytes;
      } else if (run.run_type == Run::RT_Iteration) {
        times_.samples[key].push_back(run.GetAdjustedRealTime());
        rates_.samples[key].push_back(bytes);
      }
    }
  }

  double Time(const std::string& key) { return times_.Median(key); }
  double Rate(const std::string& key) { return rates_.Median(key); }

 private:
  // The aggregate median when the repetitions were reported as aggregates, else the median of
  // the single runs.
  struct Figures {
    std::map<std::string, double> medians;
    std::map<std::string, std::vector<double>> samples;
    double Median(const std::string& key) {
      if (const auto m = medians.find(key); m != medians.end()) return m->second;
      std::vector<double>& v = samples[key];
      if (v.empty()) return 0;
      std::sort(v.begin(), v.end());
      return v[v.size() / 2];
    }
  };
  Figures times_, rates_;
};

#endif  // QXBENCHMAIN_H
