// plain_comparison_test.cpp - the shipped library against the plain one, bit for bit, on drawn
// input: results, order, log. A failure prints how to play its round again. plain_comparison.h has
// the numbers, the memory and the record.
#include "tests/unit/plain_comparison.h"

#include <fstream>
#include <iostream>

#include "platform/scripted/qv_scripted.h"
#include "utils/numeric/saturating_cast.h"
#include "base/postprocess/output_tensors.h"
#include "base/sdet/model_words.h"
#include "video/det/include/det_schedule.h"

// Both libraries are shared objects and take these before the system's.
extern "C" int gettimeofday(struct timeval* now, void* /*zone*/) noexcept {
  *now = clocks().time_of_day();
  return 0;
}

extern "C" time_t time(time_t* /*now*/) noexcept {
  return clocks().second();
}

// There in a program with a sanitizer.
extern "C" void __sanitizer_set_death_callback(void (*callback)(void)) __attribute__((weak));

namespace {

// ---- Rounds -------------------------------------------------------------------------------------

uint64_t seed_in_play;

std::string repetition() {
  return "again with OLVEX_SEED=" + std::to_string(seed_in_play) + " OLVEX_ROUNDS=1\n";
}

void tell_repetition() {
  std::cerr << repetition();
}

void on_fault(int number) {
  tell_repetition();
  signal(number, SIG_DFL);
  raise(number);
}

const unsigned int kLongestRound = 60;  // seconds, of the slowest processor

// A round that breaks off or does not end tells its seed, too.
void watch_faults() {
  signal(SIGALRM, on_fault);
  if (__sanitizer_set_death_callback != nullptr) {
    __sanitizer_set_death_callback(tell_repetition);
    return;
  }
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
    signal(number, on_fault);
  }
}

uint64_t setting(const char* variable, uint64_t otherwise) {
  const char* text = getenv(variable);
  return text == nullptr ? otherwise : strtoull(text, nullptr, 0);
}

Record play(const Routines& library, uint64_t seed, Scene scene) {
  Random random(seed);
  Record record;
  clocks().start(seed);
  setenv("LOCPATH", OLVEX_LOCALES, 1);
  setlocale(LC_NUMERIC, random.chance(10) ? "de_DE.UTF-8" : "C");  // decimal comma, if there is one
  testing::internal::CaptureStdout();
  scene(library, random, record);
  record.log(testing::internal::GetCapturedStdout());
  setlocale(LC_NUMERIC, "C");
  return record;
}

// ---- Boxes --------------------------------------------------------------------------------------

olvex::vector<BoxInfo> draw_boxes(Random& random, int count) {
  const Numbers corner(random, random.pick({0.0f, -8.0f}), random.pick({8.0f, 40.0f, 1000.0f}));
  const float smallest = random.pick({0.0f, 0.0f, -8.0f});
  const Numbers extent(random, smallest, smallest + 16), score(random, 0, 1);
  const int labels = random.pick({0, 2, 80}), copies = random.pick({0, 10, 80});
  olvex::vector<BoxInfo> boxes(static_cast<size_t>(count), BoxInfo());
  for (size_t k = 0; k < boxes.size(); ++k) {
    BoxInfo& box = boxes[k];
    box.x1 = corner.draw(random);
    box.y1 = corner.draw(random);
    box.x2 = box.x1 + extent.draw(random);
    box.y2 = box.y1 + extent.draw(random);
    if (k > 0 && random.chance(copies)) {  // in the same place as another or inside it
      const BoxInfo& other = boxes[random.index(k)];
      const float inset = random.pick({0.0f, 0.0f, 1.0f});
      box.x1 = other.x1 + inset;
      box.y1 = other.y1;
      box.x2 = other.x2;
      box.y2 = other.y2 - inset;
    }
    box.score = score.draw(random);
    box.label = random.chance(3) ? random.pick({INT32_MIN, INT32_MAX, -1, 1 << 24, (1 << 24) + 1})
                                 : random.between(0, labels);
    box.pts = k + 1;  // tells boxes apart
    box.track_id = random.next();
    box.keypts.resize(random.pick<size_t>({0, 0, 1, 5}), KeyPt_t());
    for (KeyPt_t& point : box.keypts) {
      point.x = static_cast<float>(k);
    }
  }
  // Falling, rising, organ pipe, equal, or as drawn.
  const int shape = random.between(0, 9);
  for (size_t k = 0; k < boxes.size() && shape < 4; ++k) {
    const size_t back = boxes.size() - 1 - k, scores[] = {back, k, std::min(k, back), 1};
    boxes[k].score = static_cast<float>(scores[shape]);
  }
  return boxes;
}

