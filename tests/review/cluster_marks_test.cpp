// Marks on the events of a cluster: measures worked by hand, shapes, and what is done with them.
#include "review/cluster_marks.h"

#include <gmock/gmock.h>

#include <cmath>

#include "clustering/principal_components.h"
#include "review/alignment_score.h"
#include "review/reclaim.h"
#include "review_fixture.h"
#include "session/template_window.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;

// One cluster with one event at time 500 on three channels; the template is 0 with s.d. 2, but
// for a trough of -40 at point 10 of channel 2, its centre. The event is the template.
struct measure_test : ::testing::Test {
  small_session session;
  static constexpr std::int32_t trough = 10;

  measure_test() {
    make_recording(*session, 3, 5000);
    session_state& s = *session;
    s.events.n_events = 1;
    s.events.event_time[1] = 500;
    s.events.event_channel[1] = 2;
    s.events.event_cluster[1] = 1;
    s.clusters.n_clusters = s.clusters.current_cluster = 1;
    s.templates.template_n_channels[1] = 1;
    s.templates.channels(1)[1] = 2;
    for (std::int32_t c = 1; c <= 3; ++c) {
      for (std::int32_t t = 1; t <= points(); ++t) s.templates.sd(1, c)[t] = 2.0f;
    }
    s.templates.mean(1, 2)[trough] = -40.0f;
    put(2, trough, -40);
  }
  std::int32_t points() const { return session.state->templates.template_points; }
  // The sample under a point of the template.
  void put(std::int32_t channel, std::int32_t point, int value) {
    put_samples(*session, channel, 500 + window_first_sample(*session) - 1 + point, {value});
  }
  float measure(std::int32_t method, std::int32_t channels) {
    std::vector<float> values;
    EXPECT_TRUE(measure_events(*session, {method, channels, 0.0f}, 1, {1}, values));
    return values.at(0);
  }
};

TEST_F(measure_test, distances_from_the_template) {
  // z squared: 4 at the trough, 9 at two other points, 0 elsewhere.
  put(2, trough, -44);
  put(2, 20, 6);
  put(2, 30, -6);
  const float inner = static_cast<float>(points() - 2);
  EXPECT_FLOAT_EQ(measure(clean_by_rms, clean_on_centre), std::sqrt(22.0f / inner));
  EXPECT_FLOAT_EQ(measure(clean_by_outliers, clean_on_centre), std::sqrt(13.0f / 10.0f))
      << "equal values enter once, and ten divide";
  EXPECT_FLOAT_EQ(measure(clean_by_troughs, clean_on_centre), 2.0f);
  // Curvature is 40, 80, 40 round the trough and 0 elsewhere.
  EXPECT_FLOAT_EQ(measure(clean_by_curvature, clean_on_centre), std::sqrt(80.0f * 4.0f / 160.0f));
  EXPECT_FLOAT_EQ(measure(clean_by_rms, clean_on_masked), 2.0f) << "only the trough is over 25 µV";
  // The outermost points have no neighbour on one side, and do not enter.
  put(2, 1, 2000);
  put(2, points(), 2000);
  EXPECT_FLOAT_EQ(measure(clean_by_rms, clean_on_centre), std::sqrt(22.0f / inner));
}

TEST_F(measure_test, channels_that_are_looked_at) {
  put(1, 15, 8);
  const float inner = static_cast<float>(points() - 2);
  EXPECT_FLOAT_EQ(measure(clean_by_rms, clean_on_template), 0.0f);
  EXPECT_FLOAT_EQ(measure(clean_by_rms, clean_on_neighbours), std::sqrt(16.0f / (3 * inner)));
  session->recording.chan_mask[3] = true;
  EXPECT_FLOAT_EQ(measure(clean_by_rms, clean_on_neighbours), std::sqrt(16.0f / (2 * inner)));
  // A template below 25 µV everywhere has no value to compare, and marks nothing.
  session->recording.vscale_HP = 0.25f;
  EXPECT_TRUE(std::isnan(measure(clean_by_rms, clean_on_masked)));
  EXPECT_TRUE(mark_events(*session, {clean_by_rms, clean_on_masked, -1.0f}));
  EXPECT_EQ(count_labels(*session).size[1], 0);
}

TEST_F(measure_test, windows_are_crossed_by_samples_and_between_them) {
  const auto passes = [&](const std::vector<waveform_window>& windows) {
    unmark_events(*session);
    EXPECT_TRUE(mark_by_windows(*session, windows));
    return count_labels(*session).size[1] == 0;
  };
  EXPECT_TRUE(passes({{2, 8, 12, -45, -35}}));
  EXPECT_TRUE(passes({{2, 12, 14, 1, -1}})) << "voltages in either order";
  EXPECT_TRUE(passes({{2, 9, 10, -30, -10}})) << "two neighbours on opposite sides";
  EXPECT_FALSE(passes({{2, 10, 10, -30, -10}})) << "the span has one sample, below";
  EXPECT_FALSE(passes({{2, 11, 14, -30, -10}}));
  EXPECT_FALSE(passes({{2, 8, 12, -45, -35}, {1, 8, 12, -45, -35}})) << "every window";
  EXPECT_FALSE(mark_by_windows(*session, {{4, 8, 12, -45, -35}})) << "no such channel";
}

