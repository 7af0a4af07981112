// SPDX-License-Identifier: Apache-2.0
// frame_source.cpp - finds out what an input is and opens it; takes frames evenly from one.
#include "tools/frames/frame_source.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <system_error>

#include <opencv2/core/utils/logger.hpp>

#include "tools/common/command.h"
#include "tools/common/interruption.h"
#include "tools/common/progress.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

const char kCameraPrefix[] = "camera:";
const char kDevicePrefix[] = "/dev/video";

bool is_digit(char character) {
  return std::isdigit(static_cast<unsigned char>(character)) != 0;
}

std::string lower_case_extension(const fs::path& path) {
  return in_lower_case(path.extension().string());
}

bool is_dump(const fs::path& path) {
  return lower_case_extension(path) == ".bin";
}

// The device path that a camera input names; empty when input is not a camera.
std::string camera_device(const std::string& input) {
  if (!is_camera(input)) {
    return "";
  }
  if (input.rfind(kDevicePrefix, 0) == 0) {
    return input;
  }
  const std::string number = input.substr(sizeof kCameraPrefix - 1);
  if (number.empty() || number.size() > 4 || !std::all_of(number.begin(), number.end(), is_digit)) {
    refuse_input(input, "a camera is named by its number, for example camera:0");
  }
  return kDevicePrefix + number;
}

std::unique_ptr<FrameSource> open_folder(const std::string& folder, const FrameLayout& layout,
                                         double picture_rate) {
  std::vector<fs::path> pictures = matching_files(folder, is_picture_file);
  std::vector<fs::path> dumps = matching_files(folder, is_dump);
  if (!pictures.empty() && !dumps.empty()) {
    refuse_input(folder,
                 "the folder holds both pictures and dumped frames (*.bin). Put each "
                 "kind into a separate folder");
  }
  if (!pictures.empty()) {
    return make_picture_source(std::move(pictures), picture_rate);
  }
  if (!dumps.empty()) {
    return make_dump_source(std::move(dumps), layout, picture_rate);
  }
  refuse_input(folder,
               "the folder holds no picture (png, jpg, bmp, ...) and no dumped frame "
               "(*.bin)");
}

// Digits from position on, without leading zeros; moves position past them.
std::string take_number(const std::string& text, std::size_t* position) {
  std::size_t end = *position;
  while (end < text.size() && is_digit(text[end])) {
    ++end;
  }
  std::size_t start = *position;
  while (start + 1 < end && text[start] == '0') {
    ++start;
  }
  *position = end;
  return text.substr(start, end - start);
}

// Whether its extension is one of those.
template <std::size_t count>
bool has_extension(const fs::path& path, const char* const (&extensions)[count]) {
  const std::string extension = lower_case_extension(path);
  return std::any_of(std::begin(extensions), std::end(extensions),
                     [&](const char* known) { return extension == known; });
}

}  // namespace

std::vector<fs::path> matching_files(const fs::path& folder, bool (*matches)(const fs::path&)) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;
    // Opening a pipe that lies there would wait for its writer.
    if (matches(entry->path()) && !entry->is_directory(ignored) && !entry->is_fifo(ignored)) {
      files.push_back(entry->path());
    }
  }
  if (error) {
    refuse_input(folder.string(), "the folder cannot be read: " + error.message());
  }
  std::sort(files.begin(), files.end(), [](const fs::path& left, const fs::path& right) {
    return natural_less(left.filename().string(), right.filename().string());
  });
  return files;
}

bool is_picture_file(const fs::path& path) {
  static const char* const kExtensions[] = {".png", ".jpg",  ".jpeg", ".jpe",  ".bmp",
                                            ".dib", ".webp", ".tif",  ".tiff", ".pgm",
                                            ".ppm", ".pbm",  ".pnm",  ".jp2"};
  return has_extension(path, kExtensions);
}

bool is_video_file(const fs::path& path) {
  static const char* const kExtensions[] = {
      ".mp4",  ".m4v", ".mov", ".mkv", ".webm", ".avi",   ".mpg", ".mpeg", ".ts",  ".mts",
      ".m2ts", ".wmv", ".flv", ".3gp", ".ogv",  ".mjpeg", ".264", ".h264", ".265", ".h265"};
  return has_extension(path, kExtensions);
}

bool is_frame_file(const fs::path& path) {
  return is_picture_file(path) || is_dump(path);
}

