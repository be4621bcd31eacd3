// Walking an HDF5 file and opening the datasets in it that may be voltages.
#include <sanitizer/common_interface_defs.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "fuzz_session.h"
#include "operations/open_recording.h"
#include "recording/formats/hdf/hdf_probe.h"
#include "recording/formats/hdf/hdf_walk.h"
#include "session/settings_table.h"

using namespace kestrelvane;

namespace {

// What the user of this file goes for.
std::string wanted_place;
int turn = 0;

void walk(void*, const hdf_page* page, hdf_choice& choice) {
  if (page == nullptr) return;
  choice.rate = page->rate.empty() ? "1000" : page->rate;
  choice.scale = page->scale.empty() ? "1" : page->scale;
  choice.path = wanted_place;
  if (turn == 0) choice.step = hdf_step::go_to;
  if (turn == 1) choice.step = hdf_step::read;
  ++turn;
}

// Every page that a user could see; the places of what may be voltages.
std::vector<std::string> look_at_everything(const std::string& path) {
  std::vector<std::string> places;
  hdf_file in;
  if (open_hdf_file(in, path) != hdf_error::none) return places;
  int n_pages = 0;
  for (const hdf_entry& entry : list_hdf_tree(in)) {
    hdf_page page;
    if (++n_pages < 40) make_hdf_page(in, entry.place, page);
    if (entry.may_be_data && places.size() < 3) places.push_back(entry.place);
  }
  return places;
}

// As the program's probe, which is a program started anew and takes a third of a second of a
// sanitizer's time; a copy of this process is there at once. What the library does not survive is
// its own affair, and no finding.
bool library_survives(const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    __sanitizer_set_death_callback(nullptr);
    for (const int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGALRM}) {
      std::signal(signal, SIG_DFL);
    }
    const rlimit seconds{5, 5};
    setrlimit(RLIMIT_CPU, &seconds);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) _exit(1);
    _exit(look_at_hdf_file(path) ? 0 : 1);
  }
  int status = 1;
  while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return child > 0 && status == 0;
}

}  // namespace

// The library forgets blocks when it gives up on a file.
extern "C" const char* __lsan_default_suppressions() { return "leak:libhdf5\n"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  session_state& session = fuzz::the_session();
  session.ui.walk_hdf = walk;
  const std::string first_look = fuzz::scratch_path("look.h5");
  fuzz::write_input(first_look, bytes, n);
  if (!library_survives(first_look)) return 0;
  for (const char* name : {"input.h5", "input.nwb"}) {
    const std::string path = fuzz::scratch_path(name);
    fuzz::write_input(path, bytes, n);
    for (const std::string& place : look_at_everything(path)) {
      set_default_strategy(session);
      wanted_place = place;
      turn = 0;
      reset_session(session);
      if (!open_recording(session, path)) {
        fuzz::require(session.recording.n_samples == 0 && session.recording.n_channels == 0,
                      "a failed open leaves something behind");
      }
      fuzz::require_sound_session(session);
    }
  }
  return 0;
}
