// SPDX-License-Identifier: Apache-2.0
// run_command.cpp - the subcommand run: its options and its help. run_options.cpp checks them.
#include <memory>

#include "tools/common/command.h"
#include "tools/common/options.h"
#include "tools/common/subcommands.h"
#include "tools/inside/foreign_platform.h"
#include "tools/run/run_options.h"

namespace olvex_tools {

namespace {

constexpr int kTrackFramesMost = 10;  // the tracker remembers that many frames of an object
constexpr int kContactFramesMost = 400;
constexpr int kTimeoutMost = 3600;  // seconds
constexpr int kJobsMost = 256;
constexpr int kLineWidthMost = 100;

const char kDescription[] = "Run a model on video, pictures or a camera and write what it finds";

const char kManual[] =
    "INPUT is a video file, a picture, a folder of pictures or of videos, a dumped frame or a\n"
    "folder of them (*.bin, raw frames in the model's input format, as the library dumps\n"
    "them), a camera (/dev/video0 or camera:0), an address (rtsp://, http://), or - for an\n"
    "encoded video on standard input, read as a stream: MKV, TS or a raw stream, not MP4 with\n"
    "its index at the end. Files of a folder are taken in the order of their names, numbers\n"
    "by value. Without any output option only the summary is printed.\n\n"
    "Several inputs are read one after the other, and summed up together. A pattern in quotes\n"
    "('day?/*.mp4') stands for the files that fit it; pictures that follow one another are\n"
    "one input. {name} in the path of an output stands for the input's name without its\n"
    "extension, so that each input gets a file of its own; without it JSON Lines and the\n"
    "contact sheet hold all inputs. Each input is tracked by itself, and ids go on from one\n"
    "to the next in a file of JSON Lines for all.\n\n"
    "Examples:\n"
    "  olvex-det run detector.qtm street.mp4 --track --video annotated.mp4\n"
    "  olvex-det run detector.qtm street.mp4 --jsonl - | jq '.boxes[].score'\n"
    "  olvex-det run detector.qtm pictures/ --threshold 0.05 --coco results.json\n"
    "  olvex-det run detector.qtm dumps/ --display 1920x1080 --mot tracks.txt --track\n"
    "  olvex-det run detector.qtm camera:0 --contact-sheet sheet.jpg --limit 500\n"
    "  olvex-det run detector.qtm 'videos/*.mp4' --track --mot 'tracks/{name}.txt'\n"
    "  olvex-det run detector.qtm street.mp4 --start 1:30 --duration 20s --every 5 --jsonl -\n"
    "  olvex-det run detector.qtm pictures/ --shard 2/4 --coco part2.json   # see merge\n\n"
    "--start, --skip, --every and --duration act on each input by itself, --limit and --shard\n"
    "on all together. Where a video's own index (MP4, MOV, MKV) lists the time of each frame,\n"
    "the start is sought, and checked by these times; elsewhere the frames before it are\n"
    "decoded. A shard is one contiguous part. Without --track, --strict and --stable the\n"
    "results of all shards, put together by olvex-det merge, are those of one run; with them\n"
    "each part is tracked by itself.\n\n"
    "Reading, conversion, network and output run side by side, and without --track, --strict\n"
    "and --stable several frames go through the network at once. Results and their order are\n"
    "those of --jobs 1, which does one thing at a time.\n\n"
    "An annotated .mp4 or .mov shows each frame when its source does, also at a varying rate;\n"
    ".mkv and .avi have the source's mean rate.\n\n"
    "Ctrl-C, SIGTERM and SIGHUP end a run in order: the outputs are complete up to the last\n"
    "frame (exit code 130). A damaged or cut input ends it likewise, with a message and exit\n"
    "code 4. An output that fails in the middle ends it with exit code 4, too; the others,\n"
    "COCO results included, hold what came until then. What was there before is replaced once\n"
    "there is a frame. After kill -9 or a power cut, JSON Lines, MOT rows and pictures hold\n"
    "what was written until then; .mkv and .avi all but the last seconds, so a short run's\n"
    "may hold nothing; .mp4 and .mov cannot be played; COCO results are those of the run\n"
    "before, and FILE.partial.* may be left beside them. Name a long run's video .mkv.\n\n"
    "Frames are numbered from 1 in their source, skipped ones included. COCO results use the\n"
    "number that a picture is named by (000000000139.jpg) as image_id if all names are\n"
    "numbers, else the frame number, and the class id as category_id.";

int run(CommandLine* line) {
  complete_options(line);
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
  FrameSelection* const selection = &line->run.reading.selection;
  options->add("--skip", "N", &selection->skip, "Frames to leave out at the start")
      .range(0L, kFramesMost);
  options->add("--start", "TIME|FRAME", &line->start,
               "First frame, by its number from 1 or its time (90s, 1.5s, 250ms, 2min, 0:01:30.5)");
  options->add("--every", "N", &selection->every, "Process the first of every N frames")
      .shows_default()
      .range(1L, kFramesMost);
  options->add("--duration", "TIME", &line->duration,
               "Process the frames of so much time from the first one on");
  options->add("--limit", "N", &selection->limit, "Frames to process at most")
      .range(1L, kFramesMost);
  options->add("--shard", "K/N", &line->shard, "Process the K-th of N parts of about equal length");
  options
      ->add("--fps", "NUMBER", &line->run.reading.picture_rate,
            "Frames per second that a folder of files stands for")
      .shows_default();
  options
      ->add("--timeout", "SECONDS", &line->run.reading.timeout,
            "How long an address may take to answer, and to send a frame")
      .shows_default()
      .range(1, kTimeoutMost);
  options
      ->add(
          "--jobs", "N", &line->run.jobs,
          "Threads that share the work; 0: as many as there are processors; 1: one thing at a time")
      .shows_default()
      .range(0, kJobsMost);
}

void add_drawing_options(OptionTable* options, CommandLine* line) {
  DrawingOptions* const drawing = &line->run.outputs.drawing;
  options->group("Drawing, in videos, pictures and sheets");
  options->flag("--labels,!--no-labels", &drawing->labels, "Name and score beside each box");
  options
      ->add("--line-width", "PIXELS", &drawing->line_width,
            "Width of outlines; without it as suits the picture's size")
      .range(1, kLineWidthMost);
  options
      ->add("--blur", "A,B", &line->run.blurred,
            "Make boxes of these classes, by name or id, unrecognisable in every picture, also "
            "those that --classes leaves out; what is not found or not reported is not blurred")
      .split_at(',');
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
  options
      ->add("--classes", "A,B", &line->run.classes,
            "Write, draw and count boxes of these classes alone, by name or id; the tracker and "
            "strict "
            "mode see all")
      .split_at(',');
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
  options->add("--trace", "FILE|-", &outputs->trace,
               "When each stage had each frame, as trace events (JSON) that Perfetto shows");
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
  options
      .add("INPUT", "", &line->run.inputs,
           "Video, picture, dump, folder, pattern, camera, address or -; several are read in turn")
      .required();
  add_detection_options(&options, line.get());
  add_tracking_options(&options, line.get());
  add_input_options(&options, line.get());
  add_output_options(&options, line.get());
  add_drawing_options(&options, line.get());
}

}  // namespace olvex_tools
