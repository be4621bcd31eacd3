// The history: its lines, the way back, and what a work file brings with it.
#include <QTreeWidget>
#include <filesystem>

#include "results/curation_file.h"
#include "review/cluster_marks.h"
#include "review/manage_clusters.h"
#include "review/recorded_edit.h"
#include "workstation/commands/menu_table.h"
#include "workstation/sorted_workstation.h"

namespace kestrelvane::test {
namespace {

struct history_workstation : sorted_workstation {
  using sorted_workstation::sorted_workstation;
  void edit(session_routine routine) {
    start_operation(shell, std::move(routine), nullptr);
    settle();
  }
  void split_and_delete() {
    edit([](session_state& s) {
      s.clusters.current_cluster = 1;
      const std::vector<shape_point> places = events_in_plane(s, mark_plane::heights);
      mark_in_rectangle(s, {-1, -1}, {places[places.size() / 2].x, 1e6f});
      split_label(s, 1);
    });
    edit([](session_state& s) { label_unit(s, 2, unit_label::good); });
    edit([](session_state& s) {
      cluster_management management;
      open_cluster_management(s, management);
      delete_managed_cluster(s, management, 3);
    });
  }
  QTreeWidget* list() { return control<QTreeWidget>(dialog("history_dialog"), "history_list"); }
  void go_to(int line) {
    list()->setCurrentItem(list()->topLevelItem(line));
    press(dialog("history_dialog"), "back_to_here");
    settle();
  }
};

TEST(History, LinesTellTheEditsAndLeadBackToAnyOfThem) {
  const temporary_directory home;
  history_workstation w(home.path);
  w.choose_entry("history");
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("history_dialog"), nullptr) << "there is none yet";
  w.settle();
  w.split_and_delete();
  const std::uint64_t end = sort_fingerprint(*w.session);
  w.choose_entry("history");
  ASSERT_NE(w.dialog("history_dialog"), nullptr);
  ASSERT_EQ(w.list()->topLevelItemCount(), 4);
  EXPECT_TRUE(w.list()->topLevelItem(1)->text(2).startsWith("Split "));
  EXPECT_EQ(w.list()->topLevelItem(2)->text(2), "Label cluster 2 Good");
  EXPECT_EQ(w.list()->topLevelItem(3)->text(2), "Delete clusters 3");

  const std::int32_t n = w.session->clusters.n_clusters;
  w.go_to(1);
  EXPECT_EQ(w.session->clusters.n_clusters, n + 1);
  EXPECT_EQ(w.session->clusters.cluster_label[2], unit_label::unsorted);
  EXPECT_EQ(w.list()->topLevelItem(4)->text(2), "Back to 1");
  w.go_to(3);
  EXPECT_EQ(sort_fingerprint(*w.session), end);
  w.go_to(0);
  EXPECT_EQ(sort_fingerprint(*w.session), w.session->history.fingerprint);
  EXPECT_EQ(check_session(*w.session), "");
  w.press(w.dialog("history_dialog"), "done");
}

TEST(History, EveryEditIsOnTheDiskBeforeTheNext) {
  const temporary_directory home;
  history_workstation w(home.path);
  w.split_and_delete();
  edit_history kept;
  std::string problem;
  ASSERT_TRUE(read_history(home.file("kv_autorecover.curation.jsonl"), kept, problem)) << problem;
  EXPECT_EQ(kept.records.size(), 3u);
  EXPECT_EQ(kept.records.back().after, sort_fingerprint(*w.session));
  EXPECT_TRUE(std::filesystem::exists(home.file("kv_autorecover.curation.wrk")));
}

}  // namespace
}  // namespace kestrelvane::test
