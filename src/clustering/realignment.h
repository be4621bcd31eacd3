// Realignment: moving events so that they lie on their cluster's template.
//
// The only change of event_time after detection. align_template moves all events
// of a cluster by one amount; align_events fits each event to the template.
// recalculate_cluster is what every change of membership ends with.
//
// Each event's fit depends on the template and on that event alone, so the
// threaded and plain forms agree at any thread count.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Template, common shift, per-event fit, template again, centre.
void recalculate_cluster(session_state& session, std::int32_t cluster);

// Adds the common shift of template_align_mode to every event, then
// calculate_template_values. The shift itself: template_align_shift, in samples.
void align_template(session_state& session, std::int32_t cluster);
float template_align_shift(session_state& session, std::int32_t cluster);

// Fits every event of the cluster to its template, by the multiplicative or the rms fit;
// at most 5 calls an event.
void align_events(session_state& session, std::int32_t cluster, bool multiplicative);
// The same for any events, members or not.
void align_listed_events(session_state& session, std::int32_t cluster,
                         const std::vector<std::int32_t>& list, bool multiplicative);
// int(f * realign_window_ms / 1000), at most 50: offsets that a fit tries to either side.
std::int32_t realign_window_samples(const session_state& session);

// How sharply the rms fit of each listed event to the cluster's template is bent at the offset
// that it would take: S(d - 1) + S(d + 1) - 2 S(d), in bits squared times µV a bit. 0 where the
// fit has no minimum. Nothing moves.
std::vector<float> rms_fit_sharpness(const session_state& session, std::int32_t cluster,
                                     const std::vector<std::int32_t>& list);

// recalculate_cluster for every cluster, threaded or not.
void realign_all_clusters(session_state& session);

// One call of the matching routine on one event; w in samples, at most 50.
// Returns the total shift made, in samples.
float align_event_rms(session_state& session, std::int32_t cluster, std::int32_t event,
                      std::int32_t w);
float align_event_multiplicative(session_state& session, std::int32_t cluster, std::int32_t event,
                                 std::int32_t w);

// Adds a shift in samples to a (time, fraction) pair.
void apply_event_shift(std::int32_t& time, float& fraction, float shift);

// Applies the stored shift of pair k = (a, b) to the events of the cluster it
// belongs to; a cluster that is neither is logged and nothing moves.
void apply_template_shift(session_state& session, std::int32_t a, std::int32_t b, std::int64_t k);

// "Realign All" of the events: realign_events and the template of every cluster.
void realign_all_events(session_state& session);

// Proof that threads change nothing: runs the whole alignment twice from the same
// event times and compares. Returns how many events differ; the second result
// stays.
std::int32_t check_threaded_alignment(session_state& session);

// Moves each event to its own feature (event_align_mode 1..8) or runs the rms (9)
// or multiplicative (10) fit.
void realign_events(session_state& session, std::int32_t cluster);

}  // namespace kestrelvane
