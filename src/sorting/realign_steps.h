// Realignment by hand: the steps that the user can take one at a time, and take back.
//
// Each step sets the mode that it was asked for, moves events, calculates the templates
// that follow and brings the pair lists in step; the marks of the user stay. The mode is
// the user's choice and stays one: later realignments take the mode that the user has
// seen work, and the dialog asks before it keeps another one for templates. Steps over
// all clusters are work for the worker; they move meter::clusters from 0 to 100 and, when
// there are pair lists, meter::status_lists after it.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Where the events of one cluster lay, in list order.
struct event_times_copy {
  std::int32_t cluster = 0;  // 0: nothing was copied
  std::vector<std::int32_t> event_time;
  std::vector<float> event_shift;
};

event_times_copy copy_event_times(const session_state& session, std::int32_t cluster);

// One cluster: its events by one common shift, or each event by itself.
void realign_cluster_template(session_state& session, std::int32_t cluster, std::int32_t mode);
void realign_cluster_events(session_state& session, std::int32_t cluster, std::int32_t mode);
// The same for every cluster.
void realign_every_template(session_state& session, std::int32_t mode);
void realign_every_event(session_state& session, std::int32_t mode);

// Puts the events of the cluster back to where they lay, position by position, with its
// template and centre. False, and nothing moves, when its number of events has changed.
bool put_back_event_times(session_state& session, const event_times_copy& copy);

// Root mean square of the template's s.d. on the centre channel, and its mean over all
// clusters; µV, 0 without clusters.
double template_sd_uv(const session_state& session, std::int32_t cluster);
double mean_template_sd_uv(const session_state& session);

// After a change of the template window: aligns the events to it, makes the templates anew and
// the lists with them. False when the templates are those of the window in force.
bool renew_outdated_templates(session_state& session);

// After a change of channel masks, which take channels out of templates or bring them in: template
// and centre of every cluster and the lists, without alignment. Nothing without clusters.
void renew_masked_templates(session_state& session);

// The menu entry: template and centre of every cluster, without alignment, then the log
// line and the box. False, after a box, without a recording or clusters.
bool recalculate_all_templates(session_state& session);

}  // namespace kestrelvane
