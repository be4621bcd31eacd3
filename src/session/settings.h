// The settings: what the user can change, grouped by the job they steer.
//
// Names, types and defaults stand once more, row by row in file order, in
// settings_table.cpp, and everything that walks all settings (defaults, the two
// settings files, --set of the batch command, "Restore defaults") walks that
// table. The initialisers here are neutral; set_default_preferences,
// set_default_parameters and set_default_strategy give the defaults.
//
// Dialogs and files write these; engine routines only read them. A run that has to do
// otherwise than the settings say keeps that in its own record (detection_state,
// autosort_state), so that what the user has set is what is saved.
#pragma once

#include <cstddef>
#include <cstdint>

#include "session/limits.h"
#include "session/logical.h"
#include "session/modes.h"

namespace kestrelvane {

// Noise, thresholds, event detection and event alignment.
struct detection_settings {
  std::int32_t noise_window_secs = 0;  // s, window of the dynamic noise
  std::int32_t noise_method = 0;       // 1 standard deviation, 2 median
  logical noise_static;                // false: noise follows the recording
  std::int32_t threshold_mode = 0;     // threshold_mode_code
  float fixed_threshold_uv = 0;        // µV; its sign is the polarity of the unipolar test
  float variable_multiplier = 0;       // times the noise of the channel
  float mask_noise_below_uv = 0;       // µV
  std::int32_t detection_method = 0;   // detection_method_row
  std::int32_t align_feature = 0;      // align_mode, 1..9
  std::int32_t window_samples = 0;     // samples; methods 3, 4, 5
  logical use_lockout;                 // true: lockout detector, false: proto-events
  std::int32_t lockout_radius_um = 0;  // µm
  float lockout_ms = 0;                // ms
  float pe_sigma_um = 0;               // µm, spatial sigma of proto-event clustering
  float pe_sigma_ms = 0;               // ms, temporal sigma
  float pe_step = 1.0f;                // gain of a proto-event move; no control
  logical register_to_cog;             // channel nearest the proto-event, else the largest volts
  logical delete_large_events;
  float max_event_pp_uv = 0;    // µV peak to peak
  float coincidence_ms = 0.2f;  // ms, same-channel coincidence tolerance
};

// Options of the filter chain. Those with a default here last for the run only.
struct filter_settings {
  logical do_channel_means;
  logical do_common_mean;
  logical do_spatial_smooth = false;
  float smooth_radius_um = 0;  // µm
  logical do_temporal_smooth;
  logical do_high_pass = false;   // Butterworth, high pass unless make_low_pass
  float bw_f0_khz = 0;            // kHz
  float bw_f0_khz_previous = 0;   // kHz
  std::int32_t bw_poles = 4;      // 1..10
  logical make_low_pass = false;  // off whenever the dialog opens
  // After the high pass a low pass, in the same walk over the samples. Of one chain: not stored.
  logical do_low_pass_too = false;
  float low_pass_f0_khz = 0;
  std::int32_t low_pass_poles = 0;
  logical do_phase_correction = false;
  float phase_f0_khz = 2.0f;                   // kHz
  float phase_shift_degs_per_decade = 200.0f;  // degrees per decade of frequency
  logical do_notch = false;                    // 60 Hz and its harmonics to 240 Hz
  logical do_compressive = false;
  float compressive_75pct_uv = 0;      // µV that come out as three quarters
  logical do_one_over_f = false;       // no control; reached by a stored history alone
  logical do_blank_artefacts = false;  // no control; Autosort's cleaning, and a stored history
  logical do_blank_channels = false;   // likewise
  logical do_correct_motion = false;   // likewise
  logical do_sample_hold = false;      // no control and no operation: readers do it themselves
};

// What Autosort does to the recording before it looks for events (operations/cleaning.h).
struct cleaning_settings {
  logical mask_bad_channels;    // those whose noise stands out
  logical remove_common_noise;  // the mean of all channels, where they share much noise
  logical blank_artefacts;      // that are on half of the channels
  logical blank_by_channel;     // that are on single ones
  logical correct_motion;       // of the tissue along the probe
};

// Templates, alignment, principal components, clustering, splitting, merging.
struct sorting_strategy_settings {
  // templates and alignment
  float template_window_start_ms = 0;  // ms before (negative) the aligned time
  float template_window_end_ms = 0;    // ms
  std::int32_t template_max_events = 200;
  float channel_threshold_1 = 0;  // least ratio of peak-to-peak to the centre channel's
  float channel_threshold_2 = 0;  // peak-to-peak over s.d. must exceed this
  float channel_radius = 0;       // µm from the centre channel
  logical template_centre_from_events = false;  // set by nothing; an alternative centre rule
  std::int32_t event_align_mode = 0;            // align_mode, 1..10
  std::int32_t template_align_mode = 0;         // align_mode, 1..9
  float realign_window_ms = 0;                  // ms, plus or minus
  logical multiplicative_matching;
  std::int32_t interp_depth = 0;  // sub-sample steps per sample, 1..50
  std::int32_t interp_width = 0;  // taps on each side, 1..50
  // principal components
  std::int32_t pc_point_selection = 0;  // pc_selection
  std::int32_t pc_point_limit = 0;      // 1..100
  std::int32_t pca_dimensions = 0;      // 2..5
  logical equal_numbers_for_overlap;
  // gradient ascent clustering
  std::int32_t gac_max_iterations = 0;
  float gac_start_sigma = 0;  // µV
  std::int32_t gac_stall_limit = 0;
  float gac_gain = 0;
  float gac_merge_radius = 0;
  float gac_stop_step = 0;
  float gac_size_tolerance = 0;    // per cent
  std::int32_t gac_threshold = 0;  // stages
  logical gac_subsample;
  std::int32_t min_cluster_size = 0;  // events
  // splitting
  std::int32_t recluster_limit = 0;  // events
  logical remove_small_final_subclusters = true;
  logical keep_largest_final_subcluster;
  logical split_obvious;  // in splits by hand; Autosort always does so
  logical force_one_cluster_per_tetrode;
  // Autosort
  logical remove_duplicates_after_first_pass;     // stored, no reader: every Autosort does so
  logical realign_after_channel_clusters = true;  // likewise
  logical merge_split_pairs;
  logical merge_safe_pairs;
  logical skip_event_detection;
  logical skip_clustering;
  // pairs
  float overlap_threshold = 0;
  float correlation_threshold = 0;
};

// The template pass, which follows Autosort (sorting/template_pass.h).
struct template_pass_settings {
  logical template_pass;          // Autosort ends with it
  float match_threshold = 0;      // least gain of a spike
  float match_amplitude_sd = 0;   // of the spikes of a unit, beside a mean of 1
  float match_amplitude_min = 0;  // least and largest amplitude of a spike
  float match_amplitude_max = 0;
  float match_segment_secs = 0;   // s that the units keep their shapes for
  float match_radius_um = 0;      // µm from a unit's main channel that its filter reads
  float match_detectability = 0;  // squared, below which a unit ends
  float match_valley = 0;         // count between noise and spikes over that of spikes
};

// Quality of units: what their figures go by, and the limits of a first label.
struct quality_settings {
  float quality_refractory_ms = 0;  // in which no neuron fires twice
  float quality_censored_ms = 0;    // in which the sorter finds no second spike
  float good_contamination = 0;     // most of a good unit, fraction of its spikes
  float good_cutoff = 0;            // most of a good unit, fraction of its spikes
  float good_presence = 0;          // least of a good unit, fraction of the recording
  float good_snr = 0;               // least of a good unit
  float noise_snr = 0;              // below it is noise
  std::int32_t noise_events = 0;    // fewer are noise
};

// Guided review, post-processing and export.
struct review_settings {
  float view_split_sigma = 0;  // µV
  std::int32_t search_order = 0;
  std::int32_t manage_option_1 = 0;
  std::int32_t renumber_order = 0;  // renumber_order_row
  logical renumber_increasing;      // false: the largest comes first
  logical show_correlograms;
  float correlogram_bin_ms = 0;        // ms
  std::int32_t delete_size_limit = 0;  // events
  float manage_option_3 = 0;
  std::int32_t manage_option_4 = 0;
  std::int32_t match_method = 0;    // match_method_row
  std::int32_t clean_channels = 0;  // clean_channels_row
  std::int32_t clean_method = 0;    // clean_method_row
  float clean_threshold = 0;        // of the method; alignment scores below it are bad
  float relocate_sd_factor = 0;     // s.d. from the mean logarithm of sharpness
  std::int32_t delete_measure = 0;  // delete_measure_row
  float delete_snr_limit = 0;
  logical export_remove_duplicates;
  logical export_save_work_file;
  logical export_csv_heading = false;
};

// Scales and marks of the voltage record and sorted waveform displays.
struct display_settings {
  float vd_time_scale = 0;              // pixels per sample
  float vd_voltage_scale = 0;           // pixels per µV
  std::int32_t vd_channel_spacing = 0;  // pixels
  logical vd_show_proto_events, vd_show_events, vd_cluster_colours, vd_cluster_numbers;
  logical vd_msec_grid;
  logical sw_autoscale;
  float sw_time_scale = 0;       // pixels per ms
  float sw_voltage_scale = 0;    // pixels per µV
  float sw_channel_spacing = 0;  // pixels per µm
  std::int32_t sw_first_item = 0, sw_line_thickness = 0;
  std::int32_t sw_voltage_axis = 0;  // µV
  std::int32_t sw_show_channels = 0;
  logical sw_show_axes, sw_show_channel_numbers, sw_show_templates, sw_show_cluster_numbers;
  logical sw_white_background;
  float pc_view_range[7] = {};  // scales of the principal component displays
};

// How the program looks and behaves (kv_prefs.sav, which also carries three scales of
// display_settings).
struct preferences_record {
  std::int32_t open_dialog_format = 0;  // file_type_code last opened; 0: all files
  float pixels_per_um_x = 0, pixels_per_um_y = 0;
  float pixels_per_uv = 0;
  float pixels_per_msec = 0;
  std::int32_t subcluster_colours[10] = {};  // 0xBBGGRR
  logical sticky_parameters;
  logical multi_threaded;
  logical log_file_enabled;
  float autorecover_minutes = 0;
  float pc_display_scale = 0;
  std::int32_t window_size[10] = {};  // five pairs of width, height
  float vertical_axis_uv = 0;
  std::int32_t window_origin[12] = {};  // x, y of six windows
  float correlogram_binwidths[3] = {};  // ms
  logical treat_as_continuous;
  logical autoscale_voltage;
  logical tell_new_cluster;
  std::int32_t voltage_window_size[2] = {};
  logical verbose_log;
  logical centre_pc_points;
  logical show_pca_points;
  logical autoscale_pc_display;
};

// What the files hold and nothing reads: kept so that it goes back as it came. Each is a row
// of the settings table, with a place in the files of settings or in the work file.
enum class carried_setting : std::int32_t {
  autosort_option_2,
  merge_safe_limit,
  status_parameter_1,
  status_parameter_2,
  gac_option,
  gac_flag,
  post_option_1,
  pair_parameter_1,
  pair_parameter_2,
  status_flag,
  session_flag,
  display_option,
  display_flag_1,
  display_flag_2,
  count
};

struct carried_settings {
  std::int32_t words[static_cast<std::size_t>(carried_setting::count)] = {};

  // Bytes of an integer, a float or a logical, as the row says.
  void* at(carried_setting which) { return &words[static_cast<std::size_t>(which)]; }
};

}  // namespace kestrelvane
