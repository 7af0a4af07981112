// SPDX-License-Identifier: Apache-2.0
// plain_comparison_test.cpp - the shipped library's fast routines against the plain ones, bit for bit, on drawn
// input with ties, NaN, infinities and the ends of ranges. The last seed on standard error plays the round of a
// difference, a crash or an endless loop again.
#include <fenv.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/postprocess/output_tensors.h"
#include "tests/support/random.h"
#include "tests/support/record.h"
#include "tests/support/routines.h"
#include "tests/unit/boxes.h"

namespace {

// ---- Numbers ------------------------------------------------------------------------------------

// NaNs of both signs and with payloads, infinities, zeros, denormals, the ends of ranges.
float odd_number(Random& random) {
  uint32_t bits = random.pick<uint32_t>({0x7fc00000, 0x7fc12345, 0x7f800001, 0x7f800000, 0x7f7fffff,
                                         0, 1, 0x007fffff, 0x00800000, 0x5f000000, 0x4f800000,
                                         0x4f000000, 0x4b800001, random.next()});
  bits ^= random.chance(50) ? 0x80000000u : 0u;
  float value;
  memcpy(&value, &bits, sizeof(value));
  return value;
}

// The value or one of its neighbours.
float near(Random& random, float value) {
  return random.pick({value, nextafterf(value, -INFINITY), nextafterf(value, INFINITY)});
}

// How numbers of one kind are drawn in a round: so many per cent odd ones, so many of eight steps
// between low and high, where they tie, the rest from anywhere between.
struct Numbers {
  float low, high;
  int odd, tied;

  Numbers(Random& random, float from, float to)
      : low(from),
        high(to),
        odd(random.pick({0, 0, 0, 3, 20, 100})),
        tied(random.pick({0, 0, 50, 100})) {}

  float draw(Random& random) const {
    if (random.chance(odd)) {
      return odd_number(random);
    }
    const float part = random.between(0, 1);
    return low + (random.chance(tied) ? floorf(part * 8) / 8 : part) * (high - low);
  }
};

// ---- Clocks -------------------------------------------------------------------------------------

// What time and gettimeofday answer in this program. Each walks on its own with every reading, so
// that a reading too many or too few shows.
class Clocks {
 public:
  explicit Clocks(uint64_t seed) : seconds_(seed), fractions_(~seed) {
    change_zone();
    last_ = next_ = int64_t{INT32_MIN} + 2 * int64_t{seconds_.next()};
  }

  // The next second is another one: a library may keep the calendar of the last.
  void change_zone() {
    const char* zone = seconds_.pick<const char*>(
        {nullptr, "UTC", "CET-1CEST,M3.5.0,M10.5.0/3", "NZST-12NZDT,M9.5.0,M4.1.0/3", "XYZ+3:30"});
    zone == nullptr ? unsetenv("TZ") : setenv("TZ", zone, 1);
    // The epoch, both ends of Berlin's summer time, a leap day, the years 9999 and 0, 32 bits.
    const int64_t edge = seconds_.pick<int64_t>(
        {0, 1711846799, 1729990799, 1709251199, 253402300799, -62135596801, INT32_MAX, INT32_MIN});
    next_ = as_time(seconds_.pick<int64_t>({last_ - 1, last_ + 1, last_ + 60, last_ + 3600, edge}));
    next_ += next_ == last_ ? 1 : 0;
  }
  time_t second() {
    last_ = next_;
    const int64_t jump = seconds_.next();
    next_ = as_time(seconds_.pick({last_, last_, last_, last_, last_ + 1, last_ - 1, jump}));
    return as_time(last_);
  }
  struct timeval time_of_day() {
    struct timeval now = {};
    now.tv_sec = ++readings;
    now.tv_usec = fractions_.pick({0, 1, 50, 999, 1000, 999999, fractions_.below(1000000)});
    return now;
  }

  int readings = 0;

 private:
  // Wraps where time_t has 32 bits.
  static time_t as_time(int64_t second) { return static_cast<time_t>(second); }

  Random seconds_, fractions_;
  int64_t last_ = 0, next_ = 0;  // within time_t
};

Clocks clocks(0);

}  // namespace

// Both libraries are shared objects and take these before the system's.
extern "C" int gettimeofday(struct timeval* now, void* /*zone*/) noexcept {
  *now = clocks.time_of_day();
  return 0;
}

extern "C" time_t time(time_t* /*now*/) noexcept {
  return clocks.second();
}

