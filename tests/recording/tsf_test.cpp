// TSF: all formats, the writer, and files that lie.
#include "recording/formats/tsf.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <bit>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <limits>
#include <set>

#include "files/safe_file.h"
#include "operations/open_recording.h"
#include "support/fixture_files.h"
#include "support/reader_test.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using boxes = std::vector<std::pair<std::string, std::string>>;

struct tsf_test : testing::Test {
  temporary_directory folder;
  std::string path = folder.file("rec.tsf");
  small_session session;

  recording_store& recording() { return session->recording; }

  bool open(const std::vector<char>& bytes) {
    write_bytes(path, bytes);
    session.user.boxes.clear();
    session.user.lines.clear();
    session.user.default_answer = true;
    return read_recording(*session, path);
  }

  void expect_fixture_samples(const tsf_fixture& f) {
    for (std::int32_t c = 1; c <= f.n_channels; ++c) {
      const std::int16_t* v = recording().vd.channel(c);
      for (std::int32_t t = 1; t <= f.n_samples; ++t) {
        ASSERT_EQ(v[t], fixture_sample(c, t)) << c << " " << t;
      }
      EXPECT_EQ(v[0], 0);
      EXPECT_EQ(v[f.n_samples + 1], 0);
    }
  }

  void expect_empty() {
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_EQ(session->events.n_events, 0);
    EXPECT_EQ(session->clusters.n_clusters, 0);
    EXPECT_FALSE(session->operation.open_succeeded);
    EXPECT_EQ(recording().recording_path, "No data file");
    EXPECT_EQ(check_session(*session), "");
  }

  // The boxes of the latest open, as pairs.
  boxes told() {
    boxes all;
    for (const auto& b : session.user.boxes) all.emplace_back(b.text, b.title);
    return all;
  }
};

const std::pair<std::string, std::string> tsf_failure = {"Error reading tsf data file",
                                                         "Possibly not enough memory"};

