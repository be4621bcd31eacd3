// The settings table and the two settings files, byte by byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <limits>
#include <set>

#include "session/settings_files.h"
#include "session/settings_table.h"
#include "session/template_window.h"
#include "support/fixture_files.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// kv_parameters.sav as a new session writes it, field by field.
std::vector<char> default_parameters_file() {
  byte_sink f;
  f.i32(-1).i32(5);                                     // marker, open_dialog_format
  f.f32(50).f32(0.5).f32(0.5);                          // 3
  f.i32(10).i32(2).yes().i32(0).f32(80).f32(5);         // 6 noise, threshold
  f.f32(80).f32(0.25).i32(150).f32(0.5);                // 12 proto-events, lockout
  f.f32(-0.8).f32(0.8).i32(4).i32(2).i32(6);            // 16 window, method
  f.i32(10).i32(9);                                     // 21 alignment
  f.i32(500).f32(5).f32(5).i32(25).f32(1).f32(1);       // 23 gradient ascent
  f.f32(0.0005).f32(5).i32(8).i32(50);                  // 29
  f.yes().yes().no().yes().yes();                       // 33
  f.f32(0.15).f32(0.8).yes().no().no();                 // 38
  f.no().no().no().f32(2.5).i32(1).yes();               // 43
  f.i32(4).yes().i32(2).i32(150).f32(80).i32(2);        // 49
  f.no().f32(0.2).i32(50).f32(2).i32(1).i32(3).i32(3);  // 55
  f.i32(1);                                             // 62
  f.f32(1).f32(0.2).i32(20);                            // 63 voltage record
  f.no().yes().yes().no().no();                         // 66
  f.f32(0).f32(0).f32(0.1).f32(0.34).i32(10);           // 71
  f.i32(10).i32(6).i32(50).yes().no();                  // 76
  f.f32(0.2).f32(2).f32(250).f32(0.5);                  // 81
  f.yes().yes().f32(2.5).yes().f32(-1).f32(5);          // 85
  f.no().f32(1.5);                                      // 91
  f.yes().f32(100).f32(0.5).f32(1);                     // 93 sorted waveforms
  f.i32(1).i32(1).i32(100).i32(1);                      // 97
  f.yes().yes().yes().yes().yes();                      // 101
  f.yes().yes().f32(1000).f32(150);                     // 106
  f.no().f32(16).f32(0.15).f32(0.65).f32(1.6);          // 110 template pass
  f.f32(10).f32(110).f32(30).f32(0.75);                 // 115
  f.no().no().no().no();                                // 119 cleaning
  f.f32(1.5).f32(0.5).f32(0.1).f32(0.1).f32(0.9).f32(8).f32(4).i32(30);  // 123 quality
  f.no();                                                                // 131 movement
  return f.bytes;
}

std::vector<char> default_preferences_file(bool several_processors) {
  byte_sink f;
  f.f32(2.5).f32(2.5).f32(0.5).f32(150);
  for (int c : {0x2A22CD, 0xFF00, 0xD97A00, 0x5E348B, 0x9F3753, 0x158DED, 0x25EFEF, 0xFFB321,
                0x873490, 0xD5D5}) {
    f.i32(c);
  }
  f.yes().i32(several_processors ? -1 : 0).no().f32(5).f32(2.5).f32(150);
  for (int w : {400, 500, 400, 500, 350, 350, 510, 250, 400, 500}) f.i32(w);
  f.f32(100).zeros(48);
  f.f32(0.5).f32(2).f32(25);
  f.no().yes().i32(5).yes().i32(790).i32(600);
  f.no().yes().no().yes().no();
  f.i32(20).f32(0.2).f32(1).no().no();
  f.zeros(20);
  return f.bytes;
}

struct settings_test : testing::Test {
  temporary_directory home;
  small_session session;
  std::string parameters = home.file("kv_parameters.sav");
  std::string preferences = home.file("kv_prefs.sav");

  settings_test() { session->home_directory = home.path; }

  void read_changed(std::size_t field, std::int32_t word) {
    write_bytes(parameters, with_i32(default_parameters_file(), 4 * (field - 1), word));
    ASSERT_TRUE(read_parameters(*session));
  }
};

TEST_F(settings_test, new_session_writes_the_default_files) {
  ASSERT_TRUE(write_parameters(*session));
  ASSERT_TRUE(write_preferences(*session));
  EXPECT_EQ(default_parameters_file().size(), parameters_file_bytes);
  EXPECT_EQ(default_preferences_file(true).size(), preferences_file_bytes);
  EXPECT_EQ(read_bytes(parameters), default_parameters_file());
  EXPECT_EQ(read_bytes(preferences), default_preferences_file(session->n_cpus > 1));
}

