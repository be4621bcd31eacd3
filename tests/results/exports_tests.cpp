// Exports: exact bytes, times, refusals, and the sequence of "Save As".
#include "results/exports.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "support/full_device.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct export_test : ::testing::Test {
  small_session session;
  temporary_directory directory;

  export_test() {
    make_recording(*session, 3, 2000000);
    set_events({{25, 2, 3}, {1000001, 1, 12}, {50, 0, 1}, {1999999, 2, 1}});
    session->clusters.n_clusters = 2;
    session->recording.recording_path = "/data/small.tsf";
  }
  struct event {
    std::int32_t time, cluster, channel;
  };
  void set_events(const std::vector<event>& events) {
    event_table& t = session->events;
    t.n_events = 0;
    for (const event& e : events) {
      ++t.n_events;
      t.event_time[t.n_events] = e.time;
      t.event_cluster[t.n_events] = e.cluster;
      t.event_channel[t.n_events] = e.channel;
    }
  }
  std::string text_of(const std::string& name) {
    const std::vector<char> bytes = read_bytes(directory.file(name));
    return {bytes.begin(), bytes.end()};
  }
  bool exists(const std::string& name) { return std::filesystem::exists(directory.file(name)); }
};

// The recording, its samples beside a description, its configuration; a Plexon file of the
// recording's own type may be written anew.
TEST_F(export_test, a_file_of_the_recording_is_not_chosen_to_save_in) {
  const auto choose = [&](const std::string& name, bool may_rewrite = false) {
    session.user.chosen_path = directory.file(name);
    std::string path;
    return choose_file_to_save(*session, "Save", "*", path, may_rewrite);
  };
  for (const char* name : {"r.xml", "r.dat", "r.csv", "place.cfg"}) {
    write_bytes(directory.file(name), {'x'});
  }
  std::filesystem::create_symlink("r.dat", directory.file("link.wrk"));
  session->recording.recording_path = directory.file("r.xml");
  session->recording.config_path = directory.file("place.cfg");
  session->recording.no_config_file = false;
  for (const char* name : {"r.xml", "r.dat", "link.wrk", "place.cfg"}) {
    EXPECT_FALSE(choose(name)) << name;
    EXPECT_TRUE(choose(name, true)) << name;
    EXPECT_TRUE(session.user.told(
        directory.file(name) + " belongs to the recording and would be lost: choose another name",
        "Save"));
  }
  EXPECT_TRUE(choose("r.csv"));
  EXPECT_TRUE(choose("r.wrk"));
  EXPECT_FALSE(may_rewrite_recording(*session, *find_export_format("plx")));
  session->recording.file_type = file_type_plx;
  EXPECT_TRUE(may_rewrite_recording(*session, *find_export_format("plx")));
  EXPECT_FALSE(may_rewrite_recording(*session, *find_export_format("csv")));
}

TEST_F(export_test, csv_has_a_line_for_every_clustered_event) {
  // 1 / 25000 in single precision is a little less than 40 µs.
  ASSERT_TRUE(write_csv(*session, directory.file("a.csv")));
  EXPECT_EQ(text_of("a.csv"),
            "     0.00100,   2,   3\n"
            "    40.00004,   1,  12\n"
            "    79.99996,   2,   1\n");
  EXPECT_TRUE(session.user.told("CSV data saved"));
  const std::string lines = text_of("a.csv");
  session->review.export_csv_heading = true;
  ASSERT_TRUE(write_csv(*session, directory.file("a.csv")));
  EXPECT_EQ(text_of("a.csv"), "seconds,cluster,channel\n" + lines);
  // A fourth column where the user has labelled units.
  session->clusters.cluster_label[1] = unit_label::noise;
  ASSERT_TRUE(write_csv(*session, directory.file("a.csv")));
  EXPECT_EQ(text_of("a.csv"),
            "seconds,cluster,channel,label\n"
            "     0.00100,   2,   3,unsorted\n"
            "    40.00004,   1,  12,noise\n"
            "    79.99996,   2,   1,unsorted\n");
  session->clusters.cluster_label[1] = unit_label::unsorted;
  session->review.export_csv_heading = false;

  session->clusters.n_clusters = 0;
  set_events({{25, 0, 3}});
  ASSERT_TRUE(write_csv(*session, directory.file("none.csv")));
  EXPECT_EQ(text_of("none.csv"), "");

  EXPECT_FALSE(write_csv(*session, directory.file("absent/a.csv")));
  EXPECT_TRUE(session.user.told("Error exporting CSV format data " +
                                directory.file("absent/a.csv") + ": No such file or directory"));
}

