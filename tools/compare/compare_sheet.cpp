// SPDX-License-Identifier: Apache-2.0
// compare_sheet.cpp - reads the frames one after the other and draws each into its row at once.
// Declared in compare.h.
#include "tools/compare/compare.h"

#include <algorithm>
#include <cinttypes>
#include <filesystem>

#include "tools/frames/annotation.h"
#include "tools/common/command.h"
#include "tools/frames/frame_source.h"
#include "tools/common/progress.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

// Of a line of text, pixels.
constexpr int kHeadingHeight = 34;
constexpr int kCaptionHeight = 24;

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

struct SheetTile {
  cv::Mat picture;
  std::string caption;
};

// A file of a folder by its name, a frame of a video by its number and time.
std::string name_of_frame(const std::string& input, const SourceFrame& source,
                          const FrameRecord& record) {
  if (source.name != input) {
    return std::filesystem::path(source.name).filename().string();
  }
  return "frame " + std::to_string(record.number) + "   " + text_of_time(record.pts);
}

std::vector<SheetTile> tiles_of(const std::string& name, const cv::Mat& picture, cv::Size size,
                                const std::vector<ComparedRun>& runs, const ComparedFrame& frame) {
  std::vector<SheetTile> tiles;
  for (std::size_t column = 0; column < runs.size(); ++column) {
    const FrameRecord& record = *frame.records[column];
    const FrameChanges changes = changes_of(*frame.records.front(), record);
    const cv::Mat ground = outlined(picture, record, changes, size.width);
    std::string text = counted(record.detections.size(), "box", "boxes");
    if (column == 0) {
      text = name + "   " + text + text_of_differences(frame.boxes_alone[column]);
    } else {
      text += text_of_changes(changes);
    }
    tiles.push_back(
        {FramePicture(record, runs[column].class_names, ground).annotated_at(size), text});
  }
  return tiles;
}

int lines_of(const std::string& text, int width, int line_height) {
  return static_cast<int>(wrapped_text(text, width, line_height).size());
}

cv::Mat sheet_of(const std::vector<ComparedRun>& runs,
                 const std::vector<std::vector<SheetTile>>& rows) {
  const cv::Size size = rows.front().front().picture.size();
  GridStrips strips = {kHeadingHeight, kCaptionHeight};
  for (const ComparedRun& run : runs) {
    strips.heading =
        std::max(strips.heading, kHeadingHeight * lines_of(run.label, size.width, kHeadingHeight));
  }
  for (const std::vector<SheetTile>& row : rows) {
    for (const SheetTile& tile : row) {
      strips.caption = std::max(
          strips.caption, kCaptionHeight * lines_of(tile.caption, size.width, kCaptionHeight));
    }
  }
  TileGrid grid(size, rows.size(), runs.size(), strips);
  for (std::size_t column = 0; column < runs.size(); ++column) {
    cv::Mat heading = grid.heading(column);
    draw_wrapped_text(runs[column].label, kHeadingHeight, &heading);
    for (std::size_t row = 0; row < rows.size(); ++row) {
      rows[row][column].picture.copyTo(grid.tile(row, column));
      cv::Mat caption = grid.caption(row, column);
      draw_wrapped_text(rows[row][column].caption, kCaptionHeight, &caption);
    }
  }
  return grid.sheet();
}

}  // namespace

cv::Mat draw_compare_sheet(const std::string& input, FrameSource* source,
                           const std::optional<cv::Size>& display,
                           const std::vector<ComparedRun>& runs,
                           const std::vector<ComparedFrame>& frames) {
  Progress progress(frames.back().number, false);
  std::vector<std::vector<SheetTile>> rows;
  long position = 0;  // frames read so far
  for (const ComparedFrame& frame : frames) {
    const SourceFrame read = read_frame(input, frame.number, source, &position, &progress);
    const FrameRecord& record = *frame.records.front();
    require_own_size(input, read.picture.size(), display, runs.front(), record);
    // Of one size, whatever the pictures have.
    const cv::Size size = rows.empty() ? tile_size(read.picture.size(), runs.size())
                                       : rows.front().front().picture.size();
    rows.push_back(tiles_of(name_of_frame(input, read, record), read.picture, size, runs, frame));
  }
  return sheet_of(runs, rows);
}

}  // namespace olvex_tools