TEST_F(settings_test, every_row_is_named_once_in_its_file_and_accepts_its_default) {
  for (setting_file file :
       {setting_file::parameters, setting_file::preferences, setting_file::extra}) {
    std::set<std::string> names;
    for (const setting_row& row : settings_of(file)) {
      if (row.reading == setting_reading::stored) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
      }
      if (row.address == nullptr || std::string_view(row.name) == "multi_threaded") continue;
      for (std::int32_t i = 0; i < row.count; ++i) {
        EXPECT_EQ(setting_value(*session, row, i),
                  row.type == setting_type::real
                      ? static_cast<double>(static_cast<float>(row.default_of(i)))
                      : row.default_of(i))
            << row.name;
        EXPECT_LE(row.low, row.default_of(i)) << row.name;
        EXPECT_GE(row.high, row.default_of(i)) << row.name;
      }
    }
  }
}

TEST_F(settings_test, values_come_back_from_both_files) {
  session->detection.lockout_radius_um = 321;
  session->strategy.gac_threshold = 9;
  session->preferences.correlogram_binwidths[2] = 7.5f;
  session->preferences.window_origin[11] = -44;
  session->preferences.pixels_per_msec = 99;
  session->display.vd_time_scale = 0.125f;
  session->preferences.verbose_log = true;
  ASSERT_TRUE(write_parameters(*session));
  ASSERT_TRUE(write_preferences(*session));
  const auto parameters_written = read_bytes(parameters);
  const auto preferences_written = read_bytes(preferences);

  small_session other;
  other->home_directory = home.path;
  ASSERT_TRUE(read_settings_files(*other));
  EXPECT_EQ(other->detection.lockout_radius_um, 321);
  EXPECT_EQ(other->preferences.window_origin[11], -44);
  EXPECT_EQ(other->preferences.pixels_per_msec, 99);
  ASSERT_TRUE(write_parameters(*other));
  ASSERT_TRUE(write_preferences(*other));
  EXPECT_EQ(read_bytes(parameters), parameters_written);
  EXPECT_EQ(read_bytes(preferences), preferences_written);
}

TEST_F(settings_test, parameters_are_read_at_start_only_when_sticky) {
  session->detection.window_samples = 11;
  session->preferences.sticky_parameters = false;
  ASSERT_TRUE(write_parameters(*session));
  ASSERT_TRUE(write_preferences(*session));
  small_session other;
  other->home_directory = home.path;
  EXPECT_TRUE(read_settings_files(*other));
  EXPECT_EQ(other->detection.window_samples, 6);
}

TEST_F(settings_test, three_values_are_put_right_after_reading) {
  const auto word = [](float v) { return std::bit_cast<std::int32_t>(v); };
  for (float bad : {0.00005f, 10.5f, -1.0f, std::nanf("")}) {
    read_changed(64, word(bad));
    EXPECT_EQ(session->display.vd_voltage_scale, 1.0f) << bad;
  }
  read_changed(64, word(0.0001f));
  EXPECT_EQ(session->display.vd_voltage_scale, 0.0001f);
  read_changed(60, -1);
  EXPECT_EQ(session->review.match_method, 3);
  session->detection.use_lockout = true;
  write_bytes(parameters, with_i32(with_i32(default_parameters_file(), 4 * 17, 5), 4 * 90, -1));
  ASSERT_TRUE(read_parameters(*session));
  EXPECT_EQ(session->detection.detection_method, 4);
  EXPECT_FALSE(session->detection.use_lockout);
}

TEST_F(settings_test, short_files_leave_the_rest_at_its_defaults) {
  auto bytes = with_i32(with_i32(default_parameters_file(), 4 * 5, 40), 4 * 31, 77);
  bytes.resize(4 * 31 + 3);  // up to three bytes of field 32
  write_bytes(parameters, bytes);
  ASSERT_TRUE(read_parameters(*session));
  EXPECT_EQ(session->detection.noise_window_secs, 40);
  EXPECT_EQ(session->strategy.min_cluster_size, 50);

  // The thread setting follows a complete preferences file alone.
  const auto prefs = default_preferences_file(true);
  session->multi_threaded_now = false;
  write_bytes(preferences, {prefs.begin(), prefs.end() - 21});
  ASSERT_TRUE(read_preferences(*session));
  EXPECT_FALSE(session->multi_threaded_now);
  EXPECT_TRUE(session->preferences.multi_threaded);
  write_bytes(preferences, prefs);
  ASSERT_TRUE(read_preferences(*session));
  EXPECT_TRUE(session->multi_threaded_now);
  session->multi_threaded_now = false;
  write_bytes(preferences, {prefs.begin(), prefs.end() - 20});
  ASSERT_TRUE(read_preferences(*session));
  EXPECT_TRUE(session->multi_threaded_now);
}

