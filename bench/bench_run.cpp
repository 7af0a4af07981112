// SPDX-License-Identifier: Apache-2.0
// bench_run.cpp - whole frames through ALGO_DET_Run, and the scripted accelerator's part of them; and
// one line of the log, into /dev/null and into a pipe that is read as fast as it fills.
#include "bench/bench.h"

#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "bench/whole_run.h"

namespace {

constexpr int kBoxes = 20;

// The reported boxes of the first frames, in which tracks are made and their histories fill up.
Numbers first_frames(WholeRun& run) {
  Numbers numbers;
  for (int frame = 0; frame < 2 * kMoments; ++frame) {
    const int count = run.frame();
    for (int i = 0; i < count; ++i) {
      const Box_t& box = run.boxes()[static_cast<std::size_t>(i)];
      for (const QV_U32 number : {box.x, box.y, box.width, box.height, box.class_id}) {
        numbers.push_back(number);
      }
      numbers.push_back(box.score);
    }
  }
  return numbers;
}

void time_run(benchmark::State& state, const Routines& routines, WholeRun::Mode mode) {
  const StandardOutputTo redirection("/dev/null");
  WholeRun run(routines, kBoxes, mode);
  if (first_frames(run).empty()) {
    state.SkipWithError("no boxes were reported");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(run.frame());
  }
}

void time_accelerator(benchmark::State& state) {
  const StandardOutputTo redirection("/dev/null");
  WholeRun run(*libraries()[0].without_log, kBoxes, WholeRun::kNormal);
  run.frame();
  for (auto _ : state) {
    run.accelerator_frame();
  }
}

void add_run(const std::string& work, WholeRun::Mode mode) {
  const std::string name = work + "/boxes:" + std::to_string(kBoxes);
  add_pair(name + "/log:null", [mode](benchmark::State& state, const Library& library) {
    time_run(state, *library.with_log, mode);
  });
  add_pair(name + "/log:none", [mode](benchmark::State& state, const Library& library) {
    time_run(state, *library.without_log, mode);
  });
  add_check(name, [mode](const Routines& routines) {
    const StandardOutputTo redirection("/dev/null");
    WholeRun run(routines, kBoxes, mode);
    return first_frames(run);
  });
}

}  // namespace

void register_run() {
  add_run("run", WholeRun::kNormal);
  add_run("run_strict", WholeRun::kStrict);
  benchmark::RegisterBenchmark("run/boxes:20/accelerator", time_accelerator);
}

// ---- A line of the log --------------------------------------------------------------------------

namespace {

// The writing end of a pipe, with a thread at the other end.
class DrainedPipe {
 public:
  DrainedPipe() {
    if (pipe(ends_) != 0) {
      throw std::runtime_error("cannot make a pipe");
    }
    reader_ = std::thread([this] {
      std::vector<char> bytes(1 << 16);
      while (read(ends_[0], bytes.data(), bytes.size()) > 0) {
      }
    });
  }
  ~DrainedPipe() {
    close(ends_[1]);
    reader_.join();
    close(ends_[0]);
  }
  DrainedPipe(const DrainedPipe&) = delete;
  int writing_end() const { return ends_[1]; }

 private:
  int ends_[2];
  std::thread reader_;
};

void log_text(const Routines& routines) {
  routines.log_text();
}

void log_count(const Routines& routines) {
  routines.log_count(20);
}

void add_log(const std::string& work, void (*line)(const Routines&)) {
  add_pair(work + "/to:null", [line](benchmark::State& state, const Library& library) {
    const StandardOutputTo redirection("/dev/null");
    for (auto _ : state) {
      line(*library.with_log);
    }
  });
  add_pair(work + "/to:pipe", [line](benchmark::State& state, const Library& library) {
    const DrainedPipe drained;
    const StandardOutputTo redirection(drained.writing_end());
    for (auto _ : state) {
      line(*library.with_log);
    }
  });
}

}  // namespace

void register_log() {
  add_log("log_text", log_text);
  add_log("log_count", log_count);
}
