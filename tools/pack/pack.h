// pack.h - the parts of the subcommand pack: what is known of the network, the options, the resulting
// description of the model, and its calibration. pack_command.cpp puts them together.
#ifndef TOOLS_PACK_PACK_H
#define TOOLS_PACK_PACK_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/common/options.h"
#include "tools/heads/conclude_head.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"
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

// The work of the subcommand. In pack_command.cpp.
int pack(const PackOptions& options);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PACK_H
