// Filters that work on the spectrum: Butterworth, notch, phase, 1/f.
//
// All share one scheme. A recording is cut into segments of 2^20 samples
// (numerics/spectral_filter.h), each beginning 65 samples before the end of the one before.
// Both ends of a segment are tapered over 64 samples, and where two overlap their outputs are
// added, so the ramps cross-fade to 1. The recording itself fades in from 0 over its first 64
// samples and out over its last 64. Where two channels need the same real gain, one travels as
// the real and one as the imaginary part of a transform.
//
// A shorter recording is padded to as many. A smaller transform would take every second or
// fourth bin of the same gain, and fold the tail of the filter onto its beginning: the high pass
// leaps at ten times its cut-off, by 0.005 with two poles, the low pass at the middle bin. Of
// 200,000 samples 182 and 23,069 would then be rounded otherwise, to save three milliseconds.
//
// Outputs are rounded to two bytes; a value out of range wraps. Masked channels are
// filtered like the others. Pairs of channels go to all threads, and to no sixth of them only,
// as was once the rule where a worker held tens of megabytes; here it holds 9. A step returns
// false, after a box, when it could not have them; nothing has changed then.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"
#include "signal/filter_progress.h"

namespace kestrelvane {

// The bin of a frequency given in kHz, cut to a whole number, at least 0.
std::int32_t bin_of_frequency(float khz, std::int32_t sampling_frequency);

// Gain of bins 0 .. N/2, real and the same at k and N - k. The low pass is the square
// root of the Butterworth power response, the high pass its complement to 1; the high
// pass leaves bins from ten times the cut-off on alone.
std::vector<float> butterworth_gains(std::int32_t cutoff_bin, std::int32_t poles, bool low_pass);
// 60 Hz and its harmonics up to 240 Hz, a Gaussian of 500 bins round each.
std::vector<float> notch_gains(std::int32_t sampling_frequency);

// Whole-recording steps; settings from session.filter. Each logs when it is done.
bool butterworth_filter(session_state& session, filter_progress& progress);
// A high pass and the low pass of do_low_pass_too by the product of their gains: the samples are
// walked and rounded once, and differ from those of two walks by 1 here and there (by 2 in one of
// three million, where segments cross-fade), and where the recording fades in and out.
bool band_pass_filter(session_state& session, filter_progress& progress);
bool notch_filter(session_state& session, filter_progress& progress);
// Turns the phase by phase_shift_degs_per_decade for each decade above phase_f0_khz.
bool phase_correct(session_state& session, filter_progress& progress);
// Gives every channel a spectrum falling with the root of frequency, and its old noise
// again. Measures chan_noise first. The one step that needs 4 bytes more per sample.
bool one_over_f_filter(session_state& session, filter_progress& progress);

}  // namespace kestrelvane
