// bench_run.cpp - whole frames through ALGO_DET_Run, and the scripted accelerator's part of them.
#include "bench/bench.h"

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