// Ratios of small whole numbers are the overlaps of whole boxes.
float draw_overlap_threshold(Random& random) {
  const int whole = random.between(1, 12);
  const float ratio = static_cast<float>(random.between(1, whole)) / static_cast<float>(whole);
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
  const int count = random.between(1, random.pick({40, 40, 40, 40, 300, 300, 3000}));
  olvex::vector<BoxInfo> boxes = draw_boxes(random, count);
  const int left = random.chance(50) ? 0 : random.between(0, count - 1);
  const int right = random.chance(50) ? count - 1 : random.between(left, count - 1);
  library.sort_range(boxes, left, right);
  record.boxes(boxes);
  // Each box still owns its key points, and no other does.
  boxes.erase(boxes.begin() + random.between(0, count - 1));
  boxes.resize(boxes.size() + 3, BoxInfo());
  for (BoxInfo& box : boxes) {
    box.keypts.push_back(KeyPt_t());
  }
  record.boxes(boxes);
}

void suppression(const Routines& library, Random& random, Record& record) {
  const int most = random.chance(1) ? 2000 : random.pick({12, 12, 60, 300});
  olvex::vector<BoxInfo> boxes = draw_boxes(random, random.between(0, most)), others = boxes;
  float threshold = draw_overlap_threshold(random);
  // At times the overlap of two boxes, so large a one that others are kept.
  const int pairs = boxes.size() < 2 ? 0 : random.pick({0, 1, 20});
  for (int pair = 0; pair < pairs; ++pair) {
    const size_t a = random.index(boxes.size()), b = random.index(boxes.size());
    threshold = std::max(pair == 0 ? -1 : threshold, a == b ? -1 : overlap_of(boxes[a], boxes[b]));
  }
  const unsigned char class_specific = random.pick<unsigned char>({0, 1, 255});
  library.nms(boxes, threshold, class_specific);
  record.boxes(boxes);
  boxes.resize(boxes.size() + 1, BoxInfo());

  olvex::vector<int> picked(3, 7);
  library.nms_sorted_bboxes(others, picked, threshold, class_specific);
  record.boxes(others);
  for (const int index : picked) {
    record.line("picked", index);
  }
}

// ---- Output tensors -----------------------------------------------------------------------------

std::vector<unsigned char> encoded(Random& random, QV_IPU_ELEMENT_FORMAT format,
                                   const std::vector<float>& values, float scale) {
  if (format != QV_IPU_FORMAT_INT16) {
    return qv_scripted::to_bytes(values);
  }
  std::vector<int16_t> integers;
  for (const float value : values) {
    const double units = round(static_cast<double>(value) / static_cast<double>(scale));
    integers.push_back(units == units ? olvex::saturating_cast<int16_t>(units)
                                      : static_cast<int16_t>(random.next()));
  }
  return qv_scripted::to_bytes(integers);
}

// The tensors of one frame, and everything that their description points at.
struct Outputs {
  DetDecodeInfo info;

  explicit Outputs(Random& random) {
    info.out_format = random.pick({QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16});
    info.nms_threshold = draw_overlap_threshold(random);
    info.class_specific_nms = random.pick<QV_BOOL>({0, 1});
  }

