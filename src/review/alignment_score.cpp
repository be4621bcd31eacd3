#include "review/alignment_score.h"

#include <cmath>

#include "clustering/realignment.h"

namespace kestrelvane {

namespace {

// Exactly 1 where a bit is the 0.25 µV that the constants of the score were chosen for.
float bits_of_score(const session_state& session) { return session.recording.vscale_HP / 0.25f; }

}  // namespace

float alignment_score(float mean_square, float sharpness) {
  if (!(sharpness > 0.0f)) return 0.0f;
  // Three roots are exact to the last bit on every machine; a power need not be.
  const float eighth_root = std::sqrt(std::sqrt(std::sqrt(mean_square)));
  const auto decades = static_cast<float>(std::log10(static_cast<double>(sharpness)));
  return 5.0f * (2.0f - 1.14f * eighth_root + decades);
}

float template_mean_square(const session_state& session, std::int32_t cluster) {
  const template_table& templates = session.templates;
  const std::int32_t n_channels = templates.template_n_channels[cluster];
  const std::int32_t points = templates.template_points;
  if (n_channels < 1 || points < 1) return 0.0f;
  float sum = 0.0f;
  for (std::int32_t k = 1; k <= n_channels; ++k) {
    const float* mean = templates.mean(cluster, templates.channels(cluster)[k]);
    for (std::int32_t t = 1; t <= points; ++t) sum += mean[t] * mean[t];
  }
  const float scale = bits_of_score(session);
  return sum / static_cast<float>(n_channels * points) * (scale * scale);
}

bool measure_alignment(const session_state& session, std::int32_t cluster,
                       const std::vector<std::int32_t>& list, std::vector<float>& scores,
                       block_meter meters) {
  scores.assign(list.size(), 0.0f);
  const float mean_square = template_mean_square(session, cluster);
  // Squared bits times µV a bit: one of the two scales is in it already.
  const float scale = bits_of_score(session);
  return for_each_block(session, list.size(), meters, [&](std::size_t first, std::size_t end) {
    const std::vector<std::int32_t> block(list.begin() + static_cast<std::ptrdiff_t>(first),
                                          list.begin() + static_cast<std::ptrdiff_t>(end));
    const std::vector<float> sharpness = rms_fit_sharpness(session, cluster, block);
    for (std::size_t i = 0; i < block.size(); ++i) {
      scores[first + i] = alignment_score(mean_square, sharpness[i] * scale);
    }
  });
}

}  // namespace kestrelvane
