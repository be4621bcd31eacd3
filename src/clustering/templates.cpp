#include "clustering/templates.h"
#include "session/template_window.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "clustering/deferred_templates.h"
#include "clustering/membership.h"
#include "clustering/template_sums.h"
#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "recording/site_tables.h"
#include "signal/interpolation.h"

namespace kestrelvane {

std::int32_t thin_event_list(std::vector<std::int32_t>& list, std::int32_t limit) {
  const auto n = static_cast<std::int32_t>(list.size());
  if (n <= limit) return n;
  for (std::int32_t i = 1; i <= limit; ++i) {
    // In 32 bits: beyond 2^24 the positions are those that 32 bits hold.
    const float position =
        static_cast<float>(i - 1) * static_cast<float>(n) / static_cast<float>(limit);
    list[i - 1] = list[static_cast<std::size_t>(position)];
  }
  list.resize(limit);
  return limit;
}

// ---------------------------------------------------------------- mean and s.d.

namespace {

// An event as its waveform is read: the first sample that the taps of its first point reach.
struct read_event {
  const std::int16_t* v;
  const float* taps;
};

// B times L points of one event added to the sums of a channel. The sums are whole numbers held in
// 32-bit floats: each addition is made in 32 bits and its fraction dropped, which
// is what decides the template to the last bit.
template <int L, int B>
KESTRELVANE_INTO_CALLER void add_points(const float* samples, const float* taps,
                                        std::int32_t n_taps, float* __restrict sum,
                                        float* __restrict squares) {
  typename lanes_of<L>::floats v[B] = {};
  for (std::int32_t j = 0; j < n_taps; ++j) {
    for (int b = 0; b < B; ++b) {
      v[b] +=
          *reinterpret_cast<const typename lanes_of<L>::in_memory*>(samples + j + b * L) * taps[j];
    }
  }
  float points[B * L];
  for (int b = 0; b < B; ++b) lanes_at<L>(points + b * L) = v[b];
  for (int i = 0; i < B * L; ++i) {
    sum[i] = __builtin_truncf(sum[i] + points[i]);
    squares[i] = __builtin_truncf(squares[i] + points[i] * points[i]);
  }
}

// The widest window with the widest interpolation on both sides, in whole lanes.
constexpr std::int32_t raw_room = whole_lanes(template_point_limit) + whole_lanes(2 * 50 + 1);

// An event takes less time than memory: so many are on their way.
constexpr std::size_t events_ahead = 16;

template <int L>
KESTRELVANE_INTO_CALLER void add_waveforms_by(const std::vector<read_event>& events,
                                              std::int32_t n_taps, std::int32_t points, float* sum,
                                              float* squares) {
  // The samples of the next event are converted while those of this one are on their way to the
  // cache: a load of what is just being stored waits for it.
  float samples[2][raw_room];
  const std::int32_t n_samples = whole_lanes(points) + whole_lanes(n_taps - 1);
  if (!events.empty()) convert_samples<L>(events[0].v, n_samples, samples[0]);
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (i + events_ahead < events.size()) {
      prefetch_samples(events[i + events_ahead].v, n_samples);
    }
    if (i + 1 < events.size()) convert_samples<L>(events[i + 1].v, n_samples, samples[(i + 1) & 1]);
    const float* taps = events[i].taps;
    for (std::int32_t p = 0; p < points; p += 6 * L) {
      const float* const from = samples[i & 1] + p;
      switch ((points - p + L - 1) / L) {
        case 1:
          add_points<L, 1>(from, taps, n_taps, sum + p, squares + p);
          break;
        case 2:
          add_points<L, 2>(from, taps, n_taps, sum + p, squares + p);
          break;
        case 3:
          add_points<L, 3>(from, taps, n_taps, sum + p, squares + p);
          break;
        case 4:
          add_points<L, 4>(from, taps, n_taps, sum + p, squares + p);
          break;
        case 5:
          add_points<L, 5>(from, taps, n_taps, sum + p, squares + p);
          break;
        default:
          add_points<L, 6>(from, taps, n_taps, sum + p, squares + p);
          break;
      }
    }
  }
}

KESTRELVANE_BY_WIDTH(add_waveforms,
                     (const std::vector<read_event>& events, std::int32_t n_taps,
                      std::int32_t points, float* sum, float* squares),
                     (events, n_taps, points, sum, squares))

// Mean and s.d. of one point from its sums over n events.
void finish_point(float sum, float squares, std::int32_t n, float flat_sd, float& mean, float& sd) {
  const double exact_mean = static_cast<double>(sum) / n;
  mean = static_cast<float>(exact_mean);
  float residual =
      // Rounding may leave a little below zero.
      static_cast<float>(static_cast<double>(squares) - static_cast<double>(sum) * exact_mean);
  if (residual < 0.0f) residual = 0.0f;
  // One event, or events that are all alike, tell nothing of the spread.
  sd = residual == 0.0f || n < 2 ? flat_sd : std::sqrt(residual / static_cast<float>(n - 1));
}

// True when a channel belongs to the electrode group of a cluster's events. The
// second event of the list decides; a list of one has a second entry of 0.
bool channel_in_group(const session_state& session, std::int32_t channel,
                      const std::vector<std::int32_t>& list) {
  const recording_store& r = session.recording;
  const std::int32_t second = list.size() > 1 ? session.events.event_channel[list[1]] : 0;
  if (r.electrode_type == electrode_tetrode) {
    const std::int32_t tetrode = second > 0 ? r.tetrode_of_channel[second] : 0;
    return r.tetrode_of_channel[channel] == tetrode;
  }
  if (!r.is_continuous && r.electrode_type == electrode_utah_array) return channel == second;
  return true;
}

// The taps of every step that a list of events is read at.
class tap_rows {
 public:
  tap_rows(const session_state& session, const std::vector<std::int32_t>& list) {
    std::int32_t last = first_ = 0;
    for (const std::int32_t e : list) {
      const std::int32_t s = interp_step(session, session.events.event_shift[e]);
      first_ = std::min(first_, s);
      last = std::max(last, s);
    }
    rows_.resize(static_cast<std::size_t>(last - first_ + 1) * stride);
    for (std::int32_t s = first_; s <= last; ++s) {
      interp_taps(session, s, rows_.data() + static_cast<std::size_t>(s - first_) * stride);
    }
  }
  const float* of(std::int32_t s) const {
    return rows_.data() + static_cast<std::size_t>(s - first_) * stride;
  }

