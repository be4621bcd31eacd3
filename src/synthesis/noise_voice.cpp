#include "synthesis/noise_voice.h"

#include <cmath>
#include <numbers>

#include "numerics/portable_math.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

// Part of a new sample that a pass of one pole takes in.
double taken_in(double hz, std::int32_t sampling_frequency) {
  return 1 - portable_exp(-2 * std::numbers::pi * hz / sampling_frequency);
}

float pass_both(noise_voice& voice, float v) {
  voice.fast += voice.smooth * (v - voice.fast);
  voice.slow += voice.settle * (voice.fast - voice.slow);
  return voice.fast - voice.slow;
}

}  // namespace

noise_voice start_voice(std::vector<noise_source> sources, const noise_colour& colour,
                        std::int32_t sampling_frequency) {
  noise_voice voice;
  double squares = 0;
  for (const noise_source& s : sources) squares += double{s.weight} * double{s.weight};
  for (noise_source& s : sources) s.weight = static_cast<float>(s.weight / std::sqrt(squares));
  voice.sources = std::move(sources);
  voice.smooth = static_cast<float>(taken_in(colour.high_hz, sampling_frequency));
  voice.settle = static_cast<float>(taken_in(colour.low_hz, sampling_frequency));
  // The response to one impulse has the energy that white noise of s.d. 1 comes out with.
  noise_voice impulse = voice;
  double energy = 0;
  for (std::int32_t i = 0; i < sampling_frequency / 10; ++i) {
    const auto v = double{pass_both(impulse, i == 0 ? 1.0f : 0.0f)};
    energy += v * v;
  }
  voice.norm = static_cast<float>(1 / std::sqrt(energy));
  return voice;
}

void add_voice(noise_voice& voice, float size, float* out) {
  float numbers[noise_block] = {};
  for (noise_source& source : voice.sources) add_numbers(source, numbers);
  const float factor = size * voice.norm;
  for (std::int32_t i = 0; i < noise_block; ++i) out[i] += factor * pass_both(voice, numbers[i]);
}

}  // namespace kestrelvane
