// Units as NWB: the structure of the file, its values, and writing over another.
#include "results/nwb_units.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "recording/formats/hdf/hdf_text.h"
#include "recording/formats/hdf/hdf_walk.h"
#include "results/exports.h"
#include "support/full_device.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct nwb_units_test : testing::Test {
  small_session session;
  temporary_directory directory;
  const std::string path = directory.file("units.nwb");

  nwb_units_test() {
    recording_store& r = session->recording;
    make_recording(*session, 3, 25000, 25000, 0.5f);
    session->recording.recording_path = "/data/small.tsf";
    r.electrode_name = "Probe";
    r.record_date[0] = 2024;
    r.record_date[1] = 3;
    r.record_date[2] = 5;
    r.record_time[2] = 14;
    session->clusters.n_clusters = 3;
    session->clusters.cluster_signed_off[1] = true;
    session->clusters.cluster_comment[3].assign("bursts");
    event_table& e = session->events;
    const std::int32_t times[] = {20001, 1, 12501, 300, 5001};
    const std::int32_t clusters[] = {1, 1, 3, 0, 1};  // unit 2 has none
    for (std::int32_t i = 1; i <= 5; ++i) {
      e.event_time[i] = times[i - 1];
      e.event_cluster[i] = clusters[i - 1];
      e.event_channel[i] = 1;
    }
    e.n_events = 5;
    session->lists.n_kv_pairs = 0;
    template_table& t = session->templates;
    t.template_points = 4;
    for (std::int32_t c = 1; c <= 3; ++c) {
      t.template_n_channels[c] = 1;
      t.channels(c)[1] = 4 - c;
      for (int p = 1; p <= 4; ++p) {
        t.mean(c, 4 - c)[p] = static_cast<float>(100 * c + p);
        t.sd(c, 4 - c)[p] = static_cast<float>(p);
      }
    }
  }

  // Every object with its type, size and attributes; values for all but the identities and
  // times of this run.
  std::string structure() {
    hdf_file in;
    EXPECT_EQ(open_hdf_file(in, path), hdf_error::none);
    std::string told = describe(in, "/", "group");
    for (const hdf_entry& entry : list_hdf_tree(in, hdf_tree_extent::all)) {
      if (entry.type == "link") continue;
      told += describe(in, entry.place, entry.type + " " + entry.dimensions);
    }
    return told;
  }
  std::string describe(hdf_file& in, const std::string& place, const std::string& what) {
    hdf_page page;
    EXPECT_TRUE(make_hdf_page(in, place, page)) << place;
    std::string told = place + " " + what + "\n";
    for (const hdf_attribute& a : page.attributes) {
      std::string value = " = " + a.value;
      if (a.name == "object_id") value.clear();
      if (a.name == "target" || a.name == "table") value = " -> " + target_of(in, place, a.name);
      told += "  " + a.name + value + "\n";
    }
    return told;
  }
  // The place that a reference points to.
  static std::string target_of(hdf_file& in, const std::string& place, const std::string& name) {
    const hdf_id object = open_hdf_object(in, place);
    const hdf_id attribute(H5Aopen(object, name.c_str(), H5P_DEFAULT));
    hobj_ref_t reference{};
    EXPECT_GE(H5Aread(attribute, H5T_STD_REF_OBJ, &reference), 0);
    char text[200] = "";
    EXPECT_GT(H5Rget_name(object, H5R_OBJECT, &reference, text, sizeof text), 0);
    return text;
  }
  std::string values(const char* place) {
    hdf_file in;
    EXPECT_EQ(open_hdf_file(in, path), hdf_error::none);
    hdf_page page;
    EXPECT_TRUE(make_hdf_page(in, place, page)) << place;
    return page.values;
  }
};

TEST_F(nwb_units_test, the_file_has_this_structure) {
  ASSERT_TRUE(write_nwb_units(*session, path));
  EXPECT_TRUE(session.user.told("NWB units saved", "Save sorted spikes"));
  EXPECT_TRUE(partial_files(path).empty());
  const std::vector<char> golden =
      read_bytes(std::string(KESTRELVANE_SOURCE_DIR) + "/tests/results/nwb_units_structure.txt");
  EXPECT_EQ(structure(), std::string(golden.begin(), golden.end()));
}

