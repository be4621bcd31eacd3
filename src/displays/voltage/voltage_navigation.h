// Moving about in the voltage record: what its dialog and its mouse wheel do to the view.
//
// Every move writes session.view and redraws nothing. Bounds differ from control to
// control: the slider may not leave an empty window, a jump may. The lower bound is sample 1
// throughout. No painter, no window; interface thread.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// When the dialog opens: no ring, proto-events only where some are held, the first sample
// inside the recording.
void prepare_voltage_dialog(session_state& session);

// The position slider, 1..270. Every other move sets it in turn.
void move_to_slider(session_state& session, std::int32_t position);
// Moves on or back by so many positions, and by one at least: what a place makes of the
// position that led to it is rounded downwards, so that a plain step on would come back.
void step_slider(session_state& session, std::int32_t steps);

// "Position adjust": 250 pixels, or 10 pixels and 5 samples; direction +1 or -1.
void move_coarsely(session_state& session, std::int32_t direction);
void move_finely(session_state& session, std::int32_t direction);

// "Go to index" and "Go to event": the target stands 5 ms from the left edge. False when
// the number is out of range; the view then stays.
bool go_to_index(session_state& session, std::int32_t index);
bool go_to_event(session_state& session, std::int32_t event);

// Where a jump to the next event ended.
struct event_jump {
  bool done = false;       // false: no such channel or cluster; the view stays
  std::int32_t event = 0;  // the event reached; 0 when there was none or the end is reached
  std::int32_t time = 0;   // its time index
};

// "next event on channel": the first one after the present position, else the last of the
// channel. Its row comes to the middle, and it is ringed.
event_jump go_to_next_event_on_channel(session_state& session, std::int32_t channel);

// "next event in cluster", of current_cluster.
event_jump go_to_next_event_in_cluster(session_state& session);

// A typed cluster becomes current_cluster. False when there is no such cluster.
bool choose_current_cluster(session_state& session, std::int32_t cluster);

// What "Go to event" and "Go to index" show after a jump: numbers, or a blank at the end.
std::string jump_event_text(const event_jump& jump);
std::string jump_index_text(const event_jump& jump);

// Position of the left edge in minutes; empty where stored records have no common time.
std::string position_minutes_text(const session_state& session);

// "Displaying events": the first number and the last; empty when none is drawn.
struct shown_range_text {
  std::string first, last;
};
shown_range_text displaying_events_text(std::int32_t first_event, std::int32_t n_events_shown);

// The time scale as its box shows it, to three decimals, or to three digits below 0.1.
std::string time_scale_text(const session_state& session);

// How far the controls zoom time, pixels per sample: from the whole recording in the view to
// a hundred pixels. The spinner's positions inside are first..last.
struct time_scale_range {
  float least = 1.0f, greatest = 1.0f;
  std::int32_t first = 1, last = 2000;
};
time_scale_range find_time_scale_range(const session_state& session);

// The mouse wheel; notches away from the user are positive and go back in time, magnify.
// The sample under the pointer keeps its place when the time scale changes.
void wheel_through_time(session_state& session, std::int32_t notches);
void wheel_time_scale(session_state& session, std::int32_t notches, std::int32_t mouse_x);
void wheel_voltage_scale(session_state& session, std::int32_t notches);

}  // namespace kestrelvane
