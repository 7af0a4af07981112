// SPDX-License-Identifier: Apache-2.0
// failure_sweep_test.cpp - whole lives of a handle, with everything switched on, in which each call
// of the platform, each call to the system and each allocation fails in turn, once and for good.
// Prints how many points failed. tests/api/failing_calls.h says how, det_test.h has the fixture.
#include "tests/api/failing_calls.h"

#include <fnmatch.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <map>
#include <utility>

#include "tests/api/det_test.h"

// A handle that failed is freed with its mutex locked. The thread sanitizer continues counting it as
// held, and there is an end to the locks that it can count.
extern "C" const char* __tsan_default_options() {
  return "detect_deadlocks=0";
}

namespace {

using failing_calls::fault;

enum Step { kCreate, kInit, kFirstFrame = 8, kRelease = kFirstFrame + 20, kEnd, kSteps };
constexpr int kFramesAfter = 3;   // that a handle runs after its failure
constexpr int kFramesOfNext = 6;  // of the life that follows: enough to tell what moves

bool is_frame(int step) {
  return step >= kFirstFrame && step < kRelease;
}

constexpr QV_S32 kCode = INT_MAX;   // stands for the code with which the call failed
constexpr QV_S32 kThrew = INT_MIN;  // std::bad_alloc came out
constexpr QV_S32 kClosed = qv_scripted::kNoChannel;
constexpr QV_S32 kNoBuffers = qv_scripted::kOutOfOrder;

// Of the platform's functions, in the order in which they are declared.
const char kLetters[] = "DdSCcTOPIF";

// What a failure leads to.
struct Row {
  std::string call;
  std::string when;   // pattern of the point of failure, such as "init file once *"
  QV_S32 result = 0;  // of the step in which the call fails
  QV_S32 next = 0;    // of the next frame
  QV_S32 later = 0;   // of the frames behind it
  // The platform's calls in that step, by their letters, with "!" behind what was made to fail and
  // "?" behind what fails by itself; "|" between several possibilities. Empty: those of a life
  // without a failure, apart from the "!".
  std::string calls = "";
  std::string end = "";  // the same for the end of the life
  // Pattern of that step's messages, each with "|" behind it. %d and %x are the code.
  std::string messages = "";
};

const std::string kInitFailed = "the handle init failed|";
const std::string kNoDevice = "QV_IPU_CreateDevice failed(error code = %d)|" + kInitFailed;
const std::string kNotOpened = "det model * load failed(4)!|" + kInitFailed;
const std::string kNoModel = "please call cal_variable_size before call model_init!|" + kNotOpened;
const std::string kNoFile = "failed to get_model_ptr: *|" + kNoModel;
const std::string kNoSize = "get Model variable buffer size failed! model ";
const std::string kNoChannel = "create ipu channel failed! (error code = %x)|" + kNotOpened;
const std::string kNoDescription = "fail to get network description %d|" + kNotOpened;
const std::string kNoFrame = "model invoke is failed|detect error (error code = %d)|";
const std::string kNotInvoked = "QV_IPU_Invoke error, ret\\[0x%x]|" + kNoFrame;
const std::string kNoDump = "save_buffer_to_file failed!|detect error (error code = 11)|";
const std::string kNotLocked = "lock mutex failed(return %d)|unlock mutex failed(return 1)|";

// Of several rows that fit, the first one.
const std::vector<Row> kRows = {
    {"GetOfflineModeStaticInfo", "* file once *", 3, 6, 6, "S!D", "-",
     kNoSize + "path:*|" + kNoModel},
    {"GetOfflineModeStaticInfo", "* file *", kCode, 6, 6, "S!D!", "-",
     kNoSize + "path:*|" + kNoDevice},
    {"GetOfflineModeStaticInfo", "* once *", 0, 0, 0, "", "", kNoSize + "buffer|"},
    {"GetOfflineModeStaticInfo", "*", kCode, 6, 6, "S!D!", "-", kNoSize + "buffer|" + kNoDevice},
    {"CreateDevice", "*", kCode, 6, 6, "SD!", "-", kNoDevice},
    {"CreateCHN", "* once *", 3, 6, 6, "SDC!d", "-", kNoChannel},
    {"CreateCHN", "*", 3, 6, 6, "SDC!d!", "-", kNoChannel},
    {"GetInOutTensorDesc", "* once *", 3, 6, 6, "SDCT!cd", "-", kNoDescription},
    {"GetInOutTensorDesc", "*", 3, 6, 6, "SDCT!c!d!", "-", kNoDescription},
    {"GetOutputTensors", "* once *", 0, kNoBuffers, kClosed, "", "P?c?d"},
    {"GetOutputTensors", "*", 0, kNoBuffers, kNoBuffers, "", "P!c!d!"},
    {"FlushInvCache", "* once *"},
    {"FlushInvCache", "*", kCode, kCode, kCode, "F!I!c!", "P!c!d!", kNotInvoked},
    {"Invoke", "* once *", kCode, kClosed, kClosed, "FI!c", "P?c?d", kNotInvoked},
    {"Invoke", "*", kCode, kCode, kCode, "FI!c!", "P!c!d!", kNotInvoked},
    {"PutOutputTensors", "* once *"},
    {"PutOutputTensors", "*", 0, 0, 0, "P!c!d!"},
    {"DestroyCHN", "* once *"},
    {"DestroyCHN", "*", 0, 0, 0, "Pc!d!"},
    {"DestroyDevice", "*"},
    {"open", "init *", 3, 6, 6, "D", "-", "open error: *|fail to open model *|" + kNoFile},
    {"open", "* once *", 11, 0, 0, "", "", "fail to open :*|" + kNoDump},
    {"open", "*", 11, 11, 11, "", "", "fail to open :*|" + kNoDump},
    {"fstat", "*", 3, 6, 6, "D", "-", "fstat error: *|fail to get stat of *|" + kNoFile},
    {"mmap", "*", 3, 6, 6, "D", "-", "failed to do mmap: *|" + kNoFile},
    {"munmap", "*"},
    {"close", "*"},
    {"write", "* once *", 11, 0, 0, "", "", "failed to write data into *|" + kNoDump},
    {"write", "*", 11, 11, 11, "", "", "failed to write data into *|" + kNoDump},
    {"short write", "*"},
    {"fopen", "*", 0, 0, 0, "", "", "fopen: *|"},
    {"fgets", "*"},
    {"mutex init", "*", 0, 0, 0, "", "", "init mutex failed(return %d)|"},
    {"mutex lock", "*", 0, 0, 0, "", "", kNotLocked},
    {"mutex unlock", "*", 0, 0, 0, "", "", "unlock mutex failed(return %d)|"},
    {"mutex destroy", "*", 0, 0, 0, "", "", "destroy mutex failed(return %d)|"},
    {"new", "create *", kThrew},
    {"new", "init *", kThrew, 6, 6, "-|SDCTcd|SDCTOcd", "-"},
    {"new", "* once *", kThrew},
    {"new", "*", kThrew, kThrew, kThrew},
};

struct Point {
  std::string call;  // of the system; kPlatform: any of its calls
  bool is_from_file = true;
  bool is_for_good = false;
  bool is_kept = false;  // a handle that failed is initialised again, not freed
  int code = 0;
  int n = 0;
};
const char kPlatform[] = "platform";

std::string words_of(const Point& point, int step) {
  const char* name = step == kCreate ? "create"
                     : step == kInit ? "init"
                     : step == kEnd  ? "end"
                                     : "";
  return std::string(name) + (point.is_from_file ? " file" : " buffer") +
         (point.is_for_good ? " for good" : " once") + (point.is_kept ? " kept" : " freed");
}

bool matches(const std::string& text, const std::string& pattern) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

const Row& row_of(const std::string& call, const std::string& words) {
  return *std::find_if(kRows.begin(), kRows.end() - 1, [&](const Row& row) {
    return row.call == call && matches(words, row.when);
  });
}

// What came of one step.
struct Outcome {
  bool is_made = false;
  QV_S32 result = 0;
  int first_call = 0, end_call = 0;  // of the platform's calls in the life
  std::string messages, boxes;
};
struct Life {
  int failing = kSteps;  // the step in which a call failed; kSteps: none
  std::vector<qv_scripted::Event> events;
  std::vector<Outcome> steps = std::vector<Outcome>(kSteps);
  Outcome& operator[](int step) { return steps[static_cast<std::size_t>(step)]; }
  const Outcome& operator[](int step) const { return steps[static_cast<std::size_t>(step)]; }
};

// Small frames, as each is dumped.
constexpr QV_U32 kWidth = 64;
constexpr QV_U32 kHeight = 32;

// Something with its confirming box moves, and something else stands still.
std::vector<Detections> scene() {
  std::vector<Detections> frames;
  for (int i = 0; i < kRelease - kFirstFrame; ++i) {
    const float x = static_cast<float>(2 * i);
    frames.push_back(
        {{x, 4, x + 16, 20, 0.9f, 0}, {x + 8, 4, x + 24, 20, 0.8f, 6}, {40, 24, 48, 28, 0.6f, 0}});
  }
  return frames;
}

// Of what was printed, what was logged as an error and what has no header.
std::string messages_of(const std::string& text) {
  const std::string error = "DLA_ERROR:, LINE: ", end = ". ";
  std::string messages;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t at = line.find(error);
    if (at != std::string::npos) {
      messages += line.substr(line.find(end, at) + end.size()) + "|";
    } else if (!line.empty() && line[0] != '[' && line.find("libolvex_det release") != 0) {
      messages += line + "|";
    }
  }
  return messages;
}

