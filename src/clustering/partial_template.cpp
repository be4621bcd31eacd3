// A template on the channels that matter, with a proof for the others.
//
// The mean of events elsewhere is noise. How large it can be at most is known without reading it,
// from the largest sample of each stretch of 64; where that does not say enough, from some of the
// events. Only the waveforms that are left to be looked at are made as a template makes them, which
// costs ten times as much: interpolated one by one, and added with a rounding at each.
#include <algorithm>
#include <cmath>
#include <utility>

#include "clustering/deferred_templates.h"
#include "clustering/template_sums.h"
#include "clustering/templates.h"
#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "session/template_window.h"
#include "signal/interpolation.h"

namespace kestrelvane {

namespace {

// Events of a template by the step of their interpolation, so that those of one step can be added
// up as they were recorded and interpolated once.
struct event_group {
  float taps[101];
  float gain = 0.0f;                 // sum of |taps|
  std::vector<std::int32_t> firsts;  // first sample of each event's window
};

std::vector<event_group> group_by_step(const session_state& session,
                                       const std::vector<std::int32_t>& list) {
  std::vector<std::pair<std::int32_t, std::int32_t>> events;
  for (const std::int32_t e : list) {
    events.emplace_back(interp_step(session, session.events.event_shift[e]),
                        session.events.event_time[e] + window_first_sample(session));
  }
  std::sort(events.begin(), events.end());
  std::vector<event_group> groups;
  groups.reserve(static_cast<std::size_t>(session.tables.depth) + 1);
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (i == 0 || events[i].first != events[i - 1].first) {
      event_group& group = groups.emplace_back();
      interp_taps(session, events[i].first, group.taps);
      for (std::int32_t j = 0; j <= 2 * session.tables.width; ++j) {
        group.gain += std::fabs(group.taps[j]);
      }
    }
    groups.back().firsts.push_back(events[i].second);
  }
  return groups;
}

// The blocks of the summary that a window and its interpolation reach into: one, or two neighbours.
struct block_range {
  std::int64_t first, last;  // rows of the summary; first < 0: not all of it lies in the recording
};

block_range blocks_of(const session_state& session, std::int32_t first) {
  const std::int32_t width = session.tables.width;
  const std::int64_t from = std::int64_t{first} - width - 1;
  const std::int64_t to = std::int64_t{first} + session.templates.template_points + width - 2;
  if (from < 0 || to >= session.recording.n_samples) return {-1, -1};
  return {from / voltage_summary::block_samples, to / voltage_summary::block_samples};
}

constexpr std::uint16_t outside = 32768;  // as large as a sample can be

KESTRELVANE_CLONES void add_scaled(const std::uint16_t* a, std::int32_t n, float gain,
                                   float* sums) {
  for (std::int32_t c = 0; c < n; ++c) sums[c] += gain * static_cast<float>(a[c]);
}

KESTRELVANE_CLONES void take_larger(const std::uint16_t* a, std::int32_t n, std::uint16_t* larger) {
  for (std::int32_t c = 0; c < n; ++c) larger[c] = larger[c] > a[c] ? larger[c] : a[c];
}

// ---------------------------------------------------------------- bounds

// What the windows of a group can add to the sums of a template, by channel.
void add_group_bounds(const session_state& session, const event_group& group, float* bounds) {
  const voltage_summary& summary = session.deferred->summary;
  const std::int32_t n = summary.n_channels;
  std::vector<std::uint16_t> larger(static_cast<std::size_t>(n));
  for (const std::int32_t first : group.firsts) {
    const block_range blocks = blocks_of(session, first);
    std::fill(larger.begin(), larger.end(), blocks.first < 0 ? outside : std::uint16_t{0});
    for (std::int64_t b = blocks.first; b >= 0 && b <= blocks.last; ++b) {
      take_larger(summary.largest.data() + b * n, n, larger.data());
    }
    add_scaled(larger.data(), n, group.gain, bounds);
  }
}

// Windows of samples with the widest interpolation on both sides, in whole lanes.
constexpr std::int32_t raw_room = whole_lanes(template_point_limit + 2 * 50 + n_lanes);

KESTRELVANE_CLONES void add_recorded(const std::int16_t* samples, const std::int32_t* firsts,
                                     std::size_t n_events, std::int32_t n, std::int32_t* sums) {
  for (std::size_t i = 0; i < n_events; ++i) {
    const std::int16_t* v = samples + firsts[i];
    if (i + prefetch_distance < n_events) {
      prefetch_samples(samples + firsts[i + prefetch_distance], n);
    }
    for (std::int32_t k = 0; k < n; k += n_lanes) {
      const short_lanes s = *reinterpret_cast<const short_lanes*>(v + k);
      *reinterpret_cast<int_lanes*>(sums + k) += __builtin_convertvector(s, int_lanes);
    }
  }
}

KESTRELVANE_CLONES void add_interpolated(const std::int32_t* sums, const float* taps,
                                         std::int32_t n_taps, std::int32_t n, float* out) {
  float values[raw_room];
  for (std::int32_t k = 0; k < n + n_taps + n_lanes; k += n_lanes) {
    *reinterpret_cast<float_lanes*>(values + k) =
        __builtin_convertvector(*reinterpret_cast<const int_lanes*>(sums + k), float_lanes);
  }
  for (std::int32_t k = 0; k < n; k += n_lanes) {
    float_lanes sum = *reinterpret_cast<const float_lanes*>(out + k);
    for (std::int32_t j = 0; j < n_taps; ++j) {
      sum += *reinterpret_cast<const float_lanes*>(values + k + j) * taps[j];
    }
    *reinterpret_cast<float_lanes*>(out + k) = sum;
  }
}

// Bounds of the mean of grouped events on every channel, by group: what is in a group can not move
// any point of the sums by more.
struct sum_bounds {
  std::vector<event_group> groups;
  std::vector<std::vector<float>> by_group;  // [group][channel - 1]
  std::vector<float> all;                    // [channel - 1]
  float n_events = 0.0f;
  float point_error = 0.0f;  // of a mean, against that of a template
};

sum_bounds bound_sums(const session_state& session, const std::vector<std::int32_t>& list) {
  sum_bounds bounds{group_by_step(session, list), {}, {}, static_cast<float>(list.size()), 0.0f};
  const auto n = static_cast<std::size_t>(session.recording.n_channels);
  bounds.all.resize(n);
  float gain = 1.0f;
  for (const event_group& group : bounds.groups) {
    std::vector<float>& of_group = bounds.by_group.emplace_back(n);
    add_group_bounds(session, group, of_group.data());
    for (std::size_t c = 0; c < n; ++c) bounds.all[c] += of_group[c];
    gain = std::max(gain, group.gain);
  }
  // A template's sums lose less than 1 with every event, where their fraction is dropped, and half
  // a step of a float, where they are rounded; an interpolation errs by less than its number of
  // terms times such a step. As if all samples were as large as the largest.
  const bool inside =
      std::all_of(bounds.groups.begin(), bounds.groups.end(), [&](const auto& group) {
        return std::all_of(group.firsts.begin(), group.firsts.end(), [&](std::int32_t first) {
          return blocks_of(session, first).first >= 0;
        });
      });
  const float peak = inside ? session.deferred->summary.peak : outside;
  const float half_step = 0x1p-24f * peak * gain;
  const auto n_terms =
      static_cast<float>(2 * (2 * session.tables.width + 2) + session.tables.depth + 4);
  bounds.point_error =
      1.0f + std::max(0.5f, bounds.n_events * half_step) + (n_terms + bounds.n_events) * half_step;
  return bounds;
}

// Whether no template of these events has a peak-to-peak of height or more on the channel. First
// from the summary alone; then group after group is read: added as it was recorded and interpolated
// once it gives the sums of the template but for rounding, at a tenth of the arithmetic.
bool stays_below(const session_state& session, const sum_bounds& bounds, std::int32_t channel,
                 float height) {
  const std::int32_t used = session.templates.template_points;
  const std::int32_t width = session.tables.width;
  const float limit = (height - 2.0f * bounds.point_error) * bounds.n_events;
  // Strictly below: of equal channels the lowest is the centre.
  float unread = bounds.all[channel - 1];
  if (2.0f * unread < limit) return true;
  alignas(64) float total[raw_room] = {};
  for (std::size_t g = 0; g < bounds.groups.size(); ++g) {
    const event_group& group = bounds.groups[g];
    alignas(64) std::int32_t sums[raw_room] = {};
    add_recorded(session.recording.vd.channel(channel) - width, group.firsts.data(),
                 group.firsts.size(), whole_lanes(used + 2 * width), sums);
    add_interpolated(sums, group.taps, 2 * width + 1, used, total);
    unread -= bounds.by_group[g][channel - 1];
    const auto [low, high] = find_range(total, used);
    if (high - low + 2.0f * unread < limit) return true;
  }
  return false;
}

// ---------------------------------------------------------------- the template

// Channels within a radius, masked or not: masked ones have a place in the centre of gravity.
void make_within(session_state& session, std::int32_t cluster, std::int32_t centre, float radius,
                 partial_template& partial) {
  const recording_store& r = session.recording;
  parallel_for(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
    const auto channel = static_cast<std::int32_t>(c);
    if (partial.made[channel] || !(r.distance(centre, channel) <= radius)) return;
    template_sums_channel(session, cluster, partial.list, channel);
    partial.made[channel] = 1;
  });
}

