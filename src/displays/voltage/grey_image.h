// The recording as a grey image: one band of pixels per channel, time to the right.
#pragma once

#include <QImage>
#include <cstdint>

#include "displays/voltage/voltage_geometry.h"

namespace kestrelvane {

struct grey_layout {
  std::int32_t left = 17;       // x of column 1
  std::int32_t row_height = 3;  // pixels
  std::int32_t offset = 0;      // pixels above the image
  std::int32_t n_rows = 0;      // rows that the window shows some of
  std::int32_t n_columns = 0;   // columns that it shows
};

grey_layout lay_out_grey_image(const session_state& session, const voltage_layout& layout);

// y of the first pixel of a row.
std::int32_t grey_row_top(const grey_layout& grey, std::int32_t row);

// Rows 1..n_rows, columns 1..n_columns; to be put at left, grey_row_top(1). Null when the
// window has no room for any.
QImage make_grey_image(const session_state& session, const voltage_layout& layout,
                       const grey_layout& grey);

}  // namespace kestrelvane
