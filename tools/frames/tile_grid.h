// tile_grid.h - pictures of one size in rows and columns on a white sheet, with strips for text.
// contact_sheet.cpp and compare_sheet.cpp fill such sheets.
#ifndef TOOLS_FRAMES_TILE_GRID_H
#define TOOLS_FRAMES_TILE_GRID_H

#include <cstddef>

#include <opencv2/core.hpp>

namespace olvex_tools {

// Heights of the strips in pixels; 0: there are none.
struct GridStrips {
  int heading = 0;  // above each column
  int caption = 0;  // above each tile
};

class TileGrid {
 public:
  TileGrid(cv::Size tile, std::size_t rows, std::size_t columns, const GridStrips& strips);

  // Parts of the sheet to draw into. Requires: row and column lie within the grid.
  cv::Mat tile(std::size_t row, std::size_t column);
  cv::Mat caption(std::size_t row, std::size_t column);
  cv::Mat heading(std::size_t column);

  const cv::Mat& sheet() const { return sheet_; }

 private:
  int left_of(std::size_t column) const;
  int top_of(std::size_t row) const;  // of its captions

  cv::Size tile_;
  GridStrips strips_;
  cv::Mat sheet_;
};

// The size of tiles that show pictures of that size in so many columns: the sheet gets about 1920
// pixels wide, and no tile is wider than 480 pixels or of a shape beyond 2:3 upright.
cv::Size tile_size(cv::Size picture, std::size_t columns);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_TILE_GRID_H