// As find_centre_by_voltage, among the channels made.
std::int32_t centre_of_made(const session_state& session, std::int32_t cluster,
                            const std::vector<char>& made, float& height) {
  std::int32_t centre = 0;
  height = 0.0f;
  for (std::int32_t channel = 1; channel <= session.recording.n_channels; ++channel) {
    if (!made[channel] || session.recording.chan_mask[channel]) continue;
    const float here = template_peak_to_peak(session, cluster, channel);
    if (here > height) {
      height = here;
      centre = channel;
    }
  }
  return centre;
}

// The channel with most of the events, the lowest on ties.
std::int32_t most_frequent_channel(const session_state& session,
                                   const std::vector<std::int32_t>& list) {
  std::vector<std::int32_t> counts(static_cast<std::size_t>(session.recording.n_channels) + 1);
  for (const std::int32_t e : list) ++counts[session.events.event_channel[e]];
  return static_cast<std::int32_t>(std::max_element(counts.begin() + 1, counts.end()) -
                                   counts.begin());
}

// Whether every channel takes part in a template, and the largest voltage has its centre.
bool centre_is_sought_everywhere(const session_state& session) {
  const recording_store& r = session.recording;
  return !session.strategy.template_centre_from_events && r.electrode_type != electrode_tetrode &&
         (r.is_continuous || r.electrode_type != electrode_utah_array);
}

}  // namespace