  void add(Random& random, const std::vector<float>& values, float scale, int w, int h, int c) {
    const bool is_int16 = info.out_format == QV_IPU_FORMAT_INT16;
    fenced_.emplace_back(new Fenced(random, encoded(random, info.out_format, values, scale),
                                    is_int16 ? sizeof(int16_t) : sizeof(float)));
    // At times the platform says that a buffer is shorter than its shape.
    const size_t most = values.size();
    tensors_.add(fenced_.back()->data(), scale, w, h, c,
                 {static_cast<size_t>(w) * static_cast<size_t>(h), most,
                  random.chance(5) ? random.index(most + 1) : most});
    tensors_.describe(info);
    info.scalar = is_int16 ? tensors_.scalar : nullptr;
    info.memory = nullptr;
  }

  void tell_memory() { info.memory = tensors_.memory; }

 private:
  std::vector<std::unique_ptr<Fenced>> fenced_;
  OutputTensors tensors_ = {};
};

float draw_scale(Random& random) {
  return random.chance(20)
             ? random.pick({0.0f, -0.01f, 1e-42f, 1e-38f, 1e34f, 3e38f, NAN, INFINITY})
             : random.pick({1.0f / 256, 1.0f, 0.0173f, 0.1f, 3e-4f});
}

// At times the score of a logit that is a multiple of the scale, or its neighbour.
float draw_score_threshold(Random& random, float scale) {
  const float logit = -scale * static_cast<float>(random.between(1, 2000));
  const float attained = static_cast<float>(1.0 / (1.0 + exp(-static_cast<double>(logit))));
  return random.chance(70) ? random.pick({0.25f, 0.5f, random.fraction(), attained, attained,
                                          near(random, attained)})
                           : random.pick({0.0f, 1e-30f, 0.999f, 1.0f, 2.0f, -0.1f, NAN});
}

// A raw layer: in most cells all logits miss the threshold, in others they meet it, miss it by a
// hair, tie, or are anything, or one of them alone does.
std::vector<float> draw_layer(Random& random, const DetDecodeInfo& info, float scale, int cells,
                              int channels) {
  const double p = static_cast<double>(info.conf_threshold);
  const float exact = static_cast<float>(log(p / (1.0 - p))), limit = isfinite(exact) ? exact : 0;
  const float step = info.out_format == QV_IPU_FORMAT_INT16 ? scale : 0;
  const Numbers anything(random, -4, 4), distance(random, -4, 4);
  const int hits = random.pick({0, 5, 40, 100});
  std::vector<float> values;
  for (int cell = 0; cell < cells; ++cell) {
    const int cell_kind = random.chance(hits) ? random.between(0, 2) : 3;
    const bool is_alone = random.chance(50);
    const int alone = random.between(0, std::max(0, info.num_classes - 1));
    for (int k = 0; k < channels; ++k) {
      const int logit = k - 4 * info.reg_max;
      const int kind = is_alone && logit != alone ? 3 : cell_kind;
      const bool is_logit = logit >= 0 && logit < info.num_classes;
      values.push_back(!is_logit ? distance.draw(random)
                       : kind == 0
                           ? near(random, limit) + static_cast<float>(random.between(-1, 1)) * step
                       : kind == 1 ? limit + static_cast<float>(random.between(-4, 2)) / 4
                       : kind == 2 ? anything.draw(random)
                                   : limit - random.fraction() * 8 - 2 * step);
    }
  }
  return values;
}

// Small grids of any width, at times one as large as a camera's.
void add_raw_layers(Random& random, int layers, Outputs& outputs) {
  DetDecodeInfo& info = outputs.info;
  info.num_classes = random.pick({0, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 16, 17, 25, 39, 80});
  info.reg_max = random.pick({1, 1, 1, 2, 16});
  info.num_keypoints = random.pick({0, 0, 0, 1, 4, 5, 17, 21});
  float scale = draw_scale(random);
  info.conf_threshold = draw_score_threshold(random, scale);
  const int channels =
      4 * info.reg_max + info.num_classes + random.pick({2, 3}) * info.num_keypoints;
  const bool is_large = channels < 30 && random.chance(20);
  const int w = is_large ? 40 : random.between(1, 9), h = is_large ? 24 : random.between(1, 7);
  const int stride = random.between(1, 32);
  info.net_in_w = w * stride;
  info.net_in_h = h * stride;
  for (int layer = 0; layer < layers; ++layer) {
    outputs.add(random, draw_layer(random, info, scale, w * h, channels), scale, w, h, channels);
    scale = random.chance(50) ? scale : draw_scale(random);
  }
}