TEST_F(settings_test, no_file_and_no_home_change_nothing_and_say_nothing) {
  EXPECT_FALSE(read_settings_files(*session));
  session->home_directory.clear();
  EXPECT_FALSE(write_parameters(*session));
  EXPECT_FALSE(read_preferences(*session));
  EXPECT_TRUE(session.user.boxes.empty());
  EXPECT_TRUE(session.user.lines.empty());
}

TEST_F(settings_test, settings_that_cannot_be_saved_give_a_line_and_a_status) {
  session->home_directory = home.file("not there");
  std::string status;
  session.user.on_status = [&](const std::string& text) {
    status = text;
    errno = 0;  // a listener writes files itself
  };
  EXPECT_FALSE(write_preferences(*session));
  EXPECT_EQ(errno, ENOENT) << "for the caller's own words";
  EXPECT_EQ(status, "Failed to save file " + home.file("not there/kv_prefs.sav") +
                        ": No such file or directory");
  EXPECT_TRUE(session.user.logged("kv_prefs.sav: No such file or directory"));
  EXPECT_TRUE(session.user.boxes.empty());
  status.clear();
  EXPECT_FALSE(write_parameters(*session));
  EXPECT_THAT(status, testing::HasSubstr("kv_parameters.sav: No such file"));
}

TEST_F(settings_test, interpolation_table_follows_the_file) {
  read_changed(76, 20);
  EXPECT_EQ(session->tables.depth, 20);
}

TEST_F(settings_test, set_setting_takes_names_and_says_what_is_wrong) {
  struct {
    const char *name, *text, *problem;
  } const cases[] = {
      {"variable_multiplier", "4", ""},
      {"variable_multiplier", "4.5", ""},
      {"multi_threaded", "off", ""},
      {"coincidence_ms", "0.3", ""},
      {"window_size.4", "260", ""},
      {"channel_threshold_1", "1", ""},
      {"variable_multiplyer", "4", "There is no setting \"variable_multiplyer\""},
      {"marker", "4", "There is no setting \"marker\""},
      {"window_size.11", "260", "There is no setting \"window_size.11\""},
      {"window_size", "260", "window_size has 10 elements: name one, as window_size.1"},
      {"noise_method", "1.5", "\"1.5\" is no value for noise_method: it takes a whole number"},
      {"noise_method", "", "\"\" is no value for noise_method: it takes a whole number"},
      {"lockout_ms", "nan", "\"nan\" is no value for lockout_ms: it takes a number"},
      {"lockout_ms", "0.5 ms", "\"0.5 ms\" is no value for lockout_ms: it takes a number"},
      {"use_lockout", "maybe", "\"maybe\" is no value for use_lockout: it takes true or false"},
      {"pca_dimensions", "6", "pca_dimensions must be from 2 to 5"},
      {"gac_threshold", "1", "gac_threshold must be from 2 to 50"},
      {"interp_width", "1e300", "interp_width must be from 1 to 50"},
      {"interp_depth", "50", ""},
      {"interp_width", "21", "interp_depth times interp_width must not exceed 1000"},
      {"template_window_start_ms", "0.8",
       "template_window_start_ms must be below template_window_end_ms"},
  };
  for (const auto& c : cases) {
    std::string problem;
    EXPECT_EQ(set_setting(*session, c.name, c.text, problem), *c.problem == '\0') << c.name;
    EXPECT_EQ(problem, c.problem);
  }
  EXPECT_EQ(session->detection.variable_multiplier, 4.5f);
  EXPECT_EQ(session->detection.coincidence_ms, 0.3f);
  EXPECT_FALSE(session->preferences.multi_threaded);
  EXPECT_EQ(session->preferences.window_size[3], 260);
  EXPECT_EQ(session->strategy.interp_width, 6);
  EXPECT_EQ(session->strategy.template_window_start_ms, -0.8f);
  EXPECT_EQ(session->tables.depth, 50);
}

TEST_F(settings_test, a_file_s_numbers_are_taken_as_they_are_and_settled_before_a_run) {
  EXPECT_EQ(settle_settings(*session), 0);
  std::vector<char> bytes = default_parameters_file();
  for (std::size_t field = 2; field <= 109; ++field) bytes = with_i32(bytes, 4 * (field - 1), -7);
  write_bytes(parameters, bytes);
  ASSERT_TRUE(read_parameters(*session));
  EXPECT_EQ(session->strategy.pca_dimensions, -7);
  EXPECT_TRUE(std::isnan(session->strategy.gac_gain));
  EXPECT_GT(settle_settings(*session), 50);
  EXPECT_EQ(session->strategy.pca_dimensions, 2);
  EXPECT_EQ(session->strategy.gac_gain, 1.0f);
  EXPECT_EQ(session->tables.depth, 10);
  EXPECT_TRUE(session.user.logged("pca_dimensions = -7 is not possible, 2 is used"));
  EXPECT_EQ(session->display.vd_channel_spacing, 20);
  EXPECT_EQ(settle_settings(*session), 0);

  session->preferences.voltage_window_size[1] = 2'000'000'000;
  session->preferences.autorecover_minutes = -1;
  EXPECT_EQ(settle_settings(*session), 2);
  EXPECT_EQ(session->preferences.voltage_window_size[1], 600);

  session->strategy.interp_depth = session->strategy.interp_width = 50;
  session->strategy.template_window_start_ms = 0.9f;
  EXPECT_EQ(settle_settings(*session), 4);
  EXPECT_EQ(session->strategy.interp_width, 6);
  EXPECT_EQ(session->strategy.template_window_start_ms, -0.8f);
}

