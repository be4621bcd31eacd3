// The template window: which samples round an aligned time a template holds.
//
// The settings give it in ms. Readers, detectors and templates use the samples that follow
// from it and from the sampling frequency.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// First sample of the template window relative to the aligned time, and the last:
// int(template_window_ms * f / 1000).
std::int32_t window_first_sample(const session_state& session);
std::int32_t window_last_sample(const session_state& session);

// Sets template_points from the window and the sampling frequency, 3..151. Run whenever a
// setting of the window changes, by its row; templates that are there are then outdated, until
// they are made again or the window is what it was.
void compute_template_points(session_state& session);
// Whether clusters have templates of an earlier window, which cannot be compared with
// waveforms of this one.
bool templates_are_outdated(const session_state& session);
// All templates have just been made for the window in force.
void templates_are_current(session_state& session);

// Rows of templates as short as template_points allows; whatever templates there were are gone,
// and zeros. And as long as so many points need them, where they are shorter, with the templates of
// all clusters. With the gate held.
void shorten_template_rows(session_state& session);
void widen_template_rows(session_state& session, std::int32_t points);
// Gives back the memory of the slots above the clusters.
void release_spare_templates(session_state& session);

// Whether every read of the template window stays inside vd, margins included: the
// window itself, a realignment and a template shift of 50 samples each, and the taps
// of the interpolation table in force.
bool spike_window_is_readable(const session_state& session);

// Shortens a window of 151 samples or more, or one that is not readable, tells the
// user, and returns true.
bool shorten_spike_window(session_state& session);

}  // namespace kestrelvane
