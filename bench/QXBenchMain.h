// QXBenchMain.h: the start of every Google Benchmark program in bench/.
#ifndef QXBENCHMAIN_H
#define QXBENCHMAIN_H

#include <benchmark/benchmark.h>

#include <cstring>
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

#endif  // QXBENCHMAIN_H
