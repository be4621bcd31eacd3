// Figures of one cluster, deletion by rule, order, and "Cancel".
#include <QComboBox>
#include <QPushButton>
#include <QRadioButton>
#include <QTableView>

#include "clustering/membership.h"
#include "clustering/templates.h"
#include "review/manage_clusters.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"
#include "workstation/commands/menu_table.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/program_options.h"
#include "workstation/sorted_workstation.h"

namespace kestrelvane::test {
namespace {

struct managed_workstation : sorted_workstation {
  using sorted_workstation::sorted_workstation;
  // The entry is one of those that few need.
  QDialog* begin() {
    keep_wish(program_option::research_tools, true);
    show_full_entries(shell);
    told.clear();
    choose_entry("manage_clusters");
    QDialog* opened = dialog("manage_clusters_dialog");
    settle();
    return opened;
  }
  void do_press(QDialog* in, const char* button, bool yes = false) {
    press(in, button);
    settle(yes);
  }
  std::vector<std::int32_t> membership() const {
    const std::int32_t* of = session->events.event_cluster.first();
    return {of, of + session->events.n_events};
  }
  ~managed_workstation() { keep_wish(program_option::research_tools, false); }
  bool is_open() { return shell.frame->findChild<QDialog*>("manage_clusters_dialog") != nullptr; }
};

TEST(ManageClusters, FiguresFollowTheClusterChosen) {
  const temporary_directory home;
  managed_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  ASSERT_NE(dialog, nullptr);
  EXPECT_EQ(dialog->windowTitle(), "Manage clusters");
  for (std::int32_t c = 1; c <= s.clusters.n_clusters; ++c) {
    w.set_number(dialog, "current_cluster", c);
    EXPECT_EQ(s.clusters.current_cluster, c);
    const std::int32_t centre = s.templates.centre_channel(c);
    EXPECT_EQ(w.text(dialog, "channel").toInt(), centre);
    const int n = count_cluster_events(s, c);
    EXPECT_EQ(w.text(dialog, "n_events").toInt(), n);
    int at_centre = 0;
    for (std::int32_t e = 1; e <= s.events.n_events; ++e) {
      at_centre += s.events.event_cluster[e] == c && s.events.event_channel[e] == centre;
    }
    EXPECT_EQ(w.text(dialog, "template_channel").toInt(), at_centre);
    EXPECT_EQ(w.text(dialog, "template_channel_percent"),
              QString::number(100.0 * at_centre / n, 'f', 1) + " %");
    EXPECT_EQ(w.text(dialog, "template_channel").toInt() + w.text(dialog, "neighbours").toInt() +
                  w.text(dialog, "other_channels").toInt(),
              n);
  }
  EXPECT_EQ(w.text(dialog, "status"), "unknown") << "there are no lists";
  EXPECT_EQ(w.text(dialog, "source"), "");
  w.control<QTableView>(dialog, "unit_table")->selectRow(0);
  EXPECT_EQ(w.control<number_field>(dialog, "current_cluster")->value(), 1);
  w.do_press(dialog, "cancel");
  EXPECT_FALSE(w.is_open());
  EXPECT_EQ(w.told, QStringList{}) << "nothing was changed";
}

TEST(ManageClusters, CancelBringsBackWhatRulesDeleted) {
  const temporary_directory home;
  managed_workstation w(home.path);
  session_state& s = *w.session;
  start_operation(
      w.shell, [](session_state& of) { build_status_lists(of); }, nullptr);
  w.settle();
  const std::vector<std::int32_t> before = w.membership();
  const int n = s.clusters.n_clusters;
  const int n_pairs = s.lists.n_kv_pairs;
  std::vector<std::int32_t> sizes;
  for (std::int32_t c = 1; c <= n; ++c) sizes.push_back(count_cluster_events(s, c));
  const std::int32_t largest = *std::max_element(sizes.begin(), sizes.end());
  const auto doomed =
      std::count_if(sizes.begin(), sizes.end(), [&](std::int32_t size) { return size < largest; });

  QDialog* dialog = w.begin();
  w.tick(dialog, "rule_by_size", true);
  w.set_number(dialog, "delete_size_limit", largest);
  w.do_press(dialog, "delete_by_rule");
  EXPECT_TRUE(w.told.contains(QString("%1 clusters were deleted").arg(doomed)));
  EXPECT_EQ(s.clusters.n_clusters, n - doomed);
  EXPECT_EQ(w.text(dialog, "n_clusters"), QString("of %1").arg(n - doomed));
  EXPECT_EQ(check_session(s), "");
  w.tick(dialog, "rule_by_height", true);
  w.set_number(dialog, "manage_option_1", 1'000'000);
  w.do_press(dialog, "delete_by_rule");
  EXPECT_EQ(s.clusters.n_clusters, 0);
  EXPECT_EQ(s.review.manage_option_4, rule_by_height);
  EXPECT_EQ(w.text(dialog, "n_events"), "0");
  w.told.clear();
  for (const char* idle : {"delete_cluster", "delete_by_rule", "delete_all", "reorder"}) {
    w.do_press(dialog, idle);
  }
  EXPECT_EQ(w.told, QStringList{}) << "nothing to work on";

  // The cross of the window is "Cancel".
  dialog->close();
  w.settle();
  EXPECT_FALSE(w.is_open());
  EXPECT_EQ(w.told, QStringList{"All changes undone!"});
  EXPECT_EQ(w.membership(), before);
  EXPECT_EQ(s.lists.n_kv_pairs, n_pairs);
  EXPECT_EQ(check_session(s), "");
}

TEST(ManageClusters, OkKeepsOrderDeletionAndRemoval) {
  const temporary_directory home;
  managed_workstation w(home.path);
  session_state& s = *w.session;
  QDialog* dialog = w.begin();
  w.control<QComboBox>(dialog, "renumber_order")
      ->setCurrentIndex(w.control<QComboBox>(dialog, "renumber_order")->findData(order_by_size));
  w.control<QRadioButton>(dialog, "renumber_decreasing")->setChecked(true);
  w.do_press(dialog, "reorder");
  for (std::int32_t c = 2; c <= s.clusters.n_clusters; ++c) {
    EXPECT_LE(count_cluster_events(s, c), count_cluster_events(s, c - 1));
  }
  const int n = s.clusters.n_clusters;
  w.set_number(dialog, "current_cluster", n);
  w.do_press(dialog, "delete_cluster");
  EXPECT_EQ(s.clusters.n_clusters, n - 1);
  EXPECT_EQ(s.clusters.current_cluster, n - 1);
  EXPECT_EQ(w.control<number_field>(dialog, "current_cluster")->value(), n - 1);

  // Two events brought together: the worse goes.
  std::vector<std::int32_t> two;
  for (std::int32_t e = 1; e <= s.events.n_events && two.size() < 2; ++e) {
    if (s.events.event_cluster[e] == 1) two.push_back(e);
  }
  s.events.event_time[two[1]] = s.events.event_time[two[0]] + 2;
  w.set_number(dialog, "current_cluster", 1);
  const int duplicates = w.text(dialog, "duplicates").toInt();
  EXPECT_GE(duplicates, 1);
  w.do_press(dialog, "remove_duplicates");
  EXPECT_LT(w.text(dialog, "duplicates").toInt(), duplicates);
  EXPECT_EQ(check_session(s), "");
  w.do_press(dialog, "delete_all", false);
  EXPECT_EQ(s.clusters.n_clusters, n - 1) << "asked, and declined";
  const std::vector<std::int32_t> after = w.membership();
  w.do_press(dialog, "ok");
  EXPECT_FALSE(w.is_open());
  EXPECT_EQ(w.membership(), after);
}

}  // namespace
}  // namespace kestrelvane::test
