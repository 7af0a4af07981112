// SPDX-License-Identifier: Apache-2.0
// contact_sheet.cpp - a grid of evenly chosen frames from a series of unknown length.
// Declared in run.h; annotation.h has the grid.
#include "tools/run/run.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>

#include "tools/frames/annotation.h"
#include "tools/common/output_file.h"

namespace olvex_tools {

namespace {

// Keeps every stride-th frame. When that makes four times as many as wanted, every second one goes
// and the stride doubles; so at the end there are at least twice as many to choose from, all
// equally far apart.
class ContactSheetWriter : public FrameWriter {
 public:
  ContactSheetWriter(const std::string& path, std::size_t tiles)
      : path_(path), file_(path, nullptr, OutputForm::kWhole), wanted_(tiles) {}

  void write(FramePicture* picture) override {
    if (seen_++ % stride_ != 0) {
      return;
    }
    kept_.push_back({tile_of(picture), picture->record().number, picture->record().source});
    if (kept_.size() == 4 * wanted_) {
      drop_every_second();
      stride_ *= 2;
    }
  }

  void finish() override {
    if (!kept_.empty()) {
      file_.write(encoded_picture(path_, sheet()));
    }
    file_.close();
  }

 private:
  struct Tile {
    cv::Mat picture;
    long number;
    std::string source;
  };

  cv::Mat tile_of(FramePicture* picture) {
    if (tile_.empty()) {
      // Many tiles are small ones, which also bounds the memory that the kept ones take.
      tile_ = tile_size(picture->annotated().size(), columns_of(wanted_));
    }
    return picture->annotated_at(tile_);
  }

  // By its file where each frame has its own, by its number where all are of one.
  std::string caption_of(const Tile& tile) const {
    const std::string number = "frame " + std::to_string(tile.number);
    std::map<std::string, std::size_t> frames_of;
    for (const Tile& kept : kept_) {
      ++frames_of[kept.source];
    }
    if (frames_of.size() == 1) {
      return number;
    }
    const std::string file = std::filesystem::path(tile.source).filename().string();
    return frames_of[tile.source] == 1 ? file : file + ", " + number;
  }

  void drop_every_second() {
    for (std::size_t i = 0; 2 * i < kept_.size(); ++i) {
      kept_[i] = kept_[2 * i];
    }
    kept_.resize((kept_.size() + 1) / 2);
  }

  cv::Mat sheet() const {
    const std::size_t count = std::min(wanted_, kept_.size());
    const std::size_t columns = columns_of(count);
    const std::size_t rows = (count + columns - 1) / columns;
    TileGrid grid(tile_, rows, columns, GridStrips());
    for (std::size_t i = 0; i < count; ++i) {
      // From the first kept frame to the last one, both included.
      const std::size_t chosen = count == 1 ? 0 : i * (kept_.size() - 1) / (count - 1);
      cv::Mat tile = grid.tile(i / columns, i % columns);
      kept_[chosen].picture.copyTo(tile);
      draw_caption(caption_of(kept_[chosen]), &tile);
    }
    return grid.sheet();
  }

  static std::size_t columns_of(std::size_t count) {
    return static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(count))));
  }

  std::string path_;
  OutputFile file_;
  std::size_t wanted_;
  cv::Size tile_;
  std::vector<Tile> kept_;
  std::size_t seen_ = 0;
  std::size_t stride_ = 1;
};

}  // namespace

std::unique_ptr<FrameWriter> make_contact_sheet_writer(const std::string& path, std::size_t tiles) {
  return std::make_unique<ContactSheetWriter>(path, tiles);
}

}  // namespace olvex_tools