TEST_F(export_test, numbers_too_wide_for_their_columns_are_stars) {
  session->recording.sampling_frequency = 1;
  set_events({{1000000, 10000, 1}});
  ASSERT_TRUE(write_csv(*session, directory.file("a.csv")));
  EXPECT_EQ(text_of("a.csv"), "************,****,   1\n");
}

TEST_F(export_test, every_unit_gets_a_text_file) {
  ASSERT_TRUE(write_unit_texts(*session, directory.file("u.txt")));
  EXPECT_EQ(text_of("u_1.txt"), "    40.00004\n");
  EXPECT_EQ(text_of("u_2.txt"), "     0.00100\n    79.99996\n");
  EXPECT_FALSE(exists("u_0.txt"));

  EXPECT_FALSE(write_unit_texts(*session, directory.file("absent/u.txt")));
  EXPECT_TRUE(session.user.told(
      "Error saving file " + directory.file("absent/u_1.txt") + ": No such file or directory",
      "Save TXT data"));

  session->clusters.n_clusters = 0;
  set_events({{25, 0, 3}});
  ASSERT_TRUE(write_unit_texts(*session, directory.file("none.txt")));
  EXPECT_FALSE(exists("none_1.txt"));
}

TEST_F(export_test, times_follow_the_kind_of_recording) {
  recording_store& r = session->recording;
  EXPECT_EQ(event_seconds(*session, 2), 1000001 * double{1.0f / 25000.0f});
  r.sampling_frequency_exact = 30000.5;
  EXPECT_EQ(event_seconds(*session, 2), 1000001 * (1.0 / 30000.5));

  // Event-based: the stamp of the record, in whole ms, after the start.
  r.sampling_frequency_exact = 0;
  r.is_continuous = false;
  r.samples_per_event = 32;
  r.first_timestamp = 123456789;
  r.electrode_type = electrode_polytrode;
  r.records_per_unit = 10;
  ASSERT_TRUE(r.event_timestamp.reserve(3 * 11));
  r.timestamp(2, 3) = 7654321;
  set_events({{100 + 64 + 5, 1, 3}});
  EXPECT_EQ(event_seconds(*session, 1), 7654 / 1000.0 + double{123456789.0f / 1e6f});
  session->preferences.treat_as_continuous = true;
  EXPECT_EQ(event_seconds(*session, 1), 169 * double{1.0f / 25000.0f});
}

TEST_F(export_test, times_that_are_places_are_said_to_be_so) {
  recording_store& r = session->recording;
  const auto n_warnings = [&](const char* name, const char* file) {
    session.user.boxes.clear();
    session.user.lines.clear();
    EXPECT_TRUE(
        export_sorted_spikes(*session, *find_export_format(name), directory.file(file), {}));
    const auto warns = [](const std::string& text) {
      return text.find("are not those of") != text.npos;
    };
    std::ptrdiff_t n = 0;
    for (const auto& box : session.user.boxes) n += warns(box.text);
    // In the log as in the box.
    EXPECT_EQ(std::count_if(session.user.lines.begin(), session.user.lines.end(), warns), n);
    return n;
  };
  session->templates.channels(1)[1] = session->templates.channels(2)[1] = 1;
  set_events({{150, 1, 1}, {280, 2, 2}});
  for (const char* name : {"evt", "ptcs", "plx", "csv", "nwb"}) EXPECT_EQ(n_warnings(name, "c"), 0);
  r.is_continuous = false;
  r.samples_per_event = 32;
  r.records_per_unit = 10;
  ASSERT_TRUE(r.event_timestamp.reserve(3 * 11));
  for (const char* name : {"evt", "ptcs", "plx"}) EXPECT_EQ(n_warnings(name, "c"), 1) << name;
  for (const char* name : {"csv", "txt", "nwb"}) EXPECT_EQ(n_warnings(name, "c"), 0) << name;
  session->preferences.treat_as_continuous = true;
  EXPECT_EQ(n_warnings("evt", "c"), 0);
}

