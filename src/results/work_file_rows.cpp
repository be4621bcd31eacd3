#include "results/work_file_rows.h"

#include <string>

namespace kestrelvane {

namespace {

using address = void* (*)(session_state&);

// A run of words: the usual row.
constexpr work_file_row words(const char* name, row_count rule, std::int32_t times, address first,
                              std::int32_t from = 4, std::int32_t to = 8) {
  return {name, row_form::words, rule, times, first, from, to, true};
}
// One word: a setting.
constexpr work_file_row word(const char* name, address first, std::int32_t from = 4,
                             std::int32_t to = 8) {
  return words(name, per_file, 1, first, from, to);
}
constexpr work_file_row count(const char* name, row_count sets, address first,
                              std::int32_t from = 4, std::int32_t to = 8) {
  return {name, row_form::counter, sets, 1, first, from, to, true};
}
constexpr work_file_row special(const char* name, row_form form, address first) {
  return {name, form, per_file, 1, first, 4, 8, true};
}
// Written, and passed over on reading.
constexpr work_file_row unread(work_file_row row) {
  row.stored = false;
  return row;
}

std::string current_label = "Kestrelvane work file V8";
const std::int32_t reserved_words[100] = {};

// Where a run had to do otherwise than a setting says, the file tells how its events and
// clusters were made. prepare_for_work_file forgets the run, so that what is read reaches
// the setting.
void* use_lockout_in_force(session_state& s) {
  return s.detector.repeated_with_lockout ? &s.detector.repeated_with_lockout
                                          : &s.detection.use_lockout;
}
void* split_obvious_in_force(session_state& s) {
  return s.autosort.split_obvious ? &s.autosort.split_obvious : &s.strategy.split_obvious;
}

#define AT(member) [](session_state& s) -> void* { return &s.member; }
#define CARRIED(name) [](session_state& s) -> void* { return s.carried.at(carried_setting::name); }
#define LIST(member) [](session_state& s) -> void* { return s.member.first(); }

// clang-format off
constexpr work_file_row rows[] = {
  unread({"label", row_form::label, per_file, 1,
          [](session_state&) -> void* { return &current_label; }, 4, 8, true}),
  unread(special("recording_path", row_form::text, AT(recording.recording_path))),
  special("xml_path", row_form::text, AT(recording.xml_path)),
  special("plx_path", row_form::text, AT(recording.plx_path)),
  special("srf_path", row_form::text, AT(recording.srf_path)),
  // The recording in memory knows its own type; one under another name may differ.
  unread(word("file_type", AT(recording.file_type))),

  count("n_events", per_event, AT(events.n_events)),
  count("n_clusters", per_cluster, AT(clusters.n_clusters)),
  count("n_channels", per_channel, AT(recording.n_channels)),
  words("event_time", per_event, 1, LIST(events.event_time)),
  words("event_channel", per_event, 1, LIST(events.event_channel)),
  words("event_cluster", per_event, 1, LIST(events.event_cluster)),
  words("event_shift", per_event, 1, LIST(events.event_shift)),
  words("chan_mask", per_channel, 1, LIST(recording.chan_mask)),
  words("chan_noise", per_channel, 1, LIST(recording.chan_noise)),

  word("smooth_radius_um", AT(filter.smooth_radius_um)),
  word("bw_f0_khz", AT(filter.bw_f0_khz)),
  word("bw_f0_khz_previous", AT(filter.bw_f0_khz_previous)),
  word("recording_filtered", AT(recording.recording_filtered), 7),
  word("do_temporal_smooth", AT(filter.do_temporal_smooth), 4, 6),
  word("noise_window_secs", AT(detection.noise_window_secs)),
  word("noise_method", AT(detection.noise_method)),
  word("noise_static", AT(detection.noise_static)),
  word("pe_sigma_um", AT(detection.pe_sigma_um)),
  word("pe_sigma_ms", AT(detection.pe_sigma_ms)),
  word("threshold_mode", AT(detection.threshold_mode)),
  word("fixed_threshold_uv", AT(detection.fixed_threshold_uv)),
  word("variable_multiplier", AT(detection.variable_multiplier)),
  word("lockout_radius_um", AT(detection.lockout_radius_um)),
  word("detection_method", AT(detection.detection_method)),
  word("template_window_start_ms", AT(strategy.template_window_start_ms)),
  word("template_window_end_ms", AT(strategy.template_window_end_ms)),
  word("window_samples", AT(detection.window_samples)),
  word("use_lockout", use_lockout_in_force),
  word("lockout_ms", AT(detection.lockout_ms)),
  word("register_to_cog", AT(detection.register_to_cog)),
  word("delete_large_events", AT(detection.delete_large_events)),
  word("max_event_pp_uv", AT(detection.max_event_pp_uv)),
  word("realign_window_ms", AT(strategy.realign_window_ms)),
  word("multiplicative_matching", AT(strategy.multiplicative_matching)),
  word("align_feature", AT(detection.align_feature)),
  word("event_align_mode", AT(strategy.event_align_mode)),
  word("template_align_mode", AT(strategy.template_align_mode)),
  word("mask_noise_below_uv", AT(detection.mask_noise_below_uv)),
  word("current_cluster", AT(clusters.current_cluster)),
  word("current_channel", AT(current_channel)),
  words("pc_view_range", per_file, 6, AT(display.pc_view_range[0])),
  word("pc_view_range, the third again", AT(display.pc_view_range[2])),
  word("pca_dimensions", AT(strategy.pca_dimensions)),
  word("interp_depth", AT(strategy.interp_depth)),
  word("interp_width", AT(strategy.interp_width)),
  word("gac_gain", AT(strategy.gac_gain)),
  word("view_split_sigma", AT(review.view_split_sigma)),
  word("gac_start_sigma", AT(strategy.gac_start_sigma)),
  word("gac_max_iterations", AT(strategy.gac_max_iterations)),
  word("gac_merge_radius", AT(strategy.gac_merge_radius)),
  word("gac_stop_step", AT(strategy.gac_stop_step)),
  word("gac_flag", CARRIED(gac_flag)),
  word("gac_option", CARRIED(gac_option)),
  word("gac_stall_limit", AT(strategy.gac_stall_limit)),
  word("pc_point_selection", AT(strategy.pc_point_selection), 8),
  word("pc_point_limit", AT(strategy.pc_point_limit)),
  word("template_align_mode, again", AT(strategy.template_align_mode)),
  word("min_cluster_size", AT(strategy.min_cluster_size)),
  word("gac_threshold", AT(strategy.gac_threshold)),
  word("gac_size_tolerance", AT(strategy.gac_size_tolerance)),
  word("overlap_threshold", AT(strategy.overlap_threshold)),
  word("merge_safe_limit", CARRIED(merge_safe_limit)),
  word("pair_parameter_1", CARRIED(pair_parameter_1), 5),
  word("pair_parameter_2", CARRIED(pair_parameter_2), 5),
  word("recluster_limit", AT(strategy.recluster_limit)),
  word("keep_largest_final_subcluster", AT(strategy.keep_largest_final_subcluster)),
  word("split_obvious", split_obvious_in_force),
  word("clean_threshold", AT(review.clean_threshold)),
  word("channel_threshold_1", AT(strategy.channel_threshold_1), 8),
  word("channel_threshold_2", AT(strategy.channel_threshold_2), 8),
  word("force_one_cluster_per_tetrode", AT(strategy.force_one_cluster_per_tetrode), 8),
  word("channel_radius", AT(strategy.channel_radius), 8),
  word("match_method", AT(review.match_method)),
  word("session_flag", CARRIED(session_flag)),
  word("gac_subsample", AT(strategy.gac_subsample)),

  words("cluster_spare", per_cluster, 1, LIST(clusters.cluster_spare)),
  words("cluster_reserved", per_cluster, 1, LIST(clusters.cluster_reserved)),
  words("cluster_sigma", per_cluster, 1, LIST(clusters.cluster_sigma), 6),
  count("template_points", per_point, AT(templates.template_points)),
  special("template_mean", row_form::templates, AT(templates.template_mean)),
  special("template_sd", row_form::templates, AT(templates.template_sd)),
  unread(words("template_channels, first row", per_cluster, 1, nullptr, 4, 4)),
  special("template_channels", row_form::channel_lists, nullptr),
  words("template_z", per_cluster, 1, LIST(templates.template_z)),
  special("template_x, template_y", row_form::positions, nullptr),
  words("template_n_channels", per_cluster, 1, LIST(templates.template_n_channels), 8),
  words("history_count", per_cluster, 1, LIST(clusters.history_count)),
  words("history_a", per_cluster, 150, LIST(clusters.history_a)),
  words("history_b", per_cluster, 100, LIST(clusters.history_b)),
  words("history_c", per_cluster, 50, LIST(clusters.history_c)),
  words("history_d", per_cluster, 50, LIST(clusters.history_d)),

  count("n_kv_pairs", per_pair, AT(lists.n_kv_pairs)),
  words("kv_template_correlation", per_pair, 1, LIST(lists.kv_template_correlation)),
  words("kv_cluster_overlap", per_pair, 1, LIST(lists.kv_cluster_overlap)),
  words("rms_template_shift", per_pair, 1, LIST(lists.rms_template_shift), 8),
  words("kv_n_shift_template", per_pair, 1, LIST(lists.kv_n_shift_template), 8),
  words("kv_user_distinct", per_pair, 1, LIST(lists.kv_user_distinct)),
  words("kv_user_ambiguous", per_pair, 1, LIST(lists.kv_user_ambiguous)),
  words("kv_templates_dont_overlap", per_pair, 1, LIST(lists.kv_templates_dont_overlap), 8),
  word("template_shift_on", AT(lists.template_shift_on)),
  word("status_flag", CARRIED(status_flag)),
  word("relocate_sd_factor", AT(review.relocate_sd_factor)),
  word("status_parameter_1", CARRIED(status_parameter_1)),
  word("correlation_threshold", AT(strategy.correlation_threshold), 7),
  word("do_common_mean", AT(filter.do_common_mean), 4, 6),
  word("status_parameter_2", CARRIED(status_parameter_2)),
  word("equal_numbers_for_overlap", AT(strategy.equal_numbers_for_overlap)),
  word("export_remove_duplicates", AT(review.export_remove_duplicates)),
  word("export_save_work_file", AT(review.export_save_work_file)),
  unread(words("reserved", per_file, 100, [](session_state&) -> void* {
    return const_cast<std::int32_t*>(reserved_words);  // written from, never into
  })),

  // Version 8 keeps the run log of the running program; older ones bring theirs.
  count("n_log_lines", per_log_line, AT(log.n_log_lines), 4, 7),
  words("log_lines", per_log_line, 64, LIST(log.log_lines), 4, 7),
  unread(count("n_log_lines", per_log_line, AT(log.n_log_lines), 8)),
  unread(words("log_lines", per_log_line, 64, LIST(log.log_lines), 8)),
  words("event_detected_time", per_event, 1, LIST(events.event_detected_time)),
  count("filter_history count", per_filter, AT(filter_history.n_entries), 8),
  words("filter_history code", per_filter, 1, AT(filter_history.code[1]), 8),
  words("filter_history param1", per_filter, 1, AT(filter_history.param1[1]), 8),
  words("filter_history param2", per_filter, 1, AT(filter_history.param2[1]), 8),
  {"cluster_comment", row_form::comments, per_file, 1, nullptr, 5, 8, true},
};
// clang-format on

#undef AT
#undef CARRIED
#undef LIST

}  // namespace

std::span<const work_file_row> work_file_rows() { return rows; }

std::int64_t row_bytes(const work_file_row& row, const work_file_counts& counts) {
  const auto& n = counts.of;
  switch (row.form) {
    case row_form::label:
      return work_file_label_length;
    case row_form::text:
      return work_file_path_length;
    case row_form::templates:
      return 4 * n[per_cluster] * n[per_channel] * n[per_point];
    case row_form::channel_lists:
      return 4 * n[per_cluster] * n[per_channel];
    case row_form::positions:
      return 8 * n[per_cluster];
    case row_form::comments:
      return 0;
    case row_form::counter:
      return 4;
    case row_form::words:
      break;
  }
  return 4 * row.times * n[row.rule];
}

work_file_counts count_session(const session_state& session) {
  work_file_counts counts;
  counts.of[per_file] = 1;
  counts.of[per_event] = session.events.n_events;
  counts.of[per_cluster] = session.clusters.n_clusters;
  counts.of[per_channel] = session.recording.n_channels;
  // Counts are taken together, before the first row is written.
  counts.of[per_point] = session.templates.template_points;
  counts.of[per_pair] = session.lists.n_kv_pairs;
  counts.of[per_log_line] = session.log.n_log_lines;
  counts.of[per_filter] = session.filter_history.n_entries;
  return counts;
}

}  // namespace kestrelvane
