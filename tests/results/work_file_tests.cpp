// The work file: layout, round trip, older versions, and what reading puts right.
#include "results/work_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "clustering/membership.h"
#include "files/safe_file.h"
#include "session/settings_table.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

namespace kestrelvane::test {
namespace {

// A session with a recording, and a directory for the file.
// What no record has a field for.
double carried(const session_state& session, const char* name) {
  return setting_value(session, *find_setting(name));
}

struct work_file_test : ::testing::Test {
  small_session session;
  temporary_directory directory;
  std::string path = directory.file("a.wrk");
  bool wrong_file = false;

  work_file_test() {
    make_recording(*session, 3, 10000);
    session->recording.file_type = file_type_tsf;
  }

  bool read(const std::vector<char>& bytes) {
    write_bytes(path, bytes);
    return read_work_file(*session, path, wrong_file);
  }
  bool read(const work_file_content& content) { return read(make_work_file(content).bytes); }
  std::vector<char> written() {
    const std::string again = directory.file("again.wrk");
    EXPECT_TRUE(write_work_file(*session, again));
    return read_bytes(again);
  }
};

// The file with its run log cut out, which belongs to the running program.
std::vector<char> without_log(std::vector<char> bytes, std::size_t count_at) {
  std::int32_t n = 0;
  std::memcpy(&n, bytes.data() + count_at, 4);
  const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(count_at);
  bytes.erase(first, first + 4 + 256 * n);
  return bytes;
}

// Name of the field that holds the first byte in which two files differ; "" for none.
std::string first_difference(const std::vector<char>& a, const std::vector<char>& b,
                             const work_file_bytes& layout) {
  if (a == b) return {};
  const auto [in_a, in_b] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  const auto at = static_cast<std::size_t>(in_a - a.begin());
  std::string name;
  for (const work_file_field& field : layout.fields) {
    if (field.offset <= at) name = field.name;
  }
  return name + " at byte " + std::to_string(at);
}

TEST_F(work_file_test, every_field_stands_at_its_place) {
  const work_file_bytes file = make_work_file({});
  EXPECT_EQ(file.at("n_events"), 24u + 4 * 256 + 4);
  EXPECT_EQ(file.at("chan_mask"), 1052u + 12 + 4 * 4 * 7);
  ASSERT_TRUE(read(file.bytes)) << session.user.all_lines();
  EXPECT_EQ(check_session(*session), "");
  const std::size_t log = file.at("n_log_lines");
  EXPECT_EQ(first_difference(without_log(written(), log), without_log(file.bytes, log), file), "");

  // Without log lines between, the whole file comes back.
  session->log.n_log_lines = 0;
  const std::vector<char> first = written();
  ASSERT_TRUE(read(first));
  session->log.n_log_lines = 0;
  EXPECT_EQ(first_difference(written(), first, file), "");
}

TEST_F(work_file_test, values_reach_the_fields_they_belong_to) {
  ASSERT_TRUE(read(work_file_content{}));
  session_state& s = *session;
  EXPECT_EQ(s.recording.xml_path, "/data/x.xml");
  EXPECT_EQ(s.recording.plx_path, "/data/p.plx");
  EXPECT_EQ(s.recording.srf_path, "/data/s.srf");
  EXPECT_EQ(s.events.n_events, 7);
  EXPECT_EQ(s.events.event_time[3], 300);
  EXPECT_EQ(s.events.event_channel[6], 3);
  EXPECT_EQ(s.events.event_cluster[7], 2);
  EXPECT_EQ(s.events.event_shift[3], -0.5f);
  EXPECT_EQ(s.events.event_detected_time[3], 299);
  EXPECT_EQ(s.recording.chan_noise[2], 12.5f);
  EXPECT_EQ(s.clusters.n_clusters, 3);
  EXPECT_EQ(s.clusters.current_cluster, 2);
  EXPECT_EQ(s.current_channel, 3);
  EXPECT_EQ(s.clusters.cluster_spare[2], 12);
  EXPECT_EQ(s.clusters.cluster_reserved[2], 22);
  EXPECT_EQ(s.clusters.cluster_sigma[3], 33);
  EXPECT_EQ(s.clusters.history_a[151], 1150);
  EXPECT_EQ(s.clusters.history_d[150], 4149);
  EXPECT_EQ(s.clusters.cluster_comment[1].view(), "a fine unit");
  EXPECT_TRUE(s.clusters.cluster_comment[2].is_blank());
  EXPECT_EQ(s.templates.template_points, 5);
  EXPECT_EQ(s.templates.mean(2, 3)[4], fixture_mean(2, 3, 4));
  EXPECT_EQ(s.templates.sd(3, 1)[5], fixture_sd(3, 1, 5));
  EXPECT_EQ(s.templates.template_n_channels[1], 3);
  EXPECT_EQ(s.templates.channels(1)[2], 1);
  EXPECT_EQ(s.templates.template_x[2], 22);
  EXPECT_EQ(s.templates.template_y[2], 32);
  EXPECT_EQ(s.templates.template_z[3], 50);
  EXPECT_EQ(s.lists.n_kv_pairs, 3);
  EXPECT_EQ(s.lists.kv_template_correlation[3], 0.375f);
  EXPECT_EQ(s.lists.kv_cluster_overlap[3], 0.1875f);
  EXPECT_EQ(s.lists.rms_template_shift[3], 1.5f);
  EXPECT_EQ(s.lists.kv_n_shift_template[3], 3);
  EXPECT_TRUE(s.lists.kv_user_distinct[1] && s.lists.kv_user_ambiguous[3]);
  EXPECT_TRUE(s.lists.kv_templates_dont_overlap[2]);
  EXPECT_EQ(s.filter_history.n_entries, 2);
  EXPECT_EQ(s.filter_history.code[2], -5);
  EXPECT_EQ(s.filter_history.param2[2], 8.0f);
  EXPECT_TRUE(s.recording.recording_filtered);
}

TEST_F(work_file_test, settings_reach_the_fields_they_belong_to) {
  ASSERT_TRUE(read(work_file_content{}));
  const detection_settings& d = session->detection;
  const sorting_strategy_settings& s = session->strategy;
  const review_settings& r = session->review;
  const std::vector<std::pair<const char*, double>> stored{
      {"smooth_radius_um", session->filter.smooth_radius_um},
      {"bw_f0_khz_previous", session->filter.bw_f0_khz_previous},
      {"noise_window_secs", d.noise_window_secs},
      {"noise_method", d.noise_method},
      {"pe_sigma_um", d.pe_sigma_um},
      {"threshold_mode", d.threshold_mode},
      {"fixed_threshold_uv", d.fixed_threshold_uv},
      {"variable_multiplier", d.variable_multiplier},
      {"lockout_radius_um", d.lockout_radius_um},
      {"detection_method", d.detection_method},
      {"template_window_end_ms", 0.08},
      {"window_samples", d.window_samples},
      {"lockout_ms", d.lockout_ms},
      {"max_event_pp_uv", d.max_event_pp_uv},
      {"realign_window_ms", s.realign_window_ms},
      {"align_feature", d.align_feature},
      {"event_align_mode", s.event_align_mode},
      {"template_align_mode", s.template_align_mode},
      {"mask_noise_below_uv", d.mask_noise_below_uv},
      {"pca_dimensions", s.pca_dimensions},
      {"gac_gain", s.gac_gain},
      {"view_split_sigma", r.view_split_sigma},
      {"gac_start_sigma", s.gac_start_sigma},
      {"gac_max_iterations", s.gac_max_iterations},
      {"gac_merge_radius", s.gac_merge_radius},
      {"gac_stop_step", s.gac_stop_step},
      {"gac_stall_limit", s.gac_stall_limit},
      {"pc_point_selection", s.pc_point_selection},
      {"pc_point_limit", s.pc_point_limit},
      {"min_cluster_size", s.min_cluster_size},
      {"gac_threshold", s.gac_threshold},
      {"gac_size_tolerance", s.gac_size_tolerance},
      {"overlap_threshold", s.overlap_threshold},
      {"merge_safe_limit", carried(*session, "merge_safe_limit")},
      {"pair_parameter_2", carried(*session, "pair_parameter_2")},
      {"recluster_limit", s.recluster_limit},
      {"clean_threshold", r.clean_threshold},
      {"channel_threshold_1", s.channel_threshold_1},
      {"channel_threshold_2", s.channel_threshold_2},
      {"channel_radius", s.channel_radius},
      {"match_method", r.match_method},
      {"relocate_sd_factor", r.relocate_sd_factor},
      {"status_parameter_1", carried(*session, "status_parameter_1")},
      {"correlation_threshold", s.correlation_threshold},
      {"status_parameter_2", carried(*session, "status_parameter_2")},
  };
  for (const auto& [name, value] : stored) EXPECT_EQ(value, fixture_scalar(name)) << name;
  EXPECT_TRUE(d.use_lockout && s.force_one_cluster_per_tetrode && session->lists.template_shift_on);
  EXPECT_FALSE(d.noise_static || d.register_to_cog || d.delete_large_events ||
               s.multiplicative_matching || s.keep_largest_final_subcluster || s.split_obvious ||
               s.gac_subsample || s.equal_numbers_for_overlap || r.export_remove_duplicates ||
               r.export_save_work_file);
  for (const char* flag : {"gac_flag", "session_flag", "status_flag"}) {
    EXPECT_EQ(carried(*session, flag), 1) << flag;
  }
  EXPECT_EQ(carried(*session, "gac_option"), 0);
  EXPECT_EQ(session->display.pc_view_range[2], 3.5f);
  // Derived tables follow the settings.
  EXPECT_EQ(session->tables.depth, 8);
  EXPECT_EQ(session->tables.width, 5);
}

// A run leaves the settings alone; the file says how its events and clusters were made.
TEST_F(work_file_test, what_a_run_did_otherwise_is_told) {
  session->detection.use_lockout = false;
  session->detector.repeated_with_lockout = true;
  session->strategy.split_obvious = false;
  session->autosort.split_obvious = true;
  ASSERT_TRUE(write_work_file(*session, path));
  EXPECT_FALSE(session->detection.use_lockout);
  ASSERT_TRUE(read_work_file(*session, path, wrong_file));
  EXPECT_TRUE(session->detection.use_lockout);
  EXPECT_FALSE(session->detector.repeated_with_lockout);
  EXPECT_TRUE(session->strategy.split_obvious);
  EXPECT_FALSE(session->autosort.split_obvious);
}

TEST_F(work_file_test, an_empty_session_ends_after_the_filter_history) {
  const std::vector<char> first = written();
  ASSERT_TRUE(read(first)) << session.user.all_lines();
  // No log lines existed when the first was written; 4 bytes of count follow the rows.
  work_file_content empty;
  empty.event_time.clear();
  empty.event_channel = empty.event_cluster = empty.event_detected_time = empty.event_time;
  empty.event_shift.clear();
  empty.n_clusters = 0;
  empty.template_channels.clear();
  empty.log_lines.clear();
  empty.n_filters = 0;
  empty.comments.clear();
  EXPECT_EQ(first.size(), make_work_file(empty).bytes.size());
}

// Channel lists longer than their count, as an earlier owner of the slot leaves them,
// must not reach the file.
TEST_F(work_file_test, what_lies_beyond_a_count_is_not_written) {
  ASSERT_TRUE(read(work_file_content{}));
  const std::vector<char> clean = written();
  session->templates.channels(2)[2] = 99;
  session->templates.mean(1, 1)[6] = 5.0f;
  session->events.event_time[8] = 12;
  EXPECT_EQ(written(), clean);
}

TEST_F(work_file_test, proposals_go_with_the_sort_and_with_no_other) {
  ASSERT_TRUE(read(work_file_content{}));
  const std::vector<char> clean = written();
  cluster_table& c = session->clusters;
  ASSERT_GE(c.n_clusters, 3);
  c.proposal_reasons = {"its other cluster is gone", "in turn, similarity 0.85"};
  c.cluster_proposal[2] = 1;
  c.cluster_proposal[1] = c.cluster_proposal[3] = 2;
  const std::vector<char> proposed = written();
  EXPECT_GT(proposed.size(), clean.size());
  ASSERT_TRUE(read(clean));
  EXPECT_TRUE(c.proposal_reasons.empty());
  EXPECT_EQ(c.cluster_proposal[1], 0);
  ASSERT_TRUE(read(proposed));
  EXPECT_THAT(c.proposal_reasons, testing::ElementsAre("in turn, similarity 0.85"));
  EXPECT_EQ(c.cluster_proposal[1], 1);
  EXPECT_EQ(c.cluster_proposal[2], 0);
  EXPECT_EQ(c.cluster_proposal[3], 1);
  // Of clusters that there are not nothing is proposed.
  const std::string words = "1 3 in turn";
  std::vector<char> other = written();
  const auto at = std::search(other.begin(), other.end(), words.begin(), words.end());
  ASSERT_NE(at, other.end());
  at[0] = '7';
  ASSERT_TRUE(read(other));
  EXPECT_TRUE(c.proposal_reasons.empty());
}

TEST_F(work_file_test, older_versions_lack_what_came_later) {
  for (std::int32_t version = 4; version <= 7; ++version) {
    SCOPED_TRACE(version);
    small_session fresh;
    make_recording(*fresh, 3, 10000);
    fresh->clusters.cluster_sigma[2] = 77;
    store_setting(*fresh, *find_setting("pair_parameter_1"), 0, 7.75);
    fresh->recording.recording_filtered = false;
    const float correlation_before = fresh->strategy.correlation_threshold;
    work_file_content content;
    content.version = version;
    write_bytes(path, make_work_file(content).bytes);
    ASSERT_TRUE(read_work_file(*fresh, path, wrong_file)) << fresh.user.all_lines();
    EXPECT_EQ(check_session(*fresh), "");
    EXPECT_TRUE(fresh.user.logged("Reading V" + std::to_string(version) + " work file " + path));

    EXPECT_EQ(fresh->events.event_detected_time[7], 699);
    EXPECT_EQ(fresh->templates.mean(3, 2)[5], fixture_mean(3, 2, 5));
    EXPECT_EQ(fresh->templates.template_n_channels[1], 3);
    EXPECT_EQ(fresh->templates.template_n_channels[2], 1);
    EXPECT_EQ(fresh->templates.template_n_channels[3], 2);
    EXPECT_EQ(fresh->strategy.pc_point_selection, 4);
    EXPECT_EQ(fresh->strategy.channel_radius, 250);
    EXPECT_EQ(fresh->filter_history.n_entries, 0);
    // The pair whose overlap was not computed is the one that does not overlap.
    EXPECT_FALSE(fresh->lists.kv_templates_dont_overlap[1]);
    EXPECT_TRUE(fresh->lists.kv_templates_dont_overlap[2]);
    EXPECT_EQ(fresh->lists.kv_n_shift_template[2], 3);
    EXPECT_EQ(fresh->lists.rms_template_shift[3], 0);

    EXPECT_EQ(fresh->strategy.correlation_threshold, version >= 7 ? 0.4375f : correlation_before);
    EXPECT_EQ(fresh->recording.recording_filtered, version >= 7);
    EXPECT_EQ(fresh->filter.do_common_mean, version < 7);
    EXPECT_EQ(fresh->filter.do_temporal_smooth, version < 7);
    EXPECT_EQ(fresh->clusters.cluster_sigma[2], version >= 6 ? 32 : 77);
    EXPECT_EQ(carried(*fresh, "pair_parameter_1"), version >= 5 ? 1.75 : 7.75);
    EXPECT_EQ(fresh->clusters.cluster_comment[1].view(), version >= 5 ? "a fine unit" : "");
    // Their run log comes back; version 8 keeps that of the running program.
    EXPECT_EQ(fresh->log.log_lines[1].view(), "first line");
    EXPECT_EQ(fresh->log.log_lines[3].view(), "third line");
  }
}

TEST_F(work_file_test, version_8_keeps_the_log_of_the_program) {
  log_message(*session, "before");
  ASSERT_TRUE(read(work_file_content{}));
  EXPECT_EQ(session->log.log_lines[1].view(), "before");
  EXPECT_FALSE(session.user.logged("third line"));
  EXPECT_TRUE(session.user.logged("Reading Version  8 workfile"));
  EXPECT_TRUE(session.user.logged("Reading V8 work file " + path));
  EXPECT_TRUE(session.user.logged("# of events = 7"));
  EXPECT_TRUE(session.user.logged("# of clusters = 3"));
}

TEST_F(work_file_test, oldest_versions_are_reported_as_unreadable) {
  for (const std::string& label :
       {std::string("Kestrelvane work file\0  ", 24), std::string("Kestrelvane work file V2"),
        std::string("Kestrelvane work file V3")}) {
    std::vector<char> bytes = make_work_file({}).bytes;
    std::copy(label.begin(), label.end(), bytes.begin());
    EXPECT_FALSE(read(bytes));
    EXPECT_FALSE(wrong_file);
    EXPECT_EQ(session->events.n_events, 0);
  }
  EXPECT_TRUE(session.user.logged("Reading Version  1 workfile"));
  EXPECT_TRUE(session.user.logged("Work files of version 2 are too old to be read"));
  EXPECT_FALSE(read(std::vector<char>(5000, 'x')));
  EXPECT_TRUE(session.user.logged("File is not a Kestrelvane work file"));
  EXPECT_TRUE(session.user.questions.empty());
}

TEST_F(work_file_test, another_recording_is_asked_about) {
  work_file_content content;
  content.recording_path = "/elsewhere/small.tsf";
  EXPECT_TRUE(read(content));
  content.recording_path = "D:\\data\\small.tsf";
  EXPECT_TRUE(read(content));
  EXPECT_TRUE(session.user.questions.empty());

  content.recording_path = "/data/other.tsf";
  session->events.n_events = 5;
  session->detection.noise_window_secs = 99;
  EXPECT_FALSE(read(content));
  EXPECT_TRUE(wrong_file);
  EXPECT_TRUE(
      session.user.asked("The work file was saved from other.tsf, in memory is small.tsf.\n\n"
                         "Continue reading work file?",
                         "Warning: filename mismatch"));
  EXPECT_TRUE(session.user.logged("Saved filename: other.tsf"));
  EXPECT_TRUE(session.user.logged("data filename: small.tsf"));
  EXPECT_EQ(session->events.n_events, 5);
  EXPECT_EQ(session->detection.noise_window_secs, 99);

  session.user.default_answer = true;
  EXPECT_TRUE(read(content));
  EXPECT_FALSE(wrong_file);
  EXPECT_EQ(session->recording.recording_path, "small.tsf");
}

TEST_F(work_file_test, a_recording_of_the_same_name_may_be_another) {
  session->events.n_events = 5;
  work_file_content content;
  content.log_lines = {"Sampling frequency = 30000 Hz", "last line"};
  EXPECT_FALSE(read(content));
  EXPECT_TRUE(wrong_file);
  ASSERT_EQ(session.user.questions.size(), 1u);
  EXPECT_EQ(session.user.questions[0].text,
            "It was saved at a sampling frequency of 30000 Hz, that in memory is 25000 Hz.\n\n"
            "Continue reading work file?");
  // Other channels cannot be laid over it, whatever the user says.
  session.user.default_answer = true;
  content.n_channels = 51;
  EXPECT_FALSE(read(content));
  EXPECT_FALSE(wrong_file);
  EXPECT_TRUE(session.user.logged("n_channels is 51, but the recording has 3 channels"));
  EXPECT_EQ(session->events.n_events, 5);
}

TEST_F(work_file_test, events_beyond_a_shorter_recording_are_removed) {
  small_session shorter;
  make_recording(*shorter, 3, 450);
  write_bytes(path, make_work_file({}).bytes);
  shorter->events.n_events = 5;
  EXPECT_FALSE(read_work_file(*shorter, path, wrong_file));
  EXPECT_TRUE(wrong_file);
  EXPECT_EQ(shorter->events.n_events, 5) << "the sort in memory stays";
  EXPECT_TRUE(shorter.user.asked(
      "Its last event is at sample 700, after the end of the recording in memory, which has 450."
      "\n\nContinue reading work file?",
      "Warning: recording mismatch"));
  shorter.user.default_answer = true;
  ASSERT_TRUE(read_work_file(*shorter, path, wrong_file));
  EXPECT_TRUE(shorter.user.logged("# of events = 7"));
  EXPECT_TRUE(shorter.user.logged("Removed 3 events with invalid time indices"));
  EXPECT_EQ(shorter->events.n_events, 4);
  EXPECT_EQ(shorter->events.event_shift[4], 0.75f);
  EXPECT_EQ(shorter->events.event_detected_time[4], 401);
  EXPECT_EQ(shorter->clusters.n_clusters, 3);
  EXPECT_EQ(check_session(*shorter), "");

  // One that the file says nothing of goes, too, and the numbers behind it close up.
  small_session gap;
  make_recording(*gap, 3, 30000);
  gap.user.default_answer = true;
  ASSERT_TRUE(read_work_file(*gap, path, wrong_file));
  const std::int32_t n_clusters = gap->clusters.n_clusters;
  for (std::int32_t e = 1; e <= gap->events.n_events; ++e) {
    if (gap->events.event_cluster[e] == 2) gap->events.event_cluster[e] = 0;
  }
  const std::int32_t of_last =
      static_cast<std::int32_t>(list_cluster_events(*gap, n_clusters).size());
  const std::string with_gap = directory.file("gap.wrk");
  ASSERT_TRUE(write_work_file(*gap, with_gap));
  ASSERT_TRUE(read_work_file(*gap, with_gap, wrong_file));
  EXPECT_EQ(gap->clusters.n_clusters, n_clusters - 1);
  EXPECT_EQ(static_cast<std::int32_t>(list_cluster_events(*gap, n_clusters - 1).size()), of_last);
  EXPECT_TRUE(gap.user.logged("Removed 1 clusters without events"));
  EXPECT_EQ(check_session(*gap), "");

  // A cluster whose events all lay beyond the end goes with them.
  small_session shortest;
  make_recording(*shortest, 3, 250);
  shortest.user.default_answer = true;
  ASSERT_TRUE(read_work_file(*shortest, path, wrong_file));
  EXPECT_EQ(shortest->clusters.n_clusters, 2);
  EXPECT_EQ(check_session(*shortest), "");
}

TEST_F(work_file_test, nonsense_that_can_be_put_right_is) {
  work_file_content content;
  content.event_time[0] = -5;
  content.event_shift[1] = std::numeric_limits<float>::quiet_NaN();
  content.event_shift[2] = 1e30f;
  content.event_cluster[4] = -1;  // caught by a timed save during a removal pass
  content.event_detected_time[2] = 2000000000;
  content.template_channels[2] = {7, -3};
  content.scalars = {{"interp_depth", 1e6},      {"gac_gain", std::nan("")},
                     {"detection_method", -4},   {"template_window_start_ms", -900},
                     {"current_cluster", 12000}, {"current_channel", -1}};
  ASSERT_TRUE(read(content)) << session.user.all_lines();
  EXPECT_EQ(check_session(*session), "");
  EXPECT_EQ(session->events.n_events, 6);
  EXPECT_EQ(session->events.event_shift[1], 0);
  EXPECT_EQ(session->events.event_shift[2], 0);
  EXPECT_EQ(session->events.event_detected_time[2], 0);
  EXPECT_EQ(session->strategy.interp_depth, 10);
  EXPECT_EQ(session->tables.depth, 10);
  EXPECT_EQ(session->strategy.gac_gain, 1);
  EXPECT_EQ(session->detection.detection_method, 4);
  EXPECT_EQ(session->strategy.template_window_start_ms, -0.8f);
  EXPECT_TRUE(session.user.logged("interp_depth = 1000000 in the work file is out of range"));
}

TEST_F(work_file_test, lists_of_other_clusters_are_dropped) {
  work_file_content content;
  content.with_lists = false;
  content.n_clusters = 3;
  work_file_bytes file = make_work_file(content);
  ASSERT_TRUE(read(file.bytes));
  EXPECT_EQ(session->lists.n_kv_pairs, 0);
  // A list of one pair, as of two clusters.
  const std::size_t at = file.at("kv_template_correlation");
  file.bytes.insert(file.bytes.begin() + static_cast<std::ptrdiff_t>(at), 28, '\0');
  const std::int32_t one = 1;
  std::memcpy(file.bytes.data() + file.at("n_kv_pairs"), &one, 4);
  ASSERT_TRUE(read(file.bytes)) << session.user.all_lines();
  EXPECT_EQ(session->lists.n_kv_pairs, 0);
  EXPECT_EQ(session->clusters.n_clusters, 3);
}

}  // namespace
}  // namespace kestrelvane::test
