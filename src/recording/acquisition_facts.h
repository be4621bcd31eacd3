// What a recording is, as texts: for the dialog of acquisition properties and whoever
// else tells a user. Units are named beside the values by whoever shows them; what the
// recording does not have or say is "n/a".
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

struct acquisition_facts {
  std::string recording_file;
  std::string config_file;                 // "none" when no configuration is in use
  std::string n_channels, n_masked;        // counts
  std::string spacing_from, spacing_to;    // µm
  std::string date;                        // d/m/y
  std::string time;                        // h/m/s
  std::string decimal_time;                // hours, followed by " hours past midnight"
  std::string duration;                    // minutes
  std::string n_epochs;                    // count
  std::string recording_type, treated_as;  // "continuous", "event based"; "n/a"
  std::string samples_per_event;           // or "n/a"
  std::string electrode_name, electrode_type;
  std::string sampling_frequency;            // Hz
  std::string voltage_scaling, vscale_norm;  // µV/bit
  std::string n_samples;                     // per channel
};

// Samples per second; every digit of it where the format has them. 0 without a recording.
double exact_rate(const recording_store& recording);
// The same in Hz, as it is shown.
std::string rate_text(const recording_store& recording);

acquisition_facts list_acquisition_facts(const session_state& session);

// The smallest and largest over channels of the distance to the nearest other site, µm;
// both 0 with a single channel. Reads site_distance.
struct site_spacing {
  float from = 0, to = 0;
};
site_spacing measure_site_spacing(const session_state& session);

// "tetrode", "multi tetrode", "polytrode" or "Utah array"; empty for an unknown code.
std::string electrode_type_text(const recording_store& recording);

// Place of a channel in the display order along the probe, from 1; 0 when it has none.
std::int32_t display_position(const recording_store& recording, std::int32_t channel);

}  // namespace kestrelvane
