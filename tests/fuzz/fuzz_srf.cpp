// Opening a Surf recording.
#include "fuzz_session.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  const std::string path = fuzz::scratch_path("input.srf");
  fuzz::write_input(path, bytes, n);
  fuzz::open_soundly(fuzz::the_session(), path);
  return 0;
}