// Makes one number wrong, so that the layer has to be refused and none of its elements read.
void spoil(Random& random, DetDecodeInfo& info, int& layer) {
  if (random.chance(20)) {
    info.out_format = random.pick({QV_IPU_FORMAT_UNKNOWN, QV_IPU_FORMAT_INT8});
    return;
  }
  int* const number =
      random.pick({&layer, &info.net_out_w[layer], &info.net_out_h[layer], &info.net_out_c[layer],
                   &info.net_in_w, &info.num_classes, &info.num_keypoints, &info.reg_max});
  *number = random.pick({*number + 100, 0, -1, INT32_MIN, INT32_MAX});
}

void raw_layers(const Routines& library, Random& random, Record& record) {
  Outputs outputs(random);
  const int layers = random.between(0, 3);
  add_raw_layers(random, layers, outputs);
  int layer = random.between(0, std::max(0, layers - 1));
  if (layers > 0 && random.chance(10)) {
    spoil(random, outputs.info, layer);
  }
  olvex::vector<BoxInfo> boxes = draw_boxes(random, random.between(0, 2));
  record.line("result", library.decode_one_layer(outputs.info, layer, boxes));
  record.boxes(boxes);
  random.chance(30) ? library.decode_layers(outputs.info, boxes)
                    : library.det_postprocess(outputs.info, boxes);
  record.boxes(boxes);
  boxes.resize(boxes.size() + 1, BoxInfo());
}

// Each 16-bit integer as the logit of a cell.
void every_integer(const Routines& library, Random& random, Record& record) {
  Outputs outputs(random);
  DetDecodeInfo& info = outputs.info;
  info.out_format = QV_IPU_FORMAT_INT16;
  info.num_classes = 1;
  const float scale = draw_scale(random);
  info.conf_threshold = draw_score_threshold(random, scale);
  info.net_in_w = info.net_in_h = 256;
  std::vector<float> values;
  for (int value = INT16_MIN; value <= INT16_MAX; ++value) {
    values.insert(values.end(), {0, 0, 0, 0, static_cast<float>(value)});
  }
  outputs.add(random, values, 1, 256, 256, 5);
  info.scalar[0] = scale;
  olvex::vector<BoxInfo> boxes;
  boxes.try_alloc(2 * 65536);  // a list of that length would take minutes to grow box by box
  record.line("result", library.decode_one_layer(info, 0, boxes));
  record.boxes(boxes);
}

// A list that the accelerator has decoded, in one of the three layouts or in none.
void decoded_list(const Routines& library, Random& random, Record& record) {
  Outputs outputs(random);
  DetDecodeInfo& info = outputs.info;
  info.conf_threshold = draw_score_threshold(random, 1);
  info.num_classes = info.num_keypoints = 99;
  const int rows = random.pick({0, 1, 5, 40}), layout = random.between(0, 2);
  const bool rows_known = rows == 0 || random.chance(70);
  const auto add = [&](const Numbers& numbers, int c) {
    std::vector<float> values(static_cast<size_t>(rows * c));
    std::generate(values.begin(), values.end(), [&] { return numbers.draw(random); });
    outputs.add(random, values, draw_scale(random), rows, 1, c);
  };
  // Counts and indices may be anything, and a row shorter than a box, when the memory is known.
  const auto add_whole = [&](int count, int highest, int c) {
    std::vector<float> values(static_cast<size_t>(count));
    const float scale = rows_known ? random.pick({1.0f, 1.0f, 0.5f, draw_scale(random)}) : 1;
    for (float& value : values) {
      value = static_cast<float>(random.between(0, highest)) + random.fraction() * 0.4f;
      if (rows_known && random.chance(20)) {
        value = random.pick({odd_number(random), value + 1, 0.5f - value});
      }
    }
    outputs.add(random, values, scale, count, 1, c);
  };
  add(Numbers(random, 0, 40), rows_known ? random.pick({4, 5, 7, 3, 1, 0}) : 4);
  if (layout == 1) {
    add(Numbers(random, -1, 9), 1);
  }
  add(Numbers(random, 0, 1), 1);
  if (layout == 2) {
    add(Numbers(random, 0, 40), random.pick({15, 10, 8, 12, 51, 63, 9}));
  }
  add_whole(rows, rows - 1, layout == 0 ? 0 : 1);
  add_whole(1, rows, 1);
  if (random.chance(8)) {
    *random.pick({&info.num_out_layers, &info.net_out_c[0], &info.net_out_c[1]}) = 3;
  } else if (random.chance(4)) {
    info.out_format = QV_IPU_FORMAT_INT8;
  }
  if (rows_known) {
    outputs.tell_memory();
  }
  olvex::vector<BoxInfo> boxes = draw_boxes(random, random.between(0, 2));
  record.line("result", library.ipu_decode(info, boxes), info.num_classes, info.num_keypoints);
  record.boxes(boxes);
}