namespace {

// ---- Boxes --------------------------------------------------------------------------------------

olvex::vector<BoxInfo> draw_boxes(Random& random, int count) {
  const Numbers corner(random, random.pick({0.0f, -8.0f}), random.pick({8.0f, 40.0f, 1000.0f}));
  const float smallest = random.pick({0.0f, 0.0f, -8.0f});
  const Numbers extent(random, smallest, smallest + 16), score(random, 0, 1);
  const int labels = random.pick({1, 3, 81}), copies = random.pick({0, 10, 80});
  olvex::vector<BoxInfo> boxes;
  for (int k = 0; k < count; ++k) {
    BoxInfo box;
    box.x1 = corner.draw(random);
    box.y1 = corner.draw(random);
    box.x2 = box.x1 + extent.draw(random);
    box.y2 = box.y1 + extent.draw(random);
    if (k > 0 && random.chance(copies)) {  // in the same place as another or inside it
      const float inset = random.pick({0.0f, 0.0f, 1.0f});
      box = boxes[random.next() % boxes.size()];
      box.x1 += inset;
      box.y2 -= inset;
    }
    box.score = score.draw(random);
    box.label = random.chance(3) ? random.pick({INT32_MIN, INT32_MAX, -1, 1 << 24, (1 << 24) + 1})
                                 : random.below(labels);
    box.pts = boxes.size() + 1;  // tells boxes apart
    KeyPt_t point;
    point.x = corner.draw(random);
    box.keypts.clear();
    box.keypts.resize(random.pick<size_t>({0, 0, 1, 5}), point);
    boxes.push_back(box);
  }
  // Falling, rising, organ pipe, equal, or as drawn.
  const int shape = random.below(10);
  for (int k = 0; k < count && shape < 4; ++k) {
    const int back = count - 1 - k, scores[] = {back, k, std::min(k, back), 1};
    boxes[static_cast<size_t>(k)].score = static_cast<float>(scores[shape]);
  }
  return boxes;
}

// Ratios of small whole numbers are the overlaps of whole boxes.
float draw_overlap_threshold(Random& random) {
  const int whole = 1 + random.below(12);
  const float ratio = static_cast<float>(1 + random.below(whole)) / static_cast<float>(whole);
  return random.pick({ratio, ratio, ratio, near(random, ratio), 0.45f, 0.0f, -0.5f, 1.0f, NAN,
                      INFINITY, -INFINITY, odd_number(random)});
}

// The overlap that suppression measures.
float overlap_of(const BoxInfo& a, const BoxInfo& b) {
  const float w = std::min(a.x2, b.x2) - std::max(a.x1, b.x1) + 1;
  const float h = std::min(a.y2, b.y2) - std::max(a.y1, b.y1) + 1;
  const float both = std::max(w, 0.0f) * std::max(h, 0.0f);
  const auto area = [](const BoxInfo& box) {
    return (box.x2 - box.x1 + 1) * (box.y2 - box.y1 + 1);
  };
  return both / (area(a) + area(b) - both);
}

void sort(const Routines& library, Random& random, Record& record) {
  const int count = 1 + random.below(random.pick({40, 40, 40, 40, 300, 300, 3000}));
  olvex::vector<BoxInfo> boxes = draw_boxes(random, count);
  const int left = random.chance(50) ? 0 : random.below(count);
  const int right = random.chance(50) ? count - 1 : left + random.below(count - left);
  library.sort_range(boxes, left, right);
  record.add_boxes(boxes);
}

void suppression(const Routines& library, Random& random, Record& record) {
  const int most = random.chance(1) ? 2000 : random.pick({12, 12, 60, 300});
  olvex::vector<BoxInfo> boxes = draw_boxes(random, random.below(most + 1));
  float threshold = draw_overlap_threshold(random);
  // At times the overlap of two boxes, so large a one that others are kept.
  const int pairs = boxes.size() < 2 ? 0 : random.pick({0, 1, 20});
  for (int pair = 0; pair < pairs; ++pair) {
    const size_t a = random.next() % boxes.size(), b = random.next() % boxes.size();
    threshold = std::max(pair == 0 ? -1 : threshold, a == b ? -1 : overlap_of(boxes[a], boxes[b]));
  }
  const unsigned char class_specific = random.pick<unsigned char>({0, 1, 255});
  olvex::vector<BoxInfo> sorted = boxes;
  olvex::vector<int> picked;
  library.nms_sorted_bboxes(sorted, picked, threshold, class_specific);
  library.nms(boxes, threshold, class_specific);
  for (const int index : picked) {
    record.add(index);
  }
  record.add_boxes(sorted);
  record.add_boxes(boxes);
}

void stabiliser(const Routines& library, Random& random, Record& record) {
  olvex::vector<BoxInfo> boxes = draw_boxes(random, random.below(21));
  olvex::vector<BoxInfo> previous = draw_boxes(random, random.below(21));
  float attained = 1;
  for (BoxInfo& box : previous) {
    if (!boxes.empty() && random.chance(70)) {  // an object that has hardly moved
      const BoxInfo& object = boxes[random.next() % boxes.size()];
      box = object;
      box.x1 += random.pick({0.0f, 0.25f, 1.0f, 3.0f});
      attained = library.iou_ratio(object, box);
    }
  }
  library.stabilise(boxes, previous,
                    random.pick({0.63f, 0.0f, -1.0f, NAN, attained, near(random, attained)}));
  record.add_boxes(boxes);
}

// ---- Output layers ------------------------------------------------------------------------------

// Exactly these bytes, aligned to the element only; nothing behind them can be read.
class Fenced {
 public:
  Fenced(const void* bytes, size_t size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)), open = (size / page + 1) * page;
    size_ = open + page;
    map_ = mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_TRUE(map_ != MAP_FAILED && mprotect(map_, open, PROT_READ | PROT_WRITE) == 0);
    data_ = static_cast<char*>(map_) + open - size;
    memcpy(data_, bytes, size);
  }
  ~Fenced() { munmap(map_, size_); }
  Fenced(const Fenced&) = delete;

  void* data() { return data_; }

 private:
  void* map_;
  size_t size_;
  char* data_;
};

