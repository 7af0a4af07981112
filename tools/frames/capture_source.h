// SPDX-License-Identifier: Apache-2.0
// capture_source.h - what videos, streams and cameras have in common as sources of frames, over OpenCV's videoio
// module. video_source.cpp and live_source.cpp derive from it; frame_source.h declares who makes them.
#ifndef TOOLS_FRAMES_CAPTURE_SOURCE_H
#define TOOLS_FRAMES_CAPTURE_SOURCE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/frames/codec_modules.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

class CaptureSource : public FrameSource {
 public:
  explicit CaptureSource(const std::string& name) : name_(name) {}

  bool next(SourceFrame* frame) override;
  bool skip() override { return take_kept() || advance(); }
  void skip_until(std::uint64_t pts) override;
  long position() const override { return position_ - (is_kept_ ? 1 : 0); }
  double frames_per_second() const override { return rate_; }

 protected:
  // Throws where the source must not end.
  virtual void check_end() const = 0;
  // Decodes the next frame, without converting it.
  virtual bool grab() { return capture_->grab(); }
  // Microseconds, of the frame that was decoded last.
  virtual std::uint64_t time_of_frame() = 0;

  void find_rate();
  // What the coder says of the time of the frame that was decoded last, in microseconds.
  std::optional<std::uint64_t> stated_time() const;
  // The time at a constant rate; later than the frame before in any case.
  std::uint64_t guessed_time() const;
  // How many frames the source says it has.
  std::optional<long> stated_length() const;
  bool advance();
  // The frame that was decoded last is the next one still.
  void keep() { is_kept_ = true; }
  bool take_kept();

  std::string name_;
  const std::unique_ptr<cv::VideoCapture> capture_ = make_video_capture();
  double rate_ = 0;
  long position_ = 0;       // frames decoded or passed over so far
  std::uint64_t time_ = 0;  // of the last one, microseconds

 private:
  bool is_kept_ = false;
};

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_CAPTURE_SOURCE_H
