// SPDX-License-Identifier: Apache-2.0
// bench_decode.cpp - raw output layers to boxes, and reading the layers as the lower bound of it.
#include "bench/bench.h"

#include <unistd.h>

#include <algorithm>

namespace {

constexpr int kPoints = 17;
constexpr int kFewAndMany[] = {0, 20, 200, kAllCells};

int expected_boxes(const RawScene& scene) {
  return scene.kept == kAllCells ? cell_count(scene.side) : scene.kept;
}

void time_decode(benchmark::State& state, const Routines& routines, const RawScene& scene) {
  RawLayers layers(scene);
  olvex::vector<BoxInfo> boxes;
  decode(routines, layers.info(), boxes);
  if (boxes.size() != static_cast<std::size_t>(expected_boxes(scene))) {
    state.SkipWithError("unexpected number of boxes");
    return;
  }
  for (auto _ : state) {
    decode(routines, layers.info(), boxes);
    benchmark::DoNotOptimize(boxes.data());
  }
}

Numbers decoded_numbers(const Routines& routines, const RawScene& scene) {
  RawLayers layers(scene);
  olvex::vector<BoxInfo> boxes;
  decode(routines, layers.info(), boxes);
  return numbers_of(boxes);
}

void add_decode(const std::string& work, const RawScene& scene) {
  add_pair(work, [scene](benchmark::State& state, const Library& library) {
    time_decode(state, *library.without_log, scene);
  });
  add_check(work, [scene](const Routines& routines) { return decoded_numbers(routines, scene); });
}

std::string kept_text(int kept) {
  return "/kept:" + (kept == kAllCells ? "all" : std::to_string(kept));
}

// ---- Reading alone ------------------------------------------------------------------------------

// One load from each cache line: nothing that looks at all cells can bring in less. Four sums, so
// that no load waits for another; volatile, so that the compiler does not gather them into vectors.
std::uint64_t read_each_line(const Lines& lines) {
  const Line* line = lines.data();
  const Line* const end = line + lines.size();
  const auto word = [](const Line* at) {
    return *reinterpret_cast<const volatile std::uint64_t*>(at->bytes);
  };
  std::uint64_t a = 0, b = 0, c = 0, d = 0;
  for (; end - line >= 4; line += 4) {
    a ^= word(line);
    b ^= word(line + 1);
    c ^= word(line + 2);
    d ^= word(line + 3);
  }
  for (; line < end; ++line) {
    a ^= word(line);
  }
  return a ^ b ^ c ^ d;
}

// All bytes, in wide registers.
#if defined(__x86_64__)
__attribute__((target_clones("avx2", "default")))
#endif
std::uint64_t
read_each_byte(const Lines& lines) {
  typedef std::uint64_t Wide __attribute__((vector_size(32), may_alias));
  Wide sums[2] = {};
  for (const Line& line : lines) {
    const Wide* const halves = reinterpret_cast<const Wide*>(line.bytes);
    sums[0] += halves[0];
    sums[1] += halves[1];
  }
  const Wide sum = sums[0] + sums[1];
  return sum[0] + sum[1] + sum[2] + sum[3];
}

using Read = std::uint64_t (*)(const Lines&);

// Copies of the tensors to go through in turn: one stays in the cache, many do not.
std::vector<std::vector<Lines>> copies_of(const Tensors& tensors, bool cold) {
  const long cache = std::max(sysconf(_SC_LEVEL3_CACHE_SIZE), 8l << 20);
  const std::size_t count = cold ? 2 * static_cast<std::size_t>(cache) / tensors.bytes() + 1 : 1;
  return std::vector<std::vector<Lines>>(count, tensors.lines());
}

struct ScanScene {
  int classes;
  bool cold;
};

void time_scan(benchmark::State& state, const ScanScene& scan, const Routines* routines,
               Read read) {
  RawScene scene;
  scene.classes = scan.classes;
  scene.kept = 0;
  RawLayers tensors(scene);
  std::vector<std::vector<Lines>> copies = copies_of(tensors, scan.cold);
  std::size_t next = 0;
  olvex::vector<BoxInfo> boxes;
  for (auto _ : state) {
    std::vector<Lines>& layers = copies[next];
    next = next + 1 < copies.size() ? next + 1 : 0;
    if (routines != nullptr) {
      tensors.use(layers);
      decode(*routines, tensors.info(), boxes);
      benchmark::DoNotOptimize(boxes.data());
    } else {
      for (const Lines& layer : layers) {
        benchmark::DoNotOptimize(read(layer));
      }
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(tensors.bytes()));
}

void add_floor(const std::string& name, const ScanScene& scan, Read read) {
  benchmark::RegisterBenchmark(name.c_str(), [scan, read](benchmark::State& state) {
    time_scan(state, scan, nullptr, read);
  });
}

void register_scan(const std::string& work, const ScanScene& scan) {
  const std::string name = work + "/classes:" + std::to_string(scan.classes);
  add_pair(name, [scan](benchmark::State& state, const Library& library) {
    time_scan(state, scan, library.without_log, nullptr);
  });
  add_floor(name + "/lines", scan, read_each_line);
  add_floor(name + "/bytes", scan, read_each_byte);
}

// The sigmoids of all boxes alone: one for each side, the score, and each key point.
void time_sigmoids(benchmark::State& state, int kept) {
  Random random(42);
  std::vector<float> logits, scores;
  for (int i = 0; i < kept * (5 + kPoints); ++i) {
    logits.push_back(random.between(-4, 4));
  }
  scores.resize(logits.size());
  for (auto _ : state) {
    std::transform(logits.begin(), logits.end(), scores.begin(), sigmoid);
    benchmark::DoNotOptimize(scores.data());
  }
}

// The boxes with their key points alone: a list that is sized once, and a list of points for each.
void time_lists(benchmark::State& state, int kept) {
  olvex::vector<BoxInfo> boxes;
  for (auto _ : state) {
    boxes.clear();
    boxes.resize(static_cast<std::size_t>(kept), BoxInfo());
    for (BoxInfo& box : boxes) {
      box.keypts.resize(kPoints, KeyPt_t());
    }
    benchmark::DoNotOptimize(boxes.data());
  }
}

void add_part(const std::string& name, void (*time)(benchmark::State&, int), int kept) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [time, kept](benchmark::State& state) { time(state, kept); });
}

}  // namespace

void register_decode() {
  for (const int classes : {3, 80}) {
    for (const QV_IPU_ELEMENT_FORMAT format : {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16}) {
      for (const int kept : kFewAndMany) {
        const std::string name = format == QV_IPU_FORMAT_FP32 ? "decode_fp32" : "decode_int16";
        add_decode(name + "/classes:" + std::to_string(classes) + kept_text(kept),
                   {format, classes, 0, kept, 1});
      }
    }
  }
  for (const int kept : {0, 20, 200}) {
    const std::string work = "decode_keypoints/points:17" + kept_text(kept);
    add_decode(work, {QV_IPU_FORMAT_FP32, 1, kPoints, kept, 1});
    if (kept > 0) {
      add_part(work + "/sigmoids", time_sigmoids, kept);
      add_part(work + "/lists", time_lists, kept);
    }
  }
  for (const int classes : {3, 8, 80}) {
    register_scan("scan", {classes, false});
    register_scan("scan_cold", {classes, true});
  }
  for (const int side : {1, 2, 4, 8}) {
    add_decode("growth_decode/factor:" + std::to_string(side * side),
               {QV_IPU_FORMAT_FP32, 3, 0, 20 * side * side, side});
  }
}