// In most cells all logits miss the threshold; in others they reach it, miss it by a hair, tie, or
// are anything, or one of them alone does.
std::vector<float> draw_layer(Random& random, const DetDecodeInfo& info, float step, int cells,
                              int channels) {
  const double p = static_cast<double>(info.conf_threshold);
  const float exact = static_cast<float>(log(p / (1.0 - p))), limit = isfinite(exact) ? exact : 0;
  const Numbers anything(random, -4, 4), distance(random, -4, 4);
  const int hits = random.pick({0, 5, 40, 100});
  std::vector<float> values;
  for (int cell = 0; cell < cells; ++cell) {
    const int cell_kind = random.chance(hits) ? random.below(3) : 3;
    const int alone = random.chance(50) ? random.below(std::max(1, info.num_classes)) : -1;
    for (int k = 0; k < channels; ++k) {
      const int logit = k - 4 * info.reg_max;
      const int kind = alone >= 0 && logit != alone ? 3 : cell_kind;
      const bool is_logit = logit >= 0 && logit < info.num_classes;
      values.push_back(!is_logit ? distance.draw(random)
                       : kind == 0
                           ? near(random, limit) + static_cast<float>(random.below(3) - 1) * step
                       : kind == 1 ? limit + static_cast<float>(random.below(7) - 4) / 4
                       : kind == 2 ? anything.draw(random)
                                   : limit - random.between(0, 8) - 2 * step);
    }
  }
  return values;
}

