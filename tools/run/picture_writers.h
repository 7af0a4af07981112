// picture_writers.h - annotated frames as a video, as single pictures, and on a contact sheet.
// annotation.h draws them; run_outputs.h puts the writers together.
#ifndef TOOLS_RUN_PICTURE_WRITERS_H
#define TOOLS_RUN_PICTURE_WRITERS_H

#include <functional>
#include <memory>
#include <string>

#include "tools/frames/annotation.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_RUN_PICTURE_WRITERS_H
