// pack_options.h - the options of pack, and the description of the model that they amount to.
// Read pack_command.cpp for what is done with it.
#ifndef TOOLS_PACK_PACK_OPTIONS_H
#define TOOLS_PACK_PACK_OPTIONS_H

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/common/options.h"
#include "tools/inside/model_pairs.h"
#include "tools/pack/onnx_signature.h"

namespace olvex_tools {

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
  std::optional<ThreeNumbers> mean;
  std::optional<ThreeNumbers> scale;

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
  Pairs pairs;  // for the header, checked
  bool pairs_in_name = false;
};

// Declares the options. After parsing, call what is returned: it turns words and numbers into values, and
// throws ToolError (kUsageError) for one that does not fit. options must outlive it.
std::function<void()> add_pack_options(const OptionTable& table, PackOptions* options);

// The description: of the file that --description names, or a new one, changed by the options; what
// the network itself fixes is filled in. Throws ToolError. In pack_description.cpp.
qv_host::Description describe_model(const PackOptions& options, const NetworkSignature& network);

// The work of the subcommand. In pack_command.cpp.
int pack(const PackOptions& options);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PACK_OPTIONS_H