TEST(alignment_score, by_hand) {
  // 256 has the eighth root 2; 100 is two decades.
  EXPECT_FLOAT_EQ(alignment_score(256.0f, 100.0f), 5.0f * (2.0f - 2.28f + 2.0f));
  EXPECT_EQ(alignment_score(256.0f, 0.0f), 0.0f);
  EXPECT_EQ(alignment_score(256.0f, -3.0f), 0.0f);
}

TEST_F(review_test, sharpness_is_the_bend_of_the_rms_fit) {
  const session_state& s = *session;
  const std::vector<std::int32_t> list = events_of(2);
  const std::vector<float> fast = rms_fit_sharpness(s, 2, list);
  const std::int32_t w = realign_window_samples(s);
  for (std::size_t i = 0; i < 20; ++i) {
    const std::int32_t first = s.events.event_time[list[i]] + window_first_sample(s) - 1;
    std::vector<double> fit;
    for (std::int32_t d = -w; d <= w; ++d) {
      double sum = 0;
      for (std::int32_t k = 1; k <= s.templates.template_n_channels[2]; ++k) {
        const std::int32_t channel = s.templates.channels(2)[k];
        for (std::int32_t t = 1; t <= s.templates.template_points; ++t) {
          const double x =
              s.templates.mean(2, channel)[t] - s.recording.vd.channel(channel)[first + t + d];
          sum += x * x;
        }
      }
      fit.push_back(sum * 0.25 /
                    (s.templates.template_n_channels[2] * s.templates.template_points));
    }
    double sharpest = 0;
    for (std::size_t d = 1; d + 1 < fit.size(); ++d) {
      if (fit[d] < fit[d - 1] && fit[d] < fit[d + 1]) {
        sharpest = std::max(sharpest, fit[d - 1] + fit[d + 1] - 2 * fit[d]);
      }
    }
    EXPECT_NEAR(fast[i], sharpest, 1e-3 * sharpest + 1e-6) << i;
  }
}

// The same spikes at four times the bits: the score says the same of them.
TEST_F(review_test, alignment_scores_do_not_depend_on_the_scale) {
  const std::vector<std::int32_t> list = events_of(3);
  std::vector<float> fine, coarse;
  ASSERT_TRUE(measure_alignment(*session, 3, list, coarse));
  session->recording.vscale_HP /= 4;
  for (std::int32_t c = 1; c <= 4; ++c) {
    std::int16_t* v = session->recording.vd.channel(c);
    for (std::int32_t t = 1; t <= session->recording.n_samples; ++t) {
      v[t] = static_cast<std::int16_t>(4 * v[t]);
    }
    for (std::int32_t t = 1; t <= session->templates.template_points; ++t) {
      session->templates.mean(3, c)[t] *= 4.0f;
    }
  }
  ASSERT_TRUE(measure_alignment(*session, 3, list, fine));
  for (std::size_t i = 0; i < list.size(); ++i) EXPECT_NEAR(fine[i], coarse[i], 1e-3);
}

TEST_F(review_test, marks_are_of_the_current_cluster_and_reversible) {
  session->clusters.current_cluster = 2;
  const std::vector<std::int32_t> list = events_of(2);
  label(events_of(1)[0]) = 3;
  label(list[0]) = 4;
  session->review.clean_channels = clean_on_centre;
  std::vector<float> scores;
  ASSERT_TRUE(measure_alignment(*session, 2, list, scores));
  std::vector<float> sorted = scores;
  std::sort(sorted.begin(), sorted.end());
  const float middle = sorted[sorted.size() / 2];
  ASSERT_TRUE(mark_events(*session, {clean_by_alignment, clean_on_centre, middle}));
  EXPECT_EQ(session->review.clean_channels, clean_on_template);
  for (std::size_t i = 0; i < list.size(); ++i) {
    EXPECT_EQ(label(list[i]), scores[i] < middle ? 1 : 0) << "below the threshold is bad";
  }
  const std::int32_t marked = count_labels(*session).size[1];
  ASSERT_GT(marked, 0);
  label(list[0]) = 2;
  const std::int32_t others = count_labels(*session).size[1];
  invert_marks(*session);
  EXPECT_EQ(label(list[0]), 2);
  EXPECT_EQ(count_labels(*session).size[0], others);
  // Interrupted, the marks are as they were.
  const std::vector<std::int32_t> before = labelled();
  session->operation.autosort_interrupt = true;
  EXPECT_FALSE(mark_events(*session, {clean_by_rms, clean_on_template, 0.0f}));
  EXPECT_EQ(labelled(), before);
  session->operation.autosort_interrupt = false;
  ASSERT_TRUE(mark_events(*session, {clean_by_rms, clean_on_template, 0.0f}));
  EXPECT_EQ(count_labels(*session).size[1], count_labels(*session).n_events)
      << "above the threshold is bad";
  unmark_events(*session);
  invert_marks(*session);
  EXPECT_EQ(labelled(), list);
  EXPECT_EQ(label(events_of(1)[0]), 3);
}

