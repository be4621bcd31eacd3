#include "session/settings_table.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

#include "session/interpolation_tables.h"
#include "session/neighbour_list.h"
#include "session/run_log.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

constexpr double subcluster_colours[] = {0x2A22CD, 0xFF00,   0xD97A00, 0x5E348B, 0x9F3753,
                                         0x158DED, 0x25EFEF, 0xFFB321, 0x873490, 0xD5D5};
constexpr double window_sizes[] = {400, 500, 400, 500, 350, 350, 510, 250, 400, 500};
constexpr double binwidths[] = {0.5, 2.0, 25.0};
constexpr double voltage_window[] = {790, 600};

constexpr std::int32_t interp_table_size = 1000;  // depth times width at most

template <typename T>
constexpr setting_type type_of() {
  using element = std::remove_all_extents_t<std::remove_reference_t<T>>;
  static_assert(sizeof(element) == 4);
  if (std::is_same_v<element, logical>) return setting_type::logical_word;
  return std::is_same_v<element, float> ? setting_type::real : setting_type::integer;
}

template <typename T>
constexpr std::int32_t count_of() {
  return static_cast<std::int32_t>(sizeof(std::remove_reference_t<T>) / 4);
}

// The routine that gives a row its default follows from the record that holds it.
constexpr setting_group group_of_detection = setting_group::parameters;
constexpr setting_group group_of_filter = setting_group::parameters;
constexpr setting_group group_of_cleaning = setting_group::parameters;
constexpr setting_group group_of_strategy = setting_group::strategy;
constexpr setting_group group_of_lists = setting_group::strategy;
constexpr setting_group group_of_matching = setting_group::strategy;
constexpr setting_group group_of_review = setting_group::parameters;
constexpr setting_group group_of_quality = setting_group::parameters;
constexpr setting_group group_of_display = setting_group::display;
constexpr setting_group group_of_preferences = setting_group::preferences;

#define ROW(in, group, record, field, defaults, value, low, high, label, reading, apply)           \
  {                                                                                                \
#field, setting_file::in, group,                                                               \
        type_of < decltype((std::declval <session_state&>().record.field))>(),                     \
        count_of < decltype((std::declval <session_state&>().record.field))>(),                    \
        [](session_state &                                                                         \
           session) -> void* { return &session.record.field; }, defaults, value, low, high, label, \
                                                             setting_reading::reading, apply       \
  }
// Rows of kv_parameters.sav: record, field, default, lowest, highest, label.
#define SETTING(record, field, value, low, high, label)                                       \
  ROW(parameters, group_of_##record, record, field, nullptr, value, low, high, label, stored, \
      nullptr)
// Rows of kv_prefs.sav over preferences_record, and those over another record.
#define PREFERENCE(field, value, low, high, label) \
  SHARED(preferences, field, value, low, high, label)
#define SHARED(record, field, value, low, high, label)                                         \
  ROW(preferences, group_of_##record, record, field, nullptr, value, low, high, label, stored, \
      nullptr)
// One default per element.
#define ARRAY(field, defaults, low, high, label)                                                  \
  ROW(preferences, setting_group::preferences, preferences, field, defaults, 0, low, high, label, \
      stored, nullptr)
// Written a second time, and dropped when read.
#define COPY(field, value, low, high, label)                                                  \
  ROW(preferences, setting_group::preferences, preferences, field, nullptr, value, low, high, \
      label, dropped, nullptr)
// Left alone by the "Default" button.
#define LAYOUT(field, value, low, high, label)                                                   \
  ROW(preferences, setting_group::display, preferences, field, nullptr, value, low, high, label, \
      stored, nullptr)
