// Parts of the batch command that need no process.
#include <gtest/gtest.h>

#include "batch/channel_list.h"
#include "batch/unit_list.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(channel_list, numbers_and_ranges) {
  std::vector<std::int32_t> channels;
  EXPECT_TRUE(parse_channel_list("3,8-10,1", channels));
  EXPECT_EQ(channels, (std::vector<std::int32_t>{3, 8, 9, 10, 1}));
  for (const char* bad : {"", ",", "0", "4097", "5-4", "1,,2", "1-", "-3", "1 2", "x", "1-2-3"}) {
    EXPECT_FALSE(parse_channel_list(bad, channels)) << bad;
  }
}

TEST(unit_table, measures_templates_in_microvolts) {
  small_session session;
  make_recording(*session, 2, 250000, 25000, 0.5f);
  session->recording.chan_noise[2] = 10;
  session->clusters.n_clusters = 2;
  session->templates.template_points = 3;
  for (std::int32_t c = 1; c <= 2; ++c) {
    session->templates.template_n_channels[c] = 1;
    session->templates.channels(c)[1] = c;
    session->templates.mean(c, c)[1] = -80;
    session->templates.mean(c, c)[2] = 40;
    session->templates.template_y[c] = 12.5f;
  }
  session->events.n_events = 3;
  session->events.event_cluster[1] = session->events.event_cluster[3] = 2;
  const std::vector<unit_row> units = make_unit_table(*session);
  ASSERT_EQ(units.size(), 2u);
  EXPECT_EQ(units[1].channel, 2);
  EXPECT_EQ(units[1].n_events, 2);
  EXPECT_NEAR(units[1].rate, 0.2, 1e-6);
  EXPECT_EQ(units[1].peak_to_peak, 60);
  EXPECT_EQ(units[1].snr, 12);
  EXPECT_EQ(units[0].snr, 0) << "a channel without noise has no ratio";
  EXPECT_EQ(units[1].y, 12.5f);
  EXPECT_EQ(units[1].status, cluster_status::unknown);

  session->lists.n_kv_pairs = 1;
  session->strategy.overlap_threshold = 0.15f;
  session->lists.kv_cluster_overlap[1] = 0.5f;
  session->lists.kv_template_correlation[1] = 0.9f;
  EXPECT_EQ(make_unit_table(*session)[0].status, cluster_status::unstable);
  session->lists.kv_cluster_overlap[1] = 0.1f;
  EXPECT_EQ(make_unit_table(*session)[0].status, cluster_status::stable);
}

}  // namespace
}  // namespace kestrelvane::test
