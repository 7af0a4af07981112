// failure_sweep_test.cpp - a short life of a handle in which each platform call fails in turn: the
// code, what is left open, what is left mapped, and that the next life works.
// public_api_test.cpp has the cases that differ in more than the failing call.
#include <string>
#include <vector>

#include "tests/api/public_api.h"

namespace {

using qv_scripted::Function;

constexpr QV_S32 kCode = 0x51;

struct Life {
  std::vector<QV_S32> results;  // of initialisation, two frames and the end
  bool mapped = false;          // the model after initialisation
};

// What a life does whose initialisation or frames meet one failing call.
struct Outcome {
  std::vector<QV_S32> results;
  bool mapped;     // the model is still mapped
  bool device_up;  // after the life
  const char* violation;
};

// The life goes on after each failure, as a careless application's would.
Outcome expected_outcome(Function failing, bool first_call, bool from_file) {
  const QV_S32 closed = qv_scripted::kNoChannel;
  switch (failing) {
    case Function::kGetOfflineModeStaticInfo:
      // A file that cannot be sized is given up; a buffer is tried without its size.
      return from_file ? Outcome{{3, 6, 6, 0}, false, true, ""}
                       : Outcome{{0, 0, 0, 0}, false, false, ""};
    case Function::kCreateDevice:
      return {{kCode, 6, 6, 0}, !from_file, false, ""};
    case Function::kCreateCHN:
    case Function::kGetInOutTensorDesc:
      return {{3, 6, 6, 0}, false, false, ""};
    case Function::kGetOutputTensors:
      return {{0, qv_scripted::kOutOfOrder, closed, 0}, false, false, "never handed out"};
    case Function::kInvoke:
      return first_call ? Outcome{{0, kCode, closed, 0}, false, false, ""}
                        : Outcome{{0, 0, kCode, 0}, false, false, ""};
    case Function::kDestroyDevice:
      return {{0, 0, 0, 0}, false, true, ""};
    case Function::kFlushInvCache:
    case Function::kPutOutputTensors:
    case Function::kDestroyCHN:
      break;
  }
  return {{0, 0, 0, 0}, false, false, ""};
}

class FailureSweep : public PublicApi {
 protected:
  Life live(bool from_file) {
    qv_scripted::add_network(list_network({{{8.f, 16.f, 32.f, 48.f, 0.75f, 0.f}}}));
    const std::string model = write_model();
    if (handle_ == nullptr) {
      ALGO_DET_CreateHandle(&handle_);
    }
    Life life;
    char* const buffer = from_file ? nullptr : map_file(model, sizeof kOfflineModel - 1);
    life.results.push_back(from_file ? init() : init_from_memory(buffer));
    life.mapped = is_mapped(model);
    if (!from_file && life.mapped) {
      munmap(buffer, sizeof kOfflineModel - 1);
    }
    life.results.push_back(run());
    life.results.push_back(run());
    life.results.push_back(deinit());
    return life;
  }

  void sweep(bool from_file) {
    std::vector<Function> calls;
    fail_each_call(kCode, [&](int n) {
      const Life life = live(from_file);
      if (n == 0) {
        for (const qv_scripted::Event& event : qv_scripted::events()) {
          calls.push_back(event.function);
        }
        ASSERT_EQ(12u, calls.size());
        EXPECT_EQ((std::vector<QV_S32>{0, 0, 0, 0}), life.results);
        return;
      }
      const Function failing = calls[static_cast<std::size_t>(n - 1)];
      SCOPED_TRACE(qv_scripted::function_name(failing));
      const bool first_call = n < 9;  // the first frame's calls are the sixth and the seventh
      const Outcome outcome = expected_outcome(failing, first_call, from_file);
      EXPECT_EQ(outcome.results, life.results);
      EXPECT_EQ(outcome.mapped, life.mapped);
      EXPECT_EQ(outcome.device_up, qv_scripted::device_is_up());
      if (!outcome.device_up) {
        EXPECT_EQ(0, qv_scripted::open_channel_count());
      }
      if (outcome.violation[0] != '\0') {
        expect_violation(outcome.violation);
      }
      allow_violation("is closed");  // calls of a life that went on after a failed invocation

      if (qv_scripted::device_is_up()) {
        QV_IPU_DestroyDevice();
      }
      EXPECT_EQ((std::vector<QV_S32>{0, 0, 0, 0}), live(from_file).results);
      EXPECT_EQ(1, count_);
    });
  }
};

TEST_F(FailureSweep, life_from_a_file) {
  sweep(true);
}

TEST_F(FailureSweep, life_from_memory) {
  sweep(false);
}

}  // namespace
