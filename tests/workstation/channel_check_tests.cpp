// The channel check, driven as a user would: problems, masks, graphs, and what follows a mask.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QTest>
#include <random>

#include "analysis/channel_check_graphs.h"
#include "displays/graph.h"
#include "sorting/status_lists.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/channel_windows.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane::test {
namespace {

// Nine channels with clusters; channels 3 and 4 hold the same.
struct checked_workstation : driven_workstation {
  explicit checked_workstation(const std::string& home) : driven_workstation(home) {
    start_operation(
        shell,
        [](session_state& s) {
          make_busy_recording(s, 9, 60000, 5);
          recording_store& r = s.recording;
          std::copy_n(r.vd.channel(3) + 1, r.n_samples, r.vd.channel(4) + 1);
          for (std::int32_t c = 1; c <= 9; ++c) r.chan_noise[c] = 7;
          s.clusters.current_cluster = 1;
          recalculate_all_templates(s);
          build_status_lists(s);
        },
        nullptr);
    settle();
    told.clear();
  }
  QDialog* open_check() {
    choose_entry("channel_check");
    settle();
    return dialog("channel_check_dialog");
  }
  graph_data graph(graph_kind kind) { return graph_of(shell, kind)->surface()->graph(); }
};

TEST(ChannelCheck, ProblemsChooseTheirChannelsAndTheGraphsFollow) {
  const temporary_directory home;
  checked_workstation w(home.path);
  QDialog* dialog = w.open_check();
  ASSERT_NE(dialog, nullptr);
  auto* problems = w.control<QComboBox>(dialog, "problems");
  EXPECT_EQ(problems->itemText(0), "Channels 3 4 may be shorted; r=1.00");
  EXPECT_EQ(w.session->current_channel, 3);
  const channel_check& check = w.shell.channels->found;
  const auto shown = [&](const char* label) { return w.control<QLabel>(dialog, label)->text(); };
  EXPECT_EQ(shown("judgement"), "The background alone says the same");
  EXPECT_EQ(shown("n_problems"), QString::fromStdString(count_problems(check)));
  EXPECT_EQ(shown("rms_deviation").toDouble(),
            QString::number(find_checked_channel(check, 3)->rms_deviation, 'f', 2).toDouble());
  EXPECT_EQ(w.graph(graph_kind::channel_deviations).series[0].x.size(), 9u);
  EXPECT_EQ(w.graph(graph_kind::channel_analysis).series[0].x.size(), 36u);
  EXPECT_EQ(graph_of(w.shell, graph_kind::channel_deviations)->windowTitle(), "Graph Window");
  EXPECT_EQ(graph_of(w.shell, graph_kind::channel_analysis)->windowTitle(),
            "Cross-channel analysis");
  QTest::mouseClick(w.control<QWidget>(dialog, "one_channel"), Qt::LeftButton);
  EXPECT_EQ(w.graph(graph_kind::channel_analysis).series[0].x.size(), 8u);
  w.tick(dialog, "show_numbers", false);
  EXPECT_TRUE(w.graph(graph_kind::channel_deviations).series[0].point_text.empty());
  // A click on the point of channel 7 chooses it.
  graph_surface* surface = graph_of(w.shell, graph_kind::channel_deviations)->surface();
  const graph_data deviations = surface->graph();
  QImage canvas(surface->size(), QImage::Format_RGB32);
  QPainter painter(&canvas);
  const drawn_graph drawn =
      paint_graph(deviations, paper_style(), whole_view(deviations), painter, surface->size());
  const checked_channel& seven = *find_checked_channel(check, 7);
  QTest::mouseClick(surface, Qt::LeftButton, {},
                    pixel_of(drawn, seven.rms_deviation, seven.signed_deviation).toPoint());
  EXPECT_EQ(w.session->current_channel, 7);
  EXPECT_EQ(shown("signed_deviation"), QString::number(seven.signed_deviation, 'f', 2));
  // No mask was changed: nothing is asked.
  w.press(dialog, "done");
  w.settle();
  EXPECT_TRUE(w.asked.isEmpty());
  ++w.session->filter_history.n_entries;
  refresh_windows(w.shell);
  EXPECT_TRUE(w.graph(graph_kind::channel_analysis).series[0].x.empty());
}

// Large units make channels 1 and 2 alike, and one wire 3 and 4: the lines have the same words.
TEST(ChannelCheck, WhatTheBackgroundDoesNotBearOutIsToldApart) {
  const temporary_directory home;
  checked_workstation w(home.path);
  start_operation(
      w.shell,
      [](session_state& s) {
        for (std::int32_t t = 10; t <= s.recording.n_samples; t += 10) {
          for (const std::int32_t c : {1, 2}) s.recording.vd.channel(c)[t] = 500;
        }
      },
      nullptr);
  w.settle();
  QDialog* dialog = w.open_check();
  ASSERT_NE(dialog, nullptr);
  auto* problems = w.control<QComboBox>(dialog, "problems");
  auto* judgement = w.control<QLabel>(dialog, "judgement");
  const auto sign = [&](int row) {
    return problems->itemIcon(row).pixmap(16, 16).toImage().pixelColor(8, 12).alpha();
  };
  ASSERT_GE(problems->count(), 2);
  EXPECT_TRUE(problems->itemText(0).startsWith("Channels 1 2 may be shorted; r="));
  EXPECT_EQ(problems->itemText(1), "Channels 3 4 may be shorted; r=1.00");
  EXPECT_EQ(sign(0), 0);
  EXPECT_GT(sign(1), 0);
  EXPECT_EQ(judgement->text(), "Only the spikes say so: a large unit makes its neighbours alike");
  QTest::keyClick(problems, Qt::Key_Down);
  EXPECT_EQ(judgement->text(), "The background alone says the same");
  EXPECT_EQ(w.session->current_channel, 3);
  for (int row = 0; row < problems->count(); ++row) {
    const QString judged = problems->itemData(row, Qt::ToolTipRole).toString();
    EXPECT_EQ(judged, judgement_of(w.shell.channels->found.problem_list[row]));
    // Also for who hears the line.
    EXPECT_EQ(problems->itemData(row, Qt::AccessibleTextRole).toString(),
              problems->itemText(row) + ". " + judged);
  }
}

TEST(ChannelCheck, AMaskIsOfferedToBeSavedAndTemplatesAndListsFollow) {
  const temporary_directory home;
  checked_workstation w(home.path);
  w.session->recording.recording_path = home.file("recording.tsf");
  QDialog* dialog = w.open_check();
  ASSERT_NE(dialog, nullptr);
  const std::int32_t centre = w.session->templates.centre_channel(1);
  w.set_number(dialog, "channel", centre);
  w.tick(dialog, "mask_channel", true);
  w.settle();
  EXPECT_EQ(w.control<QLabel>(dialog, "rms_deviation")->text(), "    *");
  EXPECT_EQ(w.control<QLabel>(dialog, "n_masked")->text(), "1 of 9");
  EXPECT_EQ(w.graph(graph_kind::channel_deviations).series[0].x.size(), 8u);
  w.tick(dialog, "include_masked", true);
  w.settle();
  EXPECT_EQ(w.graph(graph_kind::channel_deviations).series[1].x.size(), 1u) << "as a ring";
  EXPECT_EQ(check_session(*w.session),
            "template 1 is centred on masked channel " + std::to_string(centre));
  QTest::keyClick(dialog, Qt::Key_Escape);
  w.settle(true);
  EXPECT_EQ(w.asked, QStringList("Save/replace mask file (.msk)?"));
  EXPECT_EQ(check_session(*w.session), "");
  EXPECT_NE(w.session->templates.centre_channel(1), centre);
  const std::vector<char> masks = read_bytes(home.file("recording.msk"));
  EXPECT_EQ(std::count(masks.begin(), masks.end(), 'T'), 1);
  // Lists made anew would be the same.
  const std::vector<float> kept(
      w.session->lists.kv_cluster_overlap.first(),
      w.session->lists.kv_cluster_overlap.first() + w.session->lists.n_kv_pairs);
  start_operation(w.shell, build_status_lists, nullptr);
  w.settle();
  EXPECT_EQ(
      std::vector<float>(w.session->lists.kv_cluster_overlap.first(),
                         w.session->lists.kv_cluster_overlap.first() + w.session->lists.n_kv_pairs),
      kept);
}

TEST(ChannelCheck, WhatItCannotCheckIsRefused) {
  const temporary_directory home;
  driven_workstation w(home.path);
  start_operation(
      w.shell, [](session_state& s) { make_recording(s, 7, 5000); }, nullptr);
  w.settle();
  w.choose_entry("channel_check");
  w.settle();
  EXPECT_EQ(w.told, QStringList("Not enough unmasked channels to support cross-correlation "
                                "analysis"));
}

}  // namespace
}  // namespace kestrelvane::test
