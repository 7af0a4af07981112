// SPDX-License-Identifier: Apache-2.0
// doctor.h - the parts of the subcommand doctor: what is known of a model image, the frames that it is run
// on, what the runs show, and the checks, each of which reads one fault off them.
// doctor_command.cpp puts them together; doctor_runs.cpp runs the network.
#ifndef TOOLS_DOCTOR_DOCTOR_H
#define TOOLS_DOCTOR_DOCTOR_H

#include <array>
#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/inside/model_facts.h"

namespace olvex_tools {

// ---- What is looked at --------------------------------------------------------------------------

struct TestFrame {
  std::vector<unsigned char> bytes;  // in the model's input format
  // The same picture with its aspect kept instead of stretched, or the reverse; empty where that makes no
  // difference, and for a dumped frame.
  std::vector<unsigned char> other_resize;
};

struct ExaminedModel {
  std::string path;
  std::string text_header;  // in front of the start pattern
  qv_host::Image image;
  ModelFacts facts;
  std::vector<TestFrame> frames;  // none: no pictures were given
};

// At most limit frames of all inputs, evenly taken. Throws ToolError (kInputError).
std::vector<TestFrame> load_frames(const std::vector<std::string>& inputs, long limit,
                                   const qv_host::InputDescription& input);

// ---- What the runs show (doctor_runs.cpp) -------------------------------------------------------

constexpr float kLeastThreshold = 0.1f;
constexpr std::size_t kThresholds = 9;  // from kLeastThreshold in steps of it

// The values of one output, or of some of its channels.
struct ValueRange {
  double least = std::numeric_limits<double>::infinity();
  double largest = -std::numeric_limits<double>::infinity();
  std::size_t count = 0;
  std::size_t not_finite = 0;

  void add(double value);
};

// How an INT16 tensor uses its bits; the values that count are those of calibration.
struct IntegerUse {
  std::size_t values = 0;
  std::size_t at_limit = 0;
  int largest = 0;  // without sign
};

// The image as it is.
struct OwnRun {
  std::array<std::size_t, kThresholds> boxes = {};  // at or above each threshold, after suppression
  std::size_t frames_with_dropped = 0;              // candidates beyond the image's max_boxes
  std::size_t most_dropped = 0;
  std::size_t frames_with_cut = 0;   // boxes beyond what the library reports, at score 0.5
  std::vector<IntegerUse> integers;  // as scaled_outputs(); none for FP32
};
OwnRun run_as_it_is(const ExaminedModel& examined);

// How many boxes make sense when the four values of a row are read so.
struct BoxReading {
  qv_host::BoxOrder order = qv_host::BoxOrder::kCornerPairs;
  bool fractions = true;
  std::size_t sensible = 0;
};

// The same with FP32 outputs and with every candidate handed over.
struct PlainRun {
  std::vector<ValueRange> box_values;    // a raw layer each, or the decoded boxes
  std::vector<ValueRange> class_values;  // a raw layer each, or the best score of each decoded row
  std::vector<double> reach;             // largest value without sign, as scaled_outputs()
  std::array<BoxReading, 4> readings;    // of decoded boxes
  std::size_t rows_read = 0;             // of decoded boxes, by readings
  std::vector<double> clarity;           // see clarity_with()
};
PlainRun run_plainly(const ExaminedModel& examined);

enum class FrameChoice { kOwn, kOtherResize };

// For each frame how clearly the network tells objects from the rest with another input description: the sum
// of 2 x score - 1 over the boxes of kLeastThreshold or more, so that sure boxes add and doubtful ones
// subtract. A wrong input makes all boxes doubtful, or adds many doubtful ones.
std::vector<double> clarity_with(const ExaminedModel& examined,
                                 const qv_host::InputDescription& input, FrameChoice frames);

// ---- Checks -------------------------------------------------------------------------------------

struct Finding {
  std::string seen;    // with numbers
  std::string means;   // what is wrong then
  std::string remedy;  // the option of pack
};

struct Outcome {
  enum class State { kPassed, kFound, kSkipped };
  State state = State::kPassed;
  std::string text;                // of a check that passed or was skipped: by what, or why
  std::optional<Finding> finding;  // of one that found something
};

inline Outcome passed(const std::string& text) {
  return {Outcome::State::kPassed, text, std::nullopt};
}
inline Outcome skipped(const std::string& text) {
  return {Outcome::State::kSkipped, text, std::nullopt};
}
inline Outcome found(const std::string& seen, const std::string& means, const std::string& remedy) {
  return {Outcome::State::kFound, "", Finding{seen, means, remedy}};
}

// What the checks share. The runs are there where there are frames.
struct Examination {
  const ExaminedModel& examined;
  OwnRun own;
  PlainRun plain;
  qv_host::InputDescription best_input;  // as described, or as a check of the input found it better
  std::vector<double> best_clarity;      // with it
};

// Of the description and the shapes (static_checks.cpp).
Outcome check_decoding(Examination* examination);
Outcome check_layer_order(Examination* examination);
Outcome check_classes(Examination* examination);
Outcome check_input_values(Examination* examination);
// Of the outputs (output_checks.cpp).
Outcome check_finite(Examination* examination);
Outcome check_scores(Examination* examination);
Outcome check_boxes(Examination* examination);
Outcome check_integers(Examination* examination);
Outcome check_limits(Examination* examination);
Outcome check_least_threshold(Examination* examination);
Outcome check_highest_threshold(Examination* examination);
// Of the input, by changing it (input_checks.cpp).
Outcome check_mean_and_scale(Examination* examination);
Outcome check_colours(Examination* examination);
Outcome check_aspect(Examination* examination);

}  // namespace olvex_tools

#endif  // TOOLS_DOCTOR_DOCTOR_H
