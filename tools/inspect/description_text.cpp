// SPDX-License-Identifier: Apache-2.0
// description_text.cpp - what a model image's description says of pictures, boxes and proof, for the subcommand
// inspect.
#include <array>
#include <string>

#include "platform/host/host_image.h"

#include "tools/common/text.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inspect/inspect.h"

namespace olvex_tools {

namespace {

std::string three_text(const std::array<float, 3>& numbers) {
  return join(numbers, " ",
              [](float number) { return format("%.7g", static_cast<double>(number)); });
}

std::string colours_text(qv_host::ColourOrder order) {
  switch (order) {
    case qv_host::ColourOrder::kGray:
      return "one gray plane";
    case qv_host::ColourOrder::kBgr:
      return "planes blue, green, red";
    case qv_host::ColourOrder::kRgb:
      break;
  }
  return "planes red, green, blue";
}

std::string resize_text(qv_host::Resize resize) {
  const std::string rest = format(", gray %d in the rest", qv_host::kPaddingLevel);
  switch (resize) {
    case qv_host::Resize::kLetterbox:
      return "letterbox: the aspect is kept, the picture at the top left" + rest;
    case qv_host::Resize::kLetterboxCentred:
      return "letterbox-centred: the aspect is kept, the picture in the middle" + rest;
    case qv_host::Resize::kStretch:
      break;
  }
  return "stretch: to the input's width and height";
}

std::string input_text(const qv_host::InputDescription& input) {
  return report_line("network gets",
                     "(value - mean) * scale, " + colours_text(input.network_order)) +
         report_line("  mean", three_text(input.mean)) +
         report_line("  scale", three_text(input.scale)) +
         report_line("resize", resize_text(input.resize));
}

std::string boxes_text(const qv_host::DecodedOutput& decoded) {
  const bool corners = decoded.box_order == qv_host::BoxOrder::kCornerPairs;
  return report_line("network's boxes", std::string(corners ? "x1 y1 x2 y2" : "cx cy w h") +
                                            (decoded.box_fractions ? ", fractions of the input"
                                                                   : ", pixels of the input")) +
         report_line("background", decoded.background < 0
                                       ? "none"
                                       : "column " + std::to_string(decoded.background) +
                                             " of the scores, left out") +
         report_line("limits", format("the %d best boxes of a score of %g or more, before "
                                      "suppression",
                                      decoded.max_boxes, static_cast<double>(decoded.min_score)));
}

std::string proof_text(qv_host::Proof proof) {
  switch (proof) {
    case qv_host::Proof::kProven:
      return "proven when it was packed";
    case qv_host::Proof::kUnproven:
      return "UNPROVEN: packed with --force though the proof failed";
    case qv_host::Proof::kNone:
      break;
  }
  return "none; nothing was concluded from the network";
}

}  // namespace

std::string description_text(const qv_host::Description& description) {
  if (platform_is_foreign()) {
    return report_line("not known",
                       "mean, scale, colours, fitting of pictures, class names, proof");
  }
  const bool decoded = description.kind == qv_host::OutputKind::kDecoded;
  return input_text(description.input) + (decoded ? boxes_text(description.decoded) : "") +
         report_line("fusion", description.fusion ? "on" : "off, as it changes the results") +
         report_line("proof", proof_text(description.proof)) +
         report_line("class names", or_none(join(description.class_names, ", ")));
}

}  // namespace olvex_tools
