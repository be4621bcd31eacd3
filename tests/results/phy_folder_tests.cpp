// The folder for curation tools: every array's type, shape and values, and the tables.
#include "results/phy_folder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "files/input_file.h"
#include "files/npy_file.h"
#include "session/template_window.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct phy_test : testing::Test {
  temporary_directory folder;
  small_session session;
  std::string path = folder.file("phy");

  // Four channels, the second masked; two units whose spikes are their templates, the second
  // at twice its size once.
  phy_test() {
    make_recording(*session, 4, 6000, 30'000, 0.5f);
    session->recording.chan_mask[2] = true;
    compute_template_points(*session);
    session->clusters.n_clusters = 2;
    const std::int32_t times[] = {3000, 1000, 2000, 4000, 5000};
    const std::int32_t owners[] = {2, 1, 2, 0, 1};
    const int sizes[] = {2, 1, 1, 1, 1};
    for (std::int32_t i = 0; i < 5; ++i) {
      session->events.event_time[i + 1] = times[i];
      session->events.event_cluster[i + 1] = owners[i];
      session->events.event_channel[i + 1] = 1;
      for (std::int32_t k = -6; k <= 6; ++k) {
        std::int16_t* vd = session->recording.vd.channel(owners[i] == 1 ? 1 : 4);
        vd[times[i] + k] = static_cast<std::int16_t>(-60 * sizes[i] * (7 - std::abs(k)));
      }
    }
    session->events.n_events = 5;
    for (std::int32_t c = 1; c <= 2; ++c) {
      session->templates.template_n_channels[c] = 1;
      session->templates.channels(c)[1] = c == 1 ? 1 : 4;
      for (const std::int32_t ch : {1, 3, 4}) {
        const std::int32_t first = window_first_sample(*session);
        for (std::int32_t p = 1; p <= session->templates.template_points; ++p) {
          const std::int32_t k = std::abs(first + p - 1);
          const bool on = ch == (c == 1 ? 1 : 4) && k <= 6;
          session->templates.mean(c, ch)[p] = on ? static_cast<float>(-60 * (7 - k)) : 0.0f;
        }
      }
    }
    session->clusters.cluster_signed_off[1] = true;
    session->clusters.cluster_comment[2].assign("doubtful\tpair");
  }

  struct array {
    npy_header header;
    std::vector<char> bytes;
    template <typename T>
    std::vector<T> values() const {
      std::vector<T> all((bytes.size() - static_cast<std::size_t>(header.data_at)) / sizeof(T));
      // An empty array has no address to copy to.
      if (all.empty()) return all;
      std::memcpy(all.data(), bytes.data() + header.data_at, all.size() * sizeof(T));
      return all;
    }
  };
  array load(const std::string& name) {
    array a;
    input_file file;
    EXPECT_TRUE(open_input_file(file, path + "/" + name + ".npy")) << name;
    EXPECT_TRUE(read_npy_header(file, a.header)) << name;
    EXPECT_EQ(a.header.data_at % 64, 0) << name;
    a.bytes = read_bytes(path + "/" + name + ".npy");
    return a;
  }
  void expect_shape(const std::string& name, const std::string& type,
                    const std::vector<std::int64_t>& shape) {
    const array a = load(name);
    EXPECT_EQ(a.header.type, type) << name;
    EXPECT_EQ(a.header.shape, shape) << name;
    std::int64_t bytes = type[2] - '0';
    for (const std::int64_t n : shape) bytes *= n;
    EXPECT_EQ(static_cast<std::int64_t>(a.bytes.size()) - a.header.data_at, bytes) << name;
  }
  std::string text(const std::string& name) {
    const std::vector<char> bytes = read_bytes(path + "/" + name);
    return {bytes.begin(), bytes.end()};
  }
};

