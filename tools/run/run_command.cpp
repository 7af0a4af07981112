// SPDX-License-Identifier: Apache-2.0
// run_command.cpp - the subcommand run: its options, their checks, and its help.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

#include "tools/common/command.h"
#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/frames/picture_writers.h"
#include "tools/inside/foreign_platform.h"
#include "tools/run/run.h"

namespace olvex_tools {

namespace {

constexpr int kDisplayMost = 32767;   // pixels, each way
constexpr int kTrackFramesMost = 10;  // the tracker remembers that many frames of an object
constexpr int kContactFramesMost = 400;
constexpr long kFramesMost = 1000000000;  // a year of video and more

const char kDescription[] = "Run a model on video, pictures or a camera and write what it finds";

const char kManual[] =
    "INPUT is a video file, a picture, a folder of pictures, a dumped frame or a folder of them\n"
    "(*.bin, raw frames in the model's input format, as the library dumps them), or a camera\n"
    "(/dev/video0 or camera:0). Files of a folder are taken in the order of their names, numbers\n"
    "by value. Without any output option only the summary is printed.\n\n"
    "Examples:\n"
    "  olvex-det run detector.qtm street.mp4 --track --video annotated.mp4\n"
    "  olvex-det run detector.qtm street.mp4 --jsonl - | jq '.boxes[].score'\n"
    "  olvex-det run detector.qtm pictures/ --threshold 0.05 --coco results.json\n"
    "  olvex-det run detector.qtm dumps/ --display 1920x1080 --mot tracks.txt --track\n"
    "  olvex-det run detector.qtm camera:0 --contact-sheet sheet.jpg --limit 500\n\n"
    "Ctrl-C, SIGTERM and SIGHUP end a run in order: the outputs are complete up to the last frame\n"
    "(exit code 130). A damaged or cut input ends it likewise, with a message and exit code 4. An\n"
    "output that fails in the middle ends it with exit code 4, too; the others, COCO results\n"
    "included, hold what came until then. What was there before is replaced once there is a "
    "frame.\n"
    "After kill -9 or a power cut, JSON Lines, MOT rows and pictures hold what was written until\n"
    "then; .mkv and .avi all but the last seconds, so a short run's may hold nothing; .mp4 and "
    ".mov\n"
    "cannot be played; COCO results are those of the run before, and FILE.partial.* may be left\n"
    "beside them. Name a long run's video .mkv.\n\n"
    "Frames are numbered from 1 in their source, skipped ones included. COCO results use the "
    "number\n"
    "that a picture is named by (000000000139.jpg) as image_id if all names are numbers, else the\n"
    "frame number, and the class id as category_id.";

struct CommandLine {
  RunOptions run;
  std::string display;
  std::vector<Option> tracking;  // options without effect unless --track
  Option track;
  Option stable_sensitivity;
  Option static_sensitivity;
  Option firmware;
};

bool is_share(float value) {
  return value >= 0.f && value <= 1.f;
}

cv::Size parse_display(const std::string& text) {
  int width = 0;
  int height = 0;
  int used = 0;
  const int found = std::sscanf(text.c_str(), "%5dx%5d%n", &width, &height, &used);
  if (found != 2 || static_cast<std::size_t>(used) != text.size() || width < 1 || height < 1 ||
      width > kDisplayMost || height > kDisplayMost) {
    refuse_usage("--display " + text + ": give width and height in pixels, 1 to " +
                 std::to_string(kDisplayMost) + ", as in 1920x1080");
  }
  return {width, height};
}

bool ends_in_one_of(const std::string& path, std::initializer_list<const char*> extensions) {
  for (const std::string extension : extensions) {
    if (path.size() > extension.size() &&
        path.compare(path.size() - extension.size(), extension.size(), extension) == 0) {
      return true;
    }
  }
  return false;
}

void check_numbers(const CommandLine& line) {
  const DetectorOptions& detector = line.run.detector;
  if (!is_share(detector.threshold)) {
    refuse_usage("--threshold must be from 0 to 1");
  }
  if (!is_share(detector.stable_sensitivity)) {
    refuse_usage("--stable-sensitivity must be from 0 to 1");
  }
  if (!is_share(detector.static_sensitivity) || detector.static_sensitivity <= 0.f) {
    refuse_usage("--static-sensitivity must be above 0, up to 1");
  }
  if (!(line.run.picture_rate >= 0.001 && line.run.picture_rate <= 1000)) {
    refuse_usage("--fps must be from 0.001 to 1000");
  }
}

void check_combinations(const CommandLine& line) {
  const DetectorOptions& detector = line.run.detector;
  if (detector.strict && line.track.given() && !detector.track) {
    refuse_usage("--strict needs the tracker: leave out --no-track");
  }
  for (const Option& option : line.tracking) {
    if (option.given() && !detector.track && !detector.strict) {
      refuse_usage(option.name() + " acts on tracks: add --track");
    }
  }
  if (line.static_sensitivity.given() && !detector.ignore_static && !detector.strict) {
    refuse_usage("--static-sensitivity acts on --ignore-static: add that, or leave it out");
  }
  if (line.stable_sensitivity.given() && !detector.stable) {
    refuse_usage("--stable-sensitivity acts on --stable: add that, or leave it out");
  }
  if (line.firmware.given() && detector.from_memory) {
    refuse_usage(
        "--firmware: a model from memory always uses the default firmware; leave out --memory");
  }
  if (line.run.outputs.whole_pixels && line.run.outputs.mot.empty() &&
      line.run.outputs.coco.empty()) {
    refuse_usage("--whole-pixels acts on --mot and --coco: add one of them, or leave it out");
  }
  const std::string& video = line.run.outputs.video;
  if (!video.empty() && !is_video_name(video)) {
    refuse_usage("--video " + video + ": the name must end in .mp4, .mkv, .mov or .avi");
  }
  if (line.run.log == kStandardOutput) {
    refuse_usage(
        "--log -: the log cannot go to standard output, which is for results. Name a file");
  }
  const std::string& sheet = line.run.outputs.contact_sheet;
  if (!sheet.empty() && !ends_in_one_of(sheet, {".png", ".jpg", ".jpeg"})) {
    refuse_usage("--contact-sheet " + sheet + ": the name must end in .png, .jpg or .jpeg");
  }
}

// Whether a path leads to /proc/self/fd/1, by links or other names. What that link itself leads to
// is another matter: a pipe has no path.
bool is_standard_output(std::filesystem::path path) {
  namespace fs = std::filesystem;
  constexpr int kLinksMost = 40;  // the system follows no more
  for (int links = 0; links < kLinksMost; ++links) {
    std::error_code error;
    const fs::path folder = fs::canonical(fs::absolute(path, error).parent_path(), error);
    if (path.filename() == "1" && (fs::equivalent(folder, "/proc/self/fd", error) ||
                                   fs::equivalent(folder, "/proc/thread-self/fd", error))) {
      return true;
    }
    const fs::path target = fs::read_symlink(path, error);
    if (error) {
      return false;
    }
    path = folder / target;
  }
  return false;
}

// Standard output by its other names. Those lead to the library's log while a run goes on.
void recognise_standard_output(OutputOptions* outputs) {
  for (std::string* path :
       {&outputs->json_lines, &outputs->mot, &outputs->coco, &outputs->summary}) {
    if (is_standard_output(*path)) {
      *path = kStandardOutput;
    }
  }
}

int run(CommandLine* line) {
  recognise_standard_output(&line->run.outputs);
  check_numbers(*line);
  check_combinations(*line);
  if (!line->display.empty()) {
    line->run.display = parse_display(line->display);
  }
  return run_session(line->run);
}

void add_detection_options(OptionTable* options, CommandLine* line) {
  DetectorOptions* const detector = &line->run.detector;
  options->group("Detection");
  options->add("--threshold", "NUMBER", &detector->threshold, "Score that a box needs, 0 to 1")
      .shows_default();
  options->add("--display", "WxH", &line->display,
               "Size in pixels that boxes are scaled to; without it the frame's own");
  options->flag("--memory", &detector->from_memory,
                "Hand the model to the library in memory instead of by its path");
  line->firmware =
      options->add("--firmware", "FILE", &detector->firmware,
                   "The accelerator's firmware file; without it the library's default");
  add_platform_option(options, &line->run.platform);
}

void add_tracking_options(OptionTable* options, CommandLine* line) {
  DetectorOptions* const detector = &line->run.detector;
  options->group("Tracking");
  line->track =
      options->flag("--track,!--no-track", &detector->track, "Give objects an id across frames");
  line->tracking.push_back(options
                               ->add("--track-frames", "N", &detector->track_frames,
                                     "Frames an object must be seen before it is reported, 1 to 10")
                               .shows_default()
                               .range(1, kTrackFramesMost));
  line->tracking.push_back(
      options->flag("--ignore-static", &detector->ignore_static, "Report moving objects only"));
  line->static_sensitivity =
      options
          ->add("--static-sensitivity", "NUMBER", &detector->static_sensitivity,
                "Overlap from which an object counts as standing still")
          .shows_default();
  options->flag("--stable", &detector->stable,
                "Hold boxes still while they overlap those of the frame before");
  line->stable_sensitivity =
      options
          ->add("--stable-sensitivity", "NUMBER", &detector->stable_sensitivity,
                "Overlap above which a box is held")
          .shows_default();
  options->flag("--strict", &detector->strict,
                "Report objects of class 0 that never moved only when a box of a class that the "
                "model names confirms them; tracks too");
}

void add_input_options(OptionTable* options, CommandLine* line) {
  options->group("Frames");
  options->add("--skip", "N", &line->run.skip, "Frames to leave out at the start")
      .range(0L, kFramesMost);
  options->add("--limit", "N", &line->run.limit, "Frames to process at most")
      .range(1L, kFramesMost);
  options
      ->add("--fps", "NUMBER", &line->run.picture_rate,
            "Frames per second that a folder of files stands for")
      .shows_default();
}

void add_output_options(OptionTable* options, CommandLine* line) {
  OutputOptions* const outputs = &line->run.outputs;
  options->group("Outputs (FILE|-: a file, or - for standard output)");
  options->add("--jsonl", "FILE|-", &outputs->json_lines,
               "One JSON object per frame and line, see frame.schema.json");
  options->add("--mot", "FILE|-", &outputs->mot,
               "MOTChallenge rows (frame,id,left,top,width,height,score,class,-1,-1)");
  options->add("--coco", "FILE|-", &outputs->coco,
               "COCO results, a JSON array; written as FILE.partial.* until complete");
  options->flag("--whole-pixels", &outputs->whole_pixels,
                "MOT and COCO boxes cut to whole pixels, as ALGO_DET_Run hands them out");
  options->add("--summary-json", "FILE|-", &outputs->summary, "The summary as JSON");
  options->add("--video", "FILE", &outputs->video,
               "Annotated video (.mkv, .avi, .mp4, .mov); killed, the first two keep most");
  options->add("--pictures", "FOLDER", &outputs->pictures,
               "One annotated picture per frame, frame_000001.png and so on");
  options->add("--picture-format", "WORD", &outputs->picture_extension, "png or jpg")
      .shows_default()
      .one_of({"png", "jpg"});
  options->add("--contact-sheet", "FILE", &outputs->contact_sheet,
               "One picture (.png, .jpg) with frames chosen evenly over the run");
  options->add("--contact-frames", "N", &outputs->contact_frames, "Frames on the contact sheet")
      .shows_default()
      .range(1, kContactFramesMost);
  options->add("--log", "FILE", &line->run.log,
               "The library's own log is added to it; otherwise it is not kept");
  options->flag("--quiet", &line->run.quiet,
                "No progress, remarks or summary on the screen; errors are shown");
}

}  // namespace

void add_run_command(CLI::App& application, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&application, "run", kDescription, kManual, chosen,
                      [line] { return run(line.get()); });
  options.add("IMAGE", "", &line->run.detector.model, "Model image, made by olvex-det pack")
      .required();
  options.add("INPUT", "", &line->run.input, "Video, picture, dump, folder or camera").required();
  add_detection_options(&options, line.get());
  add_tracking_options(&options, line.get());
  add_input_options(&options, line.get());
  add_output_options(&options, line.get());
}

}  // namespace olvex_tools
