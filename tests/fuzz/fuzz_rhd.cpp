// Opening an Intan .rhd recording: a sound session, or an empty one.
#include "fuzz_session.h"
#include "recording/open_recording.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.rhd");
  fuzz::write_input(path, bytes, n);
  if (!open_recording(session, path)) {
    fuzz::require(session.recording.n_samples == 0 && session.recording.n_channels == 0,
                  "a failed open leaves something behind");
  }
  fuzz::require_sound_session(session);
  return 0;
}
