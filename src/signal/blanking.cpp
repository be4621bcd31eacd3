#include "signal/blanking.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "session/run_log.h"
#include "signal/noise.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t chunk = 1 << 16;   // samples searched at a time
constexpr std::int64_t quick_look = 256;  // samples passed over together when all are small

std::int64_t samples_of(const session_state& session, double ms) {
  return static_cast<std::int64_t>(
      std::floor(ms * 0.001 * session.recording.sampling_frequency + 0.5));
}

// Bits that the level must be exceeded by; no sample exceeds the largest.
std::int32_t level_in_bits(const session_state& session, std::int32_t channel, float level) {
  const float bits = level * session.recording.chan_noise[channel];
  // Without noise, on a channel that is flat or was not measured, there is no level.
  if (!(bits > 0)) return INT16_MAX;
  return static_cast<std::int32_t>(std::min(bits, static_cast<float>(INT16_MAX)));
}

KESTRELVANE_CLONES std::int32_t count_beyond(const std::int16_t* v, std::int64_t n,
                                             std::int32_t level) {
  std::int32_t count = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    const std::int32_t x = v[i];
    count += (x > level) | (x < -level);
  }
  return count;
}

// Joins stretches of one channel that touch; they come in ascending order of first.
void add_stretch(std::vector<blanked_stretch>& list, const blanked_stretch& stretch) {
  if (!list.empty() && list.back().channel == stretch.channel &&
      stretch.first <= list.back().last + 1) {
    list.back().last = std::max(list.back().last, stretch.last);
  } else {
    list.push_back(stretch);
  }
}

blanked_stretch widened(const session_state& session, std::int32_t channel, std::int64_t first,
                        std::int64_t last, std::int64_t margin) {
  const std::int64_t n = session.recording.n_samples;
  return {channel, static_cast<std::int32_t>(std::max<std::int64_t>(first - margin, 1)),
          static_cast<std::int32_t>(std::min(last + margin, n))};
}

// ---------------------------------------------------------------- many channels

// How many channels exceed their level near each sample of a stretch.
struct crowd_count {
  std::int64_t first, last;            // time indices
  std::int64_t reach;                  // samples to either side that are near
  std::vector<std::int16_t> channels;  // by sample
};

void count_channel(const session_state& session, std::int32_t c, crowd_count& crowd) {
  const recording_store& r = session.recording;
  const std::int16_t* v = r.vd.channel(c);
  const std::int32_t level = level_in_bits(session, c, artefact_level);
  const std::int64_t begin = std::max<std::int64_t>(crowd.first - crowd.reach, 1);
  const std::int64_t end = std::min<std::int64_t>(crowd.last + crowd.reach, r.n_samples);
  std::int64_t counted = crowd.first - 1;  // a channel counts once at each sample
  for (std::int64_t t = begin; t <= end; t += quick_look) {
    const std::int64_t n = std::min(quick_look, end - t + 1);
    if (count_beyond(v + t, n, level) == 0) continue;
    for (std::int64_t s = t; s < t + n; ++s) {
      if (std::abs(std::int32_t{v[s]}) <= level) continue;
      const std::int64_t to = std::min(s + crowd.reach, crowd.last);
      for (std::int64_t k = std::max(counted + 1, s - crowd.reach); k <= to; ++k) {
        ++crowd.channels[k - crowd.first];
      }
      counted = std::max(counted, to);
    }
  }
}

std::int32_t largest_near(const recording_store& r, std::int32_t c, std::int64_t t,
                          std::int64_t reach) {
  const std::int16_t* v = r.vd.channel(c);
  std::int32_t largest = 0;
  const std::int64_t end = std::min<std::int64_t>(t + reach, r.n_samples);
  for (std::int64_t s = std::max<std::int64_t>(t - reach, 1); s <= end; ++s) {
    largest = std::max(largest, std::abs(std::int32_t{v[s]}));
  }
  return largest;
}