 private:
  static constexpr std::size_t stride = 101;
  std::int32_t first_ = 0;
  std::vector<float> rows_;
};

}  // namespace

void average_waveforms(session_state& session, std::int32_t cluster,
                       const std::vector<std::int32_t>& list, std::int32_t channel) {
  template_table& templates = session.templates;
  const event_table& events = session.events;
  const std::int32_t points = templates.template_points;
  const std::int32_t first = window_first_sample(session);
  // A window clamped from below reads no further than its last sample.
  std::int32_t used = window_last_sample(session) - first + 1;
  used = used < 0 ? 0 : used > points ? points : used;

  alignas(64) float sum[whole_lanes(template_point_limit)] = {};
  alignas(64) float squares[whole_lanes(template_point_limit)] = {};
  // A shift of 0 reads the sample by taps of which one is 1: its bits are those of the sample.
  tap_rows taps(session, list);
  std::vector<read_event> reads;
  reads.reserve(list.size());
  // vd has a margin that takes a window which begins before the recording.
  const std::int16_t* samples =
      session.recording.vd.channel(channel) + first - session.tables.width;
  for (const std::int32_t e : list) {
    reads.push_back(
        {samples + events.event_time[e], taps.of(interp_step(session, events.event_shift[e]))});
  }
  add_waveforms(reads, 2 * session.tables.width + 1, used, sum, squares);
  const auto n = static_cast<std::int32_t>(list.size());
  // 8 µV stands for a spread that cannot be told.
  const float flat_sd = 8.0f / session.recording.vscale_HP;
  float* mean = templates.mean(cluster, channel);
  float* sd = templates.sd(cluster, channel);
  // Points beyond those that were read have sums of 0: a mean of 0, and that spread.
  for (std::int32_t p = 1; p <= points; ++p) {
    finish_point(sum[p - 1], squares[p - 1], n, flat_sd, mean[p], sd[p]);
  }
}

bool template_sums_channel(session_state& session, std::int32_t cluster,
                           const std::vector<std::int32_t>& list, std::int32_t channel) {
  if (channel_in_group(session, channel, list)) {
    average_waveforms(session, cluster, list, channel);
    return true;
  }
  const std::size_t bytes = sizeof(float) * session.templates.template_points;
  std::memset(session.templates.mean(cluster, channel) + 1, 0, bytes);
  std::memset(session.templates.sd(cluster, channel) + 1, 0, bytes);
  return false;
}

void make_by_channel(session_state& session, const std::vector<wanted_waveforms>& wanted) {
  const auto n = static_cast<std::int64_t>(wanted.size());
  // Each thread has a run of channels, or a part of one where there are more threads.
  parallel_for(threads_now(session), 0, n * session.recording.n_channels - 1,
               [&](std::int64_t i, std::int32_t) {
                 const wanted_waveforms& w = wanted[static_cast<std::size_t>(i % n)];
                 const auto channel = static_cast<std::int32_t>(i / n + 1);
                 if (w.made != nullptr && (*w.made)[channel]) return;
                 template_sums_channel(session, w.cluster, *w.list, channel);
               });
}

