#include "displays/voltage/grey_image.h"
#include "recording/recording_formats.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace kestrelvane {

grey_layout lay_out_grey_image(const session_state& session, const voltage_layout& layout) {
  const recording_store& r = session.recording;
  const bool one_tetrode = habits_of(r).one_tetrode;
  grey_layout grey;
  // Few rows have room to be high.
  if (r.n_channels <= 8 || one_tetrode) grey.row_height = 10;
  if (one_tetrode) grey.offset = 50;
  const std::int32_t room = layout.height - grey_row_top(grey, 1);
  grey.n_rows = std::clamp((room + grey.row_height - 1) / grey.row_height, 0, r.n_channels);
  grey.n_columns = std::max(layout.width - grey.left, 0);
  return grey;
}

std::int32_t grey_row_top(const grey_layout& grey, std::int32_t row) {
  return row * grey.row_height + grey.offset + 1;
}

namespace {

// 0 to 255: mid-grey at 0 µV, brighter upwards.
std::uint8_t grey_of(const session_state& session, float bits) {
  const float level = session.display.vd_voltage_scale * 2.25f * bits + 127.0f;
  return static_cast<std::uint8_t>(std::clamp(level, 0.0f, 255.0f));
}

}  // namespace

QImage make_grey_image(const session_state& session, const voltage_layout& layout,
                       const grey_layout& grey) {
  if (grey.n_rows < 1 || grey.n_columns < 1) return {};
  const column_samples columns = find_column_samples(session, layout, grey.n_columns);
  // Element 0 is spare: columns count from 1.
  std::vector<float> values(grey.n_columns + 1);
  QImage image(grey.n_columns, grey.n_rows * grey.row_height, QImage::Format_Grayscale8);
  for (std::int32_t row = 1; row <= grey.n_rows; ++row) {
    read_columns(session, layout, columns, session.recording.chan_sort_order[row], values.data());
    const std::int32_t top = (row - 1) * grey.row_height;
    std::uint8_t* line = image.scanLine(top);
    for (std::int32_t k = 1; k <= grey.n_columns; ++k) line[k - 1] = grey_of(session, values[k]);
    for (std::int32_t below = 1; below < grey.row_height; ++below) {
      // Rows of a band are alike: read and interpolated once.
      std::memcpy(image.scanLine(top + below), line, static_cast<std::size_t>(grey.n_columns));
    }
  }
  return image;
}

}  // namespace kestrelvane
