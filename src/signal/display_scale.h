// Scales of the voltage record, and where its view of a new recording begins.
//
// Without any window, so that the open worker, the filters and the batch command keep the
// view in step with the samples as the dialog does. Scales are pixels per µV and pixels
// per sample; rows are positions in chan_sort_order, from 1.
#pragma once

#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// Sets vd_voltage_scale so that 1.2 times the mean noise of the unmasked channels spans
// a twentieth of the row spacing. On samples as they were recorded slow waves and offsets that
// are most of the noise count less, or spikes would be flat lines. Logs it when there is no noise
// to go by. Called after a recording is opened and after every filter chain.
void autoscale_voltage_display(session_state& session);

// Sets vd_first_sample after a flat start: the first place, looked for in steps of 100
// samples on three channels, where a sample differs from the one 500 before it; 1 when
// there is none or the recording is shorter than 1506 samples.
void find_start_of_signal(session_state& session);

// The view of a recording just opened or closed: traces, from the first row, no ring.
void reset_voltage_view(session_state& session);

// The vertical scroll bar, 1..n_channels + 9: places the rows so that row p leads.
void scroll_to_row(session_state& session, std::int32_t p);

// Row spacing in pixels, held to 1..500; the row at the top stays there.
void set_channel_spacing(session_state& session, std::int32_t spacing);

// Voltage spinner, 1..100: 0.2 pixels/µV at 50, a tenfold every 23 or so steps. A typed
// scale stays as it is and moves the spinner to the position below it.
float voltage_scale_at(std::int32_t position);
std::int32_t position_of_voltage_scale(float scale);

// Time spinner, 1..2000: one pixel per sample at 1000, twice that every five steps.
// Scales are held to 1e-6..1e6, what the settings files take.
float time_scale_at(std::int32_t position);
std::int32_t position_of_time_scale(float scale);

}  // namespace kestrelvane