// A layer of any width, at times one as large as a camera's, or each 16-bit integer as a logit.
void raw_layer(const Routines& library, Random& random, Record& record) {
  const bool every_integer = random.one_in(100);
  DetDecodeInfo info;
  info.out_format = random.pick({QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16});
  info.num_classes = every_integer ? 1 : random.pick({0, 1, 1, 2, 3, 4, 5, 7, 8, 9, 17, 39, 80});
  info.reg_max = every_integer ? 1 : random.pick({1, 1, 1, 2, 16});
  info.num_keypoints = every_integer ? 0 : random.pick({0, 0, 0, 1, 4, 5, 17});
  const int channels =
      4 * info.reg_max + info.num_classes + random.pick({2, 3}) * info.num_keypoints;
  const bool is_large = channels < 30 && random.chance(20);
  const int w = every_integer ? 256 : is_large ? 40 : 1 + random.below(9);
  const int h = every_integer ? 256 : is_large ? 24 : 1 + random.below(7);
  const int stride = 1 + random.below(32);
  info.net_in_w = w * stride;
  info.net_in_h = h * stride;
  const float usual = random.pick({1.0f / 256, 1.0f, 0.0173f, 0.1f, 3e-4f});
  const float odd = random.pick({0.0f, -0.01f, 1e-42f, 1e-38f, 1e34f, 3e38f, NAN, INFINITY});
  const float scale = random.chance(20) ? odd : usual;
  // At times the score of a logit that is a multiple of the scale, or its neighbour.
  const float logit = -scale * static_cast<float>(1 + random.pick({random.below(2000), 32766}));
  const float attained = static_cast<float>(1.0 / (1.0 + exp(-static_cast<double>(logit))));
  info.conf_threshold = random.chance(70)
                            ? random.pick({0.25f, 0.5f, random.between(0, 1), attained, attained,
                                           near(random, attained)})
                            : random.pick({0.0f, 1e-30f, 0.999f, 1.0f, 2.0f, -0.1f, NAN});
  std::vector<float> values;
  for (int value = INT16_MIN; value <= INT16_MAX && every_integer; ++value) {
    values.insert(values.end(), {0, 0, 0, 0, static_cast<float>(value)});
  }
  const bool is_int16 = info.out_format == QV_IPU_FORMAT_INT16;
  values = every_integer ? values : draw_layer(random, info, is_int16 ? usual : 0, w * h, channels);
  Tensor tensor(values, every_integer ? 1 : usual);
  Fenced memory(tensor.data(info.out_format), values.size() * (is_int16 ? 2 : 4));
  OutputTensors tensors = {};
  tensors.add(memory.data(), scale, w, h, channels, OutputMemory());
  tensors.describe(info);
  info.memory = nullptr;
  info.scalar = is_int16 ? info.scalar : nullptr;
  olvex::vector<BoxInfo> boxes;
  boxes.try_alloc(2 * static_cast<size_t>(w * h));  // box by box a long list grows for minutes
  library.decode_layers(info, boxes);
  record.add_boxes(boxes);
}

// ---- Tracks -------------------------------------------------------------------------------------

// Objects that move, overlap, appear and disappear.
class Crowd {
 public:
  explicit Crowd(Random& random)
      : place_(random, 0, random.pick({16.0f, 160.0f})),
        extent_(random, random.pick({0.0f, 0.0f, -16.0f}), 16),
        score_(random, 0, 1),
        step_(random, -4, 4),
        classes_(1 + random.below(3)),
        objects_(random.chance(10) ? 60 : random.next() % 15) {}

  olvex::vector<TrackBBox> next_frame(Random& random) {
    olvex::vector<TrackBBox> seen;
    for (TrackBBox& object : objects_) {
      if (pts_ < objects_.size() || random.chance(3)) {
        object = random.chance(20) ? objects_[random.next() % objects_.size()]
                                   : make_track_box(place_.draw(random), place_.draw(random),
                                                    extent_.draw(random), extent_.draw(random),
                                                    score_.draw(random), random.below(classes_));
      }
      if (random.chance(30)) {
        object.x += step_.draw(random);
        object.w += step_.draw(random) / 4;
      }
      object.pts = ++pts_;
      if (random.chance(85)) {
        seen.push_back(object);
      }
    }
    return seen;
  }

 private:
  Numbers place_, extent_, score_, step_;
  int classes_;
  unsigned long long pts_ = 0;
  std::vector<TrackBBox> objects_;
};

void add_tracks(const olvex::vector<Track>& tracks, Record& record) {
  record.add(tracks.size());
  for (const Track& track : tracks) {
    record.add(track.id, track.max_score, track.start_frame, track.status_pre, track.status_now,
               track.alert, track.lost_times, track.moved, track.moving, track.double_check,
               track.pass_double_check, track.boxes.size());
    for (const TrackBBox& box : track.boxes) {
      record.add(box.x, box.y, box.w, box.h, box.score, box.class_id, box.pts);
    }
  }
}

void tracker(const Routines& library, Random& random, Record& record) {
  void* const tracker = library.create_tracker(
      random.pick({1.0f, 1.0f, 0.0f, 3.0f}), random.pick({10.0f, 10.0f, 3.0f, 1.0f}),
      random.pick({0.3f, 0.3f, 0.0f, -1.0f, 1.0f, NAN, draw_overlap_threshold(random)}),
      random.pick({0, 1, 2, 3, -1}));
  Crowd crowd(random);
  IoutStaticParams_t params;
  params.ref_frame = random.pick<QV_S16>({0, 1, 2, 5});
  for (int frame = 30 + random.below(31); frame > 0; --frame) {
    TrackFrames frames;
    for (int k = random.pick({1, 1, 1, 1, 0, 3}); k > 0; --k) {
      frames.push_back(crowd.next_frame(random));
    }
    library.track(tracker, frames);
    library.classify(tracker, params);
    add_tracks(library.finished_tracks(tracker), record);
    add_tracks(library.active_tracks(tracker), record);
  }
  library.destroy_tracker(tracker);
}

