// ".ptcs" out and in again, files per epoch, and files that lie.
#include "results/ptcs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <limits>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct ptcs_test : testing::Test {
  temporary_directory folder;
  small_session session;
  std::string path = folder.file("units.ptcs");

  ptcs_test() {
    make_recording(*session, 5, 20'000, 25'000, 0.5f);
    recording_store& r = session->recording;
    r.chan_mask[4] = true;
    session->templates.template_points = 9;
    session->clusters.n_clusters = 3;
    const std::int32_t times[] = {700, 100, 19'999, 333, 1, 20'000, 5000};
    const std::int32_t owners[] = {2, 1, 2, 0, 1, 2, 2};
    for (std::int32_t i = 0; i < 7; ++i) {
      session->events.event_time[i + 1] = times[i];
      session->events.event_cluster[i + 1] = owners[i];
      session->events.event_channel[i + 1] = 2;
    }
    session->events.n_events = 7;
    session->clusters.cluster_comment[2].assign("fast spiking");
    for (std::int32_t c = 1; c <= 3; ++c) {
      session->templates.template_n_channels[c] = 1;
      session->templates.channels(c)[1] = c;
      session->templates.template_x[c] = 10.5f * static_cast<float>(c);
      for (std::int32_t ch = 1; ch <= 5; ++ch) {
        for (std::int32_t p = 1; p <= 9; ++p) {
          session->templates.mean(c, ch)[p] = static_cast<float>(100 * c + 10 * ch + p);
          session->templates.sd(c, ch)[p] = static_cast<float>(c + ch) * (c == 3 ? 0.0f : 1.0f);
        }
      }
    }
  }

  template <typename T>
  static T field(const std::vector<char>& bytes, std::size_t at) {
    T value{};
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
  }
};

