// Templates made in part, against those made on all channels.
#include "clustering/deferred_templates.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "session/modes.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr std::int32_t n_channels = 80;

// Units along a probe of 3 mm. Some clusters have their events on another unit's channel, some hold
// noise, and some have been taken at the two ends of the recording.
void make_probe(session_state& session) {
  make_busy_recording(session, n_channels, 200000, 77);
  event_table& events = session.events;
  vector_random random(5);
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] % 7 == 0) events.event_channel[e] = 1 + e % n_channels;
    if (events.event_cluster[e] % 11 == 0) {
      events.event_time[e] = 300 + static_cast<std::int32_t>((random.next() >> 8) % 190000);
    }
    if (events.event_cluster[e] == 5) events.event_time[e] = e % 2 == 0 ? 5 + e % 20 : 199990;
  }
  for (const std::int32_t channel : {12, 40, 41}) session.recording.chan_mask[channel] = true;
}

struct outcome {
  std::vector<std::int32_t> times, channels;
  std::vector<float> values;
};

outcome read_outcome(const session_state& session) {
  outcome o;
  const event_table& events = session.events;
  const template_table& templates = session.templates;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    o.times.push_back(events.event_time[e]);
    o.times.push_back(events.event_cluster[e]);
    o.values.push_back(events.event_shift[e]);
  }
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    for (std::int32_t k = 1; k <= templates.template_n_channels[c]; ++k) {
      o.channels.push_back(templates.channels(c)[k]);
    }
    o.channels.push_back(0);
    o.values.insert(o.values.end(), {templates.template_x[c], templates.template_y[c]});
    for (std::int32_t channel = 1; channel <= n_channels; ++channel) {
      for (std::int32_t p = 1; p <= templates.template_points; ++p) {
        o.values.push_back(templates.mean(c, channel)[p]);
        o.values.push_back(templates.sd(c, channel)[p]);
      }
    }
  }
  return o;
}

void expect_same(const outcome& a, const outcome& b, const std::string& what) {
  EXPECT_TRUE(a.times == b.times) << what;
  EXPECT_TRUE(a.channels == b.channels) << what;
  ASSERT_EQ(a.values.size(), b.values.size()) << what;
  EXPECT_EQ(std::memcmp(a.values.data(), b.values.data(), sizeof(float) * a.values.size()), 0)
      << what;
}

// What a run does with clusters: align, lose events, be deleted, be cut, be aligned again.
void work(session_state& session) {
  realign_all_clusters(session);
  for (std::int32_t e = 1; e <= session.events.n_events; e += 5) {
    session.events.event_cluster[e] = 0;
  }
  delete_cluster(session, 3);
  delete_cluster(session, 30);
  for (std::int32_t c = 20; c <= 24; ++c) recalculate_cluster(session, c);
  session.clusters.current_cluster = 22;
  for (const std::int32_t e : list_cluster_events(session, 22)) {
    session.events.event_subcluster[e] = e % 2 == 0 ? 1 : 0;
  }
  split_marked_to_new_cluster(session, 1);
  calculate_template(session, 9);
}

TEST(deferred_templates, are_the_whole_ones_in_the_end) {
  for (const std::int32_t mode : {align_gravity, align_curvature, align_trough, align_fall}) {
    std::optional<outcome> whole;
    for (const std::int32_t n_threads : {0, 1, 3}) {  // 0: nothing is deferred
      small_session session;
      make_probe(*session);
      session->strategy.template_align_mode = mode;
      use_threads(*session, std::max(n_threads, 1));
      if (n_threads == 0) {
        work(*session);
        whole = read_outcome(*session);
        continue;
      }
      {
        const template_deferral deferral(*session);
        ASSERT_NE(session->deferred, nullptr);
        work(*session);
        std::size_t n_left_out = 0;
        for (const partial_template& partial : session->deferred->owed) {
          if (partial.list.empty()) continue;
          n_left_out += static_cast<std::size_t>(
              std::count(partial.made.begin() + 1, partial.made.end(), char{0}));
        }
        EXPECT_GT(n_left_out, std::size_t{40} * n_channels) << "most channels can be left out";
      }
      EXPECT_EQ(session->deferred, nullptr);
      expect_same(*whole, read_outcome(*session), "mode " + std::to_string(mode));
      EXPECT_EQ(check_session(*session), "");
    }
  }
}

