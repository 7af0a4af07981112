// pack_values.h - the values of the options of pack from their texts. Each throws ToolError (kUsageError) with a
// message that names the option when the text does not fit.
#ifndef TOOLS_PACK_PACK_VALUES_H
#define TOOLS_PACK_PACK_VALUES_H

#include <array>
#include <string>
#include <vector>

#include "tools/pack/pack.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PACK_VALUES_H