bool is_camera(const std::string& input) {
  return input.rfind(kCameraPrefix, 0) == 0 || input.rfind(kDevicePrefix, 0) == 0;
}

bool holds_dumps(const std::string& input) {
  bool dumps = is_dump(input);
  std::error_code error;
  for (fs::directory_iterator entry(input, error), end; !error && entry != end && !dumps;
       entry.increment(error)) {
    dumps = is_dump(entry->path());
  }
  return dumps;
}

bool reaches_length(double frames, double stated) {
  constexpr double kShareExpected = 0.98;
  return frames >= kShareExpected * stated - 1;
}

bool natural_less(const std::string& left, const std::string& right) {
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < left.size() && j < right.size()) {
    if (is_digit(left[i]) && is_digit(right[j])) {
      const std::string a = take_number(left, &i);
      const std::string b = take_number(right, &j);
      if (a.size() != b.size()) {
        return a.size() < b.size();
      }
      if (a != b) {
        return a < b;
      }
    } else if (left[i] != right[j]) {
      return static_cast<unsigned char>(left[i]) < static_cast<unsigned char>(right[j]);
    } else {
      ++i;
      ++j;
    }
  }
  const std::size_t left_over = left.size() - i;
  const std::size_t right_over = right.size() - j;
  // Names that differ in leading zeros alone still need one order.
  return left_over != right_over ? left_over < right_over : left < right;
}

std::string local_path(const std::string& path) {
  return path.rfind('/', 0) == 0 ? path : "./" + path;
}

long FrameSource::skip_many(long count) {
  long skipped = 0;
  while (skipped < count && !interruption_requested() && skip()) {
    ++skipped;
  }
  return skipped;
}

std::uint64_t time_stamp(long number, double frames_per_second) {
  constexpr double kMicroseconds = 1e6;
  return static_cast<std::uint64_t>(
      std::llround(static_cast<double>(number - 1) * kMicroseconds / frames_per_second));
}

void silence_opencv() {
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
}

std::unique_ptr<FrameSource> open_frame_source(const std::string& input, const FrameLayout& layout,
                                               double picture_rate) {
  const std::string device = camera_device(input);
  const fs::path path = device.empty() ? input : device;
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status)) {
    const std::string reason = error ? error.message() : "No such file or directory";
    refuse_input(input,
                 device.empty() ? reason : device + ": " + reason + ". Is the camera connected?");
  }
  if (!device.empty()) {
    return make_camera_source(input, device);
  }
  if (fs::is_directory(status)) {
    return open_folder(input, layout, picture_rate);
  }
  if (fs::is_fifo(status)) {
    refuse_input(input, "is not a file or camera, but a pipe. Write the frames to a file first");
  }
  if (fs::is_regular_file(status) && fs::file_size(path, error) == 0) {
    refuse_input(input, "the file is empty");
  }
  if (is_dump(path)) {
    return make_dump_source({path}, layout, picture_rate);
  }
  if (is_picture_file(path)) {
    return make_picture_source({path}, picture_rate);
  }
  return make_video_source(input);
}

// ---- Frames from end to end of a source ---------------------------------------------------------

namespace {

constexpr double kPictureRate = 25;  // of no effect: time stamps are not looked at

// Number, from 0, of the frame to take as the index-th of limit.
long spread(long index, long limit, std::optional<long> length) {
  if (!length || *length <= limit) {
    return index;
  }
  return static_cast<long>(static_cast<std::int64_t>(index) * *length / limit);
}

// False at the end of the source.
bool skip_to(long number, FrameSource* source, long* position) {
  while (*position < number) {
    if (!source->skip()) {
      return false;
    }
    ++*position;
  }
  return true;
}

}  // namespace

long for_spread_frames(const std::string& input, const FrameLayout& layout, long limit,
                       const std::function<void(SourceFrame*)>& process) {
  silence_opencv();
  const std::unique_ptr<FrameSource> source = open_frame_source(input, layout, kPictureRate);
  const std::optional<long> length = source->length();
  Progress progress(length ? std::min(*length, limit) : limit, false);
  SourceFrame frame;
  long position = 0;
  long done = 0;
  while (done < limit && skip_to(spread(done, limit, length), source.get(), &position) &&
         source->next(&frame)) {
    process(&frame);
    ++position;
    progress.update(++done);
  }
  if (done == 0) {
    refuse_input(input, "no frame can be read from it");
  }
  return done;
}

}  // namespace olvex_tools
