// SPDX-License-Identifier: Apache-2.0
// pack.h - the parts of the subcommand pack: what is known of the network, the options, the resulting
// description of the model, its calibration, the prepared network and its proof. pack_command.cpp puts them
// together.
#ifndef TOOLS_PACK_PACK_H
#define TOOLS_PACK_PACK_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "platform/host/host_image.h"

#include "tools/common/options.h"
#include "tools/heads/conclude_head.h"
#include "tools/heads/head.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"
#include "tools/inside/network_head.h"
#include "tools/network/network_graph.h"

namespace olvex_tools {

// ---- The options (pack_options.cpp) and what they amount to (pack_description.cpp) --------------

using ThreeNumbers = std::array<float, 3>;

struct FrameSize {
  int width = 0;   // pixels
  int height = 0;  // pixels
};

struct InputFormat {
  QV_IPU_ELEMENT_FORMAT format = QV_IPU_FORMAT_NV12;
  qv_host::ColourOrder order = qv_host::ColourOrder::kRgb;
};

// What stands on the command line.
struct PackOptions {
  std::string network_path;
  std::string image_path;
  std::string description_path;
  bool print_description = false;
  std::string picture_path;

  std::optional<std::string> title;
  std::optional<std::string> input;
  std::optional<InputFormat> input_format;
  std::optional<qv_host::ColourOrder> frame_order;
  std::optional<FrameSize> size;
  std::optional<qv_host::ColourOrder> network_order;
  std::optional<qv_host::Resize> resize;
  std::optional<ThreeNumbers> mean;
  std::optional<ThreeNumbers> scale;

  // Where nothing is said about the outputs, the head is concluded; these take its place in part.
  HeadOptions head;
  std::vector<GivenOption> given;  // all that stands on the command line
  std::string saved_network_path;
  bool force = false;  // write what could not be proven

  std::vector<std::string> raw;
  std::optional<bool> nchw;
  std::optional<ThreeNumbers> raw_scale;

  std::optional<std::string> boxes;
  std::optional<std::string> scores;
  std::optional<std::string> keypoints;
  std::optional<int> keypoint_values;
  std::optional<qv_host::BoxOrder> box_order;
  std::optional<bool> box_fractions;
  std::optional<int> background;
  std::optional<bool> classes;
  std::optional<int> max_boxes;
  std::optional<float> min_score;

  bool int16 = false;
  std::optional<float> box_scale;
  std::optional<float> score_scale;
  std::optional<float> keypoint_scale;
  std::optional<std::string> calibration_pictures;
  std::optional<long> calibration_limit;  // frames

