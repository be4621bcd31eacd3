// Small sessions for tests, built in three lines.
#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "session/session_state.h"
#include "support/scripted_interface.h"

namespace kestrelvane::test {

// A started session with defaults and a scripted user, no recording.
struct small_session {
  std::unique_ptr<session_state> state = std::make_unique<session_state>();
  scripted_interface user;

  small_session();
  session_state& operator*() { return *state; }
  session_state* operator->() { return state.get(); }
};

// Gives the session a continuous recording of zeros: sites in one column, 40 µm
// apart, distance tables and templates ready.
void make_recording(session_state& session, std::int32_t n_channels, std::int32_t n_samples,
                    std::int32_t sampling_frequency = 25000, float vscale = 1.0f);

// Writes values into a channel from time index first on.
void put_samples(session_state& session, std::int32_t channel, std::int32_t first,
                 const std::vector<int>& values);

// The 32-bit float with the given bits: how exact results are written down.
inline float bits(std::uint32_t word) { return std::bit_cast<float>(word); }

// Parallel loops of the session run on n threads; 1 is the plain form.
void use_threads(session_state& session, std::int32_t n);

// The generator of the test vectors: s = (1103515245 s + 12345) mod 2^31.
struct vector_random {
  std::uint32_t s;
  explicit vector_random(std::uint32_t seed) : s(seed) {}
  std::uint32_t next() { return s = (1103515245u * s + 12345u) & 0x7fffffffu; }
};

// A directory of its own under the system's temporary directory, removed at the end.
struct temporary_directory {
  std::string path;
  temporary_directory();
  ~temporary_directory();
  std::string file(const std::string& name) const { return path + "/" + name; }
};

// What saves of path have left beside it that did not come to their end.
std::vector<std::string> partial_files(const std::string& path);

std::vector<char> read_bytes(const std::string& path);
void write_bytes(const std::string& path, const std::vector<char>& bytes);

}  // namespace kestrelvane::test