TEST_F(settings_test, texts_of_all_settings_read_back) {
  for (const setting_row& row : settings_table()) {
    if (row.address == nullptr || row.count > 1) continue;
    std::string problem;
    EXPECT_TRUE(set_setting(*session, row.name, setting_text(*session, row), problem)) << problem;
  }
  ASSERT_TRUE(write_parameters(*session));
  EXPECT_EQ(read_bytes(parameters), default_parameters_file());
}

TEST_F(settings_test, what_follows_from_a_setting_follows_every_change) {
  std::string problem;
  ASSERT_TRUE(set_setting(*session, "interp_depth", "8", problem));
  EXPECT_EQ(session->tables.depth, 8);
  EXPECT_FALSE(set_setting(*session, "interp_depth", "50", problem) &&
               set_setting(*session, "interp_width", "50", problem));
  EXPECT_EQ(session->tables.depth * session->tables.width,
            session->strategy.interp_depth * session->strategy.interp_width);
  ASSERT_TRUE(set_setting(*session, "interp_depth", "12", problem));
  ASSERT_TRUE(write_parameters(*session));
  set_default_strategy(*session);
  EXPECT_EQ(session->tables.depth, 10);
  ASSERT_TRUE(read_parameters(*session));
  EXPECT_EQ(session->tables.depth, 12);
  session->strategy.interp_depth = 99;
  EXPECT_EQ(settle_settings(*session), 1);
  EXPECT_EQ(session->tables.depth, 10);
}

TEST_F(settings_test, what_nothing_reads_comes_back_as_it_went) {
  std::string problem;
  ASSERT_TRUE(set_setting(*session, "merge_safe_limit", "0.625", problem));
  ASSERT_TRUE(set_setting(*session, "gac_option", "false", problem));
  ASSERT_TRUE(write_parameters(*session));
  set_default_strategy(*session);
  EXPECT_EQ(setting_text(*session, *find_setting("merge_safe_limit")), "0.625");
  set_display_defaults(*session);
  EXPECT_EQ(setting_text(*session, *find_setting("merge_safe_limit")), "0.8");
  ASSERT_TRUE(read_parameters(*session));
  EXPECT_EQ(setting_text(*session, *find_setting("merge_safe_limit")), "0.625");
  EXPECT_EQ(setting_text(*session, *find_setting("gac_option")), "false");
}

TEST_F(settings_test, restoring_defaults_leaves_other_groups_alone) {
  session->preferences.open_dialog_format = file_type_tsf;
  session->detection.window_samples = 9;
  session->strategy.min_cluster_size = 9;
  session->display.vd_channel_spacing = 9;
  session->preferences.vertical_axis_uv = 9;
  set_default_parameters(*session);
  EXPECT_EQ(session->detection.window_samples, 6);
  EXPECT_EQ(session->strategy.min_cluster_size, 9);
  set_default_strategy(*session);
  EXPECT_EQ(session->strategy.min_cluster_size, 50);
  EXPECT_EQ(session->preferences.vertical_axis_uv, 9);
  set_default_preferences(*session);
  EXPECT_EQ(session->preferences.vertical_axis_uv, 100);
  EXPECT_EQ(session->display.vd_channel_spacing, 9);
  EXPECT_EQ(session->preferences.open_dialog_format, file_type_tsf);
}

TEST_F(settings_test, a_window_that_no_integer_holds_is_settled) {
  session->recording.sampling_frequency = 25'000;
  for (const float wild : {std::numeric_limits<float>::quiet_NaN(), 2.8e28f, -1.0e38f}) {
    session->strategy.template_window_start_ms = wild;
    session->strategy.template_window_end_ms = wild;
    apply_settings(*session);
    EXPECT_GE(session->templates.template_points, 3) << wild;
    EXPECT_LE(session->templates.template_points, template_point_limit) << wild;
    EXPECT_EQ(settle_settings(*session), 2) << wild;
    EXPECT_EQ(window_first_sample(*session), -20);
    EXPECT_EQ(window_last_sample(*session), 20);
  }
}

}  // namespace
}  // namespace kestrelvane::test
