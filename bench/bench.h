// SPDX-License-Identifier: Apache-2.0
// bench.h - what the benchmark sources share. Each bench_*.cpp registers the benchmarks of one
// stage and the comparisons that belong to them; main.cpp calls them.
//
// A name is the work, its measures as name:value, and last who does it: "plain" and "shipped" are
// the two libraries, anything else is what one of them is compared with. bench/requirements.py
// pairs them.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/scenes.h"

void register_decode();
void register_boxes();
void register_tracking();
void register_log();
void register_run();

// Registers one benchmark by each library: body(state, library).
template <class Body>
void add_pair(const std::string& work, Body body) {
  for (const Library& library : libraries()) {
    benchmark::RegisterBenchmark(
        (work + "/" + library.name).c_str(),
        [body, &library](benchmark::State& state) { body(state, library); });
  }
}

// What a library makes of a benchmark's input, for the comparison of both before anything is timed.
using Numbers = std::vector<double>;
// The number of boxes and all that is in them.
Numbers numbers_of(const olvex::vector<BoxInfo>& boxes);
void add_check(const std::string& work, std::function<Numbers(const Routines&)> result);

// Processor time of this thread in seconds.
double thread_seconds();

// Times work(list) on fresh copies of the lists in turn; copies are made and freed outside of the
// timing, a batch at a time. The benchmark must be registered with UseManualTime().
template <class Work>
void time_on_copies(benchmark::State& state, const std::vector<olvex::vector<BoxInfo>>& lists,
                    Work work) {
  // As many copies as a part of the second-level cache holds, so that they are warm like a
  // decoder's.
  const std::size_t bytes = lists[0].size() * sizeof(BoxInfo) + 1;
  const std::size_t batch = std::clamp<std::size_t>(256 * 1024 / bytes, 1, 256);
  std::size_t next = 0;
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(batch))) {
    std::vector<olvex::vector<BoxInfo>> copies;
    for (std::size_t i = 0; i < batch; ++i) {
      copies.push_back(lists[next++ % lists.size()]);
    }
    const double start = thread_seconds();
    for (olvex::vector<BoxInfo>& copy : copies) {
      work(copy);
    }
    state.SetIterationTime(thread_seconds() - start);
  }
}

// While an object exists, standard output is sent elsewhere.
class StandardOutputTo {
 public:
  explicit StandardOutputTo(int descriptor);
  explicit StandardOutputTo(const char* path);
  ~StandardOutputTo();
  StandardOutputTo(const StandardOutputTo&) = delete;

 private:
  int saved_;
};

#endif  // BENCH_BENCH_H
