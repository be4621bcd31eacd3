// The template of a cluster as an image: channels in site order from the top, time to the
// right, voltage as colour; or its standard deviation.
#pragma once

#include <QImage>
#include <QPainter>
#include <QString>
#include <cstdint>
#include <vector>

#include "displays/clusters/cluster_theme.h"

namespace kestrelvane {

enum class template_values { mean, sd };

struct template_image_view {
  std::int32_t cluster = 0;
  template_values values = template_values::mean;
  // Rows round the centre channel; 0: all channels, or those that have room.
  std::int32_t n_rows = 0;
  std::int32_t width = 500, height = 600;
};

struct template_image_picture {
  std::int32_t cluster = 0, n_points = 0;
  std::vector<std::int32_t> channels;  // by row from the top
  std::vector<float> values;           // µV, row after row
  float limit_uv = 1;                  // the colours' end: largest magnitude on show
  float first_ms = 0, step_ms = 0;     // of the points
  std::int32_t centre_row = -1;        // from 0
  std::int32_t width = 0, height = 0;
};

void prepare_template_image(const session_state& session, const template_image_view& view,
                            template_image_picture& picture);
void paint_template_image(QPainter& painter, const template_image_picture& picture,
                          const template_image_view& view, const cluster_theme& theme);

// What the pointer finds: channel, ms from the aligned time, µV. channel is 0 beside the image.
struct template_reading {
  std::int32_t channel = 0;
  float ms = 0, microvolts = 0;
};
template_reading read_template_image(const template_image_picture& picture, QPointF pixel);
// "channel 12, 0.23 ms, -45.1 µV"; empty beside the image.
QString template_words(const template_image_picture& picture, QPointF pixel);

// Blue below 0, red above, the background at 0; of a s.d. from the background to red.
QColor colour_of_voltage(float part, const cluster_theme& theme);

}  // namespace kestrelvane
