// The fast forms against the plain ones, bit for bit, and at several thread counts.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "clustering/clustering_runs.h"
#include "clustering/principal_components.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "session/interpolation_tables.h"
#include "session/template_window.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(fast_forms, gradient_ascent_stages) {
  small_session session;
  struct cloud {
    int n, dimensions;
  };
  // Both forms of merging: up to 2000 scouts and above, and a subsample of sources.
  for (const auto& [n, dimensions] : {cloud{300, 2},
                                      {900, 1},
                                      {2000, 2},
                                      {2001, 2},
                                      {3500, 3},
                                      {600, 4},
                                      {700, 5},
                                      {500, 7},
                                      {5600, 2}}) {
    const gac_points points = make_clouds(n, dimensions, 17 + n);
    for (const int s : {1, 4, 12}) {
      const auto plain = std::make_unique<gac_tables>();
      plain_gac_stage(*session, points, s, *plain);
      const auto fast = std::make_unique<gac_tables>();
      gac_stage(gac_parameters_of(*session), points, s, *fast);
      EXPECT_EQ(fast->stage_labels[s], plain->stage_labels[s]) << n << " " << dimensions;
      EXPECT_EQ(fast->scouts_left[s], plain->scouts_left[s]);
      EXPECT_EQ(fast->iterations[s], plain->iterations[s]);
    }
  }
}

TEST(fast_forms, the_ladder_at_any_thread_count) {
  small_session session;
  for (const int n : {60, 900, 2600}) {
    const gac_points points = make_clouds(n, 2, 3 + n);
    const auto serial = std::make_unique<gac_tables>();
    use_threads(*session, 1);
    gac_run(gac_parameters_of(*session), points, *serial);
    ASSERT_GT(serial->final_stage, 5);
    for (const int threads : {2, 3, 7}) {
      use_threads(*session, threads);
      const auto threaded = std::make_unique<gac_tables>();
      EXPECT_EQ(gac_run(gac_parameters_of(*session), points, *threaded), serial->final_stage);
      EXPECT_EQ(threaded->obvious, serial->obvious);
      for (int s = 1; s <= serial->final_stage; ++s) {
        EXPECT_EQ(threaded->stage_labels[s], serial->stage_labels[s]);
        EXPECT_EQ(threaded->nc_ge_threshold[s], serial->nc_ge_threshold[s]);
      }
      EXPECT_EQ(0, std::memcmp(threaded->as_cl_scores, serial->as_cl_scores,
                               sizeof serial->as_cl_scores));
    }
  }
}

TEST(fast_forms, gain_and_stall_settings_are_followed) {
  small_session session;
  const gac_points points = make_clouds(400, 2, 5);
  session->strategy.gac_gain = 1.4f;
  session->strategy.gac_stall_limit = 3;
  session->strategy.gac_max_iterations = 20;
  session->strategy.gac_merge_radius = 0.4f;
  const auto plain = std::make_unique<gac_tables>(), fast = std::make_unique<gac_tables>();
  plain_gac_stage(*session, points, 2, *plain);
  gac_stage(gac_parameters_of(*session), points, 2, *fast);
  EXPECT_EQ(fast->stage_labels[2], plain->stage_labels[2]);
  EXPECT_EQ(fast->iterations[2], plain->iterations[2]);
}

void expect_plain_templates(session_state& session) {
  const std::int32_t points = session.templates.template_points;
  for (std::int32_t cluster = 1; cluster <= session.clusters.n_clusters; ++cluster) {
    std::vector<float> mean, sd;
    plain_template_values(session, cluster, mean, sd);
    calculate_template(session, cluster);
    for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
      for (std::int32_t p = 1; p <= points; ++p) {
        ASSERT_EQ(session.templates.mean(cluster, c)[p], mean[(c - 1) * points + p - 1]);
        ASSERT_EQ(session.templates.sd(cluster, c)[p], sd[(c - 1) * points + p - 1]);
      }
    }
  }
}

TEST(fast_forms, templates_on_every_channel) {
  small_session session;
  make_busy_recording(*session, 5, 60000, 9);
  for (const int threads : {1, 2, 7}) {
    use_threads(*session, threads);
    expect_plain_templates(*session);
  }
}

// Every number of whole registers that a window fills, one more and a part of one; shifts of none
// and of a whole sample; interpolation over a few samples and over a hundred.
TEST(fast_forms, templates_of_any_window_and_interpolation) {
  small_session session;
  make_busy_recording(*session, 2, 30000, 9);
  for (std::int32_t e = 1; e <= session->events.n_events; e += 5) {
    session->events.event_shift[e] = e % 2 == 0 ? 0.0f : 1.0f;
  }
  for (const std::int32_t width : {1, 6, 20, 50}) {
    session->strategy.interp_width = width;
    build_interp_table(*session);
    for (const std::int32_t points : {3, 16, 17, 40, 63, 64, 95, 97, 130, 150}) {
      session->strategy.template_window_end_ms =
          session->strategy.template_window_start_ms +
          1000.0f * static_cast<float>(points) /
              static_cast<float>(session->recording.sampling_frequency);
      compute_template_points(*session);
      expect_plain_templates(*session);
    }
  }
}