// Whether what many channels have at a sample is on one stretch of the probe alone.
bool is_local(const session_state& session, const std::vector<std::int32_t>& channels,
              std::int64_t t, std::int64_t reach) {
  const recording_store& r = session.recording;
  std::int32_t centre = channels.front();
  float highest = 0;
  for (const std::int32_t c : channels) {
    if (!(r.chan_noise[c] > 0)) continue;
    const float height = static_cast<float>(largest_near(r, c, t, reach)) / r.chan_noise[c];
    // Strictly: of equal ones the lower channel.
    if (height > highest) highest = height, centre = c;
  }
  std::int32_t n_far = 0, n_beyond = 0;
  for (const std::int32_t c : channels) {
    if (r.distance(centre, c) <= artefact_near_um) continue;
    ++n_far;
    n_beyond += largest_near(r, c, t, reach) > level_in_bits(session, c, artefact_level);
  }
  return n_far > 0 && 2 * n_beyond < n_far;
}

// Of the milliseconds round a sample, how many have samples where enough channels exceed.
std::int32_t count_crowded_ms(const session_state& session, const crowd_count& crowd,
                              std::int64_t t, std::int32_t enough) {
  std::int32_t n = 0;
  for (std::int32_t ms = -artefact_round_ms; ms < artefact_round_ms; ++ms) {
    const std::int64_t from = std::max(t + samples_of(session, ms), crowd.first);
    const std::int64_t to = std::min(t + samples_of(session, ms + 1), crowd.last + 1);
    if (from >= to) continue;
    const auto* at = crowd.channels.data() - crowd.first;
    n += std::any_of(at + from, at + to, [enough](std::int16_t c) { return c >= enough; });
  }
  return n;
}

std::vector<blanked_stretch> search_chunk(const session_state& session,
                                          const std::vector<std::int32_t>& channels,
                                          std::int64_t first) {
  const std::int64_t n_samples = session.recording.n_samples;
  const std::int64_t last = std::min(first + chunk - 1, n_samples);
  const std::int64_t round = samples_of(session, artefact_round_ms);
  // Counted beyond the chunk's ends, so that it does not matter where they are.
  crowd_count crowd{std::max<std::int64_t>(first - round, 1),
                    std::min(last + round, n_samples),
                    samples_of(session, artefact_width_ms / 2),
                    {}};
  crowd.channels.assign(crowd.last - crowd.first + 1, 0);
  for (const std::int32_t c : channels) count_channel(session, c, crowd);
  const auto half = (static_cast<std::int32_t>(channels.size()) + 1) / 2;
  const std::int32_t enough = std::max(half, artefact_channels);
  const std::int64_t margin = samples_of(session, artefact_margin_ms);
  std::vector<blanked_stretch> found;
  for (std::int64_t t = first; t <= last; ++t) {
    if (crowd.channels[t - crowd.first] < enough) continue;
    if (is_local(session, channels, t, crowd.reach) &&
        count_crowded_ms(session, crowd, t, enough) < artefact_lasting_ms) {
      continue;
    }
    add_stretch(found, widened(session, 0, t, t, margin));
  }
  return found;
}

// ---------------------------------------------------------------- single channels

std::vector<blanked_stretch> search_channel(const session_state& session, std::int32_t c) {
  const recording_store& r = session.recording;
  const std::int16_t* v = r.vd.channel(c);
  const std::int32_t level = level_in_bits(session, c, channel_artefact_level);
  const std::int64_t window =
      std::max<std::int64_t>(samples_of(session, channel_artefact_window_ms), 1);
  const std::int64_t margin = samples_of(session, channel_artefact_margin_ms);
  const double enough = channel_artefact_part * static_cast<double>(window);
  std::vector<blanked_stretch> found;
  // What is left at the end is shorter than a window, and none.
  for (std::int64_t t = 1; t + window - 1 <= r.n_samples; t += window) {
    if (count_beyond(v + t, window, level) < enough) continue;
    add_stretch(found, widened(session, c, t, t + window - 1, margin));
  }
  return found;
}

// ---------------------------------------------------------------- the samples

std::vector<std::int32_t> unmasked_channels(const recording_store& r) {
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) channels.push_back(c);
  }
  return channels;
}

void set_to_zero(session_state& session, const std::vector<blanked_stretch>& stretches) {
  recording_store& r = session.recording;
  const std::vector<std::int32_t> channels = unmasked_channels(r);
  const auto n = static_cast<std::int64_t>(channels.size());
  parallel_for_dealt(threads_now(session), 0, n - 1, [&](std::int64_t i, std::int32_t) {
    std::int16_t* v = r.vd.channel(channels[i]);
    for (const blanked_stretch& s : stretches) {
      if (s.channel == 0 || s.channel == channels[i]) std::fill(v + s.first, v + s.last + 1, 0);
    }
  });
  r.blanked.insert(r.blanked.end(), stretches.begin(), stretches.end());
}

