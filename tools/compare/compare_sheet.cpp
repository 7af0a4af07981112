// SPDX-License-Identifier: Apache-2.0
// compare_sheet.cpp - reads the frames one after the other and draws each into its row at once.
// Declared in compare.h.
#include "tools/compare/compare.h"

#include <cinttypes>

#include "tools/frames/annotation.h"
#include "tools/common/command.h"
#include "tools/frames/frame_source.h"
#include "tools/common/progress.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr GridStrips kStrips = {34, 24};  // pixels

// 1:02:03.400, without the hours where there are none.
std::string text_of_time(std::uint64_t microseconds) {
  const std::uint64_t milliseconds = microseconds / 1000;
  const std::uint64_t minutes = milliseconds / 60000;
  return (minutes < 60 ? format("%" PRIu64, minutes)
                       : format("%" PRIu64 ":%02" PRIu64, minutes / 60, minutes % 60)) +
         format(":%02" PRIu64 ".%03" PRIu64, milliseconds / 1000 % 60, milliseconds % 1000);
}

std::string text_of_differences(std::size_t alone) {
  return alone > 0 ? ", " + std::to_string(alone) + " differ" : "";
}

// Reads forward to the frame of that number.
SourceFrame read_frame(const std::string& input, long number, FrameSource* source, long* position,
                       Progress* progress) {
  bool more = true;
  while (more && *position + 1 < number) {
    more = source->skip();
    *position += more ? 1 : 0;
    progress->update(*position);
  }
  SourceFrame frame;
  if (!more || !source->next(&frame)) {
    refuse_input(input, "has " + counted(*position, "frame", "frames") +
                            " that can be read, but frame " + std::to_string(number) +
                            " is asked for. Give the input that the runs were made from");
  }
  ++*position;
  return frame;
}

// The runs agree with one another, so the first one's boxes stand for all.
void require_own_size(const std::string& input, cv::Size picture,
                      const std::optional<cv::Size>& display, const ComparedRun& run,
                      const FrameRecord& record) {
  const cv::Size size(record.width, record.height);
  const std::string boxes =
      place_of(run, record) + ": the boxes are for " + size_text(size.width, size.height);
  if (display && size != *display) {
    throw ToolError(kInputError, boxes + " pixels, but --display says " +
                                     size_text(display->width, display->height));
  }
  if (!display && size != picture) {
    throw ToolError(kInputError,
                    boxes + " pixels, but frame " + std::to_string(record.number) + " of " + input +
                        " has " + size_text(picture.width, picture.height) +
                        ". Give the input that the runs were made from, and the --display that "
                        "they had, if any");
  }
}

void draw_row(const cv::Mat& picture, const std::vector<ComparedRun>& runs,
              const ComparedFrame& frame, std::size_t row, TileGrid* grid) {
  for (std::size_t column = 0; column < runs.size(); ++column) {
    const FrameRecord& record = *frame.records[column];
    cv::Mat tile = grid->tile(row, column);
    const FrameChanges changes = changes_of(*frame.records.front(), record);
    const cv::Mat ground = outlined(picture, record, changes, tile.cols);
    FramePicture(record, runs[column].class_names, ground).annotated_at(tile.size()).copyTo(tile);
    std::string text = counted(record.detections.size(), "box", "boxes");
    if (column == 0) {
      text = "frame " + std::to_string(frame.number) + "   " + text_of_time(record.pts) + "   " +
             text + text_of_differences(frame.boxes_alone[column]);
    } else {
      text += text_of_changes(changes);
    }
    cv::Mat strip = grid->caption(row, column);
    draw_line_of_text(text, &strip);
  }
}

}  // namespace

cv::Mat draw_compare_sheet(const std::string& input, FrameSource* source,
                           const std::optional<cv::Size>& display,
                           const std::vector<ComparedRun>& runs,
                           const std::vector<ComparedFrame>& frames) {
  Progress progress(frames.back().number, false);
  std::optional<TileGrid> grid;
  long position = 0;  // frames read so far
  for (std::size_t row = 0; row < frames.size(); ++row) {
    const ComparedFrame& frame = frames[row];
    const cv::Mat picture = read_frame(input, frame.number, source, &position, &progress).picture;
    require_own_size(input, picture.size(), display, runs.front(), *frame.records.front());
    if (!grid) {
      grid.emplace(tile_size(picture.size(), runs.size()), frames.size(), runs.size(), kStrips);
    }
    draw_row(picture, runs, frame, row, &*grid);
  }
  for (std::size_t column = 0; column < runs.size(); ++column) {
    cv::Mat strip = grid->heading(column);
    draw_line_of_text(runs[column].label, &strip);
  }
  return grid->sheet();
}

}  // namespace olvex_tools
