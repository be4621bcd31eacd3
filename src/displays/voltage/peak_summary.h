// Smallest and largest sample of stretches of the recording, for peak-keeping traces.
//
// A trace zoomed out shows one sample of each pixel column and so loses most spikes;
// peak-keeping traces show the least and the greatest sample of the column instead.
// Below 256 samples to the column these are read from the samples. From there on the
// columns' borders are rounded to whole blocks of 128 samples, so that every sample counts
// in one column, at most a quarter of a column beside its place, and the blocks come from
// a pyramid that is filled as it is needed, a bounded stretch per redraw.
//
// The summary belongs to the window that draws. It holds 1/60 of the memory of the
// samples that were shown, and is valid until samples change: refresh_displays is the
// moment to forget it.
#pragma once

#include <cstdint>
#include <vector>

#include "displays/voltage/voltage_geometry.h"
#include "numerics/table.h"

namespace kestrelvane {

struct sample_range {
  std::int16_t least = 0, greatest = 0;  // bits
};

struct peak_summary {
  static constexpr std::int32_t block = 128;            // samples of the lowest level
  static constexpr std::int32_t fan = 16;               // entries of a level under one of the next
  static constexpr std::int32_t n_levels = 3;           // 128, 2048, 32768 samples
  static constexpr std::int32_t chunk = 128 * 16 * 16;  // samples filled at once

  // Samples that one redraw may read to fill the pyramid; the rest follows with the next.
  std::int64_t budget = 32'000'000;
  std::int64_t spent = 0;  // in the redraw under way

  std::int32_t n_channels = 0, n_samples = 0;  // what it was made for
  std::int64_t chunks_per_channel = 0;
  table<sample_range> levels[n_levels];  // channel after channel
  table<char> filled;                    // by chunk
};

// After samples have changed, or another recording was opened.
void forget_peaks(peak_summary& peaks);

// Ready for a redraw: room for the recording in memory, a new budget. False when there is
// no address space for it.
bool prepare_peaks(peak_summary& peaks, const session_state& session);

// Where the columns of a layout begin, the same for every row: column k holds samples
// begin[k]..begin[k + 1] - 1, none when that is empty. Element 0 is unused.
struct peak_columns {
  std::vector<std::int64_t> begin;
  bool at_blocks = false;
};
peak_columns find_peak_columns(const voltage_layout& layout);

// Least and greatest sample of columns 1..n of a channel; 0 after the end of the
// recording. Returns how many columns are filled in; the others wait for the next redraw.
// With peaks null everything is read from the samples.
std::int32_t read_peaks(const session_state& session, const peak_columns& columns,
                        std::int32_t channel, peak_summary* peaks, sample_range* ranges);

// Traces keep their peaks now: the choice is on and a pixel holds more than a sample, or it
// holds so many that a trace without its peaks would be a line through noise.
inline bool keeps_peaks(const session_state& session) {
  constexpr float samples_without_peaks = 256.0f;
  const float scale = session.display.vd_time_scale;
  return scale * samples_without_peaks < 1.0f || (session.view.vd_keep_peaks && scale < 1.0f);
}

}  // namespace kestrelvane
