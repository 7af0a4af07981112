// output_names.h - what the name of an output says that it holds.
#ifndef TOOLS_HEADS_OUTPUT_NAMES_H
#define TOOLS_HEADS_OUTPUT_NAMES_H

#include <string>

namespace olvex_tools {

enum class NamedContents { kUnknown, kBoxes, kScores, kCentreness, kPoints };

// By the words that exporters use: scores of boxes are scores, and their classes, too.
NamedContents contents_by_name(const std::string& output);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_OUTPUT_NAMES_H
