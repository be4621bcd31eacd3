#include "displays/voltage/peak_summary.h"

#include <algorithm>
#include <limits>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

// Neutral: any sample is within neither end.
constexpr sample_range empty_range = {std::numeric_limits<std::int16_t>::max(),
                                      std::numeric_limits<std::int16_t>::min()};

KESTRELVANE_CLONES sample_range range_of_samples(const std::int16_t* v, std::int64_t n) {
  std::int16_t least = empty_range.least, greatest = empty_range.greatest;
  for (std::int64_t i = 0; i < n; ++i) {
    least = v[i] < least ? v[i] : least;
    greatest = v[i] > greatest ? v[i] : greatest;
  }
  return {least, greatest};
}

sample_range range_of_ranges(const sample_range* ranges, std::int64_t n) {
  sample_range all = empty_range;
  for (std::int64_t i = 0; i < n; ++i) {
    all.least = std::min(all.least, ranges[i].least);
    all.greatest = std::max(all.greatest, ranges[i].greatest);
  }
  return all;
}

// Columns wide enough are cut at block borders.
bool is_cut_at_blocks(const voltage_layout& layout) {
  // Two blocks to a column, so that moving its border by half a block is not seen.
  return layout.time_scale * (2 * peak_summary::block) <= 1.0f;
}

// First sample of column k; the last one belongs to the next column.
std::int64_t column_begin(const voltage_layout& layout, bool at_blocks, std::int32_t k) {
  const double behind = static_cast<double>(k - 1) / layout.time_scale;
  const double t =
      std::min(layout.first_sample + behind, static_cast<double>(layout.n_samples) + 1);
  // A column that begins beyond the end has no blocks.
  const auto begin = static_cast<std::int64_t>(t);
  if (!at_blocks || begin > layout.n_samples) return begin;
  constexpr std::int32_t block = peak_summary::block;
  const std::int64_t rounded = (begin - 1 + block / 2) / block * block + 1;
  return std::min<std::int64_t>(rounded, std::int64_t{layout.n_samples} + 1);
}

// Entries of a channel at a level.
std::int64_t entries_per_channel(const peak_summary& peaks, std::int32_t level) {
  std::int64_t n = peaks.chunks_per_channel;
  for (std::int32_t l = peak_summary::n_levels - 1; l > level; --l) n *= peak_summary::fan;
  return n;
}

// base[i] is entry i of the channel, from 0.
sample_range* entries(peak_summary& peaks, std::int32_t level, std::int32_t channel) {
  return peaks.levels[level].first() + (channel - 1) * entries_per_channel(peaks, level);
}

void fill_chunk(peak_summary& peaks, const session_state& session, std::int32_t channel,
                std::int64_t chunk) {
  const std::int16_t* v = session.recording.vd.channel(channel);
  constexpr std::int64_t per_chunk = peak_summary::chunk / peak_summary::block;
  sample_range* low = entries(peaks, 0, channel) + chunk * per_chunk;
  for (std::int64_t b = 0; b < per_chunk; ++b) {
    const std::int64_t first = chunk * peak_summary::chunk + b * peak_summary::block + 1;
    // The last block is short, and blocks beyond the end are empty.
    const std::int64_t n =
        std::clamp<std::int64_t>(peaks.n_samples - first + 1, 0, peak_summary::block);
    low[b] = range_of_samples(v + first, n);
  }
  std::int64_t count = per_chunk;
  for (std::int32_t level = 1; level < peak_summary::n_levels; ++level) {
    count /= peak_summary::fan;
    const sample_range* lower =
        entries(peaks, level - 1, channel) + chunk * count * peak_summary::fan;
    sample_range* upper = entries(peaks, level, channel) + chunk * count;
    for (std::int64_t i = 0; i < count; ++i) {
      upper[i] = range_of_ranges(lower + i * peak_summary::fan, peak_summary::fan);
    }
  }
}

// Fills what is missing between two samples while the budget lasts.
bool fill_between(peak_summary& peaks, const session_state& session, std::int32_t channel,
                  std::int64_t first, std::int64_t last) {
  char* filled = peaks.filled.first() + (channel - 1) * peaks.chunks_per_channel;
  for (std::int64_t c = (first - 1) / peak_summary::chunk; c <= (last - 1) / peak_summary::chunk;
       ++c) {
    if (filled[c] != 0) continue;
    // What is missing stays missing until the next round.
    if (peaks.spent >= peaks.budget) return false;
    fill_chunk(peaks, session, channel, c);
    filled[c] = 1;
    peaks.spent += peak_summary::chunk;
  }
  return true;
}