TEST(fast_forms, alignment_of_events) {
  for (const bool multiplicative : {true, false}) {
    for (const float window_ms : {0.5f, 0.16f, 2.0f, 5.0f}) {
      small_session plain, fast;
      for (small_session* session : {&plain, &fast}) {
        make_busy_recording(**session, 4, 40000, 3);
        (*session)->strategy.multiplicative_matching = multiplicative;
        (*session)->strategy.realign_window_ms = window_ms;
        for (std::int32_t c = 1; c <= (*session)->clusters.n_clusters; ++c) {
          calculate_template(**session, c);
        }
      }
      use_threads(*fast, 3);
      for (std::int32_t c = 1; c <= plain->clusters.n_clusters; ++c) {
        plain_align_events(*plain, c);
        align_events(*fast, c, multiplicative);
      }
      for (std::int32_t e = 1; e <= plain->events.n_events; ++e) {
        ASSERT_EQ(fast->events.event_time[e], plain->events.event_time[e]) << window_ms;
        ASSERT_EQ(fast->events.event_shift[e], plain->events.event_shift[e]) << window_ms;
      }
    }
  }
}

// recalculate_cluster is its five steps, whatever shortcuts it takes.
TEST(fast_forms, recalculation_is_its_five_steps) {
  for (int mode = 1; mode <= 9; ++mode) {
    small_session steps, whole;
    for (small_session* session : {&steps, &whole}) {
      make_busy_recording(**session, 4, 40000, 21);
      (*session)->strategy.template_align_mode = mode;
    }
    use_threads(*whole, 2);
    for (std::int32_t c = 1; c <= steps->clusters.n_clusters; ++c) {
      calculate_template(*steps, c);
      align_template(*steps, c);
      align_events(*steps, c, steps->strategy.multiplicative_matching);
      calculate_template(*steps, c);
      calculate_template_centre(*steps, c);
    }
    realign_all_clusters(*whole);
    for (std::int32_t e = 1; e <= steps->events.n_events; ++e) {
      ASSERT_EQ(whole->events.event_time[e], steps->events.event_time[e]) << mode;
      ASSERT_EQ(whole->events.event_shift[e], steps->events.event_shift[e]) << mode;
    }
    for (std::int32_t c = 1; c <= steps->clusters.n_clusters; ++c) {
      ASSERT_EQ(whole->templates.template_n_channels[c], steps->templates.template_n_channels[c]);
      ASSERT_EQ(whole->templates.template_x[c], steps->templates.template_x[c]);
      ASSERT_EQ(0, std::memcmp(whole->templates.mean(c, 1) + 1, steps->templates.mean(c, 1) + 1,
                               sizeof(float) * steps->templates.row * 4));
    }
  }
}

TEST(fast_forms, the_alignment_diagnostic_finds_no_difference) {
  small_session session;
  make_busy_recording(*session, 4, 40000, 3);
  use_threads(*session, 3);
  EXPECT_EQ(check_threaded_alignment(*session), 0);
  EXPECT_TRUE(session.user.logged("no thread difference"));
  // Events by their own features: each mode leaves them inside the recording.
  for (int mode = 1; mode <= 10; ++mode) {
    session->strategy.event_align_mode = mode;
    realign_all_events(*session);
    EXPECT_EQ(check_session(*session), "") << mode_name(event_align_modes(), mode);
  }
  EXPECT_TRUE(session->strategy.multiplicative_matching);
}

TEST(fast_forms, covariance_of_more_than_5000_rows_takes_every_second) {
  pc_rows rows;
  rows.resize(5200, 9);
  vector_random random(8);
  for (std::int32_t e = 0; e < rows.n_rows; ++e) {
    for (std::int32_t p = 0; p < 9; ++p) {
      rows.row(e)[p] = static_cast<float>((random.next() >> 16) % 400) - 200.0f;
    }
  }
  pc_rows every_second;
  every_second.resize(2600, 9);
  for (std::int32_t e = 0; e < 2600; ++e) {
    std::copy_n(rows.row(2 * e), 9, every_second.row(e));
  }
  std::vector<float> axes, expected;
  find_axes(rows, axes);
  find_axes(every_second, expected);
  EXPECT_EQ(axes, expected);
}

}  // namespace
}  // namespace kestrelvane::test
