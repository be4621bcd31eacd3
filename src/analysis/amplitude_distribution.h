// The distribution of voltages, or of a measure of them, and where it leaves a Gaussian.
//
// Noise is Gaussian, spikes are not: what stands in the flanks of the histogram beyond the Gaussian
// of its core is spikes, and how far the core reaches is how far a threshold can come down. Unlike
// automatic thresholding, which fits all bins, this fits the centre alone and looks at the excess
// from outside in.
//
// Values are bits, bins too; µV is bits times uv_per_bit, which for field potentials is theirs.
// Rows of the list of sources count from 1. Nothing here changes the session; the known data on
// which it is tried are put into the samples by signal/filter_chain.h.
// Work for the worker; counts are the same at any number of threads.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

enum amplitude_source : std::int32_t {
  ea_raw = 1,         // every sample
  ea_extrema,         // samples that are a local peak or trough
  ea_sharpness,       // v(t+1) + v(t-1) - 2 v(t) there
  ea_slope,           // v(t+1) - v(t)
  ea_peak_to_trough,  // from each extremum to the furthest within window_samples, signed
  ea_events,          // samples inside the windows of events
  ea_event_free,      // samples that a flag channel of the recording marks
  ea_unit,            // samples inside the windows of a unit, on its centre channel
  ea_formula,         // a set that is made up: the analysis on what is known
  ea_lfp,             // field potentials
  ea_deviations,      // event by event and point by point: waveform less template
  ea_deviations_time,
  ea_sub_events,
  ea_spike_peak,  // of each event of the unit, at the template's largest excursion
};
struct amplitude_source_row {
  const char* label;  // in the list "use"
  bool of_unit;       // takes a unit, whose centre channel it is measured on
  bool of_samples;    // of the recording: channels, mask and tagged stretches apply
};
std::span<const amplitude_source_row> amplitude_sources();  // element 0 is row 1

// A stretch of the recording that somebody has named, seconds.
struct tagged_stretch {
  double from = 0, to = 0;
  std::string tag;
};
// A text file of them: start, end and tag on each line. Lines that are none, as a heading, are
// passed over. False with no stretch at all.
bool read_tagged_stretches(const std::string& path, std::vector<tagged_stretch>& stretches);

struct amplitude_request {
  std::int32_t ea_source = ea_raw;
  std::int32_t ea_bin_width = 1;  // bits
  bool all_channels = false;      // that are not masked
  std::int32_t channel = 1, unit = 1;
  bool masked = false;              // samples inside the windows of events are left out
  bool correct_truncation = false;  // see ea_histogram
  bool double_gaussian = false;
  bool add_events = false;                    // the peaks of the events on the channels, besides
  std::vector<tagged_stretch> use_only = {};  // empty: all of the recording
};

constexpr std::int32_t ea_bin_limit = 2000;  // bins run from -2000 to 2000

// Converters that cut voltages towards 0 put two steps of them into it: correct_truncation takes
// half of the zeros out.
struct ea_histogram {
  std::int32_t width = 1;  // bits
  float uv_per_bit = 1;
  std::int64_t n_values = 0;  // counted
  std::vector<std::int64_t> counts = std::vector<std::int64_t>(2 * ea_bin_limit + 1);

  std::int64_t count(std::int32_t bin) const {
    return bin < -ea_bin_limit || bin > ea_bin_limit ? 0 : counts[bin + ea_bin_limit];
  }
  std::int64_t& at(std::int32_t bin) { return counts[bin + ea_bin_limit]; }
  // Bits; an even bin's middle lies between samples.
  float position(std::int32_t bin) const {
    return static_cast<float>(bin) * static_cast<float>(width) + (width % 2 == 0 ? 1.5f : 0.0f);
  }
  float microvolts(std::int32_t bin) const { return position(bin) * uv_per_bit; }
};
// The bin of a value: of an even width the whole ones below, of an odd one the nearest.
std::int32_t ea_bin(std::int32_t value, std::int32_t width);

struct amplitude_values {
  ea_histogram histogram;
  ea_histogram events;  // of add_events
  // Of the deviations alone, one for each event that could be read, in order of time: minutes, the
  // deviation at the template's largest point in µV, the event's label. Of spike peaks the peak.
  std::vector<float> minutes, event_uv;
  std::vector<std::int16_t> labels;
  // Of sub-events: the deviations of each label that occurs, the four most frequent.
  std::vector<std::int16_t> split_labels;
  std::vector<ea_histogram> split;
  std::int32_t channel = 0;  // 0: all of them
};

// Fills the histogram. False after a box that says what the row takes, or when it was interrupted;
// rows that need events or clusters leave it empty without them.
bool analyse_dataset(const session_state& session, const amplitude_request& request,
                     amplitude_values& values);

}  // namespace kestrelvane
