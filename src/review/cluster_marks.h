// View, clean and split: marks on the events of one cluster, and what is done with them.
//
// Everything here works on current_cluster and through one means: the label of an event,
// event_subcluster. Marking moves nothing and is taken back by unmark_events. Events leave the
// cluster only by split_label, delete_label and delete_current_cluster, and come to it by
// reclaim_events (review/reclaim.h); each of these, and realign_current_cluster, first saves
// what undo_cluster_review brings back.
//
// Routines without a current cluster do nothing. Those that return bool give false after
// saying why, or when the user has interrupted; marks are then as they were.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "review/event_blocks.h"
#include "review/plane_shapes.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr const char* cluster_review_title = "View, clean and split clusters";

// The dialog's beginning: guards of review_guards.h, and what an earlier one has saved is
// dropped, so that an undo reaches no farther back than the dialog does.
bool begin_cluster_review(session_state& session);
// Takes back the last edit since then. False when there is none.
bool undo_cluster_review(session_state& session);

// ---------------------------------------------------------------- marking by measure

struct mark_parameters {
  std::int32_t method = 0;    // clean_method_row
  std::int32_t channels = 0;  // clean_channels_row; alignment looks at the template's channels
  float threshold = 0;        // marked: scores of alignment below it, other values above it
};
mark_parameters mark_parameters_of(const session_state& session);

// "Mark": clears the labels and gives label 1 to the events that fail. By alignment,
// clean_channels of the settings becomes clean_on_template.
bool mark_events(session_state& session, const mark_parameters& parameters);

// The value of each event in list order: alignment_score.h, or the distance from the template
// in units of its s.d. Not a number where no point enters, which is never marked.
bool measure_events(const session_state& session, const mark_parameters& parameters,
                    std::int32_t cluster, const std::vector<std::int32_t>& list,
                    std::vector<float>& values, block_meter meters = block_meter::moves);

// Swaps label 1 and no label; other labels stay.
void invert_marks(session_state& session);
void unmark_events(session_state& session);

// ---------------------------------------------------------------- marking by clustering

// "Fixed split": one stage of gradient ascent clustering, the one on the ladder whose sigma is
// nearest to sigma_uv in the logarithm; its labels become those of the events. "Autosplit" is
// autosplit_current_cluster (clustering/splitting.h).
bool fixed_split(session_state& session, float sigma_uv);
// Stage 1..50 of a sigma in µV.
std::int32_t nearest_stage(const session_state& session, float sigma_uv);

// ---------------------------------------------------------------- marking by shapes

// A shape adds label 1 to what it finds; other labels stay.

// A stretch of the waveform on one channel, between two voltages. A waveform crosses it when a
// sample lies in it, or two neighbours lie on opposite sides.
struct waveform_window {
  std::int32_t channel = 0;
  std::int32_t first_point = 0, last_point = 0;  // points of the template, from 1
  float low_uv = 0, high_uv = 0;
};
// Labels the events whose waveforms, read at their aligned times, do not cross every window.
bool mark_by_windows(session_state& session, const std::vector<waveform_window>& windows);

// Where the shapes below are drawn (review/plane_shapes.h).
enum class mark_plane {
  components,  // components 1 and 2 of cluster_pc_values
  heights,     // time in minutes, peak-to-peak on the centre channel in µV
};
// Where the events of the current cluster lie, in list order.
std::vector<shape_point> events_in_plane(session_state& session, mark_plane plane);

// cluster_ellipse of the current cluster, over the components. It is in their units at the
// moment: edits of this header drop it, and so does whoever else computes them anew.
bool mark_in_ellipse(session_state& session);
// Two opposite corners, over the heights.
bool mark_in_rectangle(session_state& session, shape_point a, shape_point b);
// A closed polygon, by the even-odd rule. It may give another label than 1, and with 0 it takes
// labels away.
bool mark_in_lasso(session_state& session, mark_plane plane, const shape_polygon& polygon,
                   std::int16_t label = 1);

// A shape that is drawn, adjusted and drawn on marks what it holds at last: the labels that the
// events had before it, and those that it has given.
struct drawn_marks {
  std::vector<std::int32_t> events;
  std::vector<std::int16_t> before, after;
};
// Runs one of the routines above. Where nothing but this has labelled the events since the last
// time, the labels from before it are put back first.
bool mark_anew(session_state& session, drawn_marks& marks, const std::function<bool()>& mark);

// Gives a label to events that a display has found by itself, as those near a click. Events of
// other clusters are passed over.
void label_events(session_state& session, const std::vector<std::int32_t>& list,
                  std::int16_t label);

// The time of an event in minutes.
float event_minutes(const session_state& session, std::int32_t event);

// ---------------------------------------------------------------- labels

// Fields of the dialog.
struct label_sizes {
  std::array<std::int32_t, 5> size{};  // events of labels 0..4
  std::int32_t others = 0;             // above 4
  std::int32_t n_events = 0;
};
label_sizes count_labels(const session_state& session);

// "Split" under a label: its events become a new cluster. A label that all events have is
// refused. Of label 0, those without one go and those that stay lose theirs.
bool split_label(session_state& session, std::int32_t label);
// "Delete" under a label: its events become unclustered and the cluster is recalculated. Asks
// before it deletes the cluster, when no events would be left.
bool delete_label(session_state& session, std::int32_t label);
// "Delete" beside the cluster, after the same question.
bool delete_current_cluster(session_state& session);
// "realign": recalculate_cluster.
bool realign_current_cluster(session_state& session);
// "Annotate".
void annotate_current_cluster(session_state& session, const std::string& comment);

}  // namespace kestrelvane
