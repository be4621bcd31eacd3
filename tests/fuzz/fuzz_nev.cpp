// Opening a Blackrock .nev recording, as records or on one time axis (the first byte says
// which), and writing its units back: a sound session, or an empty one.
#include "fuzz_session.h"
#include "recording/formats/blackrock/nev.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  if (n == 0) return 0;
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.nev");
  fuzz::write_input(path, bytes + 1, n - 1);
  session.preferences.treat_as_continuous = bytes[0] % 2 == 1;
  if (fuzz::open_soundly(session, path)) {
    write_nev_with_units(session, fuzz::scratch_path("copy.nev"));
  }
  return 0;
}
