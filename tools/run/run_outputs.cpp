// run_outputs.cpp - opens, feeds and completes the outputs of a run. Read run_outputs.h first.
#include "tools/run/run_outputs.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "tools/common/command.h"
#include "tools/frames/frame_source.h"
#include "tools/common/output_file.h"
#include "tools/frames/own_files.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

struct NamedPath {
  const char* option;
  std::string path;
};

std::vector<NamedPath> wanted_outputs(const OutputOptions& options) {
  std::vector<NamedPath> wanted = {{"--jsonl", options.json_lines},
                                   {"--mot", options.mot},
                                   {"--coco", options.coco},
                                   {"--summary-json", options.summary},
                                   {"--video", options.video},
                                   {"--pictures", options.pictures},
                                   {"--contact-sheet", options.contact_sheet}};
  wanted.erase(std::remove_if(wanted.begin(), wanted.end(),
                              [](const NamedPath& output) { return output.path.empty(); }),
               wanted.end());
  return wanted;
}

// Two names of one file. Devices and pipes may be shared.
bool same_file(const std::string& left, const std::string& right) {
  if (left == kStandardOutput || right == kStandardOutput) {
    return left == right;
  }
  std::error_code error;
  if (fs::is_other(left, error)) {
    return false;
  }
  if (fs::equivalent(left, right, error)) {
    return true;
  }
  // A file that is yet to be made has a name only.
  const fs::path whole = fs::weakly_canonical(fs::absolute(left, error), error);
  return !whole.empty() && whole == fs::weakly_canonical(fs::absolute(right, error), error);
}

// Whether the shell made standard output lead to that file.
bool leads_to_standard_output(const std::string& path) {
  struct stat ours = {};
  struct stat other = {};
  return fstat(STDOUT_FILENO, &ours) == 0 && S_ISREG(ours.st_mode) &&
         stat(path.c_str(), &other) == 0 && ours.st_dev == other.st_dev &&
         ours.st_ino == other.st_ino;
}

// Whether writing there would replace a frame of the folder that is read, or add one.
bool lies_among_frames(const std::string& output, const std::string& input) {
  std::error_code error;
  return is_frame_file(output) &&
         fs::equivalent(fs::absolute(output, error).parent_path(), input, error);
}

template <typename Writers>
void finish_all(Writers& writers, std::vector<ToolError>* failures) {
  for (const auto& writer : writers) {
    try {
      writer->finish();
    } catch (const ToolError& error) {
      failures->push_back(error);
    } catch (const std::exception& error) {
      failures->emplace_back(kInternalError, std::string("unexpected error: ") + error.what());
    }
  }
}

}  // namespace

bool uses_standard_output(const OutputOptions& options) {
  const std::vector<NamedPath> wanted = wanted_outputs(options);
  return std::any_of(wanted.begin(), wanted.end(),
                     [](const NamedPath& output) { return output.path == kStandardOutput; });
}

void require_separate_files(const OutputOptions& options, const std::string& log,
                            const std::vector<std::string>& read_paths) {
  std::vector<NamedPath> wanted = wanted_outputs(options);
  for (const NamedPath& output : wanted) {
    if (leads_to_standard_output(output.path)) {
      throw ToolError(kUsageError, std::string(output.option) + " " + output.path +
                                       ": standard output is redirected to the same file. Give "
                                       "each a file of its own.");
    }
  }
  if (!log.empty()) {
    wanted.push_back({"--log", log});
  }
  for (auto output = wanted.begin(); output != wanted.end(); ++output) {
    for (auto other = wanted.begin(); other != output; ++other) {
      if (same_file(output->path, other->path)) {
        throw ToolError(kUsageError, std::string(other->option) + " and " + output->option +
                                         " both write to " + output->path +
                                         ". Give each output a file of its own.");
      }
    }
    for (const std::string& path : read_paths) {
      if (same_file(output->path, path)) {
        throw ToolError(kUsageError, std::string(output->option) + " would overwrite " + path +
                                         ", which is read. Name another file.");
      }
      if (lies_among_frames(output->path, path)) {
        throw ToolError(kUsageError, std::string(output->option) + " " + output->path +
                                         " would lie among the frames that are read. Name another "
                                         "folder.");
      }
      if (is_frame_in(path, output->path)) {
        throw ToolError(kUsageError, std::string(output->option) + " " + output->path + " holds " +
                                         path + ", which is read. Name another folder.");
      }
    }
  }
}

RunOutputs::RunOutputs(const OutputOptions& options, FILE* standard_output,
                       const std::vector<std::string>& class_names, double frames_per_second,
                       const std::function<void(const std::string&)>& notice)
    : class_names_(class_names) {
  if (!options.json_lines.empty()) {
    result_writers_.push_back(
        make_json_lines_writer(options.json_lines, standard_output, class_names_));
  }
  if (!options.mot.empty()) {
    result_writers_.push_back(make_mot_writer(options.mot, standard_output));
  }
  if (!options.coco.empty()) {
    result_writers_.push_back(make_coco_writer(options.coco, standard_output));
  }
  if (!options.video.empty()) {
    picture_writers_.push_back(make_video_writer(options.video, frames_per_second, notice));
  }
  if (!options.pictures.empty()) {
    picture_writers_.push_back(make_folder_writer(options.pictures, options.picture_extension));
  }
  if (!options.contact_sheet.empty()) {
    picture_writers_.push_back(
        make_contact_sheet_writer(options.contact_sheet, options.contact_frames));
  }
}

void RunOutputs::write(const FrameRecord& record, const cv::Mat& picture) {
  for (const auto& writer : result_writers_) {
    writer->write(record);
  }
  FramePicture frame(record, class_names_, picture);
  for (const auto& writer : picture_writers_) {
    writer->write(&frame);
  }
}

std::vector<ToolError> RunOutputs::finish() {
  std::vector<ToolError> failures;
  finish_all(result_writers_, &failures);
  finish_all(picture_writers_, &failures);
  return failures;
}

}  // namespace olvex_tools
