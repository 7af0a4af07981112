// tile_grid.cpp - where each tile and strip of a sheet lies.
#include "tools/frames/tile_grid.h"

#include <algorithm>
#include <cmath>

namespace olvex_tools {

namespace {

constexpr int kSheetWidth = 1920;     // pixels, about
constexpr int kTileWidthLeast = 160;  // pixels
constexpr int kTileWidthMost = 480;   // pixels
constexpr int kGap = 6;               // pixels between tiles

}  // namespace

TileGrid::TileGrid(cv::Size tile, std::size_t rows, std::size_t columns, const GridStrips& strips)
    : tile_(tile), strips_(strips) {
  const cv::Scalar ground(255, 255, 255);
  sheet_ = cv::Mat(top_of(rows), left_of(columns), CV_8UC3, ground);
}

cv::Mat TileGrid::tile(std::size_t row, std::size_t column) {
  return sheet_(cv::Rect({left_of(column), top_of(row) + strips_.caption}, tile_));
}

cv::Mat TileGrid::caption(std::size_t row, std::size_t column) {
  return sheet_(cv::Rect(left_of(column), top_of(row), tile_.width, strips_.caption));
}

cv::Mat TileGrid::heading(std::size_t column) {
  return sheet_(cv::Rect(left_of(column), kGap, tile_.width, strips_.heading));
}

int TileGrid::left_of(std::size_t column) const {
  return kGap + static_cast<int>(column) * (tile_.width + kGap);
}

int TileGrid::top_of(std::size_t row) const {
  return kGap + strips_.heading + static_cast<int>(row) * (strips_.caption + tile_.height + kGap);
}

cv::Size tile_size(cv::Size picture, std::size_t columns) {
  const int width =
      std::clamp(kSheetWidth / static_cast<int>(columns), kTileWidthLeast, kTileWidthMost);
  const double height = static_cast<double>(width) * picture.height / picture.width;
  return {width, static_cast<int>(std::lround(std::clamp(height, 1.0, 1.5 * width)))};
}

}  // namespace olvex_tools