TEST_F(export_test, comments_name_their_source) {
  session->clusters.cluster_comment[2].assign("bursts");
  ASSERT_TRUE(write_comments_file(*session, directory.file("c.txt")));
  EXPECT_EQ(text_of("c.txt"),
            "Comments on units sorted from data file: /data/small.tsf\n"
            "Exported by Kestrelvane 5.00 \n"
            "Unit 2\nbursts\n");
  session->recording.file_type = file_type_plx;
  session->recording.plx_path = "/data/p.plx";
  EXPECT_EQ(source_file_path(*session), "/data/p.plx");
}

TEST_F(export_test, formats_refuse_what_they_cannot_hold) {
  const auto possible = [this](const char* name) {
    return export_is_possible(*session, *find_export_format(name));
  };
  EXPECT_EQ(find_export_format("doc"), nullptr);
  EXPECT_GE(export_formats().size(), 9u);
  EXPECT_FALSE(possible("ntt"));
  EXPECT_TRUE(session.user.told("No Neuralynx data in memory", "Can't save data"));
  EXPECT_FALSE(possible("nev"));
  EXPECT_TRUE(session.user.told("No Blackrock .nev data in memory", "Can't save data"));
  EXPECT_TRUE(possible("plx"));
  EXPECT_TRUE(possible("tsf"));
  session->recording.is_continuous = false;
  EXPECT_FALSE(possible("tsf"));
  EXPECT_TRUE(
      session.user.told("TSF export not supported for  event based recording", "Can't save data"));
}

TEST_F(export_test, save_as_takes_its_steps_in_order) {
  // Two events of one cluster within the lockout time: one goes.
  set_events({{100, 1, 1}, {101, 1, 2}, {5000, 1, 1}});
  session->clusters.n_clusters = 1;
  const export_format& csv = *find_export_format("csv");
  const std::string path = directory.file("a.csv");
  EXPECT_TRUE(export_sorted_spikes(*session, csv, path, {}));
  EXPECT_EQ(read_bytes(path).size(), 3u * 23);
  EXPECT_FALSE(exists("a.wrk"));

  EXPECT_TRUE(export_sorted_spikes(*session, csv, path, {true, true, true}));
  EXPECT_EQ(read_bytes(path).size(), 2u * 23);
  EXPECT_TRUE(session.user.told("Saved work file " + directory.file("a.wrk"), "Export data"));
  EXPECT_TRUE(session.user.told("Saved comments file " + directory.file("a.txt"), "Export data"));
  EXPECT_TRUE(exists("a.wrk") && exists("a.txt"));

  // They are there now, and may hold what is wanted still.
  write_bytes(directory.file("a.wrk"), {'o', 'l', 'd'});
  EXPECT_TRUE(export_sorted_spikes(*session, csv, path, {false, true, false}));
  const std::string question = directory.file("a.wrk") + "\nReplace it?";
  EXPECT_TRUE(session.user.asked(question, "File already exists"));
  EXPECT_EQ(text_of("a.wrk"), "old");
  session.user.answers[question] = true;
  EXPECT_TRUE(export_sorted_spikes(*session, csv, path, {false, true, false}));
  EXPECT_GT(read_bytes(directory.file("a.wrk")).size(), 1000u);

  // Only a Plexon file is remembered as the recording's own, and only once it stands.
  session->recording.file_type = file_type_tsf;
  EXPECT_TRUE(session->recording.plx_path.empty());
  const export_format& plx = *find_export_format("plx");
  EXPECT_FALSE(export_sorted_spikes(*session, plx, directory.file("absent/a.plx"), {}));
  EXPECT_TRUE(session->recording.plx_path.empty());
  EXPECT_TRUE(export_sorted_spikes(*session, plx, directory.file("a.plx"), {}));
  EXPECT_EQ(session->recording.plx_path, directory.file("a.plx"));
}