// ---- Tracks -------------------------------------------------------------------------------------

// Objects that move, stand in each other's place, come and go.
class Crowd {
 public:
  explicit Crowd(Random& random)
      : place_(random, 0, random.pick({16.0f, 160.0f})),
        extent_(random, random.pick({0.0f, 0.0f, -16.0f}), 16),
        score_(random, 0, 1),
        step_(random, -4, 4),
        classes_(random.between(0, 2)),
        objects_(random.chance(10) ? 60 : random.index(15)) {}

  olvex::vector<TrackBBox> next_frame(Random& random) {
    olvex::vector<TrackBBox> seen;
    for (TrackBBox& object : objects_) {
      if (pts_ < objects_.size() || random.chance(3)) {
        replace(random, object);
      }
      if (random.chance(30)) {
        object.x += step_.draw(random);
        object.w += step_.draw(random) / 4;
      }
      if (random.chance(10)) {
        object.score = object.lm3_y = score_.draw(random);
      }
      object.pts = ++pts_;
      if (random.chance(85)) {
        seen.push_back(object);
      }
    }
    return seen;
  }

 private:
  void replace(Random& random, TrackBBox& object) {
    if (random.chance(20)) {
      object = objects_[random.index(objects_.size())];
      return;
    }
    object.x = place_.draw(random);
    object.y = place_.draw(random);
    object.w = extent_.draw(random);
    object.h = extent_.draw(random);
    object.score = object.lm3_y = score_.draw(random);
    object.class_id = random.between(0, classes_);
  }

  Numbers place_, extent_, score_, step_;
  int classes_;
  unsigned long long pts_ = 0;
  std::vector<TrackBBox> objects_;
};

void tracker(const Routines& library, Random& random, Record& record) {
  void* const tracker = library.create_tracker(
      random.pick({1.0f, 1.0f, 0.0f, 3.0f, NAN}),
      random.pick({10.0f, 10.0f, 3.0f, 0.0f, 1.0f, 2.5f, -1.0f, NAN}),
      random.pick({0.3f, 0.3f, 0.0f, -1.0f, 1.0f, NAN, draw_overlap_threshold(random)}),
      random.pick({0, 1, 2, 3, -1}));
  olvex::vector<Track>& live = library.active_tracks(tracker);
  Crowd crowd(random);
  for (int frame = random.between(30, 60); frame > 0; --frame) {
    TrackFrames frames;
    for (int k = random.pick({1, 1, 1, 1, 0, 3}); k > 0; --k) {
      frames.push_back(crowd.next_frame(random));
    }
    library.track(tracker, frames);
    record.tracks("live", live);
    record.tracks("finished", library.finished_tracks(tracker));
    if (random.chance(50)) {
      IoutStaticParams_t params;
      params.ref_frame = random.pick<QV_S16>({5, 5, 0, 1, 2, 11, -1});
      params.static_sensitive = random.pick({0.85f, 0.85f, 0.5f, 0.0f, 1.0f, -1.0f, NAN});
      library.classify(tracker, params);
      record.tracks("live", live);
      record.tracks("finished", library.finished_tracks(tracker));
    }
    for (Track& track : live) {  // as the double check and the owner of the tracker may do
      track.double_check = random.chance(50);
      track.pass_double_check = track.pass_double_check || random.chance(10);
      for (int* number : {&track.start_frame, &track.status_pre, &track.status_now, &track.alert}) {
        *number = random.between(0, 9);
      }
    }
  }
  library.destroy_tracker(tracker);
}