TEST_F(nwb_units_test, values_are_those_of_the_sort) {
  session->clusters.cluster_label[3] = unit_label::good;
  ASSERT_TRUE(write_nwb_units(*session, path));
  EXPECT_EQ(values("/units/id"), "1, 2, 3");
  EXPECT_EQ(values("/units/spike_times"), "0, 0.2, 0.8, 0.5");
  EXPECT_EQ(values("/units/spike_times_index"), "3, 3, 4");
  EXPECT_EQ(values("/units/obs_intervals"), "0, 1\n0, 1\n0, 1");
  EXPECT_EQ(values("/units/obs_intervals_index"), "1, 2, 3");
  EXPECT_EQ(values("/units/electrodes"), "2, 1, 0");
  EXPECT_THAT(values("/units/waveform_mean"),
              testing::StartsWith("5.05e-05, 5.1e-05, 5.15e-05, 5.2e-05\n0.0001005"));
  EXPECT_THAT(values("/units/waveform_sd"), testing::StartsWith("5e-07, 1e-06, 1.5e-06, 2e-06\n"));
  EXPECT_EQ(values("/units/n_spikes"), "3, 0, 1");
  EXPECT_EQ(values("/units/presence_ratio"), "0.3, 0, 0.1");
  EXPECT_EQ(values("/units/signed_off"), "TRUE, FALSE, FALSE");
  EXPECT_EQ(values("/units/comment"), ", , bursts");
  EXPECT_EQ(values("/units/label"), "unsorted, unsorted, good");
  EXPECT_EQ(values("/general/extracellular_ephys/electrodes/rel_y"), "0, 40, 80");
  EXPECT_THAT(values("/session_start_time"), testing::StartsWith("2024-03-05T14:00:00"));
  EXPECT_THAT(values("/session_description"), testing::StartsWith("Units sorted from small.tsf"));
}

TEST_F(nwb_units_test, identities_differ) {
  ASSERT_TRUE(write_nwb_units(*session, path));
  hdf_file in;
  ASSERT_EQ(open_hdf_file(in, path), hdf_error::none);
  std::set<std::string> identities;
  int n = 0;
  for (const hdf_entry& entry : list_hdf_tree(in)) {
    if (entry.type == "link") continue;
    const std::string identity = read_hdf_text(in, entry.place, "object_id");
    if (identity.empty()) continue;
    ++n;
    identities.insert(identity);
    EXPECT_THAT(identity,
                testing::MatchesRegex(
                    "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  }
  EXPECT_EQ(identities.size(), static_cast<std::size_t>(n));
  EXPECT_GT(n, 20);
}

TEST_F(nwb_units_test, stored_records_have_the_time_of_the_file) {
  recording_store& r = session->recording;
  r.is_continuous = false;
  r.samples_per_event = 32;
  r.records_per_unit = 400;
  r.duration_mins = 1;
  r.first_timestamp = 123'456'789;
  ASSERT_TRUE(r.event_timestamp.reserve(3 * 401));
  // Record (t - 100) / 64 + 1 holds time index t.
  r.timestamp(311, 1) = 654'321;
  r.timestamp(194, 1) = 7;
  session->events.event_time[2] = 101;
  ASSERT_TRUE(write_nwb_units(*session, path));
  EXPECT_EQ(values("/units/spike_times"), "123.456789, 123.456789, 124.11111, 123.456796");
  EXPECT_THAT(values("/units/obs_intervals"), testing::StartsWith("123.456789, 183.45678"));
  EXPECT_THAT(structure(), testing::HasSubstr("resolution = 1e-06"));
}

TEST_F(nwb_units_test, many_spikes_take_a_wider_index) {
  event_table& e = session->events;
  for (std::int32_t i = 1; i <= 300; ++i) {
    e.event_time[i] = 25000 - 80 * i;
    e.event_cluster[i] = 2;
    e.event_channel[i] = 1;
  }
  e.n_events = 300;
  ASSERT_TRUE(write_nwb_units(*session, path));
  EXPECT_EQ(values("/units/spike_times_index"), "0, 300, 300");
  EXPECT_THAT(values("/units/spike_times"), testing::StartsWith("0.03996, 0.04316"));
}

TEST_F(nwb_units_test, a_sort_without_units_is_a_file_too) {
  session->clusters.n_clusters = 0;
  session->recording.record_date[0] = 0;
  ASSERT_TRUE(write_nwb_units(*session, path));
  EXPECT_EQ(values("/units/spike_times"), "");
  EXPECT_EQ(values("/session_start_time"), "1970-01-01T00:00:00+00:00");
}

TEST_F(nwb_units_test, a_failure_leaves_the_file_before) {
  const std::vector<char> before(2000, 'x');
  write_bytes(path, before);
  {
    const full_device none_left;
    EXPECT_FALSE(write_nwb_units(*session, path));
  }
  EXPECT_TRUE(session.user.told("Error saving NWB units " + path + ": File too large",
                                "Save sorted spikes"));
  EXPECT_EQ(read_bytes(path), before);
  EXPECT_FALSE(write_nwb_units(*session, directory.file("absent/units.nwb")));
  // And the library still works.
  EXPECT_TRUE(write_nwb_units(*session, path));
  EXPECT_EQ(values("/units/id"), "1, 2, 3");
}

TEST_F(nwb_units_test, it_is_a_row_of_the_exports) {
  const export_format* format = find_export_format("nwb");
  ASSERT_NE(format, nullptr);
  EXPECT_STREQ(format->label, "NWB units (.nwb)");
  EXPECT_TRUE(export_sorted_spikes(*session, *format, path, {}));
  EXPECT_TRUE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace kestrelvane::test
