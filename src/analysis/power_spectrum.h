// Power against frequency, of the recording as it is in memory: filtered if it was filtered.
//
// Welch's method: stretches of 4096 samples that overlap by half, each without its mean and under a
// Hann window, their periodograms averaged (Welch, IEEE Trans. Audio Electroacoust. 15, 1967).
// Power densities in µV² per Hz of one side. At most 400 stretches a channel, evenly over the
// recording, so that a long recording takes no longer than one of some minutes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "analysis/graph_data.h"
#include "session/session_state.h"

namespace kestrelvane {

struct power_spectrum {
  float step_hz = 0;                           // of the bins; bin 0 is 0 Hz
  std::vector<std::int32_t> channels;          // in the order asked for
  std::vector<std::vector<float>> of_channel;  // of each, by bin
  std::vector<float> mean, low, high;          // over channels: mean, 10th and 90th percentile
  std::uint64_t recording = 0;                 // recording_state
};

// Of the channels, or of all that are not masked. Moves the meter of filtering; empty without a
// continuous recording of a stretch at least, or when it was interrupted. The bits do not depend
// on the number of threads.
power_spectrum measure_power_spectrum(const session_state& session,
                                      std::vector<std::int32_t> channels = {});

// Whether the recording has what a spectrum takes, and what is said otherwise.
bool has_power_spectrum(const session_state& session);
constexpr const char* spectrum_refusal =
    "A spectrum takes a continuous recording of at least 4096 samples with a channel that is not "
    "masked";

// Another number after another recording was read, or the samples were filtered.
std::uint64_t recording_state(const session_state& session);

// Mean and percentiles in dB of 1 µV²/Hz, beside them the channel, where it is among them; lines
// at the mains frequencies 50 and 60 Hz and their first harmonics as far as they stand out: at
// least 3 dB above the median of the bins within 15 Hz.
graph_data make_spectrum_graph(const power_spectrum& spectrum, std::int32_t channel);

// Frequencies of the mains lines that stand out, Hz.
std::vector<float> find_mains_lines(const power_spectrum& spectrum);

}  // namespace kestrelvane
