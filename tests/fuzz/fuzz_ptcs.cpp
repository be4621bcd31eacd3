// Importing the units of a ".ptcs" file over a recording.
#include "fuzz_session.h"
#include "results/ptcs.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.ptcs");
  fuzz::write_input(path, bytes, n);
  fuzz::make_recording(session, "recording.tsf", 3, 2000);
  import_ptcs(session, path);
  fuzz::require_sound_session(session);
  return 0;
}
