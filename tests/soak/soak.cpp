// SPDX-License-Identifier: Apache-2.0
// soak.cpp - olvex_soak: the library over many frames and many lives of a handle, watched for growing
// memory and repeated track ids. crowd.h makes the frames.
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/soak/crowd.h"
#include "video/det/include/det_schedule.h"
#include "video/det/include/olvex_det.h"

namespace {

// What the process, shared libraries included, holds on its heap.
std::size_t live_bytes, peak_bytes;

void* take(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  live_bytes += malloc_usable_size(block);
  peak_bytes = std::max(peak_bytes, live_bytes);
  return block;
}

void give_back(void* block) {
  live_bytes -= malloc_usable_size(block);
  std::free(block);
}

}  // namespace

// clang-format off
void* operator new(std::size_t size) { return take(size); }
void* operator new[](std::size_t size) { return take(size); }
void operator delete(void* block) noexcept { give_back(block); }
void operator delete[](void* block) noexcept { give_back(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { give_back(block); }
void operator delete[](void* block, std::size_t /*size*/) noexcept { give_back(block); }
// clang-format on

namespace {

constexpr std::size_t kMostResidentGrowth = 1 << 20;  // bytes, from the first row to the last
constexpr int kMostLostTimes = 10;                    // of a live track, frames
constexpr std::size_t kMostLiveTracks = (kMostLostTimes + 1) * kMostTracked;
constexpr std::size_t kLongestHistory = 10;

struct Options {
  long long frames = 1000000;
  long long seed = 1;
};

void require(bool holds, const char* what, long long value) {
  if (!holds) {
    throw std::runtime_error(std::string(what) + ": " + std::to_string(value));
  }
}

// Bytes of this process that are in memory.
std::size_t resident() {
  unsigned long size = 0, pages = 0;
  std::FILE* const file = std::fopen("/proc/self/statm", "r");
  const int read = file == nullptr ? 0 : std::fscanf(file, "%lu %lu", &size, &pages);
  require(read == 2, "numbers read from /proc/self/statm", read);
  std::fclose(file);
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Path of a model file, which lasts as long as the process.
std::string make_model() {
  const std::string text = std::string("model_out:zrpcnh\nlib_out:zrpcn\n") + kOfflineModel;
  const int file = memfd_create("model", 0);
  const ssize_t written = write(file, text.data(), text.size());
  require(written == static_cast<ssize_t>(text.size()), "bytes written to a model", written);
  return "/proc/self/fd/" + std::to_string(file);
}

class Soak {
 public:
  Soak(const Options& options, std::FILE* report)
      : options_(options),
        report_(report),
        random_(static_cast<std::uint64_t>(options.seed)),
        crowd_(random_),
        times_(static_cast<std::size_t>(std::min(1000000LL, options.frames / 10)), 1u),
        pts_(0 - static_cast<QV_U64>(options.frames / 2)) {
    network_ = list_network({{}}, kRows);
    network_.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_GRAY, kWidth, kHeight)};
    network_.copy_repeated_frame = false;
    ids_.reserve(kMostLiveTracks);
  }

  // Plays all frames. What is found wrong is thrown.
  void run() {
    // Twice, so that the first row begins with all code in memory.
    for (int i = 0; i < 2; ++i) {
      live(1024);
      heap_at_rest_ = live_bytes;
    }
    lives_ = ids_of_past_lives_ = 0;
    is_warm_ = true;
    std::fputs(
        "| frames | resident, KiB | most heap, KiB | median, us | 99 %, us | track ids | lives |\n"
        "|---:|---:|---:|---:|---:|---:|---:|\n",
        report_);
    const int longest = static_cast<int>(options_.frames / 32);
    while (frames_ < options_.frames) {
      int length = longest;
      while (length > 32 && !random_.one_in(8)) {
        length /= 2;
      }
      live(16 + random_.below(length));
    }
    require(last_resident_ <= first_resident_ + kMostResidentGrowth,
            "bytes that resident memory grew from the first row to the last",
            as_number(last_resident_ - first_resident_));
  }

  std::string place() const {
    return "frame " + std::to_string(frames_) + ", life " + std::to_string(lives_);
  }

 private:
  void live(long long length) {
    ++lives_;
    qv_scripted::record_events(false);
    qv_scripted::add_network(network_);
    ALGO_DET_CreateHandle(&handle_);
    DetectionInfo_t info = {};
    std::snprintf(info.model, sizeof info.model, "%s", model_.c_str());
    info.threshold = 0.3f;
    info.disp_size = {kWidth, kHeight};
    const QV_S32 result = ALGO_DET_InitHandle(handle_, &info);
    require(result == 0, "result of initialisation", result);
    ALGO_DET_SetTracker(handle_, 1, 0);
    is_tracking_ = true;
    is_strict_ = false;
    for (long long i = 0; i < length && frames_ < options_.frames; ++i) {
      if (random_.one_in(128)) {
        change_options();
      }
      frame();
    }
    require(ALGO_DET_DeinitHandle(handle_) == 0, "de-initialisation failed, life", lives_);
    end();
  }

  void frame() {
    DetHandle& det = *static_cast<DetHandle*>(handle_);
    crowd_.step(det.detModel_.output_tensor_vector_);
    const ALGO_Input_t input = {picture_.data(), 0, static_cast<QV_U32>(picture_.size()), ++pts_};
    QV_S32 count = 0;
    const auto begin = std::chrono::steady_clock::now();
    const QV_S32 result = ALGO_DET_Run(handle_, &input, boxes_.data(), &count);
    const auto time = std::chrono::steady_clock::now() - begin;
    require(result == (is_strict_ && !is_tracking_ ? E_ALGO_INVALID_PARAM : E_ALGO_SUCCESS),
            "result", result);
    // Without tracks the stabiliser may put an old box in the place of a hidden one.
    require(count <= (is_tracking_ ? kMostTracked : int{kRows}), "boxes", count);
    require(count == 0 || boxes_[0].pts == pts_, "not the frame's time stamp, box 0 of", count);
    check_tracks(det, result == 0 && is_tracking_ && det.mStableBboxPrams_.stable_bbox == 0);
    if (is_warm_) {
      count_frame(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
    }
  }

  void change_options() {
    const bool on = !random_.one_in(4), filter = on && random_.one_in(3), flag = random_.one_in(2);
    switch (random_.below(5)) {
      case 0:
        ALGO_DET_SetThreshold(handle_, random_.between(0.2f, 0.6f));
        break;
      case 1:
        ALGO_DET_SetTracker(handle_, on, filter);
        is_tracking_ = on || is_strict_;
        break;
      case 2:
        ALGO_DET_SetTracker2(handle_, {on, filter, 0.7f, flag, 0.8f, random_.below(12)});
        is_tracking_ = on;
        break;
      case 3:
        ALGO_DET_SetStrictMode(handle_, {flag});
        is_strict_ = flag;
        is_tracking_ = is_tracking_ || is_strict_;
        break;
      default:
        ALGO_DET_SetStableBox(handle_, flag);
    }
  }

  // Ids grow, no id is used twice, and no list exceeds its bound.
  void check_tracks(const DetHandle& det, bool lists_tracks) {
    const auto* const tracker = det.tracker();
    const olvex::vector<Track>& live = tracker->active_tracks_;
    const std::size_t finished = tracker->finished_tracks_.capacity();
    require(live.capacity() <= 2 * kMostLiveTracks, "live tracks", as_number(live.size()));
    require(finished <= 2 * kMostTracked, "capacity of the list of finished tracks",
            as_number(finished));
    int last = 0;
    for (const Track& track : live) {
      require(track.id > last, "track ids do not grow", track.id);
      require(track.id >= next_id_ || std::binary_search(ids_.begin(), ids_.end(), track.id),
              "the id of a track that had ended came again", track.id);
      require(track.lost_times <= kMostLostTimes, "frames without a live track", track.lost_times);
      require(track.boxes.capacity() <= 2 * kLongestHistory, "boxes in a history",
              as_number(track.boxes.size()));
      last = track.id;
    }
    unsigned long long reported = 0;
    for (std::size_t i = 0; lists_tracks && i < det.mLastOutput_.size(); ++i) {
      const unsigned long long id = det.mLastOutput_[i].track_id;
      require(reported < id && id < static_cast<unsigned long long>(tracker->track_id_),
              "reported ids do not grow", static_cast<long long>(id));
      reported = id;
    }
    ids_.clear();
    for (const Track& track : live) {
      ids_.push_back(track.id);
    }
    next_id_ = tracker->track_id_;
  }

  static long long as_number(std::size_t value) { return static_cast<long long>(value); }

  // What is left after a handle was released.
  void end() {
    require(!qv_scripted::device_is_up(), "the device stayed up", lives_);
    for (const std::string& violation : qv_scripted::violations()) {
      require(false, violation.c_str(), lives_);
    }
    qv_scripted::reset();
    ids_of_past_lives_ += next_id_ - 1;
    next_id_ = 1;
    ids_.clear();
    require(!is_warm_ || live_bytes <= heap_at_rest_, "bytes more on the heap than at first",
            as_number(live_bytes - heap_at_rest_));
  }

  void count_frame(long long nanoseconds) {
    times_[row_frames_] = static_cast<uint32_t>(std::min(nanoseconds, 0xffffffffLL));
    ++frames_;
    if (++row_frames_ == times_.size()) {
      finish_row();
    }
  }

  uint32_t time_at_percent(std::size_t percent) {
    const auto place =
        times_.begin() + static_cast<std::ptrdiff_t>((times_.size() - 1) * percent / 100);
    std::nth_element(times_.begin(), place, times_.end());
    return *place;
  }

  void finish_row() {
    last_resident_ = resident();
    first_resident_ = frames_ == as_number(row_frames_) ? last_resident_ : first_resident_;
    std::fprintf(report_, "| %lld | %zu | %zu | %.1f | %.1f | %lld | %lld |\n", frames_,
                 last_resident_ / 1024, (peak_bytes - heap_at_rest_) / 1024,
                 time_at_percent(50) / 1e3, time_at_percent(99) / 1e3,
                 ids_of_past_lives_ + next_id_ - 1, lives_);
    row_frames_ = 0;
    peak_bytes = live_bytes;
  }

  const Options options_;
  std::FILE* const report_;
  Random random_;
  Crowd crowd_;
  std::vector<uint32_t> times_;  // of the row's frames
  QV_U64 pts_;                   // passes its largest value in the middle of the run
  const std::string model_ = make_model();
  qv_scripted::Network network_;
  std::vector<unsigned char> picture_ = std::vector<unsigned char>(kWidth * kHeight);
  std::vector<Box_t> boxes_ = std::vector<Box_t>(ALGO_DET_MAX_BOXES);
  void* handle_ = nullptr;
  bool is_tracking_ = false, is_strict_ = false;
  std::vector<int> ids_;  // of the frame before, and the one that was to come next
  int next_id_ = 1;
  bool is_warm_ = false;
  long long frames_ = 0, lives_ = 0, ids_of_past_lives_ = 0;
  std::size_t row_frames_ = 0, heap_at_rest_ = 0;
  std::size_t first_resident_ = 0, last_resident_ = 0;
};

const char kUsage[] =
    "usage: olvex_soak [--frames N] [--seed S]\n"
    "Runs the library over N frames (1000 to 1000000000, default 1000000) on the scripted\n"
    "accelerator and watches memory and track ids. Prints a row for each million frames, or each\n"
    "tenth of a shorter run. Exit codes: 0 all is well, 1 a check failed, 2 wrong usage.\n";

bool parse(int argc, char** argv, Options* options) {
  bool is_right = argc % 2 == 1;
  for (int i = 1; i < argc && is_right; i += 2) {
    const std::string name = argv[i];
    char* end = argv[i];
    (name == "--frames" ? options->frames : options->seed) = std::strtoll(argv[i + 1], &end, 10);
    is_right = (name == "--frames" || name == "--seed") && end != argv[i + 1] && *end == 0;
  }
  return is_right && options->frames >= 1000 && options->frames <= 1000000000 && options->seed >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  // The report is written to standard output; the library's log is not shown.
  std::FILE* const report = fdopen(dup(STDOUT_FILENO), "w");
  setvbuf(report, nullptr, _IOLBF, BUFSIZ);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::perror("/dev/null");
    return 2;
  }
  Soak soak(options, report);
  try {
    soak.run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "olvex_soak: %s: %s (seed %lld)\n", soak.place().c_str(), error.what(),
                 options.seed);
    return 1;
  }
  const bool is_written = std::ferror(report) == 0;
  if (std::fclose(report) != 0 || !is_written) {
    std::fprintf(stderr, "olvex_soak: the report cannot be written\n");
    return 1;
  }
  return 0;
}