  std::string class_names_path;
  std::vector<std::string> class_names;  // where there is no such file
  Pairs pairs;                           // for the header, checked
  bool pairs_in_name = false;
};

// Declares the options. After parsing, call what is returned: it turns words and numbers into values, and
// throws ToolError (kUsageError) for one that does not fit. options must outlive it.
std::function<void()> add_pack_options(const OptionTable& table, PackOptions* options);

// Of the file that --description names, or a new one, with the size that the options give. Throws ToolError.
qv_host::Description start_description(const PackOptions& options);
// That description changed by the options; what the network itself fixes is filled in. Throws ToolError.
qv_host::Description describe_model(const PackOptions& options, const qv_host::Description& start,
                                    const NetworkGraph& network);

// ---- The scales of 16-bit outputs (calibration.cpp) ---------------------------------------------

constexpr long kUsualCalibrationFrames = 200;

// What the pictures showed of one output of the network.
struct CalibratedOutput {
  std::string name;
  double largest = 0;  // without sign, as the library gets it: coordinates are pixels
  float scale = 0.f;   // chosen real value of 1
  double reach = 0;    // largest value that does not saturate
};

struct Calibration {
  long frames = 0;  // that were run
  std::vector<CalibratedOutput> outputs;
};

// Runs the frames of pictures (see open_frame_source), at most limit of them and evenly spread over
// a source of known length, and sets the scales of description.
//   model  the model of the same description but for its FP32 outputs
// Throws ToolError: kInputError when a picture is unreadable, kModelError when an output holds a
// value that is not finite, or nothing but zeros, and what LibraryModel::detect throws.
Calibration calibrate(const std::string& pictures, long limit, LibraryModel* model,
                      qv_host::Description* description);

// ---- The values of the options from their texts (pack_values.cpp) -------------------------------
// Each throws ToolError (kUsageError) with a message that names the option when the text does not fit.

// A decimal number or a ratio such as 1/255.
float parse_number(const std::string& option, const std::string& text);
// One number for all three, or three with commas between.
ThreeNumbers parse_three(const std::string& option, const std::string& text);
FrameSize parse_size(const std::string& text);
// A whole number of 1 or more.
int parse_count(const std::string& option, const std::string& text);
int parse_background(const std::string& option, const std::string& text);
std::vector<int> parse_integers(const std::string& option, const std::string& text);
// "10x13,16x30/30x61": a square where there is one number.
SizesOfLayers parse_sizes(const std::string& option, const std::string& text);
std::array<double, 2> parse_two_numbers(const std::string& option, const std::string& text);
double parse_place(const std::string& option, const std::string& text);
std::string parse_family(const std::string& option, const std::string& text);
Pair parse_pair(const std::string& text);
// What the library would not read back as it is, or would not understand.
void check_header(const Pairs& pairs);

// ---- From the network's file to the network in the image (network_preparation.cpp) --------------

// A head that was concluded, and what proves its decoding.
struct ConcludedHead {
  HeadReading reading;
  std::string command;               // that says the same
  std::vector<char> uncut;           // the network with its own outputs
  std::vector<std::string> outputs;  // their names
};

struct PreparedNetwork {
  NetworkGraph graph;  // as the engine gets it
  std::vector<char> bytes;
  std::vector<char> portable;              // for --save-network
  std::vector<std::string> rewrites;       // one line for each kind
  std::vector<std::string> notes;          // what is probably not as meant
  std::optional<ConcludedHead> head;       // when nothing was said about the outputs
  PackOptions options;                     // with what was concluded filled in
  Selection selection = Selection::kNone;  // that was cut off
};

// Reads the network, makes it static, and, where the options say nothing about its outputs, concludes the
// head and appends the decoding. Throws ToolError: kModelError when the network cannot be packed, kUsageError
// when an option does not fit it or two heads do.
//   start    the size in it, where there is one, is that of an input that the network leaves open
//   picture  whose outputs are looked at; called when they are
// Requires: this process has run no network yet.
PreparedNetwork prepare_network(const PackOptions& options, const qv_host::Description& start,
                                const std::function<cv::Mat()>& picture);

// Fits it to the engine. Afterwards its graph is for looking only.
void finish_network(PreparedNetwork* prepared);

// ---- The proof that a packed network decodes as it should (proof.cpp) ---------------------------
// Against a plain reading of the network's own outputs, with and without the engine's fusion, and by what
// boxes and scores must look like.

struct ProofPicture {
  std::string name;
  cv::Mat picture;  // 8-bit BGR
};

struct ProofResult {
  bool fusion = true;               // it changes nothing
  std::vector<std::string> shown;   // what was found right, one line each
  std::vector<std::string> notes;   // what is probably not as meant
  std::vector<std::string> faults;  // what is wrong; the proof failed when there is one
};

// Requires: prepared has a head; the network has been tried and does no harm.
ProofResult prove(const PreparedNetwork& prepared, const qv_host::Description& description,
                  const std::vector<ProofPicture>& pictures);

// Of outputs that the options describe: whether fusion changes them, and as notes what is not plausible.
// Requires: the network has been tried and does no harm.
ProofResult try_described_outputs(const PreparedNetwork& prepared,
                                  const qv_host::Description& description,
                                  const std::vector<ProofPicture>& pictures);

// ---- Whether it sees more with another preprocessing (preprocessing_trial.cpp) ------------------

constexpr double kSure = .5;  // a score from which on a row counts as a box

// Adds to the faults what cannot be right, and to the notes with what the network is sure of more rows.
//   network  with outputs that the head describes
void try_preprocessing(const Head& head, const qv_host::InputDescription& input,
                       const std::vector<ProofPicture>& pictures, EngineRun* network,
                       ProofResult* result);

// ---- The work of the subcommand (pack_command.cpp) ----------------------------------------------

int pack(const PackOptions& options);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PACK_H