// Channel after channel for all clusters, and cluster after cluster.
TEST(deferred_templates, are_the_same_by_channel_and_by_cluster) {
  small_session plain, session;
  for (small_session* s : {&plain, &session}) make_probe(**s);
  for (std::int32_t c = 1; c <= plain->clusters.n_clusters; ++c) {
    calculate_template(*plain, c);
    calculate_template_centre(*plain, c);
  }
  const outcome one_by_one = read_outcome(*plain);
  for (const std::int32_t n_threads : {1, 3, 16}) {
    use_threads(*session, n_threads);
    calculate_all_templates(*session);
    expect_same(one_by_one, read_outcome(*session), std::to_string(n_threads) + " threads");
  }
}

// Rows are as long as the window needs; whatever it becomes, templates stay what they were for as
// long as it may come back.
TEST(deferred_templates, survive_a_change_of_rows) {
  small_session session;
  make_probe(*session);
  widen_template_rows(*session, template_point_limit);
  EXPECT_EQ(session->templates.row, template_point_limit);
  calculate_all_templates(*session);
  const outcome long_rows = read_outcome(*session);
  shorten_template_rows(*session);
  EXPECT_LT(session->templates.row, template_point_limit);
  calculate_all_templates(*session);
  expect_same(long_rows, read_outcome(*session), "short rows");
  release_spare_templates(*session);
  expect_same(long_rows, read_outcome(*session), "the spare ones are gone");
  const std::int32_t n = session->clusters.n_clusters;
  for (const float end : {1.5f, 0.3f, 3.0f, 2.0f}) {
    session->templates.mean(n + 1, 1)[1] = 5;  // scratch
    session->strategy.template_window_end_ms = end;
    compute_template_points(*session);
    EXPECT_EQ(check_session(*session), "") << end;
    session->strategy.template_window_end_ms = 0.8f;
    compute_template_points(*session);
    expect_same(long_rows, read_outcome(*session), std::to_string(end) + " ms and back");
    EXPECT_FALSE(templates_are_outdated(*session));
  }
  const float* last = session->templates.mean(n, n_channels);
  EXPECT_GE(session->templates.row, 96);  // 3.8 ms at 25 kHz
  for (std::int32_t p = session->templates.template_points + 1; p <= session->templates.row; ++p) {
    EXPECT_EQ(last[p], 0) << p;
  }
}

TEST(deferred_templates, are_whole_whenever_somebody_else_looks) {
  small_session plain, session;
  for (small_session* s : {&plain, &session}) make_probe(**s);
  realign_all_clusters(*plain);
  enter_session(*session);
  {
    const template_deferral deferral(*session);
    realign_all_clusters(*session);
    lend_session(*session, std::chrono::milliseconds(0));
    expect_same(read_outcome(*plain), read_outcome(*session), "lent");
    realign_all_clusters(*session);
    realign_all_clusters(*plain);
    { const session_pause box(*session); }
    expect_same(read_outcome(*plain), read_outcome(*session), "paused");
  }
  leave_session(*session);
}

TEST(deferred_templates, a_summary_holds_the_largest_of_each_block) {
  small_session session;
  make_recording(*session, 2, 1000);
  put_samples(*session, 2, 64, {-32768, 5});
  put_samples(*session, 1, 1000, {-7});
  voltage_summary summary;
  summarise_voltage(*session, summary);
  ASSERT_EQ(summary.largest.size(), 2u * 16);
  EXPECT_EQ(summary.largest[1], 32768);
  EXPECT_EQ(summary.largest[3], 5);
  EXPECT_EQ(summary.largest[30], 7);
  EXPECT_EQ(summary.peak, 32768);
}

}  // namespace
}  // namespace kestrelvane::test
