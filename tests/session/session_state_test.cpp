// Start-up, the large allocations, durations, reset, and the consistency check itself.
#include "session/session_state.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "recording/storage.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(session, starts_with_limits_and_defaults) {
  small_session session;
  EXPECT_GE(session->n_cpus, 1);
  EXPECT_EQ(session->n_threads, session->n_cpus);
  EXPECT_EQ(session->max_clusters, 4000 - session->n_cpus);
  EXPECT_EQ(session->recording.vscale_norm, 1.0f);
  EXPECT_EQ(session->recording.recording_path, "No data file");
  EXPECT_EQ(session->detection.variable_multiplier, 5.0f);
  EXPECT_EQ(session->tables.depth, 10);
  EXPECT_EQ(session->tables.gac_table[0], 1.0f);
  EXPECT_EQ(check_session(*session), "");

  set_thread_count(*session, 64);
  EXPECT_EQ(session->max_clusters, 3936);
  session->multi_threaded_now = true;
  EXPECT_EQ(threads_now(*session), 64);
  set_thread_count(*session, 1);
  EXPECT_EQ(threads_now(*session), 1);
  EXPECT_EQ(session->max_clusters, 3936);
}

TEST(session, duration_follows_samples_epochs_or_time_stamps) {
  small_session session;
  recording_store& r = session->recording;
  r.sampling_frequency = 30000;
  r.n_samples = 1'800'000;
  compute_duration(*session);
  EXPECT_FLOAT_EQ(r.duration_mins, 1.0f);

  // 29999 samples at 30 kHz last 999.97 ms, of which 999 count.
  r.n_samples = 29999;
  compute_duration(*session);
  EXPECT_FLOAT_EQ(r.duration_mins, 999.0f / 60000.0f);

  // Several epochs: to the end of the last one; backward stamps fall back to samples.
  r.n_epochs = 2;
  r.epoch_start[1] = 10;
  r.epoch_start[2] = 70;
  r.epoch_samples[2] = 1'800'000;
  compute_duration(*session);
  EXPECT_FLOAT_EQ(r.duration_mins, 2.0f);
  r.epoch_start[2] = -1000;
  compute_duration(*session);
  EXPECT_FLOAT_EQ(r.duration_mins, 999.0f / 60000.0f);
  r.sampling_frequency = 0;
  compute_duration(*session);
  EXPECT_EQ(r.duration_mins, 0.0f);

  // Event-based: the last stamp of any tetrode.
  r.is_continuous = false;
  r.electrode_type = electrode_tetrode;
  r.n_channels = 8;
  r.n_tetrodes = 2;
  r.samples_per_event = 32;
  ASSERT_TRUE(allocate_recording(*session, 100));
  r.tetrode_event_count[1] = 3;
  r.timestamp(3, 1) = 120'000'999;
  r.tetrode_event_count[2] = 2;
  r.timestamp(2, 2) = 60'000'000;
  compute_duration(*session);
  EXPECT_FLOAT_EQ(r.duration_mins, 2.0f);
  // Record 3 occupies time indices 228..291.
  r.tetrode_of_channel[4] = 1;
  EXPECT_EQ(event_record_time_ms(*session, 228, 4), 120'000);
  EXPECT_EQ(event_record_time_ms(*session, 292, 4), 0);
}

TEST(session, reset_forgets_the_data_and_keeps_the_settings) {
  small_session session;
  make_recording(*session, 4, 500);
  session->recording.chan_mask[2] = true;
  session->recording.channel_map[9] = 3;
  session->events.n_events = 2;
  session->events.event_time[1] = 77;
  session->events.event_shift[2] = 0.5f;
  session->clusters.n_clusters = 1;
  session->clusters.cluster_comment[1].assign("a unit");
  session->templates.template_n_channels[1] = 2;
  session->templates.mean(1, 1)[5] = 3.0f;
  session->lists.n_kv_pairs = 3;
  session->filter_history.n_entries = 2;
  session->detection.window_samples = 9;
  session->recording.xml_path = "kept.xml";
  reset_session(*session);
  EXPECT_EQ(session->recording.n_samples, 0);
  EXPECT_EQ(session->recording.n_channels, 0);
  EXPECT_EQ(session->recording.recording_path, "No data file");
  EXPECT_FALSE(session->recording.chan_mask[2]);
  EXPECT_EQ(session->recording.channel_map[9], 0);
  EXPECT_EQ(session->events.n_events, 0);
  EXPECT_EQ(session->events.event_time[1], 0);
  EXPECT_EQ(session->events.event_shift[2], 0.0f);
  EXPECT_EQ(session->clusters.n_clusters, 0);
  EXPECT_TRUE(session->clusters.cluster_comment[1].is_blank());
  EXPECT_EQ(session->templates.mean(1, 1)[5], 0.0f);
  EXPECT_EQ(session->lists.n_kv_pairs, 0);
  EXPECT_EQ(session->filter_history.n_entries, 0);
  EXPECT_EQ(session->recording.n_epochs, 1);
  EXPECT_EQ(session->detection.window_samples, 9);
  EXPECT_EQ(session->recording.xml_path, "kept.xml");
  EXPECT_EQ(check_session(*session), "");
}

// A session with two clusters of two events each and their pair.
void fill_session(session_state& session) {
  make_recording(session, 3, 500);
  session.events.n_events = 4;
  session.clusters.n_clusters = 2;
  session.clusters.current_cluster = 1;
  for (std::int32_t i = 1; i <= 4; ++i) {
    session.events.event_time[i] = 100 * i;
    session.events.event_channel[i] = 1 + i % 3;
    session.events.event_cluster[i] = 1 + i % 2;
  }
  for (std::int32_t c = 1; c <= 2; ++c) {
    session.templates.template_n_channels[c] = 1;
    session.templates.channels(c)[1] = c;
    session.templates.mean(c, c)[10] = -50;
  }
  session.lists.n_kv_pairs = 1;
  session.lists.kv_n_shift_template[1] = 2;
}

TEST(session, check_finds_each_inconsistency) {
  using spoiler = std::function<void(session_state&)>;
  const std::pair<const char*, spoiler> cases[] = {
      {"", [](session_state&) {}},
      {"event 2 on channel 4", [](session_state& s) { s.events.event_channel[2] = 4; }},
      {"event 2 at time index 0", [](session_state& s) { s.events.event_time[2] = 0; }},
      {"event 4 at time index 501", [](session_state& s) { s.events.event_time[4] = 501; }},
      {"event 3 with shift nan", [](session_state& s) { s.events.event_shift[3] = NAN; }},
      {"event 3 in cluster -1", [](session_state& s) { s.events.event_cluster[3] = -1; }},
      {"event 3 in cluster 3", [](session_state& s) { s.events.event_cluster[3] = 3; }},
      {"cluster 2 has no events",
       [](session_state& s) {
         for (int i = 1; i <= 4; ++i) s.events.event_cluster[i] = 1;
       }},
      {"event 1 with sub-cluster label 101",
       [](session_state& s) { s.events.event_subcluster[1] = 101; }},
      {"current_cluster 3 of 2", [](session_state& s) { s.clusters.current_cluster = 3; }},
      {"n_clusters 4000",
       [](session_state& s) {
         s.clusters.n_clusters = 4000;
         s.lists.n_kv_pairs = 0;
       }},
      {"template 2 has 0 channels",
       [](session_state& s) { s.templates.template_n_channels[2] = 0; }},
      {"template 1 lists channel 9", [](session_state& s) { s.templates.channels(1)[1] = 9; }},
      {"template 2 is centred on masked channel 2",
       [](session_state& s) {
         s.recording.chan_mask[2] = true;
         s.templates.mean(2, 1)[4] = 7;
       }},
      // Flat on every channel that takes part: nothing better to centre on.
      {"", [](session_state& s) { s.recording.chan_mask[2] = true; }},
      {"n_kv_pairs 2 for 2 clusters", [](session_state& s) { s.lists.n_kv_pairs = 2; }},
      {"pair 1 of clusters 1 and 2 shifts cluster 3",
       [](session_state& s) { s.lists.kv_n_shift_template[1] = 3; }},
      {"channel 2 is not zero at time index -3",
       [](session_state& s) { s.recording.vd.channel(2)[-3] = 1; }},
      {"current_channel 0", [](session_state& s) { s.current_channel = 0; }},
      {"n_samples -1", [](session_state& s) { s.recording.n_samples = -1; }},
      {"filter history of 51 entries", [](session_state& s) { s.filter_history.n_entries = 51; }},
  };
  for (const auto& [expected, spoil] : cases) {
    small_session session;
    fill_session(*session);
    spoil(*session);
    EXPECT_EQ(check_session(*session), expected);
  }
}

}  // namespace
}  // namespace kestrelvane::test
