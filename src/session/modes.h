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

// Label of a value; empty for a number that is no mode.
const char* mode_name(mode_labels labels, std::int32_t value);

}  // namespace kestrelvane
