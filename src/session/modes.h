// The modes among the settings: a number for each as settings and files store it, and what
// lists and log lines call it.
//
// A setting of a mode stays a 32-bit integer, since a file may bring any number; routines
// compare it with these. The tables are in the order of the lists.
#pragma once

#include <cstdint>
#include <span>

namespace kestrelvane {

// detection_settings::threshold_mode
enum threshold_mode_code : std::int32_t {
  threshold_fixed = -1,     // the same voltage on all channels
  threshold_variable = 0,   // a multiple of each channel's noise
  threshold_automatic = 1,  // from the histogram of voltages; signal/thresholds.h
};

// detection_settings::detection_method
enum detection_method_row : std::int32_t {
  method_unipolar = 1,
  method_bipolar = 2,
  method_multiphasic = 3,
  method_dynamic_multiphasic = 4,
  method_teager = 5,
};

// Features of a waveform that a time can be aligned to. The first seven are the same for
// detected events, realigned events and templates; each of the three adds its own.
enum align_mode : std::int32_t {
  align_peak = 1,
  align_trough = 2,
  align_largest = 3,          // peak or trough
  align_rising_crossing = 4,  // steepest crossing of zero
  align_falling_crossing = 5,
  align_rise = 6,  // steepest
  align_fall = 7,
  align_gravity = 8,  // centre of gravity of squared voltage
  // detection_settings::align_feature
  align_detection_time = 9,  // where the threshold was crossed
  // sorting_strategy_settings::template_align_mode
  align_curvature = 9,  // centre of gravity of squared curvature
  // sorting_strategy_settings::event_align_mode
  align_rms_match = 9,  // fit to the template
  align_multiplicative_match = 10,
};

// sorting_strategy_settings::pc_point_selection
enum pc_selection : std::int32_t {
  pc_max_variance = -1,
  pc_distributed = 0,
  pc_max_entropy = 1,
  pc_voltage = 2,
  pc_gradient = 3,
  pc_voltage_plus_gradient = 4,
};

// review_settings::match_method
enum match_method_row : std::int32_t {
  match_separation = 1,
  match_overlap = 2,
  match_correlation = 3,
  match_rms_distance = 4,
  match_doublets = 5,
  match_rates = 6,
  match_pc_adjacency = 7,
};

// review_settings::clean_channels: where an event is compared with its template.
enum clean_channels_row : std::int32_t {
  clean_on_centre = 1,
  clean_on_neighbours = 2,  // the centre channel and those beside it
  clean_on_template = 3,    // all channels of the template
  clean_on_masked = 4,      // likewise, where the template is above 25 µV
};

// review_settings::clean_method: by what an event is told that does not belong.
enum clean_method_row : std::int32_t {
  clean_by_alignment = 1,
  clean_by_rms = 2,
  clean_by_outliers = 3,
  clean_by_troughs = 4,
  clean_by_curvature = 5,
};

// review_settings::delete_measure
enum delete_measure_row : std::int32_t { delete_by_snr = 1, delete_by_size = 2 };

// review_settings::renumber_order
enum renumber_order_row : std::int32_t {
  order_by_y = 1,
  order_by_x = 2,
  order_by_channel = 3,
  order_by_amplitude = 4,
  order_by_snr = 5,
  order_by_size = 6,
  order_by_ambiguity = 7,
  order_by_quality = 8,
  order_by_marks = 9,
  order_by_peak_time = 10,
};

struct mode_label {
  std::int32_t value;
  const char* label;
};
using mode_labels = std::span<const mode_label>;

mode_labels threshold_modes();
mode_labels detection_methods();
mode_labels align_features();
mode_labels event_align_modes();
mode_labels template_align_modes();
mode_labels pc_selections();
mode_labels match_methods();
mode_labels clean_channel_choices();
mode_labels clean_methods();
mode_labels delete_measures();
mode_labels renumber_orders();

// Label of a value; empty for a number that is no mode.
const char* mode_name(mode_labels labels, std::int32_t value);

}  // namespace kestrelvane
