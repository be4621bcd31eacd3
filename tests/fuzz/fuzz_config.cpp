// Reading an electrode configuration, and writing what was read.
#include <vector>

#include "fuzz_session.h"
#include "recording/electrode_config.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  recording_store& r = session.recording;
  const std::string path = fuzz::scratch_path("input.cfg");
  fuzz::write_input(path, bytes, n);
  reset_session(session);
  std::int32_t n_mapped = 0;
  const bool good = read_config_file(session, path, n_mapped, true);
  fuzz::require(good == !r.no_config_file, "no_config_file tells otherwise");
  if (!good) return 0;
  fuzz::require(n_mapped >= 1 && n_mapped <= channel_limit, "a good map has its channels");
  for (std::int32_t f = 0; f <= channel_limit; ++f) {
    fuzz::require(r.channel_map[f] >= 0 && r.channel_map[f] <= n_mapped, "the map leads outside");
  }
  r.n_channels = n_mapped;
  r.recording_path = fuzz::scratch_path("written.tsf");
  fuzz::require(write_config_file(session), "the configuration cannot be written");
  return 0;
}