// As SETTING, for a setting that a table follows from.
#define APPLIED(record, field, value, low, high, label, apply) \
  ROW(parameters, group_of_##record, record, field, nullptr, value, low, high, label, stored, apply)
// Bytes that no record has a field for, and that no "Default" touches: file, name, type,
// default, lowest, highest.
#define CARRIED(in, name, type, value, low, high)                                               \
  {                                                                                             \
#name, setting_file::in, setting_group::display, setting_type::type, 1,                     \
        [](session_state &                                                                      \
           session) { return session.carried.at(carried_setting::name); }, nullptr, value, low, \
                                                                        high, "Stored only"     \
  }
// Rows in neither file.
#define EXTRA(record, field, value, low, high, label) \
  ROW(extra, group_of_##record, record, field, nullptr, value, low, high, label, stored, nullptr)

// clang-format off
constexpr setting_row rows[] = {
    // --- kv_parameters.sav. The first word is a marker without a use.
    {"marker", setting_file::parameters, setting_group::display, setting_type::integer, 1,
     nullptr, nullptr, -1, -1, -1, "", setting_reading::dropped},
    ROW(parameters, setting_group::display, preferences, open_dialog_format, nullptr, 5, 0, 16,
        "Format of the open dialog", stored, nullptr),
    SETTING(filter, smooth_radius_um, 50, 1, 16'000, "Spatial smooth, radius, µm"),
    SETTING(filter, bw_f0_khz, 0.5, 0.1, 3200, "Butterworth filter, f0, kHz"),
    SETTING(filter, bw_f0_khz_previous, 0.5, 0.1, 3200, "Butterworth filter, earlier f0, kHz"),
    SETTING(detection, noise_window_secs, 10, 1, 100'000, "Window of the dynamic noise, s"),
    SETTING(detection, noise_method, 2, 1, 2, "Noise: 1 s.d., 2 median"),
    SETTING(detection, noise_static, 1, 0, 1, "Static noise"),
    SETTING(detection, threshold_mode, threshold_variable, -1, 1, "Threshold: 1 automatic, -1 fixed, 0 variable"),
    SETTING(detection, fixed_threshold_uv, 80, -100'000, 100'000, "Fixed threshold, µV"),
    SETTING(detection, variable_multiplier, 5, 0, 1000, "Variable threshold, times the noise"),
    SETTING(detection, pe_sigma_um, 80, 1, 100'000, "Proto-event sigma, µm"),
    SETTING(detection, pe_sigma_ms, 0.25, 0.001, 100, "Proto-event sigma, ms"),
    APPLIED(detection, lockout_radius_um, 150, 0, 100'000, "Lockout distance, µm", build_neighbour_list),
    SETTING(detection, lockout_ms, 0.5, 0, 5, "Lockout time, ms"),
    APPLIED(strategy, template_window_start_ms, -0.8, -1000, 1000, "Template window from, ms",
            compute_template_points),
    APPLIED(strategy, template_window_end_ms, 0.8, -1000, 1000, "Template window to, ms",
            compute_template_points),
    SETTING(detection, detection_method, method_dynamic_multiphasic, 1, 5, "Detection method, row of the list"),
    SETTING(detection, align_feature, align_trough, 1, 9, "Align to, row of the list"),
    SETTING(detection, window_samples, 6, 1, 250, "Window width, samples"),
    SETTING(strategy, event_align_mode, align_multiplicative_match, 1, 10, "Realign events to, row of the list"),
    SETTING(strategy, template_align_mode, align_curvature, 1, 9, "Realign templates to, row of the list"),
    SETTING(strategy, gac_max_iterations, 500, 1, 1'000'000, "Iterations of one stage"),
    SETTING(strategy, gac_start_sigma, 5, 0.001, 10'000, "Starting sigma, µV"),
    SETTING(review, view_split_sigma, 5, 0.001, 10'000, "Fixed split with sigma, µV"),
    SETTING(strategy, gac_stall_limit, 25, 1, 1'000'000, "Tiny steps after which a scout stops"),
    SETTING(strategy, gac_gain, 1, 0.1, 10, "Gain"),
    SETTING(strategy, gac_merge_radius, 1, 0.1, 10, "Merge radius"),
    SETTING(strategy, gac_stop_step, 0.0005, 0, 10, "Step that counts as tiny"),
    SETTING(strategy, gac_size_tolerance, 5, 0, 100, "Size change between stages, per cent"),
    SETTING(strategy, gac_threshold, 8, 2, 50, "Threshold, stages"),
    SETTING(strategy, min_cluster_size, 50, 0, 50'000'000, "Min. cluster size, events"),
    SETTING(strategy, keep_largest_final_subcluster, 1, 0, 1,
        "Keep only the largest final sub-cluster"),
    SETTING(strategy, split_obvious, 1, 0, 1, "Split obvious clusters early"),
    CARRIED(parameters, autosort_option_2, logical_word, 0, 0, 1),
    SETTING(strategy, remove_duplicates_after_first_pass, 1, 0, 1,
        "Remove duplicates after the first pass"),
    SETTING(strategy, merge_split_pairs, 1, 0, 1, "merge/split for overlaps >"),
    SETTING(strategy, overlap_threshold, 0.15, 0, 1, "cluster overlap <"),
    CARRIED(parameters, merge_safe_limit, real, 0.8, 0, 1),
    SETTING(strategy, merge_safe_pairs, 1, 0, 1, "Merge safe pairs"),
    SETTING(strategy, skip_event_detection, 0, 0, 1, "skip event detection"),
    SETTING(strategy, skip_clustering, 0, 0, 1, "skip clustering"),
    SETTING(filter, do_channel_means, 0, 0, 1, "Make channel means ~ 0"),
    SETTING(filter, do_temporal_smooth, 0, 0, 1, "Temporal 1:2:1 smooth"),
    SETTING(filter, do_common_mean, 0, 0, 1, "Remove common mean"),
    CARRIED(parameters, status_parameter_1, real, 2.5, -1000000.0, 1000000.0),
    SETTING(review, search_order, 1, 1, 3, "Search order, row of the list"),
    SETTING(strategy, gac_subsample, 1, 0, 1, "Subsample the kernel sources"),
    SETTING(strategy, pc_point_selection, pc_voltage_plus_gradient, -1, 4, "Principal components selection"),
    CARRIED(parameters, gac_option, logical_word, 1, 0, 1),
    SETTING(strategy, pca_dimensions, 2, 2, 5, "PCA dimensions"),
    SETTING(review, manage_option_1, 150, 0, 1'000'000, "Manage clusters, first value"),
    CARRIED(parameters, post_option_1, real, 80, -1000000.0, 1000000.0),
    SETTING(review, renumber_order, 2, 1, 100, "cluster numbering by, row of the list"),
    SETTING(review, show_correlograms, 0, 0, 1, "Show correlograms"),
    SETTING(review, correlogram_bin_ms, 0.2, 0.001, 100'000, "Correlogram bin width, ms"),
    SETTING(review, delete_size_limit, 50, 0, 50'000'000, "Delete clusters with fewer events"),
    SETTING(review, manage_option_3, 2, -1000000.0, 1000000.0, "Manage clusters, third value"),
    SETTING(review, manage_option_4, 1, -1'000'000, 1'000'000, "Manage clusters, fourth value"),
    SETTING(review, match_method, match_correlation, 1, 7, "Match method, row of the list"),
    SETTING(review, clean_channels, 3, 1, 4, "Clean using, row of the list"),
    SETTING(review, clean_method, 1, 1, 5, "Clean method, row of the list"),
    SETTING(display, vd_time_scale, 1, 1e-06, 1000000.0,
        "Voltage record: time scale, pixels/sample"),
    SETTING(display, vd_voltage_scale, 0.2, 1e-06, 1000000.0,
        "Voltage record: voltage scale, pixels/µV"),
    SETTING(display, vd_channel_spacing, 20, 1, 500, "Voltage record: channel spacing, pixels"),
    SETTING(display, vd_show_proto_events, 0, 0, 1, "Voltage record: proto-events"),
    SETTING(display, vd_show_events, 1, 0, 1, "Voltage record: events"),
    SETTING(display, vd_cluster_colours, 1, 0, 1, "Voltage record: cluster colours"),
    SETTING(display, vd_cluster_numbers, 0, 0, 1, "Voltage record: cluster numbers"),
    SETTING(display, vd_msec_grid, 0, 0, 1, "Voltage record: msec grid"),
    CARRIED(parameters, pair_parameter_1, real, 0, -1000000.0, 1000000.0),
    CARRIED(parameters, pair_parameter_2, real, 0, -1000000.0, 1000000.0),
    SETTING(strategy, correlation_threshold, 0.1, -1, 1, "template correlation <"),
    CARRIED(parameters, status_parameter_2, real, 0.34, -1000000.0, 1000000.0),
    SETTING(strategy, recluster_limit, 10, 0, 50'000'000, "Recluster if more events are deleted"),
    APPLIED(strategy, interp_depth, 10, 1, 50, "Interpolation depth, steps per sample",
        build_interp_table),
    APPLIED(strategy, interp_width, 6, 1, 50, "Interpolation width, samples on each side",
        build_interp_table),
    SETTING(strategy, pc_point_limit, 50, 1, 100, "Principal components, limit to points"),
    SETTING(strategy, equal_numbers_for_overlap, 1, 0, 1, "use equal numbers for overlap"),
    SETTING(strategy, force_one_cluster_per_tetrode, 0, 0, 1, "force one cluster per tetrode"),
    SETTING(strategy, channel_threshold_1, 0.2, 0, 1, "Template channels, threshold 1"),
    SETTING(strategy, channel_threshold_2, 2, 0, 10, "Template channels, threshold 2"),
    SETTING(strategy, channel_radius, 250, 0, 5000, "Template channels, radius, µm"),
    SETTING(strategy, realign_window_ms, 0.5, 0.01, 5,
        "Event realignment window, plus or minus, ms"),
    SETTING(review, export_remove_duplicates, 1, 0, 1, "Remove duplicates on export"),
    SETTING(review, export_save_work_file, 1, 0, 1, "Save the work file on export"),
    SETTING(review, clean_threshold, 2.5, -1000000.0, 1000000.0, "events with alignment scores <"),
    SETTING(strategy, multiplicative_matching, 1, 0, 1,
        "use multiplicative event matching to templates"),
    SETTING(review, relocate_sd_factor, -1, -100, 100, "Relocate, standard deviations"),
    SETTING(detection, mask_noise_below_uv, 5, 0, 100'000, "Mask if noise <, µV"),
    SETTING(detection, use_lockout, 0, 0, 1, "Spatio-temporal lockout"),
    SETTING(review, delete_snr_limit, 1.5, 0, 1000000.0, "Delete clusters with S/N ratio <"),
    SETTING(display, sw_autoscale, 1, 0, 1, "Sorted waveforms: autoscale"),
    SETTING(display, sw_time_scale, 100, 1e-06, 1000000.0,
        "Sorted waveforms: time scale, pixels/ms"),
    SETTING(display, sw_voltage_scale, 0.5, 1e-06, 1000000.0,
        "Sorted waveforms: voltage scale, pixels/µV"),
    SETTING(display, sw_channel_spacing, 1, 1e-06, 1000000.0,
        "Sorted waveforms: channel spacing, pixels/µm"),
    SETTING(display, sw_first_item, 1, 1, 50'000'000, "Sorted waveforms: first template or event"),
    SETTING(display, sw_line_thickness, 1, 1, 100, "Sorted waveforms: line thickness, pixels"),
    SETTING(display, sw_voltage_axis, 100, 1, 1'000'000, "Sorted waveforms: voltage axis, µV"),
    SETTING(display, sw_show_channels, 1, 1, 4096, "Sorted waveforms: show channels"),
    SETTING(display, sw_show_axes, 1, 0, 1, "Sorted waveforms: show axes"),
    SETTING(display, sw_show_channel_numbers, 1, 0, 1, "Sorted waveforms: show channel numbers"),
    SETTING(display, sw_show_templates, 1, 0, 1, "Sorted waveforms: templates"),
    SETTING(display, sw_show_cluster_numbers, 1, 0, 1, "Sorted waveforms: show cluster numbers"),
    SETTING(display, sw_white_background, 1, 0, 1, "Sorted waveforms: white background"),
    SETTING(detection, register_to_cog, 1, 0, 1, "Register events to the c.o.g., not to max V"),
    SETTING(detection, delete_large_events, 1, 0, 1, "delete events with p-p >"),
    SETTING(detection, max_event_pp_uv, 1000, 0, 1000000.0, "Largest event, p-p, µV"),
    SETTING(filter, compressive_75pct_uv, 150, 1, 2000, "Compressive transform; 75% point, µV"),
    // Behind these, files of earlier versions have ended.
    SETTING(matching, template_pass, 0, 0, 1, "Reclaim spikes by templates"),
    SETTING(matching, match_threshold, 16, 1, 1000, "Template pass: least gain of a spike"),
    SETTING(matching, match_amplitude_sd, 0.15, 0.01, 1, "Template pass: s.d. of amplitudes"),
    SETTING(matching, match_amplitude_min, 0.65, 0.1, 1, "Template pass: smallest amplitude"),
    SETTING(matching, match_amplitude_max, 1.6, 1, 10, "Template pass: largest amplitude"),
    SETTING(matching, match_segment_secs, 10, 1, 600, "Template pass: segment, s"),
    SETTING(matching, match_radius_um, 110, 0, 1000, "Template pass: radius of a filter, µm"),
    SETTING(matching, match_detectability, 30, 1, 1000, "Template pass: least squared detectability"),
    SETTING(matching, match_valley, 0.75, 0, 1, "Template pass: valley before the spikes, over their peak"),
    SETTING(cleaning, mask_bad_channels, 0, 0, 1, "Mask channels whose noise stands out"),
    SETTING(cleaning, remove_common_noise, 0, 0, 1, "Take out noise that all channels share"),
    SETTING(cleaning, blank_artefacts, 0, 0, 1, "Blank artefacts on half of the channels"),
    SETTING(cleaning, blank_by_channel, 0, 0, 1, "Blank artefacts on single channels"),
    SETTING(quality, quality_refractory_ms, 1.5, 0.1, 20, "Quality of units: refractory period, ms"),
    SETTING(quality, quality_censored_ms, 0.5, 0, 5, "Quality of units: censored period, ms"),
    SETTING(quality, good_contamination, 0.1, 0, 1, "Good unit: contamination at most"),
    SETTING(quality, good_cutoff, 0.1, 0, 0.5, "Good unit: amplitude cut-off at most"),
    SETTING(quality, good_presence, 0.9, 0, 1, "Good unit: presence at least"),
    SETTING(quality, good_snr, 8, 0, 1000, "Good unit: signal-to-noise ratio at least"),
    SETTING(quality, noise_snr, 4, 0, 1000, "Noise: signal-to-noise ratio below"),
    SETTING(quality, noise_events, 30, 0, 50'000'000, "Noise: fewer events than"),
    SETTING(cleaning, correct_motion, 0, 0, 1, "Follow the tissue as it moves along the probe"),

    // --- kv_prefs.sav
    PREFERENCE(pixels_per_um_x, 2.5, 0.1, 10, "Pixels per micron x"),
    PREFERENCE(pixels_per_um_y, 2.5, 0.1, 10, "Pixels per micron y"),
    PREFERENCE(pixels_per_uv, 0.5, 1e-06, 1000000.0, "Pixels per µV"),
    PREFERENCE(pixels_per_msec, 150, 1e-06, 1000000.0, "Pixels per msec"),
    ARRAY(subcluster_colours, subcluster_colours, 0, 0xffffff, "Sub-cluster colours, 0xBBGGRR"),
    PREFERENCE(sticky_parameters, 1, 0, 1, "Sticky Parameters"),
    PREFERENCE(multi_threaded, 1, 0, 1, "Multi-threaded code"),
    PREFERENCE(log_file_enabled, 0, 0, 1, "Save log file"),
    PREFERENCE(autorecover_minutes, 5, 0.01, 1e+28, "Save autorecover information, minutes"),
    PREFERENCE(pc_display_scale, 2.5, 0.25, 10, "PC display scale"),
    COPY(pixels_per_msec, 150, 1e-06, 1000000.0, "Pixels per msec, once more"),
    ARRAY(window_size, window_sizes, 1, 100'000, "Window width and height, pixels"),
    PREFERENCE(vertical_axis_uv, 100, 1e-06, 1000000.0, "Vertical axis length, µV"),
    LAYOUT(window_origin, 0, -100'000, 100'000, "Window x and y, pixels"),
    ARRAY(correlogram_binwidths, binwidths, 0.001, 100'000, "Auto/cross-correlogram binwidths, ms"),
    PREFERENCE(treat_as_continuous, 0, 0, 1, "treat event based recording as continuous"),
    PREFERENCE(autoscale_voltage, 1, 0, 1, "Autoscale voltage and channel position scaling values"),
    LAYOUT(open_dialog_format, 5, 0, 16, "Format of the open dialog"),
    PREFERENCE(tell_new_cluster, 1, 0, 1, "tell user when a new cluster is manually created"),
    ARRAY(voltage_window_size, voltage_window, 1, 100'000,
        "Voltage window width and height, pixels"),
    PREFERENCE(verbose_log, 0, 0, 1, "Verbose output to run log"),
    PREFERENCE(centre_pc_points, 1, 0, 1, "Center points in PC display"),
    PREFERENCE(show_pca_points, 0, 0, 1, "Show points used for PCA in displays"),
    PREFERENCE(autoscale_pc_display, 1, 0, 1, "Autoscale PC display"),
    CARRIED(preferences, display_option, logical_word, 0, 0, 1),
    SHARED(display, vd_channel_spacing, 20, 1, 500, "Voltage record: channel spacing, pixels"),
    SHARED(display, vd_voltage_scale, 0.2, 1e-06, 1000000.0,
        "Voltage record: voltage scale, pixels/µV"),
    SHARED(display, vd_time_scale, 1, 1e-06, 1000000.0,
        "Voltage record: time scale, pixels/sample"),
    CARRIED(preferences, display_flag_1, logical_word, 0, 0, 1),
    CARRIED(preferences, display_flag_2, logical_word, 0, 0, 1),
    // The file ends with 20 bytes that nothing uses.
    {"reserved", setting_file::preferences, setting_group::display, setting_type::integer, 5,
     nullptr, nullptr, 0, 0, 0, "", setting_reading::dropped},

    // --- in neither file
    EXTRA(filter, bw_poles, 4, 1, 10, "Butterworth filter, poles"),
    EXTRA(filter, phase_f0_khz, 2, 0.1, 3200, "Phase correction, f0, kHz"),
    EXTRA(filter, phase_shift_degs_per_decade, 200, -200, 200,
        "Phase correction, shift, degrees per decade"),
    EXTRA(detection, pe_step, 1, 0.001, 10, "Gain of a proto-event move"),
    EXTRA(detection, coincidence_ms, 0.2, 0, 100, "Coincidence on one channel, ms"),
    EXTRA(strategy, template_max_events, 200, 1, 50'000'000, "Most events of a template"),
    EXTRA(strategy, template_centre_from_events, 0, 0, 1,
        "Template centre from the channels of its events"),
    EXTRA(review, export_csv_heading, 0, 0, 1, "Heading line in .csv files"),
    EXTRA(review, delete_measure, delete_by_snr, 1, 2, "Delete clusters with, row of the list"),
    EXTRA(review, renumber_increasing, 1, 0, 1, "Renumber clusters in increasing order"),
    CARRIED(extra, gac_flag, logical_word, 0, 0, 1),
    EXTRA(strategy, remove_small_final_subclusters, 1, 0, 1, "Remove small final sub-clusters"),
    EXTRA(strategy, realign_after_channel_clusters, 1, 0, 1,
        "Realign after channel-based clustering"),
    EXTRA(lists, template_shift_on, 0, 0, 1, "Pair measures use template shifts"),
    CARRIED(extra, status_flag, logical_word, 0, 0, 1),
    CARRIED(extra, session_flag, logical_word, 0, 0, 1),
    EXTRA(display, pc_view_range, 0, -1000000000.0, 1000000000.0,
        "Principal components: view range"),
};
// clang-format on
#undef ROW
#undef SETTING
#undef APPLIED
#undef CARRIED
#undef PREFERENCE
#undef SHARED
#undef EXTRA
#undef ARRAY
#undef COPY
#undef LAYOUT

// Elements are moved as bytes: a carried one has no type of its own.
template <typename T>
T word_at(const void* first, std::int32_t element) {
  T value;
  std::memcpy(&value, static_cast<const char*>(first) + 4 * std::ptrdiff_t{element}, 4);
  return value;
}

// True when it was another.
template <typename T>
bool put_word(void* first, std::int32_t element, T value) {
  char* to = static_cast<char*>(first) + 4 * std::ptrdiff_t{element};
  const bool changed = std::memcmp(to, &value, 4) != 0;
  std::memcpy(to, &value, 4);
  return changed;
}

constexpr std::size_t rows_before(setting_file file) {
  std::size_t n = 0;
  // Rows of one file stand together, in the order of its bytes.
  while (n < std::size(rows) && rows[n].file != file) ++n;
  return n;
}

void apply_defaults(session_state& session, setting_group group) {
  for (const setting_row& row : rows) {
    if (row.group != group || row.address == nullptr) continue;
    for (std::int32_t i = 0; i < row.count; ++i) {
      store_setting(session, row, i, row.default_of(i));
    }
  }
}

// "name.2" names element 1 (from 0) of an array.
struct setting_target {
  const setting_row* row = nullptr;
  std::int32_t element = 0;
};

setting_target find_target(std::string_view name) {
  setting_target target{find_setting(name)};
  if (target.row != nullptr) {
    // An array named as a whole is refused rather than having its first element set in silence.
    if (target.row->count > 1) target.row = nullptr;
    return target;
  }
  const std::size_t dot = name.find('.');
  if (dot == std::string_view::npos) return target;
  const std::string_view number = name.substr(dot + 1);
  std::int32_t element = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), element);
  const setting_row* row = find_setting(name.substr(0, dot));
  // The number to its last character: "name.2x" is a slip and not element 2.
  if (row == nullptr || error != std::errc() || end != number.data() + number.size()) return target;
  if (row->count < 2 || element < 1 || element > row->count) return target;
  return {row, element - 1};
}

bool parse_logical(std::string_view text, double& value) {
  for (const char* yes : {"true", "yes", "on", "1"}) {
    if (text == yes) {
      value = 1;
      return true;
    }
  }
  for (const char* no : {"false", "no", "off", "0"}) {
    if (text == no) {
      value = 0;
      return true;
    }
  }
  return false;
}

bool parse_number(std::string_view text, bool whole, double& value) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (result.ec != std::errc() || result.ptr != end || !std::isfinite(value)) return false;
  // "10.0" is a whole number as well: scripts print numbers as their language has them.
  return !whole || value == std::floor(value);
}

// Limits that concern two settings at once; empty when they hold.
std::string validate_together(const session_state& session) {
  const sorting_strategy_settings& s = session.strategy;
  if (s.interp_depth * s.interp_width > interp_table_size) {
    return "interp_depth times interp_width must not exceed 1000";
  }
  if (!(s.template_window_start_ms < s.template_window_end_ms)) {
    return "template_window_start_ms must be below template_window_end_ms";
  }
  return {};
}

}  // namespace

std::span<const setting_row> settings_table() { return rows; }

std::span<const setting_row> settings_of(setting_file file) {
  const std::size_t first = rows_before(file);
  std::size_t n = 0;
  while (first + n < std::size(rows) && rows[first + n].file == file) ++n;
  return std::span<const setting_row>(rows).subspan(first, n);
}

const setting_row* find_setting(std::string_view name) {
  for (const setting_row& row : rows) {
    // Without an address a row only holds bytes of a file in place, and has no name for the user.
    if (row.address != nullptr && name == row.name) return &row;
  }
  return nullptr;
}

double setting_value(const session_state& session, const setting_row& row, std::int32_t element) {
  // Only the address is taken; the session is not changed through it.
  const void* first = row.address(const_cast<session_state&>(session));
  switch (row.type) {
    case setting_type::integer:
      return word_at<std::int32_t>(first, element);
    case setting_type::real:
      return static_cast<double>(word_at<float>(first, element));
    case setting_type::logical_word:
      return word_at<logical>(first, element) ? 1 : 0;
  }
  return 0;
}

void store_setting(session_state& session, const setting_row& row, std::int32_t element,
                   double value) {
  void* first = row.address(session);
  bool changed = false;
  switch (row.type) {
    case setting_type::integer:
      changed = put_word(first, element, static_cast<std::int32_t>(value));
      break;
    case setting_type::real:
      changed = put_word(first, element, static_cast<float>(value));
      break;
    case setting_type::logical_word:
      changed = put_word(first, element, logical(value != 0));
      break;
  }
  if (changed && row.apply != nullptr) row.apply(session);
}

void apply_settings(session_state& session) {
  void (*last)(session_state&) = nullptr;
  for (const setting_row& row : rows) {
    // Settings that one table follows from stand together.
    if (row.apply != nullptr && row.apply != last) row.apply(session);
    if (row.apply != nullptr) last = row.apply;
  }
}

std::string setting_name(const setting_row& row, std::int32_t element) {
  return row.count == 1 ? row.name : fmt::format("{}.{}", row.name, element + 1);
}

std::string setting_text(const session_state& session, const setting_row& row,
                         std::int32_t element) {
  const double value = setting_value(session, row, element);
  switch (row.type) {
    case setting_type::integer:
      return fmt::format("{}", static_cast<std::int32_t>(value));
    case setting_type::real:
      // As 32 bits, which print as 0.1 and not as 0.10000000149011612.
      return fmt::format("{}", static_cast<float>(value));
    case setting_type::logical_word:
      return value != 0 ? "true" : "false";
  }
  return {};
}

bool set_setting(session_state& session, std::string_view name, std::string_view text,
                 std::string& problem) {
  const auto [row, element] = find_target(name);
  if (row == nullptr) {
    const setting_row* array = find_setting(name);
    problem = array == nullptr
                  ? fmt::format("There is no setting \"{}\"", name)
                  : fmt::format("{0} has {1} elements: name one, as {0}.1", name, array->count);
    return false;
  }
  double value = 0;
  const bool is_logical = row->type == setting_type::logical_word;
  const bool whole = row->type == setting_type::integer;
  if (is_logical ? !parse_logical(text, value) : !parse_number(text, whole, value)) {
    problem = fmt::format("\"{}\" is no value for {}: it takes {}", text, name,
                          is_logical ? "true or false"
                          : whole    ? "a whole number"
                                     : "a number");
    return false;
  }
  if (!setting_in_range(*row, value)) {
    problem = fmt::format("{} must be from {} to {}", name, row->low, row->high);
    return false;
  }
  // Stored first and judged with the others after: limits that concern two settings look at the
  // session as it would be.
  const double before = setting_value(session, *row, element);
  store_setting(session, *row, element, value);
  problem = validate_together(session);
  if (!problem.empty()) {
    store_setting(session, *row, element, before);
    return false;
  }
  return true;
}

bool setting_in_range(const setting_row& row, double value) {
  if (row.type != setting_type::real) return value >= row.low && value <= row.high;
  // In 32 bits, so that a limit such as 0.1 is itself inside.
  const float v = static_cast<float>(value);
  return v >= static_cast<float>(row.low) && v <= static_cast<float>(row.high);
}

std::unique_ptr<session_state> copy_settings(const session_state& session) {
  auto copy = std::make_unique<session_state>();
  copy->n_cpus = session.n_cpus;  // a default goes by it
  const std::lock_guard lock(session.settings_mutex);
  copy->detection = session.detection;
  copy->filter = session.filter;
  copy->cleaning = session.cleaning;
  copy->strategy = session.strategy;
  copy->matching = session.matching;
  copy->review = session.review;
  copy->quality = session.quality;
  copy->display = session.display;
  copy->preferences = session.preferences;
  copy->carried = session.carried;
  return copy;
}

std::int32_t settle_settings(session_state& session) {
  std::int32_t n_settled = 0;
  // Told in the log, setting by setting: a sort made with other values than the file's must not
  // look as if it had been made with them.
  const auto restore = [&](const setting_row& row, std::int32_t element = 0) {
    log_message(session, fmt::format("{} = {} is not possible, {} is used", row.name,
                                     setting_text(session, row, element),
                                     static_cast<float>(row.default_of(element))));
    store_setting(session, row, element, row.default_of(element));
    ++n_settled;
  };
  for (const setting_row& row : rows) {
    if (row.address == nullptr) continue;
    for (std::int32_t i = 0; i < row.count; ++i) {
      if (!setting_in_range(row, setting_value(session, row, i))) restore(row, i);
    }
  }
  const sorting_strategy_settings& s = session.strategy;
  if (s.interp_depth * s.interp_width > interp_table_size) {
    restore(*find_setting("interp_depth"));
    restore(*find_setting("interp_width"));
  }
  if (!(s.template_window_start_ms < s.template_window_end_ms)) {
    restore(*find_setting("template_window_start_ms"));
    restore(*find_setting("template_window_end_ms"));
  }
  return n_settled;
}

void set_default_preferences(session_state& session) {
  apply_defaults(session, setting_group::preferences);
  if (session.n_cpus == 1) session.preferences.multi_threaded = false;
}

void set_default_parameters(session_state& session) {
  apply_defaults(session, setting_group::parameters);
}

void set_default_strategy(session_state& session) {
  apply_defaults(session, setting_group::strategy);
}

void set_display_defaults(session_state& session) {
  apply_defaults(session, setting_group::display);
}

}  // namespace kestrelvane
