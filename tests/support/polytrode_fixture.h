// Surf and PRF files, byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/fixture_files.h"

namespace kestrelvane::test {

struct surf_layout_fixture {
  char kind = 'S';
  std::int32_t major = 2, n_channels = 54, rate = 25000, internal_gain = 1, external_gain = 5000;
  std::string description = "\xB5Map54_2a, 65\xB5m spacing", electrode = "\xB5Map54_2a";
};

// Parts of a Surf file, to be put one after the other.
std::vector<char> surf_header();
std::vector<char> surf_descriptor(char type);
std::vector<char> surf_layout_record(const surf_layout_fixture& f);
// Values are 2048 + surf_value(first + i) in file order.
std::vector<char> surf_block_record(const std::string& code, std::int64_t timestamp,
                                    std::int32_t probe, std::int32_t n_values);
std::vector<char> surf_message(const std::string& code, const std::string& text);
std::vector<char> surf_digital_value(std::int64_t timestamp, std::uint16_t value);
std::vector<char> surf_display(std::int32_t version, const std::string& script);
// The value, 0 V being 0, of the i-th value of a block.
std::int32_t surf_value(std::int64_t timestamp, std::int64_t i);

// The parts together.
std::vector<char> joined(const std::vector<std::vector<char>>& parts);
// Header, descriptors, a spike and an LFP layout, n_blocks blocks of 100 ms, the rest.
std::vector<std::vector<char>> surf_parts(std::int32_t n_blocks = 3);

struct prf_epoch {
  std::string name;
  std::int64_t start = 0;  // s
  std::int64_t samples = 0;
};
struct prf_fixture {
  std::string label = "Polytrode Data  ", polytrode = "Map54_1b";
  std::int32_t rate = 25000, n_channels = 54;
  std::vector<std::int32_t> masked;
  std::vector<prf_epoch> epochs = {{"driftbar_01", 1000, 60'000}, {"xyz", 1010, 50'000}};
  std::int32_t told_epochs = -1;   // -1: as many as there are
  std::int64_t told_samples = -1;  // of the first epoch; -1: as many as there are
};
std::int16_t prf_sample(std::int32_t epoch, std::int32_t channel, std::int64_t i);
std::vector<char> prf_bytes(const prf_fixture& f);

}  // namespace kestrelvane::test
