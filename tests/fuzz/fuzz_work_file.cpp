// Reading a work file over a small recording: a sound session, whatever is read.
#include "fuzz_session.h"
#include "results/work_file.h"
#include "session/settings_table.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  const std::string path = fuzz::scratch_path("input.wrk");
  fuzz::write_input(path, bytes, n);
  set_default_parameters(session);
  set_default_strategy(session);
  set_display_defaults(session);
  fuzz::make_recording(session, "small.tsf", 3, 10000);
  bool wrong_file = false;
  if (!read_work_file(session, path, wrong_file)) {
    fuzz::require(session.events.n_events == 0 && session.clusters.n_clusters == 0,
                  "half a sort is none");
  }
  // Old versions keep events behind the last sample, where vd still holds zeros.
  session.recording.n_samples = session.recording.max_vd_samples;
  fuzz::require_sound_session(session);
  return 0;
}
