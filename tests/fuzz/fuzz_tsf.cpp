// Opening a TSF recording: a sound session, or an empty one.
#include "fuzz_session.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.tsf");
  fuzz::write_input(path, bytes, n);
  fuzz::open_soundly(session, path);
  return 0;
}