std::string replaced(std::string text, const std::string& part, const std::string& by) {
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at)) {
    text.replace(at, part.size(), by);
  }
  return text;
}

class FailureSweep : public PublicApi {
 protected:
  void SetUp() override {
    PublicApi::SetUp();
    deinit();
    network_ = list_network(scene(), 8, "model_out:zrpcnh;lib_out:zrpcn");
    network_.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_GRAY, kWidth, kHeight)};
    frame_.resize(kWidth * kHeight);
    model_ = write_model("model_out:zrpcnh\nlib_out:zrpcn\n");
    // Where files cost little.
    dumps_ = (access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : testing::TempDir()) + "olvex_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(&dumps_[0]));
    setenv("QK_ALGO_S", write_file("dump.ini", "[SET_ENV]\nQK_ALGO_I=" + dumps_).c_str(), 1);
    lowest_free_ = lowest_free_file();
    printed_ = open_memstream(&text_, &text_size_);
    for (const bool is_from_file : {false, true}) {
      Life& life = undisturbed_[is_from_file] = live_undisturbed(is_from_file, kRelease);
      EXPECT_EQ("/config/dla/ipu_firmware.bin", life.events[1].path);
    }
    ASSERT_NE("", undisturbed_[0][kFirstFrame + kFramesOfNext - 1].boxes);
  }

  void TearDown() override {
    unsetenv("QK_ALGO_S");
    std::filesystem::remove_all(dumps_);
    std::fclose(printed_);
    std::free(text_);
    PublicApi::TearDown();
    std::printf("points of failure:");
    for (const auto& [call, count] : points_) {
      std::printf(" %s %d", call.c_str(), count);
    }
    std::printf("\n");
  }

  // Lives with this failure and checks what comes of it. False when it is behind the last call.
  bool fail_at(const Point& point) {
    const std::vector<qv_scripted::Event>& calls = undisturbed_[point.is_from_file].events;
    const std::size_t n = static_cast<std::size_t>(point.n);
    const bool is_platform = point.call == kPlatform;
    if (is_platform && n > calls.size()) {
      return false;
    }
    set_faults(point);
    const Life life = live(point, kRelease);
    // A life that fails without a code differs in the two only while it is initialised.
    if (life.failing == kSteps || (point.call == "new" && point.is_kept && life.failing > kInit)) {
      return false;
    }
    const std::string call = is_platform ? function_name(calls[n - 1].function) : point.call;
    const std::string words = words_of(point, life.failing);
    SCOPED_TRACE(call + ", call " + std::to_string(point.n) + ", " + words);
    ++points_[call];
    const Row& row = row_of(call, words);
    check_steps(point, life, row);
    check_failure(point, life, row);
    if (call == "Invoke" || call == "GetOutputTensors") {
      allow_violation("is closed");
      allow_violation("never handed out");
    }
    check_violations();
    live_undisturbed(point.is_from_file, kFramesOfNext);
    EXPECT_EQ(0, failing_calls::mappings);
    EXPECT_EQ(0, failing_calls::allocations);
    EXPECT_EQ(lowest_free_, lowest_free_file());
    std::filesystem::remove_all(dumps_);
    std::filesystem::create_directory(dumps_);
    return !HasFailure();
  }

  std::map<std::string, int> points_;  // tried, by the call that failed
  std::string model_;

 private:
  static int lowest_free_file() {
    const int file = dup(1);
    close(file);
    return file;
  }

  void set_faults(const Point& point) {
    qv_scripted::reset();
    qv_scripted::add_network(network_);
    fault = {point.call, point.n, point.is_for_good, point.code, 0, 0};
    // A life has fewer calls.
    const int last = point.is_for_good ? 200 : point.n;
    for (int n = point.n; n <= last && point.call == kPlatform; ++n) {
      qv_scripted::fail_call_overall(n, point.code);
    }
  }

  Life live_undisturbed(bool is_from_file, int frames) {
    Point none;
    none.is_from_file = is_from_file;
    set_faults(none);
    const Life life = live(none, frames);
    check_steps(none, life, Row());
    check_violations();
    return life;
  }

  // A life of the handle, or of a new one. After a failure it runs some frames more.
  Life live(const Point& point, int frames) {
    Life life;
    for (int step = handle_ == nullptr ? kCreate : kInit; step < kSteps && !HasFailure(); ++step) {
      const bool is_over = step > std::max(life.failing, kFirstFrame - 1) + kFramesAfter;
      const bool is_kept = point.is_kept && life[kInit].result != 0;
      if ((is_frame(step) && (step >= kFirstFrame + frames || is_over)) ||
          (step > kCreate && handle_ == nullptr) || (step == kEnd && is_kept)) {
        continue;
      }
      make(step, point, life);
    }
    life.events = qv_scripted::events();
    return life;
  }

  void make(int step, const Point& point, Life& life) {
    Outcome& outcome = life[step];
    outcome.first_call = qv_scripted::call_count();
    if (step == kInit) {
      map_buffer(point.is_from_file);
    }
    outcome.is_made = true;
    outcome.result = watched(step);
    outcome.end_call = qv_scripted::call_count();
    outcome.messages = messages_of(std::string(text_, text_size_));
    const bool platform_failed = point.call == kPlatform && outcome.end_call >= point.n;
    if (life.failing == kSteps && (fault.failed > 0 || platform_failed)) {
      life.failing = step;
    }
    if (step == kInit && !point.is_from_file) {
      // A buffer with which no channel was tried stays the caller's.
      const bool is_left = point.n > 0 && outcome.result == point.code;
      EXPECT_EQ(is_left ? 0 : -1, std::exchange(failing_calls::mappings, 0));
      munmap(buffer_.model_buffer, is_left ? sizeof kOfflineModel : 0);
    }
    // Out of memory, a handle may keep its mapping until it is freed.
    if (life[kInit].result != kThrew) {
      EXPECT_EQ(0, failing_calls::mappings);
    }
    if (is_frame(step)) {
      note_boxes(outcome);
    }
    if (handle_ != nullptr) {
      check_mutex(life[kInit].result);
    }
  }

  // It has to be a mapping, as the library unmaps it.
  void map_buffer(bool is_from_file) {
    buffer_.model_buffer = nullptr;
    if (!is_from_file) {
      buffer_.model_buffer = mmap(nullptr, sizeof kOfflineModel, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      std::memcpy(buffer_.model_buffer, kOfflineModel, sizeof kOfflineModel);
    }
  }

  QV_S32 watched(int step) {
    std::FILE* const out = stdout;
    std::FILE* const err = stderr;
    std::rewind(printed_);
    stdout = stderr = printed_;
    failing_calls::watching = true;
    QV_S32 result = kThrew;
    try {
      result = step < kFirstFrame ? beginning_[step]()
               : is_frame(step)   ? make_frame()
               : step == kRelease ? ALGO_DET_ReleaseHandle(handle_)
                                  : deinit();
    } catch (const std::bad_alloc&) {
    }
    failing_calls::watching = false;
    stdout = out;
    stderr = err;
    std::fflush(printed_);
    return result;
  }

  QV_S32 make_frame() {
    std::memset(boxes_.data(), kUntouched, boxes_.size() * sizeof(Box_t));
    count_ = kUntouched;
    return run();
  }

  static std::string calls_of(const Life& life, int step, QV_S32 code) {
    std::string text;
    for (int i = life[step].first_call; i < life[step].end_call; ++i) {
      const qv_scripted::Event& event = life.events[static_cast<std::size_t>(i)];
      text += kLetters[static_cast<int>(event.function)];
      text += event.result == 0 ? "" : event.result == code ? "!" : "?";
    }
    return text.empty() ? "-" : text;
  }

  // Of a frame that fails nothing is written.
  void note_boxes(Outcome& outcome) const {
    const std::string all(reinterpret_cast<const char*>(boxes_.data()),
                          boxes_.size() * sizeof(Box_t));
    if (outcome.result == 0) {
      outcome.boxes = all.substr(0, static_cast<std::size_t>(count_) * sizeof(Box_t));
    } else {
      EXPECT_EQ(kUntouched, count_);
      EXPECT_EQ(std::string::npos, all.find_first_not_of(kUntouched));
    }
  }

  // It stays locked behind an initialisation that returned a failure, and else never.
  void check_mutex(QV_S32 initialised) {
    const bool stays_locked = initialised != 0 && initialised != kThrew;
    EXPECT_EQ(stays_locked, pthread_mutex_trylock(&det().detMutex_) != 0);
    if (!stays_locked) {
      pthread_mutex_unlock(&det().detMutex_);
    }
  }

  static QV_S32 expected_result(const Row& row, int step, int failing) {
    if (step < failing || (step > failing && !is_frame(step))) {
      return 0;
    }
    return step == failing                               ? row.result
           : step == std::max(failing + 1, +kFirstFrame) ? row.next
                                                         : row.later;
  }

  void expect_calls(const std::string& expected, const Point& point, const Life& life,
                    int step) const {
    const std::string calls = calls_of(life, step, point.code);
    if (expected.empty()) {
      EXPECT_EQ(calls_of(undisturbed_[point.is_from_file], step, 0), replaced(calls, "!", ""));
    } else {
      EXPECT_TRUE(contains("|" + expected + "|", "|" + calls + "|")) << expected << "\n" << calls;
    }
  }

  void check_steps(const Point& point, const Life& life, const Row& row) const {
    const bool is_harmless = row.result == 0 && row.next == 0 && row.later == 0;
    const Life& undisturbed = undisturbed_[point.is_from_file];
    for (int step = 0; step < kSteps; ++step) {
      const Outcome& outcome = life[step];
      const QV_S32 result = expected_result(row, step, life.failing);
      // Without memory some options can be set and others not.
      if (outcome.is_made && (row.later != kThrew || step < life.failing || is_frame(step))) {
        EXPECT_EQ(result == kCode ? point.code : result, outcome.result) << "step " << step;
      }
      if (undisturbed[step].is_made && outcome.is_made && (step < life.failing || is_harmless)) {
        EXPECT_EQ(undisturbed[step].boxes, outcome.boxes) << "step " << step;
      }
      EXPECT_EQ("", step < life.failing ? outcome.messages : "");
    }
  }

  void check_failure(const Point& point, const Life& life, const Row& row) const {
    expect_calls(row.calls, point, life, life.failing);
    char hexadecimal[16];
    std::snprintf(hexadecimal, sizeof hexadecimal, "%x", static_cast<unsigned>(point.code));
    const std::string messages =
        replaced(replaced(row.messages, "%d", std::to_string(point.code)), "%x", hexadecimal);
    const std::string& logged = life[life.failing].messages;
    EXPECT_TRUE(matches(logged, messages)) << logged;
    EXPECT_EQ(count_of(messages, "|"), count_of(logged, "|")) << logged;
    if (life.failing != kEnd && life[kEnd].is_made) {
      expect_calls(row.end, point, life, kEnd);
      EXPECT_EQ(
          life[kInit].result != 0,
          contains(life[kEnd].messages, "no need to deinit handle: det handle is not inited"));
    }
  }

  static constexpr char kUntouched = 0x5a;

  const std::function<QV_S32()> beginning_[kFirstFrame] = {
      [this] { return ALGO_DET_CreateHandle(&handle_); },
      [this] {
        return buffer_.model_buffer == nullptr ? init_from_file(model_)
                                               : ALGO_DET_InitHandle2(handle_, &buffer_);
      },
      [this] { return ALGO_DET_GetInputAttr(handle_, &attributes_); },
      [this] { return ALGO_DET_SetThreshold(handle_, 0.25f); },
      [this] { return ALGO_DET_SetTracker(handle_, 1, 1); },
      [this] {
        return ALGO_DET_SetTracker2(handle_, {1, 1, 0.f, 1, 0.9f, 1});
      },
      [this] { return ALGO_DET_SetStableBox(handle_, 1); },
      [this] { return ALGO_DET_SetStrictMode(handle_, {1}); }};
  qv_scripted::Network network_;
  int lowest_free_ = 0;
  std::string dumps_;
  DetectionInfo2_t buffer_ = {nullptr, sizeof kOfflineModel - 1, 0.f, {kNetWidth, kNetHeight}, 0};
  InputAttr_t attributes_ = {};
  std::FILE* printed_ = nullptr;  // what the library prints becomes the text
  char* text_ = nullptr;
  std::size_t text_size_ = 0;
  Life undisturbed_[2];  // from a buffer, from a file
};

TEST_F(FailureSweep, every_call_once_and_for_good) {
  const char* const kCalls[] = {kPlatform,    "new",          "open",         "close",
                                "fopen",      "fgets",        "fstat",        "mmap",
                                "munmap",     "write",        "short write",  "mutex init",
                                "mutex lock", "mutex unlock", "mutex destroy"};
  for (const char* call : kCalls) {
    for (int variant = 0; variant < 8; ++variant) {
      Point point = {call, (variant & 1) != 0, (variant & 2) != 0, (variant & 4) != 0, 0, 0};
      point.code = call == kPlatform ? (point.is_kept ? -7 : 0x51) : (point.is_kept ? EINTR : EIO);
      do {
        ++point.n;
      } while (fail_at(point));
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_FALSE(is_mapped(model_)) << call;
  }
  EXPECT_EQ(qv_scripted::kFunctionCount + std::size(kCalls) - 1, points_.size());
}

}  // namespace
