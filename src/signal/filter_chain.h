// The filter chain: what rewrites the samples, in its fixed order, and its replay.
//
// Every step reads vd and writes it back in place as two-byte bits; filter_history
// lists what was done, so that the same chain can be run over the recording when it is
// read again. Runs on one worker and drives meter::filtering. An interrupt is honoured
// between steps: the step under way is finished and listed, later ones are not begun.
// A chain ends with new channel noise and display scales.
#pragma once

#include "session/session_state.h"
#include "signal/test_data.h"

namespace kestrelvane {

// Whether bw_f0_khz, and the corner of a low pass with it, is below half the sampling frequency: a
// high pass at or above it would leave nothing of the samples. Says so otherwise.
bool corner_is_possible(const session_state& session);

// The steps ticked in session.filter: means, common mean, spatial smooth, temporal
// smooth, phase correction, Butterworth (or 1/f; a high pass may have a low pass with it), notch,
// compressive transform, blanking, movement of the tissue. Clears
// the options that have to be ticked afresh and says "Finished transforming". False when
// a work buffer could not be had or the user stopped the chain, and, with nothing changed, for
// a corner that is not possible.
bool run_filter_chain(session_state& session);
// The same without the last word, for an operation that goes on.
bool run_filter_steps(session_state& session);
// Ticks off, corners and widths as they are: for an operation that runs a chain of its own.
void untick_all_filters(filter_settings& settings);

// Known data on channel 1, as a step of the history: what reads it later, or repeats it over the
// recording, knows that the samples are not those of the animal.
void put_test_data(session_state& session, test_data which);

// Runs filter_history over the samples, in list order. The settings take the values of
// the entries. False as above, and when an entry could not be made sense of and was left
// out. The list is not changed, but for a replay that was stopped: it then keeps what was
// done, since it tells what the samples in memory have been through.
bool repeat_filtering(session_state& session);

}  // namespace kestrelvane
