// pack_options.h - the options of pack, and the description of the model that they amount to.
// Read pack_command.cpp for what is done with it.
#ifndef TOOLS_PACK_PACK_OPTIONS_H
#define TOOLS_PACK_PACK_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/inside/model_pairs.h"
#include "tools/pack/onnx_signature.h"

namespace CLI {
class App;
}

namespace olvex_tools {

// What stands on the command line; words and numbers are still as the user wrote them where the
// parser would not give a clear message.
struct PackOptions {
  std::string network_path;
  std::string image_path;
  std::string description_path;
  bool print_description = false;
  std::string picture_path;

  std::optional<std::string> title;
  std::optional<std::string> input;
  std::optional<std::string> input_format;
  std::optional<std::string> frame_order;
  std::optional<std::string> size;
  std::optional<std::string> network_order;
  std::optional<std::string> mean;
  std::optional<std::string> scale;

  std::vector<std::string> raw;
  std::optional<std::string> layout;
  std::optional<std::string> raw_scale;

  std::optional<std::string> boxes;
  std::optional<std::string> scores;
  std::optional<std::string> keypoints;
  std::optional<int> keypoint_values;
  std::optional<std::string> box_order;
  std::optional<std::string> box_unit;
  std::optional<int> background;
  std::optional<bool> classes;
  std::optional<int> max_boxes;
  std::optional<float> min_score;

  bool int16 = false;
  std::optional<std::string> box_scale;
  std::optional<std::string> score_scale;
  std::optional<std::string> keypoint_scale;
  std::optional<std::string> calibration_pictures;
  std::optional<long> calibration_limit;  // frames

  std::string class_names_path;
  std::vector<std::string> pairs;
  std::optional<std::string> model_out;
  std::optional<std::string> lib_out;
  bool pairs_in_name = false;
};

void add_pack_options(CLI::App* command, PackOptions* options);

// The pairs for the header, checked. Throws ToolError (kUsageError).
Pairs header_pairs(const PackOptions& options);

// The description: of the file that --description names, or a new one, changed by the options; what
// the network itself fixes is filled in. Throws ToolError.
qv_host::Description describe_model(const PackOptions& options, const NetworkSignature& network);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PACK_OPTIONS_H