void calculate_listed_template(session_state& session, std::int32_t cluster,
                               std::vector<std::int32_t> list) {
  if (list.empty()) return;
  if (session.deferred != nullptr) session.deferred->owed[cluster] = {};
  // Thinned once for all channels, so that every channel averages the same events.
  thin_event_list(list, session.strategy.template_max_events);
  parallel_for(threads_now(session), 1, session.recording.n_channels,
               [&](std::int64_t channel, std::int32_t) {
                 template_sums_channel(session, cluster, list, static_cast<std::int32_t>(channel));
               });
}

void calculate_assigned_template(session_state& session, std::int32_t cluster,
                                 std::vector<std::int32_t> list) {
  if (list.empty()) return;
  thin_event_list(list, session.strategy.template_max_events);
  const std::int32_t* channels = session.templates.channels(cluster);
  for (std::int32_t k = 1; k <= session.templates.template_n_channels[cluster]; ++k) {
    template_sums_channel(session, cluster, list, channels[k]);
  }
}

void calculate_template_values(session_state& session, std::int32_t cluster) {
  calculate_listed_template(session, cluster, list_cluster_events(session, cluster));
}

void calculate_template(session_state& session, std::int32_t cluster) {
  std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  if (list.empty()) return;
  calculate_listed_template(session, cluster, std::move(list));
  get_template_channels(session, cluster);
}

// ---------------------------------------------------------------- channels

namespace {

struct channel_extent {
  float high, low;        // extremes of the mean
  float high_sd, low_sd;  // s.d. at the first point of each
};

channel_extent find_extent(const template_table& templates, std::int32_t cluster,
                           std::int32_t channel) {
  const float* mean = templates.mean(cluster, channel);
  std::int32_t at_high = 1, at_low = 1;
  for (std::int32_t p = 2; p <= templates.template_points; ++p) {
    if (mean[p] > mean[at_high]) at_high = p;
    if (mean[p] < mean[at_low]) at_low = p;
  }
  const float* sd = templates.sd(cluster, channel);
  return {mean[at_high], mean[at_low], sd[at_high], sd[at_low]};
}

// The unmasked channel of largest peak-to-peak, the lowest on ties; 0 when all
// are flat.
std::int32_t find_centre_by_voltage(const session_state& session, std::int32_t cluster) {
  std::int32_t centre = 0;
  float best = 0.0f;
  for (std::int32_t channel = 1; channel <= session.recording.n_channels; ++channel) {
    if (session.recording.chan_mask[channel]) continue;
    const float height = template_peak_to_peak(session, cluster, channel);
    if (height > best) {
      best = height;
      centre = channel;
    }
  }
  return centre;
}

// The channel with most of the cluster's events, the lowest on ties.
std::int32_t find_centre_by_events(const session_state& session, std::int32_t cluster) {
  std::vector<std::int32_t> counts(session.recording.n_channels + 1, 0);
  for (const std::int32_t e : list_cluster_events(session, cluster)) {
    ++counts[session.events.event_channel[e]];
  }
  std::int32_t centre = 0, best = 0;
  for (std::int32_t channel = 1; channel <= session.recording.n_channels; ++channel) {
    if (counts[channel] > best) {
      best = counts[channel];
      centre = channel;
    }
  }
  return centre;
}

}  // namespace

namespace {

// Of n_lanes values or more; the last lanes begin where they end with the last value.
KESTRELVANE_CLONES void find_wide_range(const float* values, std::int32_t n, float* low,
                                        float* high) {
  float_lanes lowest = *reinterpret_cast<const float_lanes*>(values);
  float_lanes highest = lowest;
  for (std::int32_t i = n_lanes; i < n; i += n_lanes) {
    const std::int32_t from = i + n_lanes <= n ? i : n - n_lanes;
    const float_lanes here = *reinterpret_cast<const float_lanes*>(values + from);
    lowest = here < lowest ? here : lowest;
    highest = here > highest ? here : highest;
  }
  *reinterpret_cast<float_lanes*>(low) = lowest;
  *reinterpret_cast<float_lanes*>(high) = highest;
}

}  // namespace

value_range find_range(const float* values, std::int32_t n) {
  if (n < n_lanes) {
    const auto [low, high] = std::minmax_element(values, values + n);
    return {*low, *high};
  }
  float low[n_lanes], high[n_lanes];
  find_wide_range(values, n, low, high);
  return {*std::min_element(low, low + n_lanes), *std::max_element(high, high + n_lanes)};
}

float template_peak_to_peak(const session_state& session, std::int32_t cluster,
                            std::int32_t channel) {
  const auto [low, high] =
      find_range(session.templates.mean(cluster, channel) + 1, session.templates.template_points);
  return high - low;
}

