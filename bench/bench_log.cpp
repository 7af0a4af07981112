// bench_log.cpp - one line of the log, into /dev/null and into a pipe that is read as fast as it
// fills.
#include "bench/bench.h"

#include <unistd.h>

#include <stdexcept>
#include <thread>

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