TEST_F(ptcs_test, the_header_stands_as_the_format_has_it) {
  session->recording.recording_path = "/data/rec.srf";  // 13 characters: 16 with blanks
  session->recording.record_date[0] = 2005;
  session->recording.record_date[1] = 9;
  session->recording.record_date[2] = 20;
  session->recording.record_time[2] = 12;
  ASSERT_TRUE(export_ptcs(*session, path));
  EXPECT_TRUE(session.user.told("Spike data from 3 units saved", "Save sorted spikes"));
  const std::vector<char> bytes = read_bytes(path);
  EXPECT_EQ(field<std::int64_t>(bytes, 0), 3);
  EXPECT_EQ(field<std::int64_t>(bytes, 8), 48);
  EXPECT_EQ(std::string(bytes.data() + 16, 47), "QAB multi spike format implemented by RFD      ");
  EXPECT_EQ(bytes[63], '\0');
  EXPECT_EQ(field<std::int64_t>(bytes, 64), 3);       // units
  EXPECT_EQ(field<std::int64_t>(bytes, 72), 6);       // spikes
  EXPECT_EQ(field<std::int64_t>(bytes, 80), 4);       // bytes of a sample
  EXPECT_EQ(field<std::int64_t>(bytes, 88), 25'000);  // rate
  EXPECT_EQ(field<std::int64_t>(bytes, 96), 16);
  EXPECT_EQ(field<std::int64_t>(bytes, 120), 5);  // sites
  EXPECT_EQ(field<double>(bytes, 128 + 16 + 8), 40.0);
  EXPECT_EQ(field<std::int64_t>(bytes, 208), 4);  // unmasked
  EXPECT_EQ(field<std::int64_t>(bytes, 216), 16);
  EXPECT_EQ(std::string(bytes.data() + 224, 16), "/data/rec.srf   ");
  EXPECT_EQ(field<double>(bytes, 240), 38'615.5);
  EXPECT_EQ(field<std::int64_t>(bytes, 248), 32);
  EXPECT_EQ(std::string(bytes.data() + 256, 19), "20/09/2005 12:00:00");
  // The first unit, which has no comment.
  EXPECT_EQ(field<std::int64_t>(bytes, 288), 1);
  EXPECT_EQ(field<std::int64_t>(bytes, 296), 0);
  EXPECT_EQ(field<float>(bytes, 304), 4.0f);  // 8 bits over a deviation of 2
  EXPECT_EQ(field<float>(bytes, 308), 1.0f);  // µV
  EXPECT_EQ(field<double>(bytes, 312), 10.5);
  EXPECT_EQ(field<std::int64_t>(bytes, 336), 4);
  EXPECT_EQ(field<std::int64_t>(bytes, 344 + 24), 4);  // the fifth channel, counted from 0
  EXPECT_EQ(field<std::int64_t>(bytes, 376), 0);       // centre
  EXPECT_EQ(field<std::int64_t>(bytes, 384), 9);
  EXPECT_EQ(field<std::int64_t>(bytes, 392), 36);
  EXPECT_EQ(field<float>(bytes, 400), 55.5f);
  EXPECT_EQ(field<std::int64_t>(bytes, 544), 36);
  EXPECT_EQ(field<std::int64_t>(bytes, 696), 2);   // spikes in order of time
  EXPECT_EQ(field<std::int64_t>(bytes, 704), 40);  // time index 1
  EXPECT_EQ(field<std::int64_t>(bytes, 712), 4000);
}

TEST_F(ptcs_test, units_come_back_within_a_sample) {
  ASSERT_TRUE(export_ptcs(*session, path));
  const float mean = session->templates.mean(2, 5)[9], sd = session->templates.sd(2, 1)[1];
  session->events.n_events = 0;
  session->clusters.n_clusters = 0;
  session->recording.chan_mask[1] = true;
  session->templates.mean(2, 5)[9] = 0;
  session->templates.sd(2, 1)[1] = 0;
  ASSERT_TRUE(import_ptcs(*session, path));
  EXPECT_EQ(session->clusters.n_clusters, 2);  // the third has no spikes
  EXPECT_TRUE(session.user.logged("Unit 3 has no spikes in this recording"));
  EXPECT_FALSE(session->recording.chan_mask[1]);
  EXPECT_TRUE(session->recording.chan_mask[4]);
  ASSERT_EQ(session->events.n_events, 6);
  const std::int32_t times[] = {1, 100, 700, 5000, 19'999, 20'000};
  const std::int32_t owners[] = {1, 1, 2, 2, 2, 2};
  for (std::int32_t i = 0; i < 6; ++i) {
    EXPECT_NEAR(session->events.event_time[i + 1], times[i], 1);
    EXPECT_EQ(session->events.event_cluster[i + 1], owners[i]);
  }
  EXPECT_EQ(session->clusters.cluster_comment[2].view(), "fast spiking");
  EXPECT_FLOAT_EQ(session->templates.mean(2, 5)[9], mean);
  EXPECT_FLOAT_EQ(session->templates.sd(2, 1)[1], sd);
  EXPECT_EQ(session->templates.centre_channel(2), 2);
  EXPECT_EQ(session->templates.template_x[2], 21.0f);
  EXPECT_TRUE(session.user.logged("format in file = 3"));
  EXPECT_TRUE(session.user.logged("n_template_points=9"));
  EXPECT_TRUE(session.user.logged("Finished reading ptcs file"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(ptcs_test, every_epoch_has_a_file_of_its_own) {
  recording_store& r = session->recording;
  r.n_epochs = 3;
  const std::int64_t starts[] = {0, 10, 40};
  for (std::int32_t e = 1; e <= 3; ++e) {
    r.epoch_first_index[e] = 1 + 6000 * (e - 1);
    r.epoch_samples[e] = 5000;
    r.epoch_start[e] = starts[e - 1];
    r.epoch_name[e] = e == 2 ? "grating/1" : "blank";
  }
  r.stimulus.digital_values = {{1000, 7}, {250'000, 8}};
  r.stimulus.headers = {{5, "s.txt", "script text"}};
  ASSERT_TRUE(export_ptcs(*session, path));
  EXPECT_TRUE(session.user.told("Spike data from 3 recording epochs saved", "Save sorted spikes"));
  EXPECT_FALSE(std::filesystem::exists(path));
  const std::vector<char> first = read_bytes(folder.file("blank.ptcs"));
  EXPECT_EQ(std::string(first.data() + 16, 45), "Exported from combined multi-epoch .prf files");
  EXPECT_EQ(field<std::int64_t>(first, 72), 4);
  EXPECT_EQ(field<std::int64_t>(read_bytes(folder.file("grating_1.ptcs")), 72), 0);
  EXPECT_TRUE(std::filesystem::exists(folder.file("blank_3.ptcs")));
  EXPECT_EQ(read_bytes(folder.file("blank_exp_.din")).size(), 16u);
  EXPECT_EQ(read_bytes(folder.file("grating_1_exp_.din")).size(), 16u);
  const std::vector<char> script = read_bytes(folder.file("blank_exp_.textheader"));
  EXPECT_EQ(std::string(script.begin(), script.end()), "script text\n");
  // A second time it asks before it replaces.
  EXPECT_TRUE(export_ptcs(*session, folder.path));
  EXPECT_TRUE(session.user.asked(folder.path + "/blank.ptcs\nReplace it?", "File already exists"));
  EXPECT_TRUE(session.user.told("Spike data from 0 recording epochs saved", "Save sorted spikes"));
}

TEST_F(ptcs_test, files_that_lie_leave_a_sound_session) {
  ASSERT_TRUE(export_ptcs(*session, path));
  session->events.event_cluster[1] = session->events.event_cluster[4] = 3;
  const std::vector<char> whole = read_bytes(path);
  for (std::size_t n = 0; n < whole.size(); n += 1 + n / 50) {
    write_bytes(path, {whole.begin(), whole.begin() + static_cast<long>(n)});
    import_ptcs(*session, path);
    ASSERT_EQ(check_session(*session), "") << n;
  }
  for (std::size_t at = 0; at + 8 <= whole.size(); at += 8) {
    for (const std::int64_t value :
         {std::int64_t{-1}, std::int64_t{0}, std::int64_t{4096},
          std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
      std::vector<char> bytes = whole;
      std::memcpy(bytes.data() + at, &value, sizeof value);
      write_bytes(path, bytes);
      import_ptcs(*session, path);
      ASSERT_EQ(check_session(*session), "") << at << " " << value;
    }
  }
  write_bytes(path, {});
  EXPECT_FALSE(import_ptcs(*session, path));
  EXPECT_TRUE(session.user.told("Error opening file", "Open PTCS File"));
  EXPECT_FALSE(export_ptcs(*session, folder.file("no/units.ptcs")));
}

TEST_F(ptcs_test, byte_counts_of_version_1_are_mended) {
  ASSERT_TRUE(export_ptcs(*session, path));
  std::vector<char> bytes = read_bytes(path);
  bytes[0] = 1;
  // The recording has no path of its own here: 16 bytes of "No data file".
  const std::size_t count_at = 392;
  ASSERT_EQ(field<std::int64_t>(bytes, count_at), 36);
  bytes[count_at] = static_cast<char>(144);
  write_bytes(path, bytes);
  EXPECT_TRUE(import_ptcs(*session, path));
  EXPECT_TRUE(session.user.logged("Correcting error in iformat=1 ptcs file"));
  EXPECT_EQ(session->clusters.n_clusters, 2);
}

}  // namespace
}  // namespace kestrelvane::test
