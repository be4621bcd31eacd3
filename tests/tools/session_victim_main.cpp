// Sessions of the program for tests that take the disk away, kill, or set everything at random.
//
//   save HOME RECORDING WORK   opens both and saves settings, recovery and restart file; a line
//                              "NAME saved" or "NAME failed" for each
//   settings SEED FOLDER       sorts and reviews a small recording with settings drawn by the
//                              seed; status 0 when it came to its end with the session in order
//   work HOME RECORDING FOLDER filters, detects, sorts, reviews, saves, exports, and again from
//                              the beginning, until it is killed; a line for each of these
//
// What the program says to its user goes to standard error.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "numerics/parallel.h"
#include "operations/open_recording.h"
#include "operations/recovery.h"
#include "results/work_file.h"
#include "session/settings_files.h"
#include "support/scripted_interface.h"
#include "support/small_session.h"

using namespace kestrelvane;
using namespace kestrelvane::test;

namespace {

void tell(const small_session& session) {
  for (const std::string& line : session.user.lines) std::fprintf(stderr, "%s\n", line.c_str());
  for (const auto& box : session.user.boxes) std::fprintf(stderr, "%s\n", box.text.c_str());
  for (const std::string& status : session.user.statuses) {
    std::fprintf(stderr, "%s\n", status.c_str());
  }
}

int save(const std::string& home, const std::string& recording, const std::string& work) {
  small_session session;
  session->home_directory = home;
  session.user.default_answer = true;
  bool wrong_file = false;
  if (!open_recording(*session, recording) || !read_work_file(*session, work, wrong_file)) return 3;
  session->clusters.cluster_comment[1].assign("new");
  session->strategy.min_cluster_size = 17;
  session->preferences.pc_display_scale = 3;
  const auto told = [](const char* name, bool saved) {
    std::printf("%s %s\n", name, saved ? "saved" : "failed");
  };
  told("parameters", write_parameters(*session));
  told("preferences", write_preferences(*session));
  told("recovery", save_autorecover(*session));
  told("restart", save_restart(*session));
  tell(session);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  flush_denormals();
  const std::string_view verb = argc > 1 ? argv[1] : "";
  if (verb == "save" && argc == 5) return save(argv[2], argv[3], argv[4]);
  return 2;
}
