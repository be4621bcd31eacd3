// Electrode configuration, channel masks, and the tables derived from positions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "recording/channel_masks.h"
#include "recording/electrode_config.h"
#include "recording/site_tables.h"
#include "session/settings_table.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<char> text(const std::string& s) { return {s.begin(), s.end()}; }

std::string contents(const std::string& path) {
  const std::vector<char> bytes = read_bytes(path);
  return {bytes.begin(), bytes.end()};
}

std::vector<std::int32_t> list_of(const std::int32_t* list) {
  return {list + 1, list + 1 + list[0]};
}

void place(session_state& session, const std::vector<std::pair<int, int>>& sites) {
  recording_store& r = session.recording;
  r.n_channels = static_cast<std::int32_t>(sites.size());
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    r.chan_x[c] = static_cast<std::int16_t>(sites[static_cast<std::size_t>(c - 1)].first);
    r.chan_y[c] = static_cast<std::int16_t>(sites[static_cast<std::size_t>(c - 1)].second);
  }
  build_site_tables(session);
  compute_site_pitch(session);
}

TEST(site_tables, distances_and_neighbours) {
  small_session session;
  const recording_store& r = session->recording;
  // Two columns, the rows of the right one lower by half a step.
  place(*session, {{0, 0}, {43, 25}, {0, 50}, {43, 75}, {0, 100}, {500, 500}});
  EXPECT_EQ(r.distance(1, 1), 0.0f);
  EXPECT_EQ(r.distance(1, 2), std::sqrt(43.0f * 43.0f + 25.0f * 25.0f));
  EXPECT_EQ(r.distance(2, 1), r.distance(1, 2));
  EXPECT_EQ(r.distance(5, 6), std::sqrt(500.0f * 500.0f + 400.0f * 400.0f));
  // Within 1.2 times the nearest (49.7 µm); site 6 is alone.
  EXPECT_THAT(list_of(r.neighbours(3)), ElementsAre(1, 2, 4, 5));
  EXPECT_THAT(list_of(r.neighbours(1)), ElementsAre(2, 3));
  EXPECT_THAT(list_of(r.neighbours(6)), IsEmpty());
  EXPECT_EQ(r.site_pitch, 25);
  EXPECT_EQ(r.site_x_max, 500);
  EXPECT_EQ(r.site_y_min, 0);
  // The default radius of 150 µm.
  EXPECT_THAT(list_of(r.lockout_neighbours(1)), ElementsAre(2, 3, 4, 5));
  // Whoever sets the radius changes the list.
  std::string problem;
  EXPECT_TRUE(set_setting(*session, "lockout_radius_um", "50", problem));
  EXPECT_THAT(list_of(r.lockout_neighbours(1)), ElementsAre(2, 3));
  set_default_parameters(*session);
  EXPECT_THAT(list_of(r.lockout_neighbours(1)), ElementsAre(2, 3, 4, 5));
}

TEST(site_tables, odd_layouts) {
  small_session session;
  const recording_store& r = session->recording;
  place(*session, {{7, -9}});
  EXPECT_EQ(r.distance(1, 1), 0.0f);
  EXPECT_EQ(r.site_pitch, 0);
  EXPECT_THAT(list_of(r.neighbours(1)), IsEmpty());
  EXPECT_EQ(r.site_y_max, -9);

  // Two sites at one place have a nearest distance of 0, which selects no one.
  place(*session, {{0, 0}, {0, 0}, {30, 0}});
  EXPECT_THAT(list_of(r.neighbours(1)), IsEmpty());
  EXPECT_THAT(list_of(r.neighbours(3)), ElementsAre(1, 2));
  EXPECT_THAT(list_of(r.lockout_neighbours(1)), ElementsAre(3));
  EXPECT_EQ(r.site_pitch, 100000);  // all level

  // 99 µm is near, 100 is not.
  place(*session, {{0, 0}, {0, 99}, {1000, 0}, {1000, 100}});
  EXPECT_THAT(list_of(r.neighbours(1)), ElementsAre(2));
  EXPECT_THAT(list_of(r.neighbours(3)), IsEmpty());

  // The far corners of 16-bit positions.
  place(*session, {{-32768, -32768}, {32767, 32767}});
  EXPECT_FLOAT_EQ(r.distance(1, 2), 65535.0f * std::sqrt(2.0f));
  EXPECT_EQ(r.site_pitch, 65535);
}