void overlap(const Routines& library, Random& random, Record& record) {
  Crowd crowd(random);
  olvex::vector<TrackBBox> candidates = crowd.next_frame(random);
  TrackBBox box = candidates.empty() ? TrackBBox() : candidates[candidates.size() / 2];
  box.x += random.pick({0.0f, 1.0f, 7.0f});
  record.line("highest", library.highest_iou(box, candidates));
  for (TrackBBox& other : candidates) {
    const bool same_class = random.chance(50);
    record.line("overlap", library.track_bbox_iou(box, other, same_class),
                library.track_bbox_intersect(box, other, same_class));
  }
  const olvex::vector<BoxInfo> boxes = draw_boxes(random, 12);
  for (const BoxInfo& other : boxes) {
    record.line("ratio", library.iou_ratio(boxes[0], other));
  }
}

void stabiliser(const Routines& library, Random& random, Record& record) {
  olvex::vector<BoxInfo> boxes = draw_boxes(random, random.between(0, 20));
  olvex::vector<BoxInfo> previous = draw_boxes(random, random.between(0, 20));
  for (BoxInfo& box : previous) {
    if (!boxes.empty() && random.chance(70)) {  // an object that has hardly moved
      box = boxes[random.index(boxes.size())];
      box.x1 += random.pick({0.0f, 0.25f, 1.0f, 3.0f});
      box.track_id = random.next();
    }
  }
  const float attained = boxes.empty() || previous.empty()
                             ? 1
                             : library.iou_ratio(boxes[random.index(boxes.size())],
                                                 previous[random.index(previous.size())]);
  library.stabilise(boxes, previous,
                    random.pick({0.63f, 0.0f, -1.0f, NAN, attained, near(random, attained)}));
  record.boxes(boxes);
}

// ---- Log ----------------------------------------------------------------------------------------

void log_lines(const Routines& library, Random& random, Record& /*record*/) {
  library.log_text();
  for (int line = random.between(1, 40); line > 0; --line) {
    switch (random.between(0, 4)) {
      case 0:
        library.log_text();
        break;
      case 1:
        clocks().change_zone();
        break;
      case 2:
        printf("the application's %d%s", line, line % 3 == 0 ? "\n" : "");
        break;
      default:
        library.log_count(random.pick({0, -1, INT32_MIN, INT32_MAX, line}));
        break;
    }
  }
}

// ---- Whole runs ---------------------------------------------------------------------------------

const QV_U32 kNetSize = 64;  // pixels

struct ModelType {
  std::string header;
  int num_classes, num_keypoints;
};

ModelType of_word(const char* name, const char* rest) {
  const ModelWord& word = *find_model_word(name);
  return {std::string(kModelOutKey) + ":" + name + rest, word.num_classes, word.num_keypoints};
}

void add_output(Random& random, QV_IPU_ELEMENT_FORMAT format, const std::vector<QV_U32>& shape,
                float scale, const std::vector<float>& values, qv_scripted::Network& network) {
  if (network.frames.size() == 1) {
    network.outputs.push_back(qv_scripted::nhwc_tensor("output", shape, format, scale));
  }
  network.frames.back().push_back(encoded(random, format, values, scale));
}

