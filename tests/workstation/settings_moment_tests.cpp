// What a dialog stores is in a save that comes in between as a whole or not at all, and what it
// only shows is in none.
#include <QCheckBox>
#include <QTest>
#include <atomic>
#include <thread>
#include <tuple>
#include <vector>

#include "results/work_file.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {
namespace {

using setting_set = std::tuple<std::int32_t, std::int32_t, float, float, logical, logical>;

setting_set set_in(const session_state& session) {
  const sorting_strategy_settings& s = session.strategy;
  return {s.recluster_limit,
          s.pc_point_limit,
          s.overlap_threshold,
          s.channel_threshold_1,
          session.detection.register_to_cog,
          s.gac_subsample};
}

constexpr setting_set of_user{17, 23, 0.25f, 0.5f, false, true};
constexpr setting_set of_user_later{31, 11, 0.75f, 0.125f, true, false};

// Saves as the recovery timer does, in a loop, and reads back what was saved.
struct tight_saver {
  const session_state& session;
  temporary_directory folder;
  small_session read_back;
  std::atomic<bool> stopping{false};
  std::atomic<std::int32_t> saves{0};
  std::vector<setting_set> others;  // than the two of the user
  std::int32_t n_first = 0, n_later = 0;
  std::thread thread;

  explicit tight_saver(const session_state& of) : session(of), thread([this] { run(); }) {}
  ~tight_saver() { stop(); }

  void run() {
    const recording_store& r = session.recording;
    make_recording(*read_back, r.n_channels, r.n_samples, r.sampling_frequency);
    read_back->recording.recording_path = r.recording_path;
    const std::string path = folder.file("state.wrk");
    bool wrong_file = false;
    while (!stopping) {
      {
        const session_hold hold(session);
        if (!write_work_file(session, path)) continue;
      }
      if (!read_work_file(*read_back, path, wrong_file)) continue;
      ++saves;
      const setting_set found = set_in(*read_back);
      if (found == of_user) {
        ++n_first;
      } else if (found == of_user_later) {
        ++n_later;
      } else {
        others.push_back(found);
      }
    }
  }

  void stop() {
    stopping = true;
    if (thread.joinable()) thread.join();
  }
};

void type_in(driven_workstation& w, QDialog* dialog, const setting_set& set) {
  w.set_number(dialog, "recluster_limit", std::get<0>(set));
  w.set_number(dialog, "pc_point_limit", std::get<1>(set));
  w.set_number(dialog, "overlap_threshold", static_cast<double>(std::get<2>(set)));
  w.set_number(dialog, "channel_threshold_1", static_cast<double>(std::get<3>(set)));
  w.tick(dialog, std::get<4>(set) ? "register_to_cog" : "register_to_max_v", true);
  w.tick(dialog, "gac_subsample", std::get<5>(set));
}

void take_over(driven_workstation& w, const setting_set& set) {
  w.choose_entry("strategy");
  QDialog* dialog = w.dialog("strategy_dialog");
  type_in(w, dialog, set);
  w.press(dialog, "ok");
}

TEST(SettingsMoment, ASaveHasTheSettingsOfOneMomentAndNoneThatWereOnlyShown) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  w.settle();
  w.close_messages();
  take_over(w, of_user);
  ASSERT_EQ(set_in(*w.session), of_user);
  tight_saver saver(*w.session);
  for (int round = 0; round < 20; ++round) {
    take_over(w, round % 2 == 0 ? of_user_later : of_user);
    w.choose_entry("strategy");
    QDialog* dialog = w.dialog("strategy_dialog");
    for (int i = 0; i < 50; ++i) w.press(dialog, "restore_defaults");
    w.press(dialog, "cancel");
  }
  wait_until([&] { return saver.saves > 100; });
  saver.stop();
  EXPECT_TRUE(saver.others.empty()) << saver.others.size() << " of " << saver.saves;
  EXPECT_GT(saver.n_first, 0);
  EXPECT_GT(saver.n_later, 0);
  EXPECT_EQ(set_in(*w.session), of_user);
}

}  // namespace
}  // namespace kestrelvane::test
