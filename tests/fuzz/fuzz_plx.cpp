// Opening a Plexon file, either way of laying its records out, and writing it again.
//
// The first byte of the input chooses; the 256 bytes behind it begin the file header, whose
// tables of counts are left out of the input, and the rest follows the header.
#include <algorithm>
#include <vector>

#include "fuzz_session.h"
#include "recording/formats/plexon/plx.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  constexpr std::size_t in_front = 1 + 256;
  if (n < in_front) return 0;
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.plx");
  const char config[] = "Two\n1 1 0 0\n2 2 0 50\n";
  fuzz::write_input(fuzz::scratch_path("electrode.cfg"),
                    reinterpret_cast<const std::uint8_t*>(config), sizeof config - 1);
  std::vector<std::uint8_t> file(sizeof(plx_file_header));
  std::copy(bytes + 1, bytes + in_front, file.begin());
  file[offsetof(plx_file_header, ev_counts) + 4 * plx_first_slow_count] = (bytes[0] >> 2) & 1;
  file.insert(file.end(), bytes + in_front, bytes + n);
  fuzz::write_input(path, file.data(), file.size());
  session.preferences.treat_as_continuous = (bytes[0] & 1) != 0;
  if (fuzz::open_soundly(session, path)) {
    fuzz::require(rewrite_plx(session, path, fuzz::scratch_path("output.plx"), (bytes[0] & 2) != 0),
                  "a file that was read is not written again");
  }
  return 0;
}