// Three raw layers whose values change a little from frame to frame.
void add_raw_frames(Random& random, const ModelType& type, int frames,
                    qv_scripted::Network& network) {
  DetDecodeInfo info = Outputs(random).info;
  info.num_classes = type.num_classes;
  info.conf_threshold = 0.5f;
  const int channels = 4 + type.num_classes + random.pick({2, 3}) * type.num_keypoints;
  const float scale = 1.0f / 256;
  std::vector<float> layers[3];
  for (int frame = 0; frame < frames; ++frame) {
    network.frames.emplace_back();
    QV_U32 side = kNetSize / 8;
    for (std::vector<float>& layer : layers) {
      if (frame == 0) {
        layer = draw_layer(random, info, scale, static_cast<int>(side * side), channels);
      }
      for (float& value : layer) {
        value += random.chance(10) ? random.fraction() - 0.5f : 0.0f;
      }
      add_output(random, info.out_format, {1, side, side, static_cast<QV_U32>(channels)}, scale,
                 layer, network);
      side /= 2;
    }
  }
}

void add_decoded_frames(Random& random, int frames, qv_scripted::Network& network) {
  const QV_IPU_ELEMENT_FORMAT format = Outputs(random).info.out_format;
  const bool has_classes = random.chance(50);
  olvex::vector<BoxInfo> objects = draw_boxes(random, random.between(1, 30));
  const QV_U32 rows = static_cast<QV_U32>(objects.size());
  for (int frame = 0; frame < frames; ++frame) {
    std::vector<float> corners, classes, scores, indices;
    for (BoxInfo& object : objects) {
      object.x1 += random.chance(30) ? random.fraction() * 2 - 1 : 0.0f;
      corners.insert(corners.end(), {object.x1, object.y1, object.x2, object.y2});
      classes.push_back(static_cast<float>(object.label));
      scores.push_back(random.chance(80) ? object.score : random.fraction());
      indices.push_back(static_cast<float>(random.index(rows + 1)));
    }
    network.frames.emplace_back();
    add_output(random, format, {1, 1, rows, 4}, 1.0f / 64, corners, network);
    if (has_classes) {
      add_output(random, format, {1, 1, rows, 1}, 1, classes, network);
    }
    add_output(random, format, {1, 1, rows, 1}, 1.0f / 32768, scores, network);
    const std::vector<QV_U32> list = {1, rows}, column = {1, rows, 1, 1};
    add_output(random, format, has_classes ? column : list, 1, indices, network);
    add_output(random, format, {1, 1, 1, 1}, 1, {indices[0] + 1}, network);
  }
}

void set_options(const Routines& library, Random& random, void* handle) {
  const DetTrackParams_t options = {random.pick<QV_BOOL>({0, 1, 1}),   random.pick<QV_BOOL>({0, 1}),
                                    random.pick({0.0f, 0.9f, 0.98f}),  random.pick<QV_BOOL>({0, 1}),
                                    random.pick({0.0f, 0.63f, -1.0f}), random.pick({0, 1, 2, 11})};
  library.set_tracker2(handle, options);
  library.set_strict_mode(handle, {random.pick<QV_BOOL>({0, 0, 1})});
}