double seconds_of(const session_state& session, const std::vector<blanked_stretch>& stretches) {
  std::int64_t samples = 0;
  for (const blanked_stretch& s : stretches) samples += s.last - s.first + 1;
  return static_cast<double>(samples) / session.recording.sampling_frequency;
}

double percent_of(const session_state& session, double seconds) {
  const recording_store& r = session.recording;
  return 100 * seconds * r.sampling_frequency / std::max(1, r.n_samples);
}

}  // namespace

std::vector<blanked_stretch> find_artefacts(const session_state& session) {
  const recording_store& r = session.recording;
  const std::vector<std::int32_t> channels = unmasked_channels(r);
  std::vector<blanked_stretch> all;
  if (static_cast<std::int32_t>(channels.size()) < artefact_channels) return all;
  const std::int64_t n_chunks = (r.n_samples + chunk - 1) / chunk;
  std::vector<std::vector<blanked_stretch>> found(n_chunks);
  parallel_for_dealt(threads_now(session), 0, n_chunks - 1, [&](std::int64_t k, std::int32_t) {
    found[k] = search_chunk(session, channels, 1 + k * chunk);
  });
  // Margins reach into the chunk before.
  for (const auto& of_chunk : found) {
    for (const blanked_stretch& s : of_chunk) add_stretch(all, s);
  }
  return all;
}

std::vector<blanked_stretch> find_channel_artefacts(const session_state& session) {
  const std::vector<std::int32_t> channels = unmasked_channels(session.recording);
  std::vector<std::vector<blanked_stretch>> found(channels.size());
  const auto n = static_cast<std::int64_t>(channels.size());
  parallel_for_dealt(threads_now(session), 0, n - 1, [&](std::int64_t i, std::int32_t) {
    found[i] = search_channel(session, channels[i]);
  });
  std::vector<blanked_stretch> all;
  for (const auto& of_channel : found) all.insert(all.end(), of_channel.begin(), of_channel.end());
  return all;
}

void blank_artefacts(session_state& session, filter_progress& progress) {
  set_parts(progress, 1);
  // Of the samples as they are now: steps before this one have changed them.
  compute_noise(session);
  const std::vector<blanked_stretch> found = find_artefacts(session);
  set_to_zero(session, found);
  finish_part(progress, 0);
  const double seconds = seconds_of(session, found);
  say(session,
      fmt::format("Blanked {:.2f} s with artefacts on at least half of the channels, in {} "
                  "stretches: {:.2f} per cent of the recording",
                  seconds, found.size(), percent_of(session, seconds)));
}

void blank_channel_artefacts(session_state& session, filter_progress& progress) {
  set_parts(progress, 1);
  compute_noise(session);
  const std::vector<blanked_stretch> found = find_channel_artefacts(session);
  set_to_zero(session, found);
  finish_part(progress, 0);
  std::int32_t n_channels = 0, last = 0;
  for (const blanked_stretch& s : found) {
    n_channels += s.channel != last;
    last = s.channel;
  }
  const double seconds = seconds_of(session, found) / std::max(1, n_channels);
  say(session, fmt::format("Blanked artefacts on {} single channels, {:.2f} s of each on average: "
                           "{:.2f} per cent of the recording",
                           n_channels, seconds, percent_of(session, seconds)));
}

std::vector<blanked_stretch> blanked_on(const session_state& session, std::int32_t channel) {
  std::vector<blanked_stretch> of_channel;
  for (const blanked_stretch& s : session.recording.blanked) {
    if (s.channel == 0 || s.channel == channel) of_channel.push_back({channel, s.first, s.last});
  }
  std::sort(of_channel.begin(), of_channel.end(),
            [](const blanked_stretch& a, const blanked_stretch& b) { return a.first < b.first; });
  // Those of the channel alone may overlap those of all.
  std::vector<blanked_stretch> joined;
  for (const blanked_stretch& s : of_channel) add_stretch(joined, s);
  return joined;
}

double blanked_seconds(const session_state& session, std::int32_t channel) {
  return seconds_of(session, blanked_on(session, channel));
}

}  // namespace kestrelvane