TEST_F(tsf_test, reads_format_1002) {
  tsf_fixture f;
  f.events = {{10, 1, 1}, {20, 3, 2}, {30, 1, 3}, {55, 0, 1}};
  f.order = {3, 1, 2};
  ASSERT_TRUE(open(tsf_bytes(f)));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().n_samples, 60);
  EXPECT_EQ(recording().max_vd_samples, 20060);
  EXPECT_EQ(recording().sampling_frequency, 25000);
  EXPECT_EQ(recording().vscale_HP, 0.25f);
  EXPECT_EQ(recording().chan_x[1], 30);
  EXPECT_EQ(recording().chan_y[3], 60);
  EXPECT_EQ(recording().chan_sort_order[1], 3);
  EXPECT_EQ(recording().site_pitch, 20);
  EXPECT_EQ(recording().site_columns, 2);
  EXPECT_EQ(recording().electrode_type, electrode_polytrode);
  EXPECT_EQ(recording().tsf_path, path);
  expect_fixture_samples(f);
  ASSERT_EQ(session->events.n_events, 4);
  EXPECT_EQ(session->events.event_time[3], 30);
  EXPECT_EQ(session->events.event_cluster[2], 3);
  EXPECT_EQ(session->events.event_channel[3], 3);
  // The largest number counts, gaps or not.
  EXPECT_EQ(session->clusters.n_clusters, 3);
  EXPECT_EQ(session->clusters.current_cluster, 1);
  EXPECT_GT(session->templates.template_n_channels[3], 0);
  for (const char* line :
       {"Opening .tsf recording data file ", "using .tsf format 1002",
        "There are    3 channels in the file", "reading rate = ", "Sampling frequency =    25000",
        "Making templates", "Finished making templates"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
  EXPECT_EQ(check_session(*session), "cluster 2 has no events");
}

TEST_F(tsf_test, reads_what_may_follow_an_empty_event_list) {
  tsf_fixture f;
  ASSERT_TRUE(open(tsf_bytes(f)));
  EXPECT_EQ(session->clusters.n_clusters, 0);
  EXPECT_EQ(session->clusters.current_cluster, 1);
  EXPECT_TRUE(session.user.logged("No clusters present in file"));
  EXPECT_FALSE(session.user.logged("sleep recording"));
  EXPECT_EQ(check_session(*session), "");
  f.tail = {45};
  ASSERT_TRUE(open(tsf_bytes(f)));
  EXPECT_EQ(recording().sleep_start_mins, 45);
  EXPECT_TRUE(session.user.logged("sleep recording started at 45 mins"));
}

TEST_F(tsf_test, a_channel_table_without_an_order_is_sorted) {
  tsf_fixture f;
  f.n_channels = 5;  // x = 30, 0, 30, 0, 30; y = 20, 40, 60, 80, 100
  for (const std::vector<std::int32_t>& order :
       {std::vector<std::int32_t>{}, {5, 4, 0, 2, 1}, {5, 4, 3, 2, 6}}) {
    f.order = order;
    ASSERT_TRUE(open(tsf_bytes(f)));
    const std::int32_t* sorted = recording().chan_sort_order.first();
    EXPECT_EQ(std::vector<std::int32_t>(sorted, sorted + 5),
              (std::vector<std::int32_t>{2, 4, 1, 3, 5}));
  }
  f.order = {5, 4, 3, 2, 1};
  ASSERT_TRUE(open(tsf_bytes(f)));
  EXPECT_EQ(recording().chan_sort_order[1], 5);
}

TEST_F(tsf_test, reads_format_1001_and_turns_planted_spikes_into_events) {
  tsf_fixture f;
  f.format = 1001;
  f.events = {{5, 2, 1}, {9, 3999, 2}, {11, 4001, 3}, {40, 1, 2}};
  session->max_clusters = 3998;
  ASSERT_TRUE(open(tsf_bytes(f)));
  expect_fixture_samples(f);
  EXPECT_EQ(recording().max_vd_samples, 2'000'060);
  EXPECT_EQ(recording().n_fake_spikes, 4);
  EXPECT_EQ(recording().fake_spike_cluster[3], 4001);
  ASSERT_EQ(session->events.n_events, 2);
  EXPECT_EQ(session->events.event_time[2], 40);
  EXPECT_EQ(session->clusters.n_clusters, 2);
  EXPECT_EQ(session->templates.template_n_channels[1], 1);
  EXPECT_TRUE(session.user.logged("Cl, ch= 2 1"));
  EXPECT_FALSE(session.user.logged("Cl, ch= 1"));
  EXPECT_TRUE(session.user.logged("n_clusters, n_events= 2 2"));
  EXPECT_TRUE(session.user.logged("       4 test spikes present"));
  EXPECT_FALSE(session.user.logged("Making templates"));
  // x = 30, 0, 30 and y = 20, 40, 60 seen at 15 degrees.
  EXPECT_EQ(recording().chan_sort_order[1], 2);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(tsf_test, reads_format_1000_in_whole_blocks) {
  tsf_fixture f;
  f.format = 1000;
  f.n_samples = 25001;  // two blocks a channel
  f.site_pitch = 65;
  f.events = {{5, 2, 1}};
  ASSERT_TRUE(open(tsf_bytes(f)));
  expect_fixture_samples(f);
  EXPECT_EQ(recording().vscale_HP, std::bit_cast<float>(0x3E79FFFEu));
  EXPECT_EQ(recording().site_pitch, 65);
  EXPECT_EQ(recording().tsf_sample_interval, 40);
  EXPECT_EQ(recording().tsf_channel_order[63], 64);
  EXPECT_EQ(recording().tsf_n_probes, 2);
  EXPECT_EQ(recording().n_fake_spikes, 1);
  EXPECT_EQ(session->events.n_events, 0);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(tsf_test, format_1003_is_a_header_without_samples) {
  tsf_fixture f;
  f.format = 1003;
  ASSERT_TRUE(open(tsf_bytes(f)));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().n_samples, 0);
  EXPECT_EQ(check_session(*session), "");
  f.n_samples = 0;
  EXPECT_TRUE(open(tsf_bytes(f)));
}

TEST_F(tsf_test, threads_read_the_same_samples) {
  tsf_fixture f;
  f.n_channels = 9;
  f.n_samples = 30001;
  const std::vector<char> bytes = tsf_bytes(f);
  for (std::int32_t threads : {1, 2, 7}) {
    set_thread_count(*session, threads);
    session->preferences.multi_threaded = threads > 1;
    ASSERT_TRUE(open(bytes));
    EXPECT_EQ(session->multi_threaded_now, threads > 1);
    expect_fixture_samples(f);
  }
}

// A channel of several pieces, and a user who stops the read between them.
TEST_F(tsf_test, an_interrupted_read_leaves_an_empty_session) {
  tsf_fixture f;
  f.n_channels = 2;
  f.n_samples = 2 * (1 << 21) + 3;
  const std::vector<char> bytes = tsf_bytes(f);
  for (const std::int32_t threads : {1, 3}) {
    set_thread_count(*session, threads);
    session->preferences.multi_threaded = threads > 1;
    session->operation.interrupt_at_poll = -1;
    ASSERT_TRUE(open(bytes));
    expect_fixture_samples(f);
    // A thread has two of the six pieces or more.
    for (const std::int64_t poll : {1, 2}) {
      session->operation.polls = 0;
      session->operation.interrupt_at_poll = poll;
      EXPECT_FALSE(open(bytes));
      EXPECT_TRUE(session.user.logged("Reading interrupted"));
      EXPECT_FALSE(session.user.logged("reading rate"));  // not at the end, but on the way
      EXPECT_EQ(told(), boxes{});
      expect_empty();
    }
  }
}

TEST_F(tsf_test, what_is_written_reads_back_and_is_written_again_the_same) {
  tsf_fixture f;
  f.order = {3, 1, 2};
  f.n_samples = 50001;
  f.events = {{10, 1, 1}, {20, 2, 2}, {50001, 1, 3}};
  const std::vector<char> bytes = tsf_bytes(f);
  ASSERT_TRUE(open(bytes));
  session->filter_history.n_entries = 1;
  recording().vd.channel(2)[7] = 12345;  // as a filter would
  const std::string copy = folder.file("copy.tsf");
  ASSERT_TRUE(write_tsf(*session, copy));
  EXPECT_TRUE(session.user.logged("Saving .tsf file iformat=1002"));
  std::vector<char> expected = bytes;
  const std::size_t at = 36 + 3 * 8 + 2 * (50001 + 6);
  const std::int16_t changed = 12345;
  std::memcpy(expected.data() + at, &changed, 2);
  EXPECT_EQ(read_bytes(copy), expected);
  ASSERT_TRUE(open(read_bytes(copy)));
  EXPECT_EQ(session->filter_history.n_entries, 0);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(tsf_test, a_full_disk_leaves_the_old_file_whole) {
  tsf_fixture f;
  f.n_samples = 400'000;
  ASSERT_TRUE(open(tsf_bytes(f)));
  const std::string target = folder.file("target.tsf");
  write_bytes(target, {'o', 'l', 'd'});
  // A limit on file sizes stands for the full disk.
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{100'000, before.rlim_max};
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const bool ok = write_tsf(*session, target);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, old_handler);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(session.user.told("Error saving .tsf data " + target + ": File too large",
                                "Export TSF data"));
  EXPECT_EQ(read_bytes(target), (std::vector<char>{'o', 'l', 'd'}));
  EXPECT_FALSE(write_tsf(*session, folder.file("no folder/x.tsf")));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(tsf_test, bad_events_are_left_out_and_bad_clusters_become_unclustered) {
  tsf_fixture f;
  f.events = {{10, 1, 1},  {0, 1, 1},  {61, 1, 1},  {10, 1, 0},
              {10, 1, 4},  {60, 2, 3}, {12, -5, 2}, {13, 2'000'000'000, 2},
              {14, 2, -1}, {15, 1, 2}};
  ASSERT_TRUE(open(tsf_bytes(f)));
  ASSERT_EQ(session->events.n_events, 5);
  EXPECT_EQ(session->events.event_time[2], 60);
  EXPECT_EQ(session->events.event_cluster[3], 0);
  EXPECT_EQ(session->events.event_cluster[4], 0);
  EXPECT_EQ(session->events.event_channel[5], 2);
  EXPECT_EQ(session->clusters.n_clusters, 2);
  EXPECT_TRUE(session.user.logged("5 events outside the recording were left out"));
  EXPECT_TRUE(session.user.logged("2 events have a bad cluster number and are unclustered"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(tsf_test, templates_wait_for_a_spike_window_inside_the_samples) {
  tsf_fixture f;
  f.sampling_frequency = 1'000'000;  // 800 samples in front of an event at time index 1
  f.events = {{1, 1, 1}, {60, 2, 3}};
  ASSERT_TRUE(open(tsf_bytes(f)));
  EXPECT_FALSE(session.user.logged("Making templates"));
  EXPECT_TRUE(session.user.logged("Recalculating templates and realigning"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(tsf_test, hostile_header_fields_are_refused_in_clear_words) {
  const std::vector<char> good = tsf_bytes({});
  const auto can_not = [](const std::string& text) {
    return std::pair<std::string, std::string>(text, "Can't read file");
  };
  const std::pair<std::string, std::string> early = {"Early end to file", "Error"};
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const std::int32_t most = std::numeric_limits<std::int32_t>::max();
  const std::size_t n_events_at = good.size() - 4;
  const struct {
    std::vector<char> bytes;
    boxes words;
    const char* logged;
  } cases[] = {
      {{}, {}, "Error reading tsf file"},
      {{'T', 'e', 's', 't'}, {}, "Error reading tsf file"},
      {with_i32(good, 12, 0x20202020), {}, "Error reading tsf file"},
      {{good.begin(), good.begin() + 18}, {early}, "Aborting read of "},
      {with_i32(good, 16, 1004), {}, "Unrecognised .tsf format"},
      {with_i32(good, 16, -1), {}, "Unrecognised .tsf format"},
      {with_i32(good, 20, 0), {can_not("Sampling frequency in file is 0 Hz")}, ""},
      {with_i32(good, 20, -25000), {can_not("Sampling frequency in file is -25000 Hz")}, ""},
      {with_i32(good, 20, most), {can_not("Sampling frequency in file is 2147483647 Hz")}, ""},
      {with_i32(good, 24, 0), {can_not("# of channels in file is 0")}, ""},
      {with_i32(good, 24, -7), {can_not("# of channels in file is -7")}, ""},
      {with_i32(good, 24, 4097),
       {can_not("# of channels in file exceeds upper limit of 4096")},
       ""},
      {with_i32(good, 24, most),
       {can_not("# of channels in file exceeds upper limit of 4096")},
       ""},
      {with_i32(good, 24, 4096), {early}, ""},
      {with_i32(good, 28, 0), {can_not("# of samples in file is 0")}, ""},
      {with_i32(good, 28, -60), {can_not("# of samples in file is -60")}, ""},
      {with_i32(good, 28, most), {early}, ""},
      {with_i32(good, 28, 61), {early}, ""},
      {with_f32(good, 32, 0), {can_not("Voltage scaling in file is 0 µV/bit")}, ""},
      {with_f32(good, 32, -1), {can_not("Voltage scaling in file is -1 µV/bit")}, ""},
      {with_f32(good, 32, nan), {can_not("Voltage scaling in file is nan µV/bit")}, ""},
      {with_f32(good, 32, inf), {can_not("Voltage scaling in file is inf µV/bit")}, ""},
      {with_i32(good, n_events_at, 1), {early}, ""},
      {with_i32(good, n_events_at, most),
       {can_not("# of events in file exceeds upper limit of 50000000")},
       ""},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(open(c.bytes));
    boxes expected = c.words;
    expected.push_back(tsf_failure);
    EXPECT_EQ(told(), expected);
    EXPECT_TRUE(session.user.logged(c.logged)) << c.logged;
    EXPECT_TRUE(session.user.logged("Aborting read of " + path));
    expect_empty();
  }
  // A negative count is an empty list.
  EXPECT_TRUE(open(with_i32(good, n_events_at, -3)));

  // The old formats have room for fewer channels.
  tsf_fixture f;
  f.format = 1001;
  EXPECT_FALSE(open(with_i32(tsf_bytes(f), 24, 57)));
  EXPECT_TRUE(session.user.told("# of channels in file exceeds upper limit of   56"));
  const std::size_t count_at = tsf_bytes(f).size() - 4;
  EXPECT_FALSE(open(with_i32(tsf_bytes(f), count_at, 1'000'001)));
  EXPECT_TRUE(session.user.told("# of test spikes in file exceeds upper limit of  1000000"));
  f.format = 1000;
  EXPECT_FALSE(open(with_i32(tsf_bytes(f), 374, 55)));
  EXPECT_TRUE(session.user.told("# of channels in file exceeds upper limit of   54"));
}

TEST_F(tsf_test, a_huge_sparse_file_is_too_much_for_memory) {
  tsf_fixture f;
  f.n_channels = 4096;
  f.n_samples = 1;
  std::vector<char> bytes = with_i32(tsf_bytes(f), 28, 2'000'000'000);
  write_bytes(path, bytes);
  std::error_code error;
  std::filesystem::resize_file(path, std::uintmax_t{4096} * 4'000'000'000 + 40'000, error);
  if (error) GTEST_SKIP() << "the file system has no sparse files of this size";
  EXPECT_FALSE(open_recording(*session, path));
  for (const char* line :
       {"Memory allocation error", "Requested samples=2000000000", "# channels=4096"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
  EXPECT_EQ(told(), boxes{tsf_failure});
  expect_empty();
}

TEST_F(tsf_test, truncated_files_end_early) {
  session->preferences.multi_threaded = false;  // hundreds of opens of next to nothing
  for (std::int32_t format : {1002, 1001, 1000}) {
    tsf_fixture f;
    f.format = format;
    f.events = {{5, 1, 1}, {6, 2, 2}};
    const std::vector<char> whole = tsf_bytes(f);
    ASSERT_TRUE(open(whole)) << format;
    std::set<std::size_t> lengths = {20, 21};
    for (std::size_t end : tsf_boundaries(f)) {
      for (std::size_t length : {end - 1, end, end + 1}) lengths.insert(length);
    }
    for (std::size_t length : lengths) {
      if (length >= whole.size()) continue;
      EXPECT_FALSE(open({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)}))
          << format << " " << length;
      EXPECT_EQ(told(), (boxes{{"Early end to file", "Error"}, tsf_failure})) << length;
      expect_empty();
    }
  }
}

TEST_F(tsf_test, flipped_bits_give_a_sound_session_or_none) {
  session->preferences.multi_threaded = false;
  vector_random random(11);
  for (std::int32_t format : {1002, 1001, 1000, 1003}) {
    tsf_fixture f;
    f.format = format;
    f.n_samples = 40;
    f.events = {{5, 1, 1}, {6, 2, 2}, {7, 1, 3}};
    const std::vector<char> good = tsf_bytes(f);
    // Every bit of what is not a sample; a few of those.
    for (int k = 0; k < 500; ++k) {
      std::vector<char> bytes = good;
      const bool front = k % 3 != 0;
      const std::size_t range = front ? std::min<std::size_t>(400, good.size()) : 60;
      const std::size_t from = front ? 0 : good.size() - std::min<std::size_t>(60, good.size());
      const std::size_t at = std::min(from + random.next() / 64 % range, good.size() - 1);
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.next() / 64 % 8));
      if (!open(bytes)) {
        expect_empty();
        continue;
      }
      // Planted clusters are taken as they are, so numbers may be left without events.
      const std::string problem = check_session(*session);
      EXPECT_TRUE(problem.empty() || problem.ends_with(" has no events")) << problem;
    }
  }
}

}  // namespace
}  // namespace kestrelvane::test
