// SPDX-License-Identifier: Apache-2.0
// frame_source.h - where frames come from: video, picture, folder, dumped frames, camera, stream.
// open_frame_source() in frame_source.cpp decides which; file_source.cpp, video_source.cpp and live_source.cpp read.
#ifndef TOOLS_FRAMES_FRAME_SOURCE_H
#define TOOLS_FRAMES_FRAME_SOURCE_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/frames/frame_conversion.h"

namespace olvex_tools {

// Either a picture to convert, or a frame that is in the model's input format already.
struct SourceFrame {
  long number = 0;                  // from 1, counted from the start of the source
  std::uint64_t pts = 0;            // microseconds from the start of the source
  std::uint64_t image_id = 0;       // see --coco
  std::string name;                 // file or device
  cv::Mat picture;                  // 8-bit BGR; empty for a dumped frame
  std::vector<unsigned char> dump;  // empty for a picture
};

class FrameSource {
 public:
  virtual ~FrameSource() = default;

  // Reads the next frame; false at the end. Throws ToolError (kInputError) when it is unreadable.
  virtual bool next(SourceFrame* frame) = 0;
  // Leaves out the next frame, which keeps its number; false at the end.
  virtual bool skip() = 0;
  // Leaves out so many, by seeking where that leads to the same frames as counting. Returns how many there were,
  // or fewer when an interruption is requested.
  virtual long skip_many(long count);
  // Leaves out the frames before that time.
  virtual void skip_until(std::uint64_t pts) = 0;
  // Frames read or left out so far.
  virtual long position() const = 0;
  // Frames in total; nothing for a camera and for a video that does not state it. For progress only:
  // a video's own statement is not always right.
  virtual std::optional<long> length() const = 0;
  virtual double frames_per_second() const = 0;
  // False when the source ends before what it says of its own size.
  virtual bool is_whole() const { return true; }
};

// OpenCV's own lines, and those of its video coder, say nothing that our errors do not say better. Set
// OPENCV_FFMPEG_LOGLEVEL for the coder's. Call it before anything is opened.
void silence_opencv();

// input    a path, /dev/videoN or camera:N
// layout   what a dumped frame must look like
// picture_rate  frames per second that a series of pictures or dumps stands for
// Throws ToolError (kInputError) when there is no such input or nothing in it.
std::unique_ptr<FrameSource> open_frame_source(const std::string& input, const FrameLayout& layout,
                                               double picture_rate);

// Microseconds of a frame (from 1) at a constant rate.
std::uint64_t time_stamp(long number, double frames_per_second);

// Pictures or dumped frames, in order. Requires: paths is not empty and all of one kind.
std::unique_ptr<FrameSource> make_picture_source(std::vector<std::filesystem::path> paths,
                                                 double frames_per_second);
std::unique_ptr<FrameSource> make_dump_source(std::vector<std::filesystem::path> paths,
                                              const FrameLayout& layout, double frames_per_second);
std::unique_ptr<FrameSource> make_video_source(const std::string& path);
// name as the user wrote it; device as the system knows it: /dev/videoN
std::unique_ptr<FrameSource> make_camera_source(const std::string& name, const std::string& device);

// Seconds: without a limit of 23 days the coder takes half a minute.
constexpr int kNoTimeout = 2000000;

// An encoded stream at an address that the coder opens, called name in messages. timeout: seconds to wait for it
// to open, and for each frame.
std::unique_ptr<FrameSource> make_stream_source(const std::string& name, const std::string& address,
                                                int timeout);

// Whether the outermost parts of an MP4 or MOV (ISO/IEC 14496-12), AVI (RIFF) or Matroska (RFC 9559)
// file end exactly where the file does. A file can be whole and show fewer frames than it counts: an
// edit list leaves out the start, or the sound is longer than the pictures. False for other formats.
bool is_whole_container(const std::string& path);

// Whether so many frames are all that a video states, which is a little wrong at times.
bool reaches_length(double frames, double stated);

// A camera does not show its frames again, and only a model can decode a dump: whether the input is one, or a
// folder with a dump in it.
bool is_camera(const std::string& input);
bool holds_dumps(const std::string& input);

// The path in a form that no coder takes for an address (http:) or a protocol (concat:).
std::string local_path(const std::string& path);

// Whether a folder's file of that name counts as a picture; as a frame, which may also be a dump.
bool is_picture_file(const std::filesystem::path& path);
bool is_frame_file(const std::filesystem::path& path);
// Whether its name is one that videos have.
bool is_video_file(const std::filesystem::path& path);

// The files of a folder for which matches holds, in natural order. Throws ToolError (kInputError).
std::vector<std::filesystem::path> matching_files(const std::filesystem::path& folder,
                                                  bool (*matches)(const std::filesystem::path&));

// Order of file names in which runs of digits compare by value: frame2 before frame10.
bool natural_less(const std::string& left, const std::string& right);

// Hands at most limit frames of input (see open_frame_source) to process and returns how many; a source of
// unknown length gives its first ones. Shows the progress. Throws ToolError (kInputError) when a picture is
// unreadable or there is no frame at all, and what process throws.
long for_spread_frames(const std::string& input, const FrameLayout& layout, long limit,
                       const std::function<void(SourceFrame*)>& process);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_FRAME_SOURCE_H
