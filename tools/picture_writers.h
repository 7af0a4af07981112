// picture_writers.h - annotated frames as a video, as single pictures, and on a contact sheet.
// annotation.h draws them; run_outputs.h puts the writers together.
#ifndef TOOLS_PICTURE_WRITERS_H
#define TOOLS_PICTURE_WRITERS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/frame_record.h"

namespace olvex_tools {

// One frame on its way to the writers. The annotated picture is made when first asked for.
class FramePicture {
 public:
  FramePicture(const FrameRecord& record, const std::vector<std::string>& class_names,
               const cv::Mat& plain)
      : record_(record), class_names_(class_names), plain_(plain) {}

  const FrameRecord& record() const { return record_; }
  // Annotated, in the source's own size.
  const cv::Mat& annotated();
  // Annotated, stretched to fit into size, with dark bars where the shape differs.
  cv::Mat annotated_at(cv::Size size) const;

 private:
  const FrameRecord& record_;
  const std::vector<std::string>& class_names_;
  const cv::Mat& plain_;
  cv::Mat annotated_;
};

class PictureWriter {
 public:
  virtual ~PictureWriter() = default;
  virtual void write(FramePicture* picture) = 0;
  // Completes the file. Call it once.
  virtual void finish() = 0;
};

// Each throws ToolError (kInputError) when its file cannot be written, and touches it only once there
// is a frame.

// path ends in .mp4, .mkv, .mov or .avi. All frames get the size of the first. notice tells the
// user that no H.264 encoder was found.
std::unique_ptr<PictureWriter> make_video_writer(
    const std::string& path, double frames_per_second,
    const std::function<void(const std::string&)>& notice);
// Makes the folder; extension is png or jpg.
std::unique_ptr<PictureWriter> make_folder_writer(const std::string& folder,
                                                  const std::string& extension);
// tiles: frames on the sheet, 1..400, evenly chosen from however many come.
std::unique_ptr<PictureWriter> make_contact_sheet_writer(const std::string& path,
                                                         std::size_t tiles);

// The bytes of a picture file, in the format of the path's extension.
std::string encoded_picture(const std::string& path, const cv::Mat& picture);

}  // namespace olvex_tools

#endif  // TOOLS_PICTURE_WRITERS_H