TEST(site_tables, utah_arrays_have_rules_of_their_own) {
  small_session session;
  const recording_store& r = session->recording;
  session->recording.electrode_type = electrode_utah_array;
  session->detection.lockout_radius_um = 2499;
  place(*session, {{0, 0}, {50, 0}, {240, 0}, {400, 0}});
  EXPECT_THAT(list_of(r.neighbours(1)), ElementsAre(2, 3));
  EXPECT_THAT(list_of(r.lockout_neighbours(1)), IsEmpty());
  store_setting(*session, *find_setting("lockout_radius_um"), 0, 2500);
  EXPECT_THAT(list_of(r.lockout_neighbours(1)), ElementsAre(1, 2, 3, 4));
}

TEST(site_tables, display_order_follows_the_scan_angle) {
  small_session session;
  recording_store& r = session->recording;
  place(*session, {{50, 60}, {0, 40}, {50, 20}, {0, 0}, {50, 60}});
  const auto order = [&] {
    return std::vector<std::int32_t>(r.chan_sort_order.first(), r.chan_sort_order.first() + 5);
  };
  sort_channels(*session, 1.0f);
  EXPECT_THAT(order(), ElementsAre(4, 2, 3, 1, 5));
  sort_channels(*session, 90.0f);
  EXPECT_THAT(order(), ElementsAre(4, 3, 2, 1, 5));
  sort_channels(*session, 180.0f);
  EXPECT_EQ(order().front(), 1);
  order_channels_linearly(*session);
  EXPECT_THAT(order(), ElementsAre(1, 2, 3, 4, 5));
}

struct config_test : testing::Test {
  temporary_directory folder;
  small_session session;
  scripted_interface& user = session.user;
  std::string recording = folder.file("rec.plx");
  std::string config = folder.file("rec.cfg");
  std::int32_t n_mapped = 0;

  bool read(const std::string& s) {
    write_bytes(config, text(s));
    user.lines.clear();
    return read_config_file(*session, config, n_mapped, true);
  }
};

TEST_F(config_test, reads_names_maps_and_positions) {
  ASSERT_TRUE(
      read("Polytrode 54 channels\r\n"
           "0 2 -28.9, 65\n"
           "   \n"
           "  file  channel  x  y\n"
           "7,1,+28.5\t1300.99 and a remark\r\n"
           "4096 3 0 -5"));
  const recording_store& r = session->recording;
  EXPECT_EQ(n_mapped, 3);
  EXPECT_EQ(r.electrode_name, "Polytrode");
  EXPECT_EQ(r.channel_map[0], 2);
  EXPECT_EQ(r.channel_map[7], 1);
  EXPECT_EQ(r.channel_map[4096], 3);
  EXPECT_EQ(r.channel_map[1], 0);
  EXPECT_EQ(r.chan_x[2], -28);  // truncated, not rounded
  EXPECT_EQ(r.chan_y[1], 1300);
  EXPECT_FALSE(r.no_config_file);
  EXPECT_TRUE(r.show_config_in_title);
  EXPECT_EQ(r.config_path, config);
  EXPECT_TRUE(user.logged("Reading channel configuration file rec.cfg"));
}

TEST_F(config_test, refuses_maps_that_are_no_map) {
  const std::pair<const char*, const char*> cases[] = {
      {"n\n1 1 0 0\n2 1 0 50\n",
       "   mapping error for channel 1; there are 2 mapped channels in file"},
      {"n\n1 1 0 0\n2 3 0 50\n",
       "   mapping error for channel 2; there are 2 mapped channels in file"},
      {"n\n1 1 0\n", "   bad line in config file: 1 1 0"},
      {"n\n1 0.9 0 0\n", "   bad line in config file: 1 0.9 0 0"},
      {"n\n1 4097 0 0\n", "   bad line in config file: 1 4097 0 0"},
      {"n\n4097 1 0 0\n", "   bad line in config file: 4097 1 0 0"},
      {"n\n-1 1 0 0\n", "   bad line in config file: -1 1 0 0"},
      {"n\n1 1 32768 0\n", "   bad line in config file: 1 1 32768 0"},
      {"n\n1 1 0 -1e300\n", "   bad line in config file: 1 1 0 -1e300"},
      {"n\n1 1 nan 0\n", "   bad line in config file: 1 1 nan 0"},
      {"name alone", "Channel map error in config file"},
      {"", "Channel map error in config file"},
  };
  for (const auto& [bytes, words] : cases) {
    EXPECT_FALSE(read(bytes)) << bytes;
    EXPECT_TRUE(user.logged(words)) << words << "\n" << user.all_lines();
    EXPECT_TRUE(user.logged("Channel map error in config file"));
    EXPECT_TRUE(session->recording.no_config_file);
  }
  EXPECT_FALSE(read_config_file(*session, folder.file("none.cfg"), n_mapped, true));
  EXPECT_TRUE(user.logged("Error opening config file " + folder.file("none.cfg")));
}