partial_template find_listed_channels(session_state& session, std::int32_t cluster,
                                      std::vector<std::int32_t> list, float near_um) {
  const recording_store& r = session.recording;
  const auto n = static_cast<std::size_t>(r.n_channels) + 1;
  partial_template partial{std::move(list), std::vector<char>(n), std::vector<float>(n)};
  thin_event_list(partial.list, session.strategy.template_max_events);
  const std::int32_t used = window_last_sample(session) - window_first_sample(session) + 1;
  // Sums of as many samples fit 32 bits.
  constexpr std::size_t most_events = 60'000;
  if (session.deferred == nullptr || !centre_is_sought_everywhere(session) ||
      used != session.templates.template_points || partial.list.size() > most_events) {
    make_whole(session, cluster, partial);
    get_template_channels(session, cluster);
    return partial;
  }
  make_within(session, cluster, most_frequent_channel(session, partial.list), near_um, partial);
  float height = 0.0f;
  centre_of_made(session, cluster, partial.made, height);
  const sum_bounds bounds = bound_sums(session, partial.list);
  parallel_for(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
    const auto channel = static_cast<std::int32_t>(c);
    if (partial.made[channel]) return;
    partial.bound[channel] = bounds.all[channel - 1] / bounds.n_events + bounds.point_error;
    if (r.chan_mask[channel] || stays_below(session, bounds, channel, height)) return;
    template_sums_channel(session, cluster, partial.list, channel);
    partial.made[channel] = 1;
  });
  const std::int32_t centre = centre_of_made(session, cluster, partial.made, height);
  if (centre != 0) {
    make_within(session, cluster, centre, session.strategy.channel_radius, partial);
  }
  assign_channels(session, cluster, centre);
  return partial;
}

void make_whole(session_state& session, std::int32_t cluster, partial_template& partial) {
  parallel_for(threads_now(session), 1, session.recording.n_channels,
               [&](std::int64_t c, std::int32_t) {
                 const auto channel = static_cast<std::int32_t>(c);
                 if (partial.made[channel]) return;
                 template_sums_channel(session, cluster, partial.list, channel);
                 partial.made[channel] = 1;
               });
}

}  // namespace kestrelvane