TEST_F(phy_test, arrays_have_the_types_and_shapes_that_readers_take) {
  ASSERT_TRUE(export_phy(*session, path));
  const std::int64_t points = session->templates.template_points;
  expect_shape("spike_times", "<i8", {4});
  expect_shape("spike_templates", "<i4", {4});
  expect_shape("spike_clusters", "<i4", {4});
  expect_shape("amplitudes", "<f8", {4});
  expect_shape("channel_map", "<i4", {3});
  expect_shape("channel_positions", "<f8", {3, 2});
  expect_shape("channel_shanks", "<i4", {3});
  expect_shape("channel_probe", "<i4", {3});
  expect_shape("templates", "<f4", {2, points, 3});
  expect_shape("similar_templates", "<f4", {2, 2});
  expect_shape("whitening_mat", "<f8", {3, 3});
  expect_shape("whitening_mat_inv", "<f8", {3, 3});
  expect_shape("pc_features", "<f4", {4, 3, 3});
  expect_shape("pc_feature_ind", "<u4", {2, 3});
  expect_shape("template_features", "<f4", {4, 2});
  expect_shape("template_feature_ind", "<u4", {2, 2});
  expect_shape("_phy_spikes_subset.spikes", "<i8", {4});
  expect_shape("_phy_spikes_subset.channels", "<i8", {4, 3});
  expect_shape("_phy_spikes_subset.waveforms", "<f4", {4, points, 3});
  EXPECT_TRUE(session.user.told("Phy folder saved", "Save sorted spikes"));
}

TEST_F(phy_test, values_are_those_of_the_sort) {
  ASSERT_TRUE(export_phy(*session, path));
  EXPECT_EQ(load("spike_times").values<std::int64_t>(),
            (std::vector<std::int64_t>{999, 1999, 2999, 4999}));
  EXPECT_EQ(load("spike_templates").values<std::int32_t>(),
            (std::vector<std::int32_t>{0, 1, 1, 0}));
  EXPECT_EQ(load("spike_clusters").values<std::int32_t>(), (std::vector<std::int32_t>{1, 2, 2, 1}));
  const std::vector<double> scales = load("amplitudes").values<double>();
  const double expected[] = {1, 1, 2, 1};
  for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(scales[i], expected[i], 1e-12);
  EXPECT_EQ(load("channel_map").values<std::int32_t>(), (std::vector<std::int32_t>{0, 2, 3}));
  EXPECT_EQ(load("channel_positions").values<double>()[3], 80.0);
  const std::vector<float> likeness = load("similar_templates").values<float>();
  EXPECT_FLOAT_EQ(likeness[0], 1.0f);
  EXPECT_FLOAT_EQ(likeness[1], 0.0f);
  // The first unit is largest on the first place, the second on the last.
  const std::vector<std::uint32_t> places = load("pc_feature_ind").values<std::uint32_t>();
  EXPECT_EQ(places[0], 0u);
  EXPECT_EQ(places[3], 2u);
  // All waveforms have one shape: the first component holds what there is, twice as much of
  // the large spike.
  const std::vector<float> features = load("pc_features").values<float>();
  // A spike goes downwards, and projects upwards: depths are weighed by it.
  EXPECT_GT(features[0], 100.0f);
  EXPECT_NEAR(features[2 * 9] / features[9], 2.0f, 1e-4f);
  EXPECT_NEAR(features[3], 0.0f, 0.05f * features[0]);
  // Samples beside it, channel fastest, masked ones, too.
  const std::vector<char> dat = read_bytes(path + "/recording.dat");
  ASSERT_EQ(dat.size(), 2u * 4 * 6000);
  std::int16_t sample = 0;
  std::memcpy(&sample, dat.data() + 2 * (4 * 2999 + 3), 2);
  EXPECT_EQ(sample, -840);
}