TEST_F(review_test, fixed_split_takes_the_nearest_stage) {
  session->strategy.gac_start_sigma = 5;
  EXPECT_EQ(nearest_stage(*session, 5.0f), 1);
  EXPECT_EQ(nearest_stage(*session, 5.24f), 1);  // half way lies at 5.2440
  EXPECT_EQ(nearest_stage(*session, 5.25f), 2);
  EXPECT_EQ(nearest_stage(*session, 0.0f), 1);
  EXPECT_EQ(nearest_stage(*session, 1e6f), 50);
  const auto labels_at = [&](std::int32_t threads) {
    use_threads(*session, threads);
    unmark_events(*session);
    EXPECT_TRUE(fixed_split(*session, 6.0f));
    std::vector<std::int16_t> labels;
    for (const std::int32_t e : events_of(1)) labels.push_back(label(e));
    return labels;
  };
  const std::vector<std::int16_t> labels = labels_at(1);
  EXPECT_EQ(labels, labels_at(3));
  const std::int16_t highest = *std::max_element(labels.begin(), labels.end());
  for (std::int16_t k = 1; k <= highest; ++k) EXPECT_THAT(labels, testing::Contains(k));
}

TEST_F(review_test, shapes_mark_what_lies_inside) {
  const std::vector<std::int32_t> list = events_of(1);
  const std::vector<shape_point> places = events_in_plane(*session, mark_plane::components);
  const shape_point centre = places[0];
  // An upright ellipse of half axes 3 along y and 1 along x, as one lying on its side and turned.
  session->clusters.cluster_ellipse[1] = {centre.x, centre.y, 3.0f, 1.0f, 90.0f};
  ASSERT_TRUE(mark_in_ellipse(*session));
  std::size_t inside = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const float dx = places[i].x - centre.x, dy = (places[i].y - centre.y) / 3.0f;
    const float away = dx * dx + dy * dy;
    if (std::fabs(away - 1.0f) < 1e-4f) continue;
    EXPECT_EQ(label(list[i]), away < 1.0f ? 1 : 0) << i;
    inside += away < 1.0f ? 1 : 0;
  }
  EXPECT_GT(inside, 0u);
  EXPECT_LT(inside, list.size());

  // A rectangle and the lasso along its sides find the same events, in addition to labels.
  unmark_events(*session);
  const std::vector<shape_point> heights = events_in_plane(*session, mark_plane::heights);
  EXPECT_FLOAT_EQ(heights[3].x, static_cast<float>(session->events.event_time[list[3]]) / 1.5e6f);
  const shape_point low{0.01f, heights[0].y - 3.0f}, high{0.03f, heights[0].y + 3.01f};
  label(list[0]) = 2;
  ASSERT_TRUE(mark_in_rectangle(*session, high, low));
  const std::vector<std::int32_t> found = labelled();
  EXPECT_FALSE(found.empty());
  EXPECT_LT(found.size(), list.size());
  unmark_events(*session);
  ASSERT_TRUE(
      mark_in_lasso(*session, mark_plane::heights, {low, {high.x, low.y}, high, {low.x, high.y}}));
  EXPECT_EQ(labelled(), found);
  EXPECT_FALSE(mark_in_lasso(*session, mark_plane::heights, {low, high}));
  session->clusters.cluster_ellipse[1] = {};
  EXPECT_FALSE(mark_in_ellipse(*session));
}

// A "C": its mouth is outside, and a corner on the ray of a point counts once.
TEST_F(measure_test, a_lasso_may_be_hollow) {
  const auto inside = [&](float x, float y) {
    const float t = events_in_plane(*session, mark_plane::heights)[0].x;
    const float uv = events_in_plane(*session, mark_plane::heights)[0].y;
    EXPECT_FLOAT_EQ(uv, 40.0f);
    std::vector<shape_point> c = {{0, 0}, {4, 0}, {4, 1}, {1, 1}, {1, 3}, {4, 3}, {4, 4}, {0, 4}};
    for (shape_point& p : c) p = {t + p.x - x, uv + p.y - y};
    unmark_events(*session);
    EXPECT_TRUE(mark_in_lasso(*session, mark_plane::heights, c));
    return count_labels(*session).size[1] == 1;
  };
  EXPECT_TRUE(inside(0.5f, 2.0f));
  EXPECT_FALSE(inside(2.0f, 2.0f)) << "in the mouth";
  EXPECT_TRUE(inside(2.0f, 3.5f));
  EXPECT_TRUE(inside(0.5f, 1.0f)) << "on the level of two corners";
  EXPECT_FALSE(inside(-0.5f, 1.0f));
}

