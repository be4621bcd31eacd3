// A run of the program for the test that kills it: recovers what the home has, then works
// and saves until it is killed. Arguments: home, work file, file of the notes. In place of a work
// file the word "review": the work is that of a user at the review, and the notes hold the
// fingerprint of the sort after each edit.
#include <cstdio>
#include <memory>
#include <thread>

#include "numerics/parallel.h"
#include "operations/program_run.h"
#include "operations/recovery.h"
#include "results/curation_file.h"
#include "results/work_file.h"
#include "review/recorded_edit.h"
#include "support/random_review.h"
#include "support/recovery_victim.h"
#include "support/scripted_interface.h"

using namespace kestrelvane;
using namespace kestrelvane::test;

namespace {

void change_once(session_state& session, victim_notes& notes) {
  const session_hold hold(session);
  const std::int64_t k = notes.changes + 1;
  make_change(session, k);
  notes.made_at[k] = steady_ns();
  notes.changes = k;
}

void save_work(session_state& session, victim_notes& notes, const std::string& path) {
  const session_hold hold(session);
  notes.wrk_begun = notes.changes.load();
  if (write_work_file(session, path)) notes.wrk_done = notes.wrk_begun.load();
}

// Works for a minute at most, should nobody come to kill it.
void work(session_state& session, victim_notes& notes, const std::string& work_file) {
  constexpr std::int64_t second = 1000000000;
  const std::int64_t begun = steady_ns();
  std::int64_t saved = begun;
  while (steady_ns() - begun < 60 * second && notes.changes + 1 < victim_notes::limit) {
    change_once(session, notes);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (steady_ns() - saved < second / 8) continue;
    save_work(session, notes, work_file);
    saved = steady_ns();
  }
}

void review(session_state& session) {
  random_review user(static_cast<unsigned>(steady_ns()));
  const std::int64_t begun = steady_ns();
  while (steady_ns() - begun < 60'000'000'000) {
    const session_hold hold(session);
    user.edit(session);
  }
}

victim_notes* noted = nullptr;

// Noted when it is on the disk.
void keep_and_note(const session_state& session, const edit_record* record) {
  keep_record(session, record);
  if (record == nullptr) return;
  const std::int64_t k = noted->changes + 1;
  noted->made_at[k] = static_cast<std::int64_t>(record->after);
  noted->changes = k;
}

}  // namespace

int main(int argc, char** argv) {
  flush_denormals();
  if (argc != 4) return 2;
  victim_notes* notes = map_notes(argv[3]);
  if (notes == nullptr) return 2;
  const auto session = std::make_unique<session_state>();
  start_session(*session);
  scripted_interface user;
  user.attach(*session);
  user.default_answer = true;
  session->ui.run_log_window = nullptr;  // the timer's thread writes there
  session->home_directory = argv[1];
  session->preferences.autorecover_minutes = static_cast<float>(victim_interval_ms) / 60000.0f;
  std::fputs("started\n", stderr);
  if (!open_at_start(*session, "")) return 3;
  const bool reviews = std::string_view(argv[2]) == "review";
  if (reviews) {
    noted = notes;
    session->history.written = keep_and_note;
    notes->changes = 0;
    notes->made_at[0] = static_cast<std::int64_t>(sort_fingerprint(*session));
  } else {
    notes->changes = change_of(*session);
    if (notes->changes < 1) return 4;
  }
  autorecover_timer timer;
  timer.look_every = std::chrono::milliseconds(victim_look_ms);
  start_autorecover(timer, *session);
  if (reviews) {
    review(*session);
  } else {
    work(*session, *notes, argv[2]);
  }
  stop_autorecover(timer);
  return 0;
}
