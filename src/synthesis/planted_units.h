// What a test recording contains: sites, units near them, and their spike trains.
//
// All of it follows from the options and the seed, and does not depend on threads.
// Positions are in µm, y along the probe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kestrelvane {

struct random_stream;

enum class test_electrode { tetrode, polytrode, linear, utah, neuropixels };

// The electrode of a name as options give it ("polytrode"); false: none has it.
bool electrode_from_name(const std::string& name, test_electrode& electrode);
// All names, for a help text.
std::string electrode_names();

struct test_recording_options {
  test_electrode electrode = test_electrode::polytrode;
  std::int32_t n_channels = 32;
  double minutes = 5;
  std::int32_t sampling_frequency = 25000;  // Hz
  std::int32_t n_units = 25;
  double amplitude_min_uv = 40;   // µV, trough on the channel where it is deepest
  double amplitude_max_uv = 250;  // µV
  double noise_uv = 5.5;          // µV rms, sensor noise and far units together
  double median_rate = 3;         // Hz, of firing
  double drift_um = 0;            // µm along the probe from start to end
  double gain_change = 0;         // part of the gain: -0.2 ends at 0.8 of the start
  // Chance that a spike has one of the nearest unit within 0.5 ms of it.
  double overlap = 0;
  std::int64_t seed = 1;
  std::int32_t n_threads = 1;
};

// Empty, or what is wrong with the options, in words for the user.
std::string validate_test_recording(const test_recording_options& options);

std::int32_t count_test_samples(const test_recording_options& options);

struct site_position {
  std::int16_t x, y;  // µm
};

// Positions of the sites, channel 1 first. Validated options keep them in range.
std::vector<site_position> electrode_sites(test_electrode electrode, std::int32_t n_channels);

// Times of planted spikes count in these steps of a sample, sample 1 of the
// recording being at step sub_sample_steps.
constexpr std::int32_t sub_sample_steps = 64;

struct planted_spike {
  std::int64_t time;  // of the trough on the unit's best channel
  float size;         // times the unit's amplitude
};

// Extent of a spike in time. Widths are standard deviations of Gaussian lobes.
struct spike_shape {
  double trough_ms;   // width of the trough
  double rise_ms;     // trough to the following peak
  double peak;        // height of that peak, times the trough
  double first_peak;  // height of a peak in front of the trough; 0: biphasic
};

// How a cell fires.
struct firing_pattern {
  double rate;               // Hz, aimed at
  double refractory_ms;      // no two spikes come closer
  double burst_chance;       // that a spike starts a burst
  double size_jitter;        // s.d. of the logarithm of spike sizes
  double burst_fall = 0.25;  // part of its size that a spike loses right behind another of a burst
};

struct planted_unit {
  double x, y, z;             // µm; z is the distance from the plane of the sites
  double amplitude_uv;        // trough on best_channel
  double reach_um;            // distance at which a spike has half its size at the source
  double slowness_ms_per_um;  // delay along the probe, either sign
  std::int32_t best_channel;  // counted from 1
  spike_shape shape;
  firing_pattern firing;
};

// Size of a unit's spike at a site, the unit moved by shift_um along the probe,
// over that on its best channel unmoved.
double relative_size(const planted_unit& unit, const std::vector<site_position>& sites,
                     std::int32_t channel, double shift_um);

std::vector<planted_unit> plan_units(const test_recording_options& options,
                                     const std::vector<site_position>& sites);

// Spikes of each unit, ascending.
std::vector<std::vector<planted_spike>> plan_spikes(const test_recording_options& options,
                                                    const std::vector<planted_unit>& units);

// The train of one cell: spikes from step first to step last, ascending.
std::vector<planted_spike> make_train(const firing_pattern& firing, random_stream random,
                                      double steps_per_ms, std::int64_t first, std::int64_t last);

// Spikes that those of another train bring with them, each with that chance and so long after it;
// the train's own give way to them within its refractory time.
void bring_spikes(std::vector<planted_spike>& own, const std::vector<planted_spike>& other,
                  double chance, const std::function<double(random_stream&)>& delay_ms,
                  double refractory_ms, double steps_per_ms, random_stream& random);

// Many small units out of reach of sorting.
std::vector<planted_unit> plan_background(const test_recording_options& options,
                                          const std::vector<site_position>& sites);

}  // namespace kestrelvane
