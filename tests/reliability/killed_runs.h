// What the tests that kill runs at random moments share.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "synthesis/test_recording.h"

namespace kestrelvane::test {

inline std::string variable(const char* name, const char* otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? text : otherwise;
}
// How many kills, and where their moments are drawn from.
inline int wanted_kills(const char* otherwise) {
  return std::stoi(variable("KESTRELVANE_KILLS", otherwise));
}
inline unsigned wanted_seed() {
  return static_cast<unsigned>(std::stoul(variable("KESTRELVANE_KILL_SEED", "2026")));
}

// A tetrode of three units, long enough to be killed in each stage.
inline void make_killed_recording(const std::string& path) {
  test_recording_options options;
  options.electrode = test_electrode::tetrode;
  options.n_channels = 4;
  options.minutes = 0.2;
  options.n_units = 3;
  options.median_rate = 20;
  std::string problem;
  EXPECT_TRUE(make_test_recording(options, path, {}, problem)) << problem;
}

}  // namespace kestrelvane::test