TEST_F(phy_test, texts_are_as_readers_parse_them) {
  session->recording.recording_filtered = true;
  session->recording.chan_noise[1] = 10;  // and none was measured for the other unit
  ASSERT_TRUE(export_phy(*session, path));
  EXPECT_EQ(text("params.py"),
            "dat_path = 'recording.dat'\nn_channels_dat = 4\ndtype = 'int16'\noffset = 0\n"
            "sample_rate = 30000\nhp_filtered = True\n");
  // Whether a unit is good is not for a sorter to say.
  EXPECT_FALSE(std::filesystem::exists(path + "/cluster_group.tsv"));
  EXPECT_EQ(text("cluster_signed_off.tsv"), "cluster_id\tsigned_off\n1\tyes\n2\tno\n");
  EXPECT_EQ(text("cluster_firing_rate.tsv"), "cluster_id\tfiring_rate\n1\t10.000\n2\t10.000\n");
  EXPECT_EQ(text("cluster_snr.tsv"), "cluster_id\tsnr\n1\t42.00\n");
  // Unit 1 fires at 33 and 167 ms of 200, in two of ten stretches; so does unit 2. What cannot be
  // told of two spikes has no table.
  EXPECT_EQ(text("cluster_presence_ratio.tsv"), "cluster_id\tpresence_ratio\n1\t0.2\n2\t0.2\n");
  EXPECT_EQ(text("cluster_amplitude_median_uv.tsv"),
            "cluster_id\tamplitude_median_uv\n1\t210\n2\t210\n");
  EXPECT_FALSE(std::filesystem::exists(path + "/cluster_amplitude_cutoff.tsv"));
  // Without lists of pairs nobody knows what is stable.
  EXPECT_FALSE(std::filesystem::exists(path + "/cluster_stability.tsv"));
  EXPECT_EQ(text("cluster_comment.tsv"), "cluster_id\tcomment\n2\tdoubtful pair\n");
  EXPECT_EQ(text("cluster_Amplitude.tsv"), "cluster_id\tAmplitude\n1\t210.0\n2\t210.0\n");
}

// Records of 20 samples: two channels, the clock of the file starting late and running on.
TEST_F(phy_test, spikes_of_stored_records_have_the_time_of_the_file) {
  recording_store& r = session->recording;
  ASSERT_TRUE(export_phy(*session, path));
  ASSERT_TRUE(std::filesystem::exists(path + "/recording.dat"));
  r.is_continuous = false;
  r.samples_per_event = 20;
  r.records_per_unit = 200;
  r.first_timestamp = 1'700'000'000'000'000;
  ASSERT_TRUE(r.event_timestamp.reserve(4 * 201));
  // Record (t - 100) / 40 + 1 holds time index t. The second spike in index is the last in time.
  r.timestamp(23, 1) = 159'624'500;
  r.timestamp(48, 1) = 1'000'001;
  r.timestamp(73, 1) = 2'000'000;
  r.timestamp(123, 1) = 0;
  session.user.default_answer = true;
  ASSERT_TRUE(export_phy(*session, path));
  constexpr std::int64_t start = 1'700'000'000LL * 30'000;
  EXPECT_EQ(load("spike_times").values<std::int64_t>(),
            (std::vector<std::int64_t>{start, start + 30'000, start + 60'000, start + 4'788'735}));
  EXPECT_EQ(load("spike_clusters").values<std::int32_t>(), (std::vector<std::int32_t>{1, 2, 2, 1}));
  // Records end to end are no traces that these times could be places in.
  EXPECT_FALSE(std::filesystem::exists(path + "/recording.dat"));
  EXPECT_EQ(text("params.py").substr(0, 14), "dat_path = []\n");
}

TEST_F(phy_test, a_curated_folder_is_replaced_only_when_the_user_says_so) {
  ASSERT_TRUE(export_phy(*session, path));
  const std::string curated = path + "/spike_clusters.npy";
  write_bytes(curated, {'m', 'i', 'n', 'e'});
  write_bytes(path + "/cluster_info.tsv", {'x'});
  write_bytes(path + "/cluster_group.tsv", {'x'});
  EXPECT_FALSE(export_phy(*session, path));
  EXPECT_EQ(read_bytes(curated).size(), 4u);
  session.user.default_answer = true;
  EXPECT_TRUE(export_phy(*session, path));
  EXPECT_GT(read_bytes(curated).size(), 4u);
  EXPECT_FALSE(std::filesystem::exists(path + "/cluster_info.tsv"));
  EXPECT_FALSE(std::filesystem::exists(path + "/cluster_group.tsv"));
  // The words of the curator of this sort.
  session->clusters.cluster_label[2] = unit_label::multi_unit;
  EXPECT_TRUE(export_phy(*session, path));
  EXPECT_EQ(text("cluster_group.tsv"), "cluster_id\tgroup\n2\tmua\n");
  write_bytes(folder.file("plain"), {'x'});
  EXPECT_FALSE(export_phy(*session, folder.file("plain")));
  session->clusters.n_clusters = 0;
  EXPECT_FALSE(export_phy(*session, folder.file("none")));
  EXPECT_TRUE(session.user.told("There are no clusters to export", "Save sorted spikes"));
}

}  // namespace
}  // namespace kestrelvane::test
