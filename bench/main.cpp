// SPDX-License-Identifier: Apache-2.0
// main.cpp - olvex_bench: the benchmarks of all stages. bench/run calls it and judges the figures.
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "bench/bench.h"

namespace {

struct Check {
  std::string work;
  std::function<Numbers(const Routines&)> result;
};

std::vector<Check>& checks() {
  static std::vector<Check> all;
  return all;
}

bool same_bits(const Numbers& a, const Numbers& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

// Compares the two libraries, and each of them with itself without the log. Returns the exit code.
int compare_libraries() {
  int failures = 0;
  auto redirection = std::make_unique<StandardOutputTo>("/dev/null");
  for (const Check& check : checks()) {
    const Numbers right = check.result(*libraries()[0].with_log);
    bool same = !right.empty();
    for (const Library& library : libraries()) {
      same = same && same_bits(right, check.result(*library.with_log)) &&
             same_bits(right, check.result(*library.without_log));
    }
    if (!same) {
      ++failures;
      std::fprintf(stderr, "olvex_bench: the libraries differ, or do nothing, in %s\n",
                   check.work.c_str());
    }
  }
  redirection.reset();
  std::printf("%zu kinds of work compared, %d differ\n", checks().size(), failures);
  return failures == 0 ? 0 : 1;
}

}  // namespace

Numbers numbers_of(const olvex::vector<BoxInfo>& boxes) {
  Numbers numbers = {static_cast<double>(boxes.size())};
  for (const BoxInfo& box : boxes) {
    numbers.insert(numbers.end(),
                   {box.x1, box.y1, box.x2, box.y2, box.score, static_cast<double>(box.label)});
    for (const KeyPt_t& point : box.keypts) {
      numbers.insert(numbers.end(), {point.x, point.y, point.score});
    }
  }
  return numbers;
}

void add_check(const std::string& work, std::function<Numbers(const Routines&)> result) {
  checks().push_back({work, std::move(result)});
}

double thread_seconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

StandardOutputTo::StandardOutputTo(int descriptor) : saved_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  dup2(descriptor, STDOUT_FILENO);
}

StandardOutputTo::StandardOutputTo(const char* path) : saved_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  const int file = open(path, O_WRONLY);
  dup2(file, STDOUT_FILENO);
  close(file);
}

StandardOutputTo::~StandardOutputTo() {
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
}

namespace {

int check_or_measure(int argc, char** argv) {
  // The log is buffered as for a file, wherever this program's own output goes.
  static char buffer[4096];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  // The heap keeps what it has, as in a process that has run for a while. With the C library's
  // adapting limits a long list that grows costs several times as much or not, depending on what
  // else was freed before: it is the system's pages that would be measured.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 512 << 20);
  // A camera sets no time zone.
  unsetenv("TZ");
  unsetenv("QK_ALGO_S");
  register_decode();
  register_boxes();
  register_tracking();
  register_log();
  register_run();
  if (argc > 1 && std::strcmp(argv[1], "--check") == 0) {
    if (argc > 2) {
      std::fprintf(stderr, "usage: olvex_bench --check, or options of Google Benchmark (--help)\n");
      return 2;
    }
    return compare_libraries();
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  benchmark::AddCustomContext("compiler", OLVEX_BENCH_COMPILER);
  benchmark::AddCustomContext("flags", OLVEX_BENCH_FLAGS);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const int code = check_or_measure(argc, argv);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      throw std::runtime_error("cannot write to standard output");
    }
    return code;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "olvex_bench: %s\n", error.what());
    return 1;
  }
}
