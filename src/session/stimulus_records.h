// What an acquisition system records beside the voltages of electrodes, kept for export.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane {

// A value of the digital port, told when it changed.
struct digital_value {
  std::int64_t timestamp = 0;  // µs since the recording began
  std::uint16_t value = 0;
};

// The header of a visual stimulus.
struct stimulus_header {
  std::int64_t timestamp = 0;  // µs since the recording began
  std::string file_name, script;
};

// Local field potentials of some sites, at a rate of their own.
struct lfp_store {
  std::int32_t n_lfp_samples = 0;                  // of the channel that has most
  float vscale_LFP = 0.0f;                         // µV per bit, of the first channel
  std::int32_t sampling_frequency_LFP = 0;         // Hz, of the first channel
  std::vector<float> vscales;                      // of each channel; 0: not told
  std::vector<std::int32_t> rates;                 // of each channel, Hz
  std::vector<std::int32_t> sites;                 // tapped by each channel, from 0; -1 not told
  std::vector<std::vector<std::int16_t>> samples;  // of each channel, bits
};

struct stimulus_records {
  std::vector<digital_value> digital_values;
  std::vector<stimulus_header> headers;
  lfp_store lfp;
};

}  // namespace kestrelvane
