// SPDX-License-Identifier: Apache-2.0
// picture_writers.cpp - the two writers, and what is wrong with a file that the encoder made.
#include "tools/frames/picture_writers.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "tools/frames/annotation.h"
#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/codec_modules.h"
#include "tools/frames/frame_source.h"
#include "tools/frames/mp4_times.h"
#include "tools/common/output_file.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

// H.264 needs even sizes.
cv::Size even_size(cv::Size size) {
  return {size.width + size.width % 2, size.height + size.height % 2};
}

// How the coder names a format.
constexpr int four_letters(char first, char second, char third, char fourth) {
  return first | second << 8 | third << 16 | fourth << 24;
}

// Whether the file can be played up to its last seconds, which the coder still holds, while it grows.
// The index of the others is written when they are finished.
bool survives_kill(const fs::path& path) {
  return path.extension() == ".mkv" || path.extension() == ".avi";
}

// What stands at the path itself, not behind a link there.
fs::file_type type_of(const fs::path& path) {
  std::error_code ignored;
  return fs::symlink_status(path, ignored).type();
}

class VideoWriter : public FrameWriter {
 public:
  VideoWriter(const std::string& path, double frames_per_second,
              std::function<void(const std::string&)> notice)
      : path_(path), rate_(frames_per_second), notice_(std::move(notice)) {
    // The encoder says nothing of a file that cannot be made.
    require_writable(path_);
    std::error_code error;
    if (fs::is_directory(path_, error)) {
      refuse_input(path_, "is a folder. Name a file for the video");
    }
    if (!survives_kill(path_)) {
      notice_(path_ +
              ": a video of this kind is lost when the run is killed or the power fails. Name it "
              ".mkv to keep all but the last seconds.");
    }
  }

  void write(FramePicture* picture) override {
    if (!writer_->isOpened()) {
      source_size_ = picture->annotated().size();
      open(even_size(source_size_));
    }
    const bool same_size = picture->annotated().size() == source_size_;
    const cv::Mat fitting = same_size ? picture->annotated() : picture->annotated_at(source_size_);
    const cv::Size size = even_size(source_size_);
    cv::Mat frame;
    cv::copyMakeBorder(fitting, frame, 0, size.height - fitting.rows, 0, size.width - fitting.cols,
                       cv::BORDER_REPLICATE);
    writer_->write(frame);
    const std::uint64_t pts = picture->record().pts;
    first_pts_ = times_.empty() ? pts : first_pts_;
    // A clock that goes back would hide frames.
    const std::uint64_t earliest = times_.empty() ? 0 : times_.back() + 1;
    times_.push_back(std::max(earliest, pts - std::min(pts, first_pts_)));
  }

  void finish() override {
    if (writer_->isOpened()) {
      writer_->release();
      keep_times();
      require_complete();
    }
  }

 private:
  void open(cv::Size size) {
    constexpr int h264 = four_letters('a', 'v', 'c', '1');
    constexpr int mpeg4 = four_letters('m', 'p', '4', 'v');
    const bool is_new = type_of(path_) == fs::file_type::not_found;
    if (writer_->open(local_path(path_), h264, rate_, size)) {
      return;
    }
    if (!writer_->open(local_path(path_), mpeg4, rate_, size)) {
      if (is_new && type_of(path_) == fs::file_type::regular) {
        std::error_code ignored;  // an empty file that stays does no harm
        fs::remove(path_, ignored);
      }
      refuse_input(path_, "the encoder refuses " + size_text(size.width, size.height) + " at " +
                              format("%g", rate_) +
                              " frames per second. Check that OpenCV was built with FFmpeg");
    }
    notice_(path_ + ": no H.264 encoder here, the video is MPEG-4 Part 2.");
  }

  // The encoder shows frames at a constant rate.
  void keep_times() const {
    constexpr double kSameTime =
        2000;  // microseconds, less than a frame and more than a clock rounds
    bool is_constant = true;
    for (std::size_t i = 0; i < times_.size(); ++i) {
      const double constant = static_cast<double>(i) * 1e6 / rate_;
      is_constant = is_constant && std::abs(static_cast<double>(times_[i]) - constant) < kSameTime;
    }
    if (is_constant) {
      return;
    }
    if (survives_kill(path_)) {
      notice_(path_ +
              ": the frames come at a varying rate, which a video of this kind does not "
              "keep. Name it .mp4 or .mov to show each at its time.");
      return;
    }
    set_frame_times(path_, times_);
  }

  // The encoder does not report a failed write. The file's end is what a full disk cuts off, and
  // it is where the number of frames is stored or computed from.
  void require_complete() const {
    const auto check = make_video_capture();
    const double found = check->open(local_path(path_)) ? check->get(cv::CAP_PROP_FRAME_COUNT) : 0;
    if (!reaches_length(found, static_cast<double>(times_.size())) || !check->grab()) {
      refuse_input(path_, "the video is not complete. Is the disk full?");
    }
  }

  std::string path_;
  double rate_;
  std::function<void(const std::string&)> notice_;
  const std::unique_ptr<cv::VideoWriter> writer_ = make_video_writer();
  cv::Size source_size_;
  std::uint64_t first_pts_ = 0;       // of the source, microseconds
  std::vector<std::uint64_t> times_;  // of each frame from the first one, microseconds
};

class FolderWriter : public FrameWriter {
 public:
  FolderWriter(const std::string& folder, const std::string& extension)
      : folder_(folder), extension_(extension) {
    make_folder(folder);
  }

  void write(FramePicture* picture) override {
    const std::string name = format("frame_%06ld.", picture->record().number) + extension_;
    const fs::path path = folder_ / name;
    // A link at a name that the user did not give is replaced: it may lead to an input.
    if (type_of(path) == fs::file_type::symlink) {
      std::error_code ignored;
      fs::remove(path, ignored);
    }
    write_picture(path.string(), picture->annotated());
  }

  void finish() override {}

 private:
  fs::path folder_;
  std::string extension_;
};

}  // namespace

bool is_video_name(const std::string& path) {
  const std::string extension = fs::path(path).extension();
  return extension == ".mp4" || extension == ".mkv" || extension == ".mov" || extension == ".avi";
}

std::unique_ptr<FrameWriter> make_video_writer(
    const std::string& path, double frames_per_second,
    const std::function<void(const std::string&)>& notice) {
  return std::make_unique<VideoWriter>(path, frames_per_second, notice);
}

std::unique_ptr<FrameWriter> make_folder_writer(const std::string& folder,
                                                const std::string& extension) {
  return std::make_unique<FolderWriter>(folder, extension);
}

}  // namespace olvex_tools
