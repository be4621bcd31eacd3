// Noise round events, features and field potentials: shapes, and values by a plain second form.
#include "results/event_matrices.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "files/input_file.h"
#include "files/npy_file.h"
#include "recording/formats/tsf.h"
#include "results/exports.h"
#include "signal/interpolation.h"
#include "sorting/realign_steps.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

template <typename T>
struct array {
  std::vector<std::int64_t> shape;
  std::vector<T> values;
};
template <typename T>
array<T> load(const std::string& path) {
  input_file file;
  npy_header header;
  EXPECT_TRUE(open_input_file(file, path) && read_npy_header(file, header)) << path;
  const std::vector<char> bytes = read_bytes(path);
  array<T> a{header.shape, {}};
  a.values.resize((bytes.size() - static_cast<std::size_t>(header.data_at)) / sizeof(T));
  std::memcpy(a.values.data(), bytes.data() + header.data_at, a.values.size() * sizeof(T));
  return a;
}

struct matrix_test : ::testing::Test {
  temporary_directory folder;
  small_session session;
  std::string path = folder.file("out");

  matrix_test() {
    make_busy_recording(*session, 4, 60'000, 23);
    recalculate_all_templates(*session);
  }
};

TEST_F(matrix_test, NoiseIsWhatTheTemplateLeaves) {
  // One at the rim has no whole waveform.
  session->events.event_time[1] = 1;
  ASSERT_TRUE(write_event_noise(*session, path));
  const auto units = load<std::int32_t>(path + "/units.npy");
  ASSERT_EQ(units.values.size(), static_cast<std::size_t>(session->clusters.n_clusters));
  const std::int32_t unit = session->events.event_cluster[1];
  const std::string stem = path + "/noise_unit_" + std::to_string(unit);
  const auto noise = load<float>(stem + ".npy");
  const auto events = load<std::int32_t>(stem + "_events.npy");
  const auto channels = load<std::int32_t>(stem + "_channels.npy");
  const std::int32_t points = session->templates.template_points;
  EXPECT_EQ(static_cast<std::int32_t>(events.values.size()),
            count_cluster_events(*session, unit) - 1);
  EXPECT_EQ(channels.values[0], session->templates.centre_channel(unit));
  const auto n_channels = static_cast<std::int64_t>(channels.values.size());
  ASSERT_EQ(noise.shape, (std::vector<std::int64_t>{static_cast<std::int64_t>(events.values.size()),
                                                    n_channels, points}));
  const std::int32_t e = events.values[2], c = channels.values[0];
  for (std::int32_t p = 1; p <= points; ++p) {
    const float v = interp_voltage(
        *session, session->events.event_time[e] + session->templates.first_sample + p - 1, c,
        interp_step(*session, session->events.event_shift[e]));
    EXPECT_EQ(noise.values[static_cast<std::size_t>(2 * n_channels * points + p - 1)],
              (v - session->templates.mean(unit, c)[p]) * session->recording.vscale_HP);
  }
  const auto covariance = load<float>(stem + "_covariance.npy");
  const std::int64_t size = n_channels * points;
  ASSERT_EQ(covariance.shape, (std::vector<std::int64_t>{size, size}));
  double product = 0;
  for (std::size_t i = 0; i < events.values.size(); ++i) {
    const float* row = noise.values.data() + static_cast<std::int64_t>(i) * size;
    product += double{row[3]} * double{row[7]};
  }
  EXPECT_NEAR(covariance.values[static_cast<std::size_t>(3 * size + 7)],
              product / static_cast<double>(events.values.size()), 1e-3);
  EXPECT_EQ(covariance.values[static_cast<std::size_t>(7 * size + 3)],
            covariance.values[static_cast<std::size_t>(3 * size + 7)]);
  // What is there is replaced only on a Yes, and is the same on more threads.
  EXPECT_FALSE(write_event_noise(*session, path));
  session.user.default_answer = true;
  use_threads(*session, 3);
  ASSERT_TRUE(write_event_noise(*session, path));
  EXPECT_EQ(load<float>(stem + "_covariance.npy").values, covariance.values);
}

TEST_F(matrix_test, FeaturesAreThoseOfTheSplits) {
  ASSERT_TRUE(write_feature_matrices(*session, path));
  const auto features = load<float>(path + "/features.npy");
  const auto events = load<std::int32_t>(path + "/events.npy");
  const auto clusters = load<std::int32_t>(path + "/clusters.npy");
  ASSERT_EQ(features.shape,
            (std::vector<std::int64_t>{static_cast<std::int64_t>(events.values.size()),
                                       pc_parameters_of(*session).dimensions}));
  for (std::size_t i = 0; i < events.values.size(); ++i) {
    EXPECT_EQ(session->events.event_cluster[events.values[i]], clusters.values[i]);
  }
  gac_points first;
  cluster_pc_values(*session, 1, first);
  ASSERT_GE(features.values.size(), first.values.size());
  EXPECT_TRUE(std::equal(first.values.begin(), first.values.end(), features.values.begin()));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(matrix_test, AnInterruptedExportDoesNotSayThatItIsWhole) {
  session->operation.interrupt_at_poll = session->operation.polls + 2;
  EXPECT_FALSE(write_event_noise(*session, path));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(session.user.logged("The export was interrupted"));
  small_session empty;
  make_recording(*empty, 2, 5000);
  EXPECT_FALSE(write_feature_matrices(*empty, path));
  EXPECT_TRUE(empty.user.told("There are no clusters to export"));
  EXPECT_FALSE(find_export_format("noise") == nullptr);
}

TEST_F(matrix_test, FieldPotentialsBecomeARecording) {
  const std::string file = folder.file("lfp.tsf");
  EXPECT_FALSE(write_lfp_tsf(*session, file));
  EXPECT_TRUE(session.user.told("There are no LFP values in memory"));
  lfp_store& lfp = session->recording.stimulus.lfp;
  // A spike stream, two channels of one rate and two scales, one of another rate.
  lfp.samples = {{}, {10, 20, 30, 40}, {10, -20, 30'000}, {1, 2}};
  lfp.sites = {-1, 2, -1, 0};
  lfp.rates = {0, 1000, 1000, 2000};
  lfp.vscales = {0, 2, 4, 2};
  lfp.vscale_LFP = 2;
  lfp.sampling_frequency_LFP = 1000;
  lfp.n_lfp_samples = 4;
  ASSERT_TRUE(write_lfp_tsf(*session, file));
  EXPECT_TRUE(session.user.logged("LFP channel 4 has another rate and is left out"));
  small_session read;
  ASSERT_TRUE(read_tsf(*read, {.path = file}));
  EXPECT_EQ(read->recording.sampling_frequency, 1000);
  EXPECT_EQ(read->recording.vscale_HP, 2.0f);
  ASSERT_EQ(read->recording.n_channels, 2);
  ASSERT_EQ(read->recording.n_samples, 3);
  const std::int16_t *a = read->recording.vd.channel(1), *b = read->recording.vd.channel(2);
  EXPECT_EQ(std::vector<int>(a + 1, a + 4), (std::vector<int>{10, 20, 30}));
  EXPECT_EQ(std::vector<int>(b + 1, b + 4), (std::vector<int>{20, -40, 32'767}));
  EXPECT_EQ(read->recording.chan_y[1], session->recording.chan_y[3]);
  EXPECT_GT(read->recording.chan_y[2], session->recording.site_y_max);
}

}  // namespace
}  // namespace kestrelvane::test