TEST_F(export_test, a_full_device_costs_the_new_file_only) {
  const std::string path = directory.file("a.csv");
  ASSERT_TRUE(write_csv(*session, path));
  const std::string old = text_of("a.csv");
  set_events(std::vector<event>(100, {25, 1, 1}));
  {
    const full_device full;
    EXPECT_FALSE(write_csv(*session, path));
    EXPECT_FALSE(write_unit_texts(*session, directory.file("u.txt")));
  }
  EXPECT_EQ(text_of("a.csv"), old);
  EXPECT_FALSE(exists("u_1.txt"));
  // The first unit would have had room; a set is replaced as a whole.
  set_events({{25, 1, 1}, {30, 2, 1}});
  session->clusters.n_clusters = 2;
  ASSERT_TRUE(write_unit_texts(*session, directory.file("u.txt")));
  const std::string first = text_of("u_1.txt"), second = text_of("u_2.txt");
  std::vector<event> events(100, {26, 2, 1});
  events[0] = {35, 1, 1};
  set_events(events);
  {
    const full_device full;
    EXPECT_FALSE(write_unit_texts(*session, directory.file("u.txt")));
  }
  EXPECT_EQ(text_of("u_1.txt"), first);
  EXPECT_EQ(text_of("u_2.txt"), second);
  EXPECT_TRUE(session.user.told("Error exporting CSV format data " + path + ": File too large"));
}

TEST_F(export_test, units_of_an_earlier_export_go_and_files_of_others_stay) {
  session->clusters.n_clusters = 5;
  set_events({{25, 1, 1}, {30, 4, 1}, {1'000'000'000, 3, 1}});
  ASSERT_TRUE(write_unit_texts(*session, directory.file("u.txt")));
  ASSERT_TRUE(exists("u_5.txt"));
  std::ofstream(directory.file("u_6.txt")) << "notes on rat 6\n";
  std::ofstream(directory.file("u_7.txt")) << "     1.00000\n";
  session->clusters.n_clusters = 2;
  set_events({{26, 2, 1}});
  ASSERT_TRUE(write_unit_texts(*session, directory.file("u.txt")));
  EXPECT_EQ(text_of("u_1.txt"), "");
  EXPECT_EQ(text_of("u_2.txt"), "     0.00104\n");
  for (const char* gone : {"u_3.txt", "u_4.txt", "u_5.txt"}) EXPECT_FALSE(exists(gone)) << gone;
  EXPECT_EQ(text_of("u_6.txt"), "notes on rat 6\n");
  EXPECT_TRUE(exists("u_7.txt")) << "not of the same set";
  EXPECT_NE(session.user.all_lines().find("Removed " + directory.file("u_4.txt")),
            std::string::npos);
  for (const auto& entry : std::filesystem::directory_iterator(directory.path)) {
    EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
  }
}

TEST_F(export_test, the_dialog_follows_the_settings) {
  session->review.export_save_work_file = false;
  session.user.chosen_path = directory.file("chosen.csv");
  EXPECT_TRUE(export_sorted_spikes_dialog(*session, *find_export_format("csv"), false));
  EXPECT_TRUE(exists("chosen.csv"));
  EXPECT_FALSE(exists("chosen.wrk"));
  session.user.chosen_path.clear();
  EXPECT_FALSE(export_sorted_spikes_dialog(*session, *find_export_format("csv"), false));

  warn_of_incomplete_detection(*session);
  session->detector.detection_incomplete = true;
  const std::size_t boxes = session.user.boxes.size();
  warn_of_incomplete_detection(*session);
  ASSERT_EQ(session.user.boxes.size(), boxes + 1);
  EXPECT_EQ(session.user.boxes.back().text,
            "Event detection was probably incomplete due to memory limitations or was interrupted "
            "manually before completion.");
}

}  // namespace
}  // namespace kestrelvane::test
