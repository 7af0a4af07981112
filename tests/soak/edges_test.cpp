// SPDX-License-Identifier: Apache-2.0
// edges_test.cpp - the public functions where a clock, a time stamp or a counter overflows:
// what a camera reaches after years. Nothing else in the library counts frames.
#include <sys/time.h>
#include <time.h>

#include <climits>
#include <cstdint>

#include "tests/api/det_test.h"

namespace {

int64_t now_seconds;  // of the clocks below
int step;             // microseconds from one reading to the next
int64_t since;        // of the steps so far

bool clock_reaches(int64_t seconds) {
  return static_cast<time_t>(seconds) == seconds;
}

}  // namespace

// Answer the shared library, too. As the system's own do, they fail for what they cannot express.
extern "C" int gettimeofday(struct timeval* now, void* /*zone*/) noexcept {
  if (!clock_reaches(now_seconds)) {
    return -1;
  }
  since += step;
  now->tv_sec = static_cast<time_t>(now_seconds + since / 1000000);
  now->tv_usec = static_cast<suseconds_t>(since % 1000000);
  return 0;
}

extern "C" time_t time(time_t* /*now*/) noexcept {
  return static_cast<time_t>(clock_reaches(now_seconds) ? now_seconds : -1);
}

namespace {

const Detection kStanding = {8.f, 8.f, 40.f, 40.f, 0.75f, 0.f};

class Edges : public PublicApi {
 protected:
  void SetUp() override {
    now_seconds = 1700000000;
    PublicApi::SetUp();
  }

  OlvexIouTracker& tracker() { return *det().tracker(); }

  std::vector<unsigned long long> ids() {
    std::vector<unsigned long long> ids;
    for (const BoxInfo& box : det().mLastOutput_) {
      ids.push_back(box.track_id);
    }
    return ids;
  }
};

TEST_F(Edges, track_ids_go_on_below_zero) {
  std::vector<Detections> frames;
  for (int i = 0; i < 8; ++i) {
    const float x = 60.f + 6.f * static_cast<float>(i);
    frames.push_back(
        {kStanding, {x, 8.f, x + 32.f, 40.f, 0.7f, 1.f}, {x, 80.f, x + 32.f, 112.f, 0.6f, 2.f}});
  }
  start(frames);
  ALGO_DET_SetTracker(handle_, 1, 0);
  tracker().track_id_ = INT_MAX - 1;
  ASSERT_EQ(0, run());
  const unsigned long long first = INT_MAX - 1, last = INT_MAX, next = 0xffffffff80000000u;
  EXPECT_EQ((std::vector<unsigned long long>{first, last, next}), ids());
  EXPECT_EQ(INT_MIN + 1, tracker().track_id_);
  ALGO_DET_SetTracker(handle_, 1, 1);
  for (int i = 1; i < 8; ++i) {
    ASSERT_EQ(0, run());
  }
  EXPECT_EQ((std::vector<unsigned long long>{last, next}), ids());
  EXPECT_TRUE(tracker().active_tracks_[2].moved);
}

TEST_F(Edges, lost_frames_are_counted_up_to_the_largest_setting) {
  start({{kStanding}, {}, {kStanding}, {}, {kStanding}});
  ALGO_DET_SetTracker(handle_, 1, 0);
  tracker().max_lost_times_ = INT16_MAX;
  for (const int lost : {INT16_MAX - 1, INT16_MAX + 0}) {
    ASSERT_EQ(0, run());
    EXPECT_EQ(1, tracker().active_tracks_[0].id);
    tracker().active_tracks_[0].lost_times = lost;
    ASSERT_EQ(0, run());
    EXPECT_EQ(lost < INT16_MAX, !tracker().active_tracks_.empty());
  }
  ASSERT_EQ(0, run());
  EXPECT_EQ(2, tracker().active_tracks_[0].id);
}

// A 32-bit clock ends with the first of these moments.
TEST_F(Edges, clock_passes_its_end) {
  setenv("TZ", "UTC", 1);
  start({{kStanding}});
  for (const int64_t moment : {INT64_C(0x7fffffff), INT64_C(0x80000000), INT64_C(0xffffffff)}) {
    now_seconds = moment;
    log();
    ASSERT_EQ(0, run());
    const std::string text = log();
    const char* const date = !clock_reaches(moment) ? "[1969-12-31 23:59:59 "
                             : moment == 0x7fffffff ? "[2038-01-19 03:14:07 "
                             : moment == 0x80000000 ? "[2038-01-19 03:14:08 "
                                                    : "[2106-02-07 06:28:15 ";
    EXPECT_EQ(count_of(text, "DLA_"), count_of(text, date));
    EXPECT_TRUE(contains(text, "model invoke cost time: 0.000000 ms\n")) << text;
    EXPECT_TRUE(contains(text, "postprocess cost time: 0.000000 ms\n"));
  }
  now_seconds = 1700000000;
  step = 1250000;
  log();
  ASSERT_EQ(0, run());
  EXPECT_TRUE(contains(log(), "model invoke cost time: 1250.000000 ms\n"));
  step = 0;
}

}  // namespace
