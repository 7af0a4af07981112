// SPDX-License-Identifier: Apache-2.0
// description_words.h - the words and limits of an image's description, and how a wrong field is refused.
// description_checks.cpp and description_json.cpp share them; host_image.h is what others use.
#ifndef PLATFORM_HOST_DESCRIPTION_WORDS_H
#define PLATFORM_HOST_DESCRIPTION_WORDS_H

#include <cstddef>
#include <string>

#include "platform/host/host_image.h"

namespace qv_host {

constexpr std::size_t kMaxName = OLVEX_TENSOR_NAME_SIZE - 1;  // bytes, without the terminator

template <typename Value>
struct Choice {
  const char* word;
  Value value;
};

constexpr Choice<QV_IPU_ELEMENT_FORMAT> kFrameFormats[] = {
    {"NV12", QV_IPU_FORMAT_NV12},         {"ARGB8888", QV_IPU_FORMAT_ARGB8888},
    {"ABGR8888", QV_IPU_FORMAT_ABGR8888}, {"U8", QV_IPU_FORMAT_U8},
    {"GRAY", QV_IPU_FORMAT_GRAY},         {"FP32", QV_IPU_FORMAT_FP32}};
constexpr Choice<ColourOrder> kFrameOrders[] = {{"rgb", ColourOrder::kRgb},
                                                {"bgr", ColourOrder::kBgr}};
constexpr Choice<ColourOrder> kNetworkOrders[] = {
    {"rgb", ColourOrder::kRgb}, {"bgr", ColourOrder::kBgr}, {"gray", ColourOrder::kGray}};
constexpr Choice<Resize> kResizes[] = {{"stretch", Resize::kStretch},
                                       {"letterbox", Resize::kLetterbox},
                                       {"letterbox-centred", Resize::kLetterboxCentred}};
constexpr Choice<OutputKind> kKinds[] = {{"raw", OutputKind::kRaw},
                                         {"decoded", OutputKind::kDecoded}};
constexpr Choice<QV_IPU_ELEMENT_FORMAT> kOutputFormats[] = {{"FP32", QV_IPU_FORMAT_FP32},
                                                            {"INT16", QV_IPU_FORMAT_INT16}};
constexpr Choice<bool> kLayouts[] = {{"NCHW", true}, {"NHWC", false}};
constexpr Choice<BoxOrder> kBoxOrders[] = {{"xyxy", BoxOrder::kCornerPairs},
                                           {"cxcywh", BoxOrder::kCentreSize}};
constexpr Choice<Proof> kProofs[] = {{"proven", Proof::kProven}, {"unproven", Proof::kUnproven}};
constexpr Choice<bool> kBoxUnits[] = {{"fractions", true}, {"pixels", false}};

template <typename Value, std::size_t kCount>
std::string words_of(const Choice<Value> (&choices)[kCount]) {
  std::string words;
  for (const Choice<Value>& choice : choices) {
    words += words.empty() ? "\"" : ", \"";
    words += choice.word;
    words += '"';
  }
  return words;
}

template <typename Value, std::size_t kCount>
const char* find_word(const Choice<Value> (&choices)[kCount], Value value) {
  for (const Choice<Value>& choice : choices) {
    if (choice.value == value) {
      return choice.word;
    }
  }
  return nullptr;
}

// Throws ImageError. The field's name may come from the description; what would break the line or steer
// the terminal is shown as a question mark.
[[noreturn]] void refuse(const std::string& field, const std::string& found,
                         const std::string& expected);

}  // namespace qv_host

#endif  // PLATFORM_HOST_DESCRIPTION_WORDS_H
