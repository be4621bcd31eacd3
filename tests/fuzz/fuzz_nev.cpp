// Opening a Blackrock .nev recording, as records or on one time axis (the first byte says
// which), and writing its units back: a sound session, or an empty one.
#include "fuzz_session.h"
#include "recording/nev.h"
#include "recording/open_recording.h"
#include "session/settings_table.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  if (n == 0) return 0;
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.nev");
  fuzz::write_input(path, bytes + 1, n - 1);
  set_default_strategy(session);  // a window that was shortened does not stay so
  session.preferences.treat_as_continuous = bytes[0] % 2 == 1;
  if (open_recording(session, path)) {
    fuzz::require_sound_session(session);
    write_nev_with_units(session, fuzz::scratch_path("copy.nev"));
    return 0;
  }
  fuzz::require(session.recording.n_samples == 0 && session.recording.n_channels == 0 &&
                    session.events.n_events == 0 && session.clusters.n_clusters == 0,
                "a failed open leaves something behind");
  fuzz::require_sound_session(session);
  return 0;
}
