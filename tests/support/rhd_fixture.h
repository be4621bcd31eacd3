// Intan .rhd files made byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane::test {

struct rhd_channel {
  std::int32_t signal = 0;  // 0 amplifier, 1 auxiliary, 2 supply, 3 ADC, 4 digital in, 5 out
  bool enabled = true;
};

struct rhd_group {
  bool enabled = true;
  std::vector<rhd_channel> channels;  // written when enabled
};

struct rhd_fixture {
  std::int32_t major = 1, minor = 0;
  float rate = 20000;
  std::vector<std::string> notes = {"", "second", ""};  // "": absent, or of length 0 for the third
  std::int32_t n_temperature = 0;
  std::vector<rhd_group> groups = {{true, {{0}, {0, false}, {0}, {1}, {4}}}, {false, {}}};
  std::int32_t n_blocks = 3;
  std::int32_t digital_words = -1;  // stretches of digital words; negative: one if there are any
};

// Value as stored in vd of amplifier channel c (from 1) at time index t.
std::int16_t rhd_sample(std::int32_t c, std::int64_t t);

std::vector<char> rhd_bytes(const rhd_fixture& f);
std::int32_t rhd_block_samples(const rhd_fixture& f);
// Offsets behind the regions of a file: fixed part, notes, optional fields, each group,
// then in the first block behind the sample numbers, the amplifier data and the block.
std::vector<std::size_t> rhd_boundaries(const rhd_fixture& f);

}  // namespace kestrelvane::test