// ---- Log ----------------------------------------------------------------------------------------

// Of any magnitude, or half a millionth from one with six decimals.
double logged_number(Random& random) {
  if (random.chance(20)) {
    return static_cast<double>(odd_number(random));
  }
  if (random.chance(30)) {
    return (random.below(2000001) - 1000000) / 128.0;
  }
  return ldexp(static_cast<double>(random.next()), random.below(60) - 45) *
         random.pick({1.0, -1.0, 1e-300, 1e200});
}

void log_values(const Routines& library, Random& random) {
  const std::string text(static_cast<size_t>(random.pick({0, 3, 150, 255, 256, 257, 3000})), 'x');
  const int count = random.pick({0, 9, 10, -10, 99, 100, 999, 1000, -99999, random.below(INT_MAX)});
  const double value = logged_number(random);
  fesetround(random.pick({FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}));
  library.log_values(text.c_str(), count, value);
  fesetround(FE_TONEAREST);
  library.log_values("box", count, value);
}

void log_lines(const Routines& library, Random& random, Record& /*record*/) {
  setenv("LOCPATH", OLVEX_LOCALES, 1);
  setlocale(LC_NUMERIC, random.chance(10) ? "de_DE.UTF-8" : "C");  // decimal comma, if there is one
  library.log_text();  // ends the second whose calendar it keeps, which may be of another zone
  for (int line = 1 + random.below(40); line >= 0; --line) {
    const int kind = random.below(7);
    if (kind > 4) {
      log_values(library, random);
    } else if (kind == 0 || line == 0) {
      library.log_text();
    } else if (kind == 1) {
      clocks.change_zone();
    } else if (kind == 2) {
      printf("the application's %d%s", line, line % 3 == 0 ? "\n" : "");
    } else {
      library.log_count(random.pick({0, -1, INT32_MIN, INT32_MAX, line}));
    }
  }
  setlocale(LC_NUMERIC, "C");
  EXPECT_GT(clocks.readings, 0) << "the library read another clock";
}

// ---- The comparisons ----------------------------------------------------------------------------

// A scene draws its own input, so that the second library gets what the first one got.
typedef void (*Scene)(const Routines& library, Random& random, Record& record);

// The record, and what was printed.
std::pair<Record, std::string> play(const Routines& library, uint64_t seed, Scene scene) {
  const uint64_t unlike_its_neighbours = seed * 0xd1342543de82ef95u;
  Random random(unlike_its_neighbours);
  Record record;
  clocks = Clocks(unlike_its_neighbours);
  testing::internal::CaptureStdout();
  scene(library, random, record);
  return {record, testing::internal::GetCapturedStdout()};
}

uint64_t setting(const char* variable, uint64_t otherwise) {
  const char* text = getenv(variable);
  return text == nullptr ? otherwise : strtoull(text, nullptr, 0);
}

// Plays a scene so many times with both libraries, each time from another seed. OLVEX_SEED
// sets the first seed, OLVEX_ROUNDS the per cent of the times.
void compare(uint64_t times, Scene scene) {
  const uint64_t rounds = std::max<uint64_t>(1, times * setting("OLVEX_ROUNDS", 100) / 100);
  const uint64_t first = setting("OLVEX_SEED", 1);
  for (uint64_t seed = first; seed < first + rounds && !testing::Test::HasFailure(); ++seed) {
    fprintf(stderr, "OLVEX_SEED=%llu OLVEX_ROUNDS=1\n", static_cast<unsigned long long>(seed));
    shipped_routines()->leave_wider_lanes_unused(seed % 2 == 0);
    const auto [plain, plain_log] = play(*plain_routines(), seed, scene);
    const auto [shipped, shipped_log] = play(*shipped_routines(), seed, scene);
    EXPECT_EQ(plain.numbers, shipped.numbers);
    EXPECT_EQ(plain_log, shipped_log);
  }
}

TEST(PlainComparison, sort) {
  compare(400, sort);
}
TEST(PlainComparison, suppression) {
  compare(400, suppression);
}
TEST(PlainComparison, raw_layers) {
  compare(800, raw_layer);
}
TEST(PlainComparison, tracker) {
  compare(50, tracker);
}
TEST(PlainComparison, stabiliser) {
  compare(600, stabiliser);
}
TEST(PlainComparison, log) {
  compare(200, log_lines);
}

}  // namespace