// Range of whole blocks first..last, counted from 0: long entries in the middle, short
// ones at the ends.
sample_range range_of_blocks(peak_summary& peaks, std::int32_t channel, std::int64_t first,
                             std::int64_t last) {
  sample_range all = empty_range;
  const auto take = [&](std::int32_t level, std::int64_t from, std::int64_t n) {
    const sample_range part = range_of_ranges(entries(peaks, level, channel) + from, n);
    all.least = std::min(all.least, part.least);
    all.greatest = std::max(all.greatest, part.greatest);
  };
  std::int32_t level = 0;
  std::int64_t end = last + 1;
  // While whole entries of the next level fit between the two ends.
  while (level + 1 < peak_summary::n_levels && end - first >= 2 * peak_summary::fan) {
    const std::int64_t up = (first + peak_summary::fan - 1) / peak_summary::fan;
    const std::int64_t down = end / peak_summary::fan;
    take(level, first, up * peak_summary::fan - first);
    take(level, down * peak_summary::fan, end - down * peak_summary::fan);
    first = up;
    end = down;
    ++level;
  }
  take(level, first, end - first);
  return all;
}

}  // namespace

void forget_peaks(peak_summary& peaks) {
  for (auto& level : peaks.levels) level.release();
  peaks.filled.release();
  peaks.n_channels = peaks.n_samples = 0;
}

bool prepare_peaks(peak_summary& peaks, const session_state& session) {
  const recording_store& r = session.recording;
  peaks.spent = 0;
  // The same recording, as far as the shape tells: whoever rewrites samples forgets the peaks.
  if (peaks.n_channels == r.n_channels && peaks.n_samples == r.n_samples) return true;
  forget_peaks(peaks);
  peaks.chunks_per_channel =
      (std::int64_t{r.n_samples} + peak_summary::chunk - 1) / peak_summary::chunk;
  bool reserved = peaks.filled.reserve(peaks.chunks_per_channel * r.n_channels);
  for (std::int32_t level = 0; level < peak_summary::n_levels; ++level) {
    reserved =
        reserved && peaks.levels[level].reserve(entries_per_channel(peaks, level) * r.n_channels);
  }
  // Reading without a summary works, only slower.
  if (!reserved) {
    forget_peaks(peaks);
    return false;
  }
  peaks.n_channels = r.n_channels;
  peaks.n_samples = r.n_samples;
  return true;
}

peak_columns find_peak_columns(const voltage_layout& layout) {
  peak_columns columns;
  columns.at_blocks = is_cut_at_blocks(layout);
  columns.begin.assign(static_cast<std::size_t>(layout.n_columns) + 2, 1);
  for (std::int32_t k = 1; k <= layout.n_columns + 1; ++k) {
    columns.begin[k] = column_begin(layout, columns.at_blocks, k);
  }
  return columns;
}

std::int32_t read_peaks(const session_state& session, const peak_columns& columns,
                        std::int32_t channel, peak_summary* peaks, sample_range* ranges) {
  constexpr std::int32_t block = peak_summary::block;
  const std::int16_t* v = session.recording.vd.channel(channel);
  const bool by_blocks = peaks != nullptr && columns.at_blocks;
  const auto n = static_cast<std::int32_t>(columns.begin.size()) - 2;
  for (std::int32_t k = 1; k <= n; ++k) {
    const std::int64_t first = columns.begin[k], last = columns.begin[k + 1] - 1;
    if (last < first) {
      ranges[k] = {};
    } else if (!by_blocks) {
      ranges[k] = range_of_samples(v + first, last - first + 1);
    } else {
      // The columns before it are whole; the rest waits for the next round.
      if (!fill_between(*peaks, session, channel, first, last)) return k - 1;
      ranges[k] = range_of_blocks(*peaks, channel, (first - 1) / block, (last - 1) / block);
    }
  }
  return n;
}

}  // namespace kestrelvane
