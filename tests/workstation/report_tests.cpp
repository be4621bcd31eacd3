// The report from the menu, whose pictures are painted on the worker.
#include <gtest/gtest.h>

#include "displays/report/unit_report.h"
#include "workstation/sorted_workstation.h"

namespace kestrelvane::test {
namespace {

TEST(Report, TheEntryWritesThePageOfTheSortInMemory) {
  const temporary_directory home;
  sorted_workstation w(home.path);
  w.session->recording.recording_path = home.file("busy.tsf");
  w.told.clear();
  const std::string path = home.file("busy.html");
  w.choose_entry("report");
  w.settle(true, {QString::fromStdString(path)});
  EXPECT_EQ(w.told, QStringList(QString::fromStdString("Report saved in " + path)));
  const std::vector<char> from_menu = read_bytes(path);
  // As in the batch command, on this thread.
  small_session other;
  make_busy_recording(*other, 4, 100000, 41);
  for (std::int32_t c = 1; c <= 4; ++c) other->recording.chan_noise[c] = 7;
  recalculate_all_templates(*other);
  other->recording.recording_path = home.file("busy.tsf");
  ASSERT_TRUE(write_unit_report(*other, home.file("again.html")));
  EXPECT_EQ(read_bytes(home.file("again.html")), from_menu);
  // Cancelled, nothing is written and nothing said.
  w.told.clear();
  w.choose_entry("report");
  w.settle();
  EXPECT_TRUE(w.told.isEmpty());
}

}  // namespace
}  // namespace kestrelvane::test