TEST_F(review_test, a_label_splits_or_is_deleted) {
  ASSERT_TRUE(begin_cluster_review(*session));
  session->clusters.current_cluster = 2;
  const std::vector<std::int32_t> list = events_of(2);
  EXPECT_FALSE(split_label(*session, 0));
  EXPECT_TRUE(session.user.told("all events have this label"));
  EXPECT_FALSE(split_label(*session, 3)) << "nobody has it";
  for (std::size_t i = 0; i < 30; ++i) label(list[i]) = 2;
  const std::vector<double> before = fingerprint();
  ASSERT_TRUE(split_label(*session, 2));
  EXPECT_EQ(events_of(n()), std::vector<std::int32_t>(list.begin(), list.begin() + 30));
  expect_consistent();
  ASSERT_TRUE(undo_cluster_review(*session));
  EXPECT_EQ(fingerprint(), before);

  // Of label 0 the unlabelled go, and the labelled stay without their labels.
  ASSERT_TRUE(split_label(*session, 0));
  EXPECT_EQ(events_of(2), std::vector<std::int32_t>(list.begin(), list.begin() + 30));
  EXPECT_EQ(count_labels(*session).size[0], 30);
  EXPECT_TRUE(labelled(2).empty());
  expect_consistent();
  undo_cluster_review(*session);

  ASSERT_TRUE(delete_label(*session, 2));
  EXPECT_EQ(events_of(2), std::vector<std::int32_t>(list.begin() + 30, list.end()));
  EXPECT_EQ(session->events.event_cluster[list[0]], 0);
  EXPECT_EQ(label(list[0]), 0);
  expect_consistent();
}

TEST_F(review_test, a_cluster_without_points_is_asked_about) {
  const char* question = "There will be no points left: delete the whole cluster?";
  invert_marks(*session);
  const std::vector<double> before = fingerprint();
  EXPECT_FALSE(delete_label(*session, 1));
  EXPECT_TRUE(session.user.asked(question, "What do you want to do?"));
  EXPECT_EQ(fingerprint(), before);
  session.user.default_answer = true;
  EXPECT_TRUE(delete_label(*session, 1));
  EXPECT_EQ(n(), 5);
  EXPECT_TRUE(session.user.logged("View clusters: user deleted cluster 1"));
  EXPECT_TRUE(undo_cluster_review(*session));
  EXPECT_EQ(fingerprint(), before);
  // The limit is told before anything is saved or changed.
  session->max_clusters = n();
  label(events_of(1)[0]) = 2;
  EXPECT_FALSE(split_label(*session, 2));
  EXPECT_TRUE(session.user.told("Cannot add new cluster as maximum number has been reached"));
  // An undo reaches back to the beginning of the dialog.
  ASSERT_TRUE(begin_cluster_review(*session));
  EXPECT_FALSE(undo_cluster_review(*session));
}

TEST_F(review_test, random_edits_leave_a_whole_session_and_can_be_taken_back) {
  session.user.default_answer = true;
  vector_random random{5};
  const auto draw = [&](std::int32_t limit) {
    return static_cast<std::int32_t>((random.next() >> 16) % static_cast<std::uint32_t>(limit));
  };
  for (int step = 0; step < 60; ++step) {
    session->clusters.current_cluster = 1 + draw(n());
    for (const std::int32_t e : events_of(session->clusters.current_cluster)) {
      label(e) = static_cast<std::int16_t>(draw(3));
    }
    const std::vector<double> before = fingerprint();
    reclaim_counts counts;
    bool edited = false;
    switch (draw(5)) {
      case 0:
        edited = n() < 12 && split_label(*session, draw(3));
        break;
      case 1:
        edited = delete_label(*session, draw(3));
        break;
      case 2:
        edited = n() > 4 && delete_current_cluster(*session);
        break;
      case 3:
        edited = realign_current_cluster(*session);
        break;
      case 4:
        edited =
            reclaim_events(*session, reclaim_selectivity::low, counts) && counts.n_restored > 0;
        break;
    }
    expect_consistent();
    if (!edited || draw(2) == 0) continue;
    ASSERT_TRUE(undo_cluster_review(*session));
    ASSERT_EQ(fingerprint(), before) << step;
  }
}

}  // namespace
}  // namespace kestrelvane::test
