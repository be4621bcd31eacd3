// The sample test: does one sample on one channel trigger?
//
// Both detectors ask the same question of every sample. A test is made once for
// each channel and stretch of constant noise; thresholds are in bits. Samples are
// read from seven before to seven after the sample under test, or as far as
// window_samples reaches.
//
// The windowed Teager method compares the energy operator v(t)^2 - v(t - w) v(t + w) (Kaiser,
// Proc. ICASSP 1990, with w = 1), which rises with frequency as well as with voltage.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// What the test of one channel compares with.
struct trigger_test {
  std::int32_t method = method_dynamic_multiphasic;
  std::int32_t window = 0;         // samples
  std::int32_t threshold_pos = 0;  // bits
  std::int32_t threshold_neg = 0;
  std::int32_t threshold_bits = 0;
  float teager_threshold = 0.0f;  // bits squared
  bool masked = false;
};

// v[0] is the sample under test. A local peak rises from the sample before and
// falls before it rises again, with at most five equal samples in between; a
// trough is a peak of the negated samples.
bool is_local_peak(const std::int16_t* v);
bool is_local_trough(const std::int16_t* v);

// The test itself, by the row of the method.
bool sample_triggers(const trigger_test& test, const std::int16_t* v);

// The test of a channel with the thresholds in force. Serial: it sets the session's
// thresholds. set_teager sets the Teager threshold too, as the lockout detector
// does; without it the one that the last lockout run left is used.
trigger_test make_trigger_test(session_state& session, std::int32_t channel, bool set_teager);

// The same question asked of the session, one sample at a time.
bool sample_triggers(session_state& session, std::int32_t channel, std::int32_t t);

// One trigger: its sample and channel.
struct trigger {
  std::int32_t time;
  std::int32_t channel;
};

// All triggers of samples first..last, in order of time and then channel, masked
// channels left out. Channels are scanned in parallel. Dynamic noise must be
// constant over the stretch.
void find_triggers(session_state& session, std::int32_t first, std::int32_t last, bool set_teager,
                   std::vector<trigger>& found);

// Stretches of the recording that detection goes through one by one: none crosses
// a window of dynamic noise. next_stretch refreshes the noise where one begins
// and returns false when samples 1..n_samples - 1 are done.
struct scan_stretch {
  std::int32_t first = 1, last = 0;
  std::int32_t noise_window = 0;
};
bool next_stretch(session_state& session, scan_stretch& stretch);

}  // namespace kestrelvane
