// Opening a Neuralynx .ntt file, and writing it again: a sound session, or an empty one.
//
// The text of the header ends at the first NUL of the input; records follow.
#include <algorithm>
#include <vector>

#include "fuzz_session.h"
#include "recording/formats/neuralynx/neuralynx.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.ntt");
  const std::uint8_t* text_end =
      std::find(bytes, bytes + std::min<std::size_t>(n, neuralynx_header_bytes), 0);
  std::vector<std::uint8_t> file(bytes, text_end);
  file.resize(neuralynx_header_bytes);
  if (text_end != bytes + n) file.insert(file.end(), text_end + 1, bytes + n);
  fuzz::write_input(path, file.data(), file.size());
  fuzz::open_soundly(session, path);
  if (session.recording.n_samples > 0) write_ntt(session, fuzz::scratch_path("output.ntt"));
  return 0;
}