void assign_channels(session_state& session, std::int32_t slot, std::int32_t centre) {
  const recording_store& r = session.recording;
  template_table& templates = session.templates;
  std::int32_t* channels = templates.channels(slot);
  if (centre == 0) {
    // All flat: the list stays; a slot without one gets channel 1.
    if (templates.template_n_channels[slot] < 1) {
      templates.template_n_channels[slot] = 1;
      channels[1] = 1;
    }
    return;
  }
  channels[1] = centre;
  std::int32_t count = 1;
  const float centre_height = template_peak_to_peak(session, slot, centre);
  for (std::int32_t channel = 1; channel <= r.n_channels; ++channel) {
    if (channel == centre || r.chan_mask[channel]) continue;
    // A channel exactly at the radius belongs.
    if (!(r.distance(centre, channel) <= session.strategy.channel_radius)) continue;
    const channel_extent extent = find_extent(templates, slot, channel);
    const float height = extent.high - extent.low;
    float quality = 0.0f;
    // Without a spread on either side there is no quality, and the channel stays out.
    if (extent.high_sd > 0.0f && extent.low_sd > 0.0f) {
      quality = height / std::sqrt(extent.high_sd * extent.low_sd);
    }
    // At the first threshold a channel is in, at the second it is out.
    if (session.strategy.channel_threshold_1 <= height / centre_height &&
        session.strategy.channel_threshold_2 < quality) {
      channels[++count] = channel;
    }
  }
  templates.template_n_channels[slot] = count;
}

void get_scratch_template_channels(session_state& session, std::int32_t slot) {
  assign_channels(session, slot,
                  session.strategy.template_centre_from_events
                      ? find_centre_by_events(session, slot)
                      : find_centre_by_voltage(session, slot));
}

void get_template_channels(session_state& session, std::int32_t cluster) {
  if (cluster > session.clusters.n_clusters) {
    log_message(session, "*********Error calling get_template_channels ************");
  }
  get_scratch_template_channels(session, cluster);
}

void calculate_template_centre(session_state& session, std::int32_t cluster) {
  const recording_store& r = session.recording;
  template_table& templates = session.templates;
  const std::int32_t* channels = templates.channels(cluster);
  float weight = 0.0f, x = 0.0f, y = 0.0f;
  for (std::int32_t k = 1; k <= templates.template_n_channels[cluster]; ++k) {
    const float height = template_peak_to_peak(session, cluster, channels[k]);
    weight += height;
    x += height * static_cast<float>(r.chan_x[channels[k]]);
    y += height * static_cast<float>(r.chan_y[channels[k]]);
  }
  // A flat template has no place; 0 stands for it.
  templates.template_x[cluster] = weight > 0.0f ? x / weight : 0.0f;
  templates.template_y[cluster] = weight > 0.0f ? y / weight : 0.0f;
  templates.template_z[cluster] = 50.0f;
}

// ---------------------------------------------------------------- all clusters

void calculate_all_templates(session_state& session) {
  const standing_events standing(session);
  const std::int32_t n = session.clusters.n_clusters;
  std::vector<std::vector<std::int32_t>> lists(static_cast<std::size_t>(n) + 1);
  std::vector<wanted_waveforms> wanted;
  for (std::int32_t c = 1; c <= n; ++c) {
    lists[c] = list_cluster_events(session, c);
    // An empty cluster keeps what it had.
    if (lists[c].empty()) continue;
    if (session.deferred != nullptr) session.deferred->owed[c] = {};
    thin_event_list(lists[c], session.strategy.template_max_events);
    wanted.push_back({c, &lists[c], nullptr});
  }
  make_by_channel(session, wanted);
  parallel_for(threads_now(session), 1, n, [&](std::int64_t c, std::int32_t) {
    const auto cluster = static_cast<std::int32_t>(c);
    if (!lists[cluster].empty()) get_template_channels(session, cluster);
    calculate_template_centre(session, cluster);
  });
  templates_are_current(session);
}

float template_sd_rms(const session_state& session, std::int32_t cluster) {
  const std::int32_t points = session.templates.template_points;
  const float* sd = session.templates.sd(cluster, session.templates.centre_channel(cluster));
  float sum = 0.0f;
  for (std::int32_t p = 1; p <= points; ++p) sum += sd[p] * sd[p];
  return std::sqrt(sum / static_cast<float>(points));
}

double template_snr(const session_state& session, std::int32_t cluster) {
  const recording_store& r = session.recording;
  const std::int32_t centre = session.templates.centre_channel(cluster);
  if (!r.is_continuous || centre < 1 || centre > r.n_channels) return 0;
  const float noise = r.chan_noise[centre];
  return noise > 0 ? double{template_peak_to_peak(session, cluster, centre)} / noise : 0;
}

}  // namespace kestrelvane
