// SPDX-License-Identifier: Apache-2.0
// host_image.h - the host accelerator's offline model: its bytes, and the description inside.
// Written by the packer, read by the host accelerator; both through these functions alone.
// docs/model-images.md is the format's manual; host_image.cpp reads the bytes,
// description_json.cpp and description_checks.cpp the description.
#ifndef PLATFORM_HOST_HOST_IMAGE_H
#define PLATFORM_HOST_HOST_IMAGE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/contract/olvex_platform.h"

namespace qv_host {

// Bytes of the fixed part at the start of an image, all little-endian: "QTNX", u32 version, u32
// length of the description, u32 CRC-32 (the one of zlib) of description and network, u64 length
// of the network. The description (JSON) and the network (ONNX) follow without padding.
constexpr std::size_t kImageHeaderSize = 24;
constexpr std::uint32_t kImageVersion = 1;
// Limits that a reader checks before it allocates anything.
constexpr std::uint32_t kMaxDescriptionSize = 1u << 20;
constexpr std::uint64_t kMaxNetworkSize = 1u << 30;

// Order of the colour channels, in a U8 frame or in the network's input planes.
enum class ColourOrder { kRgb, kBgr, kGray };

// How a picture becomes a frame of the input's size. The two that keep the aspect fill the rest with
// gray of kPaddingLevel: at the right or below, or on both sides.
enum class Resize { kStretch, kLetterbox, kLetterboxCentred };
constexpr int kPaddingLevel = 114;  // of each colour channel, 0..255

// The frame that the camera delivers and how it becomes the network's input. Each network value is
// (channel - mean) * scale, with channel in 0..255 (or the frame's own values when it is FP32).
struct InputDescription {
  std::string name;                                   // the network's input; empty: its only one
  int width = 0;                                      // pixels, of the frame and of the network
  int height = 0;                                     // pixels
  QV_IPU_ELEMENT_FORMAT format = QV_IPU_FORMAT_NV12;  // NV12, ARGB8888, ABGR8888, U8, GRAY or FP32
  ColourOrder frame_order = ColourOrder::kRgb;        // of U8 and FP32 frames: kRgb or kBgr
  ColourOrder network_order = ColourOrder::kRgb;      // planes of the network, or one gray plane
  Resize resize = Resize::kStretch;                   // of a picture that becomes a frame
  std::array<float, 3> mean = {{0.f, 0.f, 0.f}};      // in network order
  std::array<float, 3> scale = {{1.f, 1.f, 1.f}};     // in network order
};

// One of the three layers of a raw network.
struct RawOutput {
  std::string name;   // the network's output
  bool nchw = true;   // layout in the network; the library always gets NHWC
  float scale = 1.f;  // INT16 only: real value of 1
};

enum class OutputKind { kRaw, kDecoded };
enum class BoxOrder { kCornerPairs /* x1 y1 x2 y2 */, kCentreSize /* cx cy w h */ };

// The detection stage of a network that ends in candidate boxes and scores. Shapes: boxes 1 x N x
// 4, scores 1 x N x C, key points 1 x N x K.
struct DecodedOutput {
  std::string boxes;  // the network's box output
  BoxOrder box_order = BoxOrder::kCornerPairs;
  bool box_fractions = true;  // fractions of the input; false: input pixels
  std::string scores;         // the network's score output
  int background = -1;        // column of the scores to leave out, -1: none; later columns
                              // move down by one to become class ids
  bool emit_classes = true;   // a separate class tensor (5 tensors); false: all class 0
  std::string keypoints;      // the network's key-point output, empty: none; needs
                              // emit_classes false
  int keypoint_values = 0;    // values of a row: 8, 10 (pairs), 12, 15, 51, 63 (with scores);
                              // coordinates in the unit of the boxes
  int max_boxes = 1000;       // rows of each tensor, 1..32767
  float min_score = 0.05f;    // candidates below are dropped before the library sees them
  // INT16 only: real value of 1 for each kind of value; indices, classes and count use 1.
  float box_scale = 1.f / 16.f;
  float score_scale = 1.f / 32767.f;
  float keypoint_scale = 1.f / 16.f;
};

// Whether the packer showed that the image decodes as it should.
enum class Proof { kNone, kProven, kUnproven };

struct Description {
  std::string title;  // for people; may be empty
  InputDescription input;
  OutputKind kind = OutputKind::kDecoded;
  QV_IPU_ELEMENT_FORMAT output_format = QV_IPU_FORMAT_FP32;  // FP32 or INT16
  std::array<RawOutput, 3> raw;                              // kRaw only
  DecodedOutput decoded;                                     // kDecoded only
  // Key/value pairs to carry in the first output's name, for images loaded from memory, as
  // "key:value;" texts. Empty: the name is the network's own.
  std::vector<std::pair<std::string, std::string>> name_pairs;
  std::vector<std::string> class_names;  // for people, by library class id; may be empty
  bool fusion = true;                    // the engine may compute several layers at once
  Proof proof = Proof::kNone;
};

// What is wrong with an image: the field, what was found, and what to do, in one line.
class ImageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The bytes cannot be read at all: no such file, no permission, a failing disk.
class ImageReadError : public ImageError {
 public:
  using ImageError::ImageError;
};

// Checks a description (sizes, ranges, names, combinations); throws ImageError naming
// the JSON field. description_to_json, parse_description and build_image all call it.
void check_description(const Description& description);

// The tensors that the library will see, in order, by name: raw layers, or boxes, (classes,)
// scores, (key points,) indices, count. The first name carries the name pairs. A character of a
// network name that the library would read as part of a pair (':', ';', newline) appears as '_'.
std::vector<std::string> output_tensor_names(const Description& description);

// The description as JSON text, and back. parse_description throws ImageError naming the JSON
// field; unknown fields are errors too, so that a misspelt one is not silently ignored.
std::string description_to_json(const Description& description);
Description parse_description(const std::string& json);

// A whole offline model ("QTNX" onwards) from its parts.
std::vector<char> build_image(const Description& description, const std::vector<char>& network);

struct ImageHeader {
  std::uint32_t version = 0;
  std::uint32_t description_size = 0;
  std::uint32_t crc = 0;
  std::uint64_t network_size = 0;
};

struct Image {
  ImageHeader header;
  Description description;
  std::vector<char> network;  // ONNX
};

// Bytes of the whole image that a header announces.
std::uint64_t image_size(const ImageHeader& header);

// Checks the fixed part (pattern, version, lengths within the limits); throws ImageError.
ImageHeader parse_image_header(const char (&bytes)[kImageHeaderSize]);

// Reads and checks a whole offline model from memory that starts at the pattern; throws ImageError.
Image parse_image(const char* bytes, std::size_t size);

// Reads a model file: skips the key/value text up to the first "QTNX", then parse_image. Throws
// ImageError with the path in it, ImageReadError when the file cannot be read. text_header, when
// not null, gets the skipped text.
Image read_image_file(const std::string& path, std::string* text_header);

}  // namespace qv_host

#endif  // PLATFORM_HOST_HOST_IMAGE_H
