// Memory for recordings: what is allocated, and what is said when there is none.
#include "recording/storage.h"

#include <gtest/gtest.h>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(storage, samples_and_templates_are_zeroed_with_their_margins) {
  small_session session;
  recording_store& r = session->recording;
  r.n_channels = 3;
  ASSERT_TRUE(allocate_recording(*session, 777));
  r.vd.channel(1)[1] = 5;
  r.n_channels = 5;
  ASSERT_TRUE(allocate_recording(*session, 1100));
  EXPECT_EQ(r.max_vd_samples, 1100);
  EXPECT_EQ(r.vd.max_time(), 1100);
  EXPECT_EQ(session->templates.allocated_channels, 5);
  EXPECT_EQ(r.vd.channel(1)[1], 0);
  EXPECT_EQ(r.vd.channel(1)[-vd_margin], 0);
  EXPECT_EQ(r.vd.channel(6)[1100], 0);
}

TEST(storage, event_based_recordings_get_a_time_stamp_map) {
  small_session session;
  recording_store& r = session->recording;
  r.n_channels = 8;
  r.n_tetrodes = 2;
  r.is_continuous = false;
  const auto capacity = [&](std::int32_t electrode) {
    r.electrode_type = electrode;
    EXPECT_TRUE(allocate_recording(*session, 1000));
    return std::pair<std::int64_t, std::int64_t>(r.records_per_unit, r.event_timestamp.capacity());
  };
  using sizes = std::pair<std::int64_t, std::int64_t>;
  EXPECT_EQ(capacity(electrode_tetrode), sizes(5'000'000, 2 * 5'000'001));
  EXPECT_EQ(capacity(electrode_polytrode), sizes(5'000'000, 8 * 5'000'001));
  EXPECT_EQ(capacity(electrode_utah_array), sizes(2'000'000, 8 * 2'000'001));
  r.is_continuous = true;
  EXPECT_EQ(capacity(electrode_polytrode), sizes(0, 0));
}

TEST(storage, says_how_much_memory_is_missing) {
  small_session session;
  recording_store& r = session->recording;
  r.n_channels = 4096;
  EXPECT_FALSE(allocate_recording(*session, 2'000'001'000));
  EXPECT_FALSE(r.vd.is_allocated());
  EXPECT_TRUE(session.user.logged("n_channels=4096 max_vd_samples=2000001000"));
  EXPECT_TRUE(
      session.user.told("Not enough memory: about 16384 GB needed for recording data", "Problem"));
  EXPECT_EQ(session.user.boxes.size(), 1u);

  // An event-based recording on one time axis gets a suggestion too.
  r.is_continuous = false;
  session->preferences.treat_as_continuous = true;
  EXPECT_FALSE(allocate_recording(*session, 2'000'001'000));
  EXPECT_EQ(session.user.boxes.size(), 3u);
  EXPECT_TRUE(session.user.told(
      "Try turning off 'treat event based recording as continuous' option", "Suggestion"));

  // A file too long for a time index.
  r.is_continuous = true;
  r.n_channels = 1;
  EXPECT_FALSE(allocate_recording(*session, std::int64_t{1} << 40));
  EXPECT_EQ(session.user.boxes.size(), 4u);

  r.n_channels = 100'000'000;
  EXPECT_FALSE(allocate_templates(*session));
  EXPECT_TRUE(session.user.told(
      "Not enough memory: about 245466 additional GB needed for templates", "Problem"));
  EXPECT_EQ(session->templates.allocated_channels, 0);

  r.n_channels = 4;
  r.n_tetrodes = 100'000'000;
  r.electrode_type = electrode_tetrode;
  r.is_continuous = false;
  EXPECT_FALSE(allocate_recording(*session, 0));
  EXPECT_TRUE(session.user.told("Not enough memory for timestamp map", "Problem"));
}

}  // namespace
}  // namespace kestrelvane::test