void whole_run(const Routines& library, Random& random, Record& record) {
  const ModelType type = random.pick<ModelType>({of_word("zrpd", "\n"),
                                                 of_word("zrpcd", "\n"),
                                                 {"", 8, 0},
                                                 of_word("zrlpd", "\n"),
                                                 of_word("zrhpd", "\n"),
                                                 of_word("zrpcnh", ";lib_out:zrpcn\n")});
  const int frames = random.between(20, 40);
  qv_scripted::reset();
  qv_scripted::Network network;
  network.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_GRAY, kNetSize, kNetSize)};
  random.chance(60) ? add_raw_frames(random, type, frames, network)
                    : add_decoded_frames(random, frames, network);
  qv_scripted::add_network(network);
  const std::string model =
      testing::TempDir() + "plain_comparison_" + std::to_string(getpid()) + ".model";
  std::ofstream(model, std::ios::binary)
      << type.header << QV_IPU_OFFLINE_MODEL_START "0123456789ab";
  unsetenv("QK_ALGO_S");

  void* handle = nullptr;
  library.create_handle(&handle);
  DetectionInfo_t info = {"", "", random.pick({0.5f, 0.25f}), {1920, 1080}, 0};
  snprintf(info.model, sizeof(info.model), "%s", model.c_str());
  EXPECT_EQ(library.init_handle(handle, &info), 0);
  std::vector<unsigned char> picture(kNetSize * kNetSize);
  std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
  for (int frame = 0; frame < frames; ++frame) {
    if (random.chance(10)) {
      set_options(library, random, handle);
    }
    const ALGO_Input_t input = {picture.data(), 0x1000, static_cast<QV_U32>(picture.size()),
                                random.next()};
    QV_S32 count = 0;
    record.line("run", library.run(handle, &input, boxes.data(), &count), count);
    for (size_t k = 0; k < static_cast<size_t>(count); ++k) {
      const Box_t& b = boxes[k];
      record.line(" reported", b.x, b.y, b.width, b.height, b.class_id, b.score, b.pts);
    }
    record.boxes(static_cast<DetHandle*>(handle)->mLastOutput_);
  }
  EXPECT_EQ(library.deinit_handle(handle), 0);
  EXPECT_TRUE(qv_scripted::violations().empty());
  qv_scripted::reset();
  remove(model.c_str());
}

// ---- The comparisons ----------------------------------------------------------------------------

// Plays a scene so many times with both libraries, each time from a seed of its own. OLVEX_SEED
// sets the first seed, OLVEX_ROUNDS the per cent of the times.
void compare(uint64_t times, Scene scene) {
  watch_faults();
  const uint64_t rounds = std::max<uint64_t>(1, times * setting("OLVEX_ROUNDS", 100) / 100);
  const uint64_t first = setting("OLVEX_SEED", 1);
  for (uint64_t k = 0; k < rounds && !testing::Test::HasFailure(); ++k) {
    seed_in_play = first + k;
    alarm(kLongestRound);
    const Record plain = play(*plain_routines(), seed_in_play, scene);
    const Record shipped = play(*shipped_routines(), seed_in_play, scene);
    EXPECT_EQ(Record::difference(plain, shipped), "") << repetition();
  }
  alarm(0);
}

TEST(PlainComparison, Sort) {
  compare(400, sort);
}
TEST(PlainComparison, Suppression) {
  compare(400, suppression);
}
TEST(PlainComparison, RawLayers) {
  compare(800, raw_layers);
}
TEST(PlainComparison, EveryInteger) {
  compare(8, every_integer);
}
TEST(PlainComparison, DecodedLists) {
  compare(1000, decoded_list);
}
TEST(PlainComparison, Tracker) {
  compare(50, tracker);
}
TEST(PlainComparison, Overlaps) {
  compare(300, overlap);
}
TEST(PlainComparison, Stabiliser) {
  compare(600, stabiliser);
}
TEST(PlainComparison, Log) {
  compare(200, log_lines);
}
TEST(PlainComparison, WholeRuns) {
  compare(20, whole_run);
  // Each reading of the clock is of the next second, and some part of it.
  const std::string log = play(*shipped_routines(), 1, whole_run).text, text = "invoke cost time: ";
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    EXPECT_NEAR(strtod(&log[at + text.size()], nullptr), 1000, 999.9995);
  }
}

// Without it nothing would tell that the log was compared at changing times.
TEST(PlainComparison, LogShowsTheClocksOfThisProgram) {
  for (const Routines* library : {plain_routines(), shipped_routines()}) {
    clocks().start(1);
    Clocks same = clocks();
    const time_t second = same.second();
    char header[64];
    const size_t end = strftime(header, sizeof(header), "[%Y-%m-%d %H:%M:%S ", localtime(&second));
    snprintf(header + end, sizeof(header) - end, "%.04f]",
             static_cast<double>(same.time_of_day().tv_usec) / 1000.0);
    testing::internal::CaptureStdout();
    library->log_text();
    Record record;
    record.log(testing::internal::GetCapturedStdout());
    EXPECT_EQ(record.text, header + std::string(" DLA_INFO:, LINE: n. detect start!\n"));
  }
}

}  // namespace
