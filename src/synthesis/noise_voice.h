// Noise of one colour, shared or not: what disturbs the recordings of the families.
//
// White numbers of one source or several, the same for every channel that hears a source,
// through a low and a high pass of one pole each. The numbers depend on seed, purpose and
// index of the sources alone.
#pragma once

#include <cstdint>
#include <vector>

#include "synthesis/noise_maker.h"

namespace kestrelvane {

struct noise_colour {
  double low_hz, high_hz;  // corners of the high pass and of the low pass
};

struct noise_voice {
  std::vector<noise_source> sources;  // squares of their weights add up to 1
  float smooth = 0, settle = 0;       // what a sample of either pass takes of what is new
  float norm = 1;                     // gives s.d. 1
  float fast = 0, slow = 0;           // what the passes hold
};

noise_voice start_voice(std::vector<noise_source> sources, const noise_colour& colour,
                        std::int32_t sampling_frequency);

// out[i] += size times the next noise_block numbers, of s.d. 1.
void add_voice(noise_voice& voice, float size, float* out);

}  // namespace kestrelvane