TEST_F(config_test, looks_for_the_recordings_own_file_first) {
  std::string found;
  EXPECT_FALSE(find_config_file(*session, {recording}, found));
  EXPECT_TRUE(
      user.asked("Cannot find a default electrode configuration file: choose a specific one?",
                 "Looking for file"));
  user.default_answer = true;
  EXPECT_FALSE(find_config_file(*session, {recording}, found));  // the dialog is cancelled
  user.chosen_path = folder.file("chosen.cfg");
  EXPECT_TRUE(find_config_file(*session, {recording}, found));
  EXPECT_EQ(found, folder.file("chosen.cfg"));
  write_bytes(folder.file("electrode.cfg"), {});
  EXPECT_TRUE(find_config_file(*session, {recording}, found));
  EXPECT_EQ(found, folder.file("electrode.cfg"));
  write_bytes(config, {});
  EXPECT_TRUE(find_config_file(*session, {recording}, found));
  EXPECT_EQ(found, config);
  EXPECT_TRUE(find_config_file(*session, {.path = recording, .configuration = "named"}, found));
  EXPECT_EQ(found, "named");
}

TEST_F(config_test, writes_what_it_reads) {
  session->recording.recording_path = recording;
  ASSERT_TRUE(read("Probe A\n9 1 -20 0\n4 2 20 -65\n"));
  session->recording.n_channels = 2;
  ASSERT_TRUE(write_config_file(*session));
  EXPECT_TRUE(user.logged("Saving configuration file"));
  EXPECT_EQ(contents(config), "Probe A\n    4     2     20    -65\n    9     1    -20      0\n");
  small_session other;
  ASSERT_TRUE(read_config_file(*other, config, n_mapped, false));
  EXPECT_EQ(other->recording.channel_map[9], 1);
  EXPECT_EQ(other->recording.chan_y[2], -65);
  // Without a map, channel for channel.
  reset_session(*other);
  place(*other, {{0, 5}, {1, 6}});
  other->recording.recording_path = recording;
  ASSERT_TRUE(write_config_file(*other));
  EXPECT_EQ(contents(config), "\n    1     1      0      5\n    2     2      1      6\n");
}

TEST_F(config_test, masks_go_to_a_file_and_come_back) {
  const std::string masks = folder.file("rec.msk");
  make_recording(*session, 3, 10);
  recording_store& r = session->recording;
  r.recording_path = recording;
  r.chan_mask[2] = true;
  EXPECT_FALSE(write_mask_file(*session));
  EXPECT_TRUE(user.asked("Save/replace mask file (.msk)?", "Channel masks have changed"));
  user.default_answer = true;
  ASSERT_TRUE(write_mask_file(*session));
  EXPECT_EQ(contents(masks), "     1F\n     2T\n     3F\n");

  r.chan_mask.clear();
  r.chan_mask[1] = r.chan_mask[4000] = true;
  user.default_answer = false;
  read_mask_file(*session);
  EXPECT_TRUE(user.asked("Read associated mask file (.msk)?", "Channel mask file exists"));
  EXPECT_TRUE(r.chan_mask[1]);
  user.default_answer = true;
  read_mask_file(*session);
  EXPECT_FALSE(r.chan_mask[1]);
  EXPECT_TRUE(r.chan_mask[2]);
  EXPECT_FALSE(r.chan_mask[4000]);

  // Lines short of a mask, or missing, mask nothing; what is beyond the channels is idle.
  for (const char* damaged : {"", "     1T", "     1T\n\nT\n", "     1T\n2\n     3F\n     4T\n"}) {
    write_bytes(masks, text(damaged));
    read_mask_file(*session);
    EXPECT_EQ(r.chan_mask[1], *damaged != '\0') << damaged;
    EXPECT_FALSE(r.chan_mask[2]);
    EXPECT_FALSE(r.chan_mask[3]);
    EXPECT_FALSE(r.chan_mask[4]);
  }
}

TEST_F(config_test, no_mask_file_no_question) {
  make_recording(*session, 3, 10);
  session->recording.recording_path = recording;
  read_mask_file(*session);
  EXPECT_TRUE(user.questions.empty());
}

}  // namespace
}  // namespace kestrelvane::test
