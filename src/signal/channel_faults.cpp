#include "signal/channel_faults.h"

#include <algorithm>
#include <cmath>

namespace kestrelvane {

namespace {

constexpr std::int32_t times_examined = 20000;
constexpr double median_of_normal = 0.6745;  // median of |v| of a normal variable of s.d. 1

std::vector<std::int32_t> channels_in_use(const session_state& session) {
  const recording_store& r = session.recording;
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) channels.push_back(c);
  }
  return channels;
}

// Of an even number the mean of the two in the middle.
template <typename Real>
Real median_of(std::vector<Real>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  if (values.size() % 2 == 1) return *middle;
  return (*middle + *std::max_element(values.begin(), middle)) / 2;
}

}  // namespace

std::vector<bad_channel> find_bad_channels(const session_state& session) {
  const recording_store& r = session.recording;
  const std::vector<std::int32_t> channels = channels_in_use(session);
  std::vector<bad_channel> bad;
  if (static_cast<std::int32_t>(channels.size()) < bad_channels_of) return bad;
  std::vector<float> noise;
  for (const std::int32_t c : channels) noise.push_back(r.chan_noise[c]);
  const float median = median_of(noise);
  // Most channels flat: nothing to compare with.
  if (!(median > 0)) return bad;
  for (const std::int32_t c : channels) {
    const float ratio = r.chan_noise[c] / median;
    if (ratio > bad_above || ratio < bad_below) bad.push_back({c, ratio});
  }
  return bad;
}

double common_noise(const session_state& session) {
  const recording_store& r = session.recording;
  std::vector<std::int32_t> channels = channels_in_use(session);
  std::erase_if(channels, [&](std::int32_t c) { return !(r.chan_noise[c] > 0); });
  if (static_cast<std::int32_t>(channels.size()) < common_noise_of) return 0;
  const std::int64_t step = r.n_samples / times_examined + 1;
  std::vector<float> at_once;
  std::vector<double> medians;
  for (std::int64_t t = 1; t <= r.n_samples; t += step) {
    at_once.clear();
    for (const std::int32_t c : channels) {
      at_once.push_back(static_cast<float>(r.vd.channel(c)[t]) / r.chan_noise[c]);
    }
    // Zeros on all channels are a stretch that was blanked.
    if (std::all_of(at_once.begin(), at_once.end(), [](float v) { return v == 0; })) continue;
    medians.push_back(std::fabs(double{median_of(at_once)}));
  }
  return medians.empty() ? 0 : median_of(medians) / median_of_normal;
}

}  // namespace kestrelvane
