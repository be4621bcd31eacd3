// Reading a channel mask file.
#include "fuzz_session.h"
#include "recording/channel_masks.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  recording_store& r = session.recording;
  constexpr std::int32_t n_channels = 40;
  fuzz::write_input(fuzz::scratch_path("input.msk"), bytes, n);
  reset_session(session);
  r.n_channels = n_channels;
  r.recording_path = fuzz::scratch_path("input.tsf");
  for (std::int32_t c = 1; c <= channel_limit; ++c) r.chan_mask[c] = true;
  read_mask_file(session);
  for (std::int32_t c = n_channels + 1; c <= channel_limit; ++c) {
    fuzz::require(!r.chan_mask[c], "a mask beyond the last channel");
  }
  return 0;
}
