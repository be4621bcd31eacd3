#include "session/modes.h"

namespace kestrelvane {

namespace {

// clang-format off
constexpr mode_label thresholds[] = {
    {threshold_automatic, "Automatic"},
    {threshold_fixed, "Fixed"},
    {threshold_variable, "Variable"},
};

constexpr mode_label methods[] = {
    {method_unipolar, "Unipolar threshold"},
    {method_bipolar, "Bipolar threshold"},
    {method_multiphasic, "Multiphasic filter"},
    {method_dynamic_multiphasic, "Dynamic multiphasic filter"},
    {method_teager, "Windowed Teager"},
};

// Rows that the three lists of features share; what follows them differs.
#define SHARED_FEATURES                               \
    {align_peak, "Positive peak"},                    \
    {align_trough, "Negative trough"},                \
    {align_largest, "Largest peak/trough"},           \
    {align_rising_crossing, "Max +ve zero crossing"}, \
    {align_falling_crossing, "Max -ve zero crossing"}, \
    {align_rise, "Max +ve slope"},                    \
    {align_fall, "Max -ve slope"}

constexpr mode_label detected_features[] = {
    SHARED_FEATURES,
    {align_gravity, "v² weighted c.o.g."},
    {align_detection_time, "Detection time"},
};

constexpr mode_label event_modes[] = {
    SHARED_FEATURES,
    {align_gravity, "Center of gravity"},
    {align_rms_match, "RMS match"},
    {align_multiplicative_match, "Multiplicative match"},
};

constexpr mode_label template_modes[] = {
    SHARED_FEATURES,
    {align_gravity, "Center of gravity"},
    {align_curvature, "Peak weighted c.o.g."},
};
#undef SHARED_FEATURES

constexpr mode_label selections[] = {
    {pc_distributed, "distributed"},
    {pc_max_variance, "max variance"},
    {pc_max_entropy, "max entropy"},
    {pc_voltage, "voltage magnitude"},
    {pc_gradient, "voltage gradient"},
    {pc_voltage_plus_gradient, "voltage plus gradient"},
};

constexpr mode_label matches[] = {
    {match_separation, "Spatial separation (µm)"},
    {match_overlap, "Cluster overlap"},
    {match_correlation, "Template cross-correlation"},
    {match_rms_distance, "rms distance (µV)"},
    {match_doublets, "Doublet pairs"},
    {match_rates, "Rate complementarity"},
    {match_pc_adjacency, "PC adjacency"},
};

constexpr mode_label cleaned_channels[] = {
    {clean_on_centre, "Max channel"},
    {clean_on_neighbours, "Max + immed neighbours"},
    {clean_on_template, "Template channels"},
    {clean_on_masked, "Masked template 25"},
};

constexpr mode_label cleaners[] = {
    {clean_by_alignment, "Realignment clean"},
    {clean_by_rms, "RMS distance"},
    {clean_by_outliers, "Ten outliers"},
    {clean_by_troughs, "Template peaks"},
    {clean_by_curvature, "2nd derivative weighted RMS"},
};

constexpr mode_label weak_measures[] = {
    {delete_by_snr, "S/N ratio"},
    {delete_by_size, "size"},
};

constexpr mode_label orders[] = {
    {order_by_y, "vertical position"},
    {order_by_x, "horizontal position"},
    {order_by_channel, "channel number"},
    {order_by_amplitude, "P-P amplitude"},
    {order_by_snr, "spike S/N ratio"},
    {order_by_size, "size"},
    {order_by_ambiguity, "ambiguity"},
    {order_by_quality, "template quality"},
    {order_by_marks, "number of marked events"},
    {order_by_peak_time, "time to peak"},
};
// clang-format on

}  // namespace

mode_labels threshold_modes() { return thresholds; }
mode_labels detection_methods() { return methods; }
mode_labels align_features() { return detected_features; }
mode_labels event_align_modes() { return event_modes; }
mode_labels template_align_modes() { return template_modes; }
mode_labels pc_selections() { return selections; }
mode_labels match_methods() { return matches; }
mode_labels clean_channel_choices() { return cleaned_channels; }
mode_labels clean_methods() { return cleaners; }
mode_labels delete_measures() { return weak_measures; }
mode_labels renumber_orders() { return orders; }

const char* mode_name(mode_labels labels, std::int32_t value) {
  // By value and not by place: values start at -1, 0 or 1, and a list may lack some of them.
  for (const mode_label& row : labels) {
    if (row.value == value) return row.label;
  }
  return "";
}

}  // namespace kestrelvane
