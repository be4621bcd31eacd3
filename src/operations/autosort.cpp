#include "operations/autosort.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "clustering/deferred_templates.h"
#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/splitting.h"
#include "detection/detected_events.h"
#include "detection/event_cleanup.h"
#include "detection/lockout_detector.h"
#include "detection/proto_events.h"
#include "detection/sample_test.h"
#include "operations/cleaning.h"
#include "operations/high_pass_offer.h"
#include "operations/sort_keeper.h"
#include "review/guided_merge.h"
#include "session/template_window.h"
#include "signal/thresholds.h"
#include "sorting/channel_clusters.h"
#include "sorting/cluster_edits.h"
#include "sorting/duplicates.h"
#include "sorting/merge_split.h"
#include "sorting/realign_steps.h"
#include "sorting/status_lists.h"
#include "sorting/template_pass.h"

namespace kestrelvane {

namespace {

using clock = std::chrono::steady_clock;

// Minutes since the start, cut to hundredths; rounding: what is added before the cut.
double minutes_since(clock::time_point begin, double rounding = 0.0) {
  const double seconds = std::chrono::duration<double>(clock::now() - begin).count();
  return std::trunc(seconds / 60.0 * 100.0 + rounding) / 100.0;
}

void show_cluster_count(const session_state& session) {
  set_status(session, status_field::clusters_found, std::to_string(session.clusters.n_clusters));
}

void show_time(const session_state& session, clock::time_point begin) {
  set_status(session, status_field::elapsed_time, fmt::format("{:.2f}", minutes_since(begin)));
}

std::string count_of_clusters(std::int32_t n) {
  return n == 1 ? fmt::format("{} cluster found", n) : fmt::format("{} clusters found", n);
}

// ---------------------------------------------------------------- detection

// Also makes the thresholds, where they are to be fitted.
void say_thresholds(session_state& session) {
  const detection_settings& d = session.detection;
  if (d.threshold_mode == threshold_fixed) {
    say(session, fmt::format("Detecting events with fixed threshold ={}", d.fixed_threshold_uv));
  } else if (d.threshold_mode == threshold_automatic) {
    say(session, "Detecting events with automatic thresholding");
    compute_auto_thresholds(session);
  } else {
    say(session, fmt::format("Detecting events with variable threshold ={} x noise level",
                             d.variable_multiplier));
  }
  say(session, fmt::format("Event detection method is {}",
                           mode_name(detection_methods(), d.detection_method)));
}

// One try; false when the run must end.
bool run_detector(session_state& session, bool lockout) {
  if (lockout) {
    detect_events_lockout(session);
    return true;
  }
  return detect_events_proto(session) == detection_end::done;
}

void remove_unwanted_events(session_state& session) {
  log_message(session, "Removing any coincident events, please wait ...");
  const std::int32_t coincident = delete_coincident_events(session);
  log_message(session, " finished!");
  say(session, fmt::format("{} coincident events were removed from the record", coincident));
  if (session.detection.delete_large_events) {
    const std::int32_t large = delete_large_events(session);
    say(session, fmt::format("{} large events were removed from the record", large));
  }
  // Only now: the clean-up has moved times, but not those of detection.
  keep_detected_times(session);
}

// Scans with the method selected and, when that fills its table, once more with the
// lockout detector, which needs none. The setting stays as the user has it.
bool scan_recording(session_state& session, clock::time_point begin) {
  bool lockout = session.detection.use_lockout;
  session.detector.repeated_with_lockout = false;
  for (;;) {
    clear_events(session.events);
    clear_detected_events(session);
    show_time(session, begin);
    say_thresholds(session);
    if (!run_detector(session, lockout)) return false;
    if (!session.detector.detection_incomplete || lockout) return true;
    // An interrupted scan keeps what it found; a full table calls for the other
    // method.
    if (autosort_interrupted(session)) return true;
    say(session, "Incomplete event detection; repeating detection with STL lockout");
    tell(session, "Repeating event detection with Spatio-temporal lockout",
         "Incomplete event detection", box_icon::warning);
    lockout = true;
    session.detector.repeated_with_lockout = true;
  }
}

bool detect_all_events(session_state& session, clock::time_point begin) {
  begin_stage(session, "detection");
  if (!scan_recording(session, begin)) return false;
  set_progress(session, meter::detection, 1000, 1000);
  if (session.events.n_events == 0) {
    session.autosort.found_no_events = true;
    say(session, "Autosort terminated because no events were detected");
    tell(session, "No events detected: use lower threshold", "Autosort", box_icon::warning);
    return false;
  }
  remove_unwanted_events(session);
  say(session, fmt::format("{} events were detected", session.events.n_events));
  refresh_displays(session);
  show_time(session, begin);
  set_status(session, status_field::events_found, std::to_string(session.events.n_events));
  return true;
}

// ---------------------------------------------------------------- first clusters

void make_first_clusters(session_state& session) {
  begin_stage(session, "channel-clusters");
  shorten_template_rows(session);
  set_status(session, status_field::events_found, std::to_string(session.events.n_events));
  form_channel_clusters(session);
  show_cluster_count(session);
  const std::int32_t n = session.clusters.n_clusters;
  say(session,
      fmt::format("Events clustered based on channel assignments; {} initial clusters", n));
  log_message(session, " Realigning all clusters ... ");
  set_status(session, status_field::message,
             "Realigning all clusters after channel-based clustering");
  log_message(session, "Realigning all clusters");
  // Once more: events far from their template have left since the first time.
  realign_all_clusters(session);
  log_message(session, "finished");
}

// ---------------------------------------------------------------- first pass

// Splits one cluster, which adds at most a few at the end of the table.
split_outcome split_and_tell(session_state& session, std::int32_t nc) {
  const std::int32_t n_before = session.clusters.n_clusters;
  cluster_change change = begin_change(session, cluster_change_kind::split, {nc});
  const split_outcome outcome = split_cluster(session, nc);
  change.after = {nc};
  for (std::int32_t c = n_before + 1; c <= session.clusters.n_clusters; ++c) {
    change.after.push_back(c);
  }
  end_change(session, change);
  return outcome;
}

// Splits the clusters of a work list; false when the run was stopped. Deleting a
// cluster renumbers the entries after it.
bool split_listed_clusters(session_state& session, std::vector<std::int32_t>& list,
                           clock::time_point begin) {
  cluster_table& clusters = session.clusters;
  std::size_t at = 0;
  while (at < list.size()) {
    const std::int32_t nc = list[at];
    clusters.current_cluster = nc;
    set_status(session, status_field::current_cluster,
               fmt::format("Now on cluster {} of {}: {} events", nc, clusters.n_clusters,
                           count_cluster_events(session, nc)));
    const split_outcome outcome = split_and_tell(session, nc);
    bool deleted = false;
    // By its count and not by the outcome: a cut may have left a cluster small as well.
    if (count_cluster_events(session, nc) < least_cluster_size(session)) {
      delete_cluster(session, nc);
      list.erase(list.begin() + static_cast<std::ptrdiff_t>(at));
      for (std::int32_t& later : list) later -= later > nc;
      deleted = true;
    }
    show_cluster_count(session);
    show_time(session, begin);
    set_progress(session, meter::clusters, nc * 100 / std::max(1, clusters.n_clusters), 100);
    if (outcome.limit_reached) session.autosort.max_clusters_reached = true;
    if (outcome.limit_reached || autosort_interrupted(session)) return false;
    pause_point(session);
    if (!deleted) ++at;
  }
  return true;
}

// Splits until every cluster is signed off.
void first_pass(session_state& session, clock::time_point begin) {
  cluster_table& clusters = session.clusters;
  session.operation.pause_requested = false;
  // All clusters are to be split, whatever an earlier run signed off.
  clusters.cluster_signed_off.clear();
  const std::int32_t old_current = clusters.current_cluster;
  for (;;) {
    std::vector<std::int32_t> list;
    for (std::int32_t c = 1; c <= clusters.n_clusters; ++c) {
      // What the round before has made is unsigned, and so in this list.
      if (!clusters.cluster_signed_off[c]) list.push_back(c);
    }
    if (list.empty() || !split_listed_clusters(session, list, begin)) break;
  }
  clusters.current_cluster = std::min(old_current, clusters.n_clusters);
  if (session.operation.autosort_interrupt) {
    say(session, "User terminated autosort");
    tell(session, "Autosort terminated by user", "Autosort", box_icon::information);
  }
}

// ---------------------------------------------------------------- after the first pass

void remove_first_pass_duplicates(session_state& session) {
  const std::int32_t n = remove_duplicate_events(session, true);
  if (n == 0) {
    set_status(session, status_field::message, "No duplicate events after 1st pass");
    log_message(session, "No duplicate events found after 1st pass");
  } else if (n == 1) {
    say(session, "One duplicate event was removed after 1st pass");
  } else {
    say(session, fmt::format("{} duplicate events were removed after 1st pass", n));
  }
}

void remove_small_clusters(session_state& session) {
  log_message(session, "Deleting any clusters < threshold size ...");
  // Lists are made afresh after this; keeping old ones in step would be idle.
  session.lists.n_kv_pairs = 0;
  const std::int32_t size = least_cluster_size(session);
  const std::int32_t deleted = delete_small_clusters(session, size);
  release_spare_templates(session);
  show_cluster_count(session);
  log_message(session, " finished");
  if (deleted == 1) {
    say(session, fmt::format("One cluster with <{} members was removed", size));
  } else if (deleted > 1) {
    say(session, fmt::format("{} clusters with <{} members were removed", deleted, size));
  }
}

void align_after_first_pass(session_state& session) {
  log_message(session, "Aligning templates ...");
  realign_all_clusters(session);
  session.clusters.current_cluster = 1;
  log_message(session, "finished");
}

// ---------------------------------------------------------------- pairs

void build_lists(session_state& session) {
  begin_stage(session, "lists");
  log_message(session, "Making status lists ... ");
  show_cluster_count(session);
  build_status_lists(session);
  set_status(session, status_field::stable_clusters,
             std::to_string(count_stable_clusters(session)));
}

void report_last_merges(const session_state& session, std::int32_t n) {
  if (n == 0) {
    log_message(session, "Finished final merging check, no merges made");
  } else if (n == 1) {
    log_message(session, "Finished final merging check, 1 merge made");
  } else {
    log_message(session, fmt::format("Finished final merging check,{} merges made", n));
  }
}

// The rounds of merging; false when interrupted.
bool run_merge_rounds(session_state& session) {
  const bool merge = session.strategy.merge_safe_pairs;
  const bool split = session.strategy.merge_split_pairs;
  begin_stage(session, "merge-and-split");
  if (merge) automerge_safe_pairs(session, 0, 20);
  if (autosort_interrupted(session)) return false;
  if (split) {
    session.autosort.autosort_pair_stage = true;
    merge_split_pairs_pass(session, 20, 120);
  }
  if (autosort_interrupted(session)) return false;
  if (merge) automerge_safe_pairs(session, 120, 130);
  if (autosort_interrupted(session)) return false;
  begin_stage(session, "final-check");
  if (split) final_split_check(session, 130, 140);
  if (autosort_interrupted(session)) return false;
  log_message(session, "Doing final search for merges ...");
  if (merge) report_last_merges(session, automerge_safe_pairs(session, 140, 150));
  return !autosort_interrupted(session);
}

// ---------------------------------------------------------------- template pass

// The spikes that detection and clustering have missed; false when interrupted, and the sort is
// then the one before.
bool reclaim_by_templates(session_state& session) {
  if (!session.matching.template_pass || session.clusters.n_clusters == 0) return true;
  begin_stage(session, "template-pass");
  const template_pass_end end = run_template_pass(session);
  if (end == template_pass_end::done) {
    build_lists(session);
  }
  return end != template_pass_end::interrupted;
}

// ---------------------------------------------------------------- ends

// Why nothing has come out, for whoever sees an empty table in the morning.
void tell_no_clusters(const session_state& session) {
  if (session.clusters.n_clusters > 0) return;
  const std::string text = fmt::format(
      "No clusters: {} events were found, and no cluster of them has the smallest size of {} "
      "events",
      session.events.n_events, session.strategy.min_cluster_size);
  log_message(session, text);
  tell(session, text, "Autosort", box_icon::warning);
}

void leave_pair_stage(session_state& session) {
  session.autosort.autosort_pair_stage = false;
  // They were marks of the run; the review by the user starts without any.
  session.lists.kv_user_ambiguous.clear();
  session.autosort.pool = {};
  // What shows the pool has to look again.
  refresh_displays(session);
}

bool end_interrupted(session_state& session, clock::time_point begin) {
  leave_pair_stage(session);
  // Before the box, whose wait is none of the run's time.
  show_time(session, begin);
  tell(session, "Autosort interrupted by user!", "Autosort", box_icon::information);
  say(session, "User terminated autosort");
  return false;
}

bool end_finished(session_state& session, clock::time_point begin) {
  set_progress(session, meter::merge_and_sort, 150, 150);
  session.clusters.current_cluster = session.clusters.n_clusters > 0 ? 1 : 0;
  leave_pair_stage(session);
  const std::int32_t n = session.clusters.n_clusters;
  say(session, fmt::format("{} clusters found", n));
  const std::int32_t stable = count_stable_clusters(session);
  set_status(session, status_field::stable_clusters, std::to_string(stable));
  const double minutes = minutes_since(begin);
  if (minutes < 0.0) {
    log_message(session, fmt::format("Error: -ve r_time derived from {} {}",
                                     begin.time_since_epoch().count(),
                                     clock::now().time_since_epoch().count()));
  }
  show_time(session, begin);
  say(session, fmt::format("Finished autosort. Total time taken={:.2f} minutes", minutes));
  if (session.autosort.max_clusters_reached) {
    tell(session,
         "You are at, or close to, the maximum number of clusters the program can support. "
         "Autosort did not complete.",
         "Warning!", box_icon::warning);
  } else if (n == 0) {
    tell_no_clusters(session);
  } else if (stable == n && session.clusters.proposal_reasons.empty()) {
    tell(session, "Finished Autosort!", "Done!", box_icon::information);
  } else {
    tell(session, "Finished Autosort, now do Guided Merge", "Done!", box_icon::information);
  }
  return true;
}

// ---------------------------------------------------------------- the road

bool can_start(const session_state& session) {
  if (session.strategy.skip_event_detection && session.events.n_events == 0) {
    tell(session, "There are no events, turn event detection back on", "Autosort",
         box_icon::warning);
    return false;
  }
  if (session.strategy.skip_clustering && session.clusters.n_clusters == 0) {
    tell(session, "There are no clusters, turn clustering back on", "Autosort", box_icon::warning);
    return false;
  }
  return true;
}

// Counts and bars of the run before would be taken for those of this one.
void clear_counters(const session_state& session) {
  for (const status_field field :
       {status_field::events_found, status_field::clusters_found, status_field::stable_clusters,
        status_field::current_cluster, status_field::current_pair, status_field::elapsed_time}) {
    set_status(session, field, "");
  }
  set_progress(session, meter::detection, 0, 1000);
  set_progress(session, meter::clusters, 0, 100);
  set_progress(session, meter::merge_and_sort, 0, 150);
}

void begin_run(session_state& session) {
  clear_counters(session);
  session.lists.template_shift_on = true;
  session.autosort.next_stage_requested = true;
  session.autosort.max_clusters_reached = false;
  session.autosort.found_no_events = false;
  session.autosort.autosort_pair_stage = false;
  session.autosort.pool = {};
  session.multi_threaded_now = session.preferences.multi_threaded;
}

enum class road { go_on, ended_well, ended_early };

// From the first clusters to the aligned templates of the first pass.
road cluster_events(session_state& session, clock::time_point begin) {
  // Most clusters are cut again before anybody looks at them.
  const template_deferral deferral(session);
  if (!session.strategy.skip_clustering) make_first_clusters(session);
  if (session.autosort.stop_after == stop_after_channel_clusters) return road::ended_well;
  show_time(session, begin);
  begin_stage(session, "first-pass");
  first_pass(session, begin);
  show_time(session, begin);
  if (session.operation.autosort_interrupt) {
    say(session, "User terminated autosort");
    return road::ended_early;
  }
  say(session,
      fmt::format("Finished first pass. Time so far ={:.2f} minutes", minutes_since(begin, 0.5)));
  say(session, count_of_clusters(session.clusters.n_clusters));
  remove_first_pass_duplicates(session);
  remove_small_clusters(session);
  show_time(session, begin);
  tell_no_clusters(session);
  // A single cluster has no pairs to look at.
  if (session.clusters.n_clusters < 2) return road::ended_well;
  if (autosort_interrupted(session)) {
    end_interrupted(session, begin);
    return road::ended_early;
  }
  align_after_first_pass(session);
  if (autosort_interrupted(session)) {
    end_interrupted(session, begin);
    return road::ended_early;
  }
  return session.autosort.stop_after == stop_after_first_pass ? road::ended_well : road::go_on;
}

}  // namespace

namespace {

// Samples, then events. False when the run must end.
bool find_events(session_state& session, clock::time_point begin, kept_stage& done) {
  const bool detect = !session.strategy.skip_event_detection;
  if (detect && (!offer_high_pass(session) || !clean_recording(session))) return false;
  if (!take_up_sort(session, done)) return false;
  if (done != kept_stage::none) return true;
  // What follows makes all clusters anew; with neither, the lists and comments still hold.
  if (detect || !session.strategy.skip_clustering) {
    clear_status_lists(session);
    blank_cluster_comments(session);
  }
  if (detect && !detect_all_events(session, begin)) return false;
  keep_stage(session, kept_stage::detection);
  return true;
}

// The clusters of the first pass.
road find_clusters(session_state& session, clock::time_point begin) {
  road way = road::go_on;
  if (session.strategy.skip_event_detection && session.strategy.skip_clustering) {
    renew_outdated_templates(session);
  } else {
    way = cluster_events(session, begin);
  }
  if (way == road::go_on) keep_stage(session, kept_stage::first_pass);
  return way;
}

bool run_pipeline(session_state& session, clock::time_point begin) {
  say(session, "Beginning autosort");
  kept_stage done = kept_stage::none;
  if (!find_events(session, begin, done)) return false;
  if (session.autosort.stop_after == stop_after_detection) return true;
  if (done < kept_stage::first_pass) {
    const road way = find_clusters(session, begin);
    if (way == road::ended_early) return false;
    if (way == road::ended_well) {
      return session.autosort.stop_after != stop_after_all || reclaim_by_templates(session);
    }
  }
  if (done < kept_stage::merging) {
    build_lists(session);
    if (session.autosort.stop_after == stop_after_lists) return true;
    if (!run_merge_rounds(session)) return end_interrupted(session, begin);
    keep_stage(session, kept_stage::merging);
  }
  if (!reclaim_by_templates(session)) return end_interrupted(session, begin);
  return end_finished(session, begin);
}

}  // namespace

bool autosort(session_state& session) {
  if (!can_start(session)) return false;
  begin_run(session);
  const clock::time_point begin = clock::now();
  const bool done = run_pipeline(session, begin);
  // However it ended, a run that was finished has full bars.
  if (done && session.autosort.stop_after == stop_after_all) {
    set_progress(session, meter::clusters, 100, 100);
    set_progress(session, meter::merge_and_sort, 150, 150);
  }
  // An interrupted run keeps what it has found.
  note_unsaved(session, unsaved_results::run);
  return done;
}

bool leave_autosort(session_state& session) {
  if (templates_are_outdated(session)) {
    set_status(session, status_field::message,
               "Spikes are being realigned and templates\r\nrecalculated because the spike window "
               "was\r\nchanged");
    renew_outdated_templates(session);
    set_status(session, status_field::message, "Finished ... press OK to continue");
  }
  return session.autosort.next_stage_requested && has_pairs_to_examine(session);
}

}  // namespace kestrelvane
