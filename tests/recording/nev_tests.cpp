// Blackrock .nev: both ways of laying out waveforms, units, the writer, and files that lie.
#include "recording/formats/blackrock/nev.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <limits>

#include "operations/open_recording.h"
#include "recording/formats/blackrock/nev_layout.h"
#include "recording/recording_formats.h"
#include "results/exports.h"
#include "support/blackrock_fixture.h"
#include "support/fixture_files.h"
#include "support/reader_test.h"
#include "support/samples.h"

namespace kestrelvane::test {
namespace {

constexpr const char* failure_line = "Error opening Blackrock Microsystems NEV file (Utah array)";

struct nev_test : reader_test {
  nev_test() : reader_test("rec.nev") {}

  void write_config(const std::string& text) {
    write_bytes(folder.file("electrode.cfg"), {text.begin(), text.end()});
  }

  // Packet k of the file stands on a channel from a time index on.
  void expect_waveform(std::size_t k, std::int32_t channel, std::int64_t index) {
    const std::int16_t* v = recording().vd.channel(channel);
    for (std::int32_t p = 0; p < recording().samples_per_event; ++p) {
      EXPECT_EQ(v[index + p], nev_sample(k, p)) << k << " " << channel << " " << p;
    }
  }

  struct event {
    std::int32_t time, channel, cluster;
    bool operator==(const event&) const = default;
  };
  std::vector<event> events() {
    std::vector<event> all;
    const event_table& e = session->events;
    for (std::int32_t i = 1; i <= e.n_events; ++i) {
      all.push_back({e.event_time[i], e.event_channel[i], e.event_cluster[i]});
    }
    return all;
  }
  std::int32_t count_lines(const std::string& text) {
    std::int32_t n = 0;
    for (const std::string& line : session.user.lines) n += line.find(text) != std::string::npos;
    return n;
  }
};

// Units of channel 1 (1 and 2), of channel 3 (2 alone), an unclassified waveform, noise, a
// digital packet, a comment and another id that is no channel.
nev_fixture many_kinds() {
  nev_fixture f;
  f.packets = {{30, 1, 1},    {60, 3, 2},  {90, 2, 0},       {120, 1, 2},
               {150, 1, 255}, {180, 0, 0}, {200, 0xFFFF, 0}, {210, 0xFFFF, 0},
               {240, 9, 1},   {270, 1, 1}, {300, 3, 2}};
  return f;
}

TEST_F(nev_test, waveforms_become_records_and_units_become_clusters) {
  session.user.answers["Cannot find electrode configuration file, continue anyway?"] = true;
  for (const bool is_v3 : {false, true}) {
    nev_fixture f = many_kinds();
    f.is_v3 = is_v3;
    f.other_headers = {"ECOMMENT", "MAPFILE", "WHATEVER"};
    f.tail_bytes = 5;
    ASSERT_TRUE(open(nev_bytes(f)));
    EXPECT_EQ(recording().n_channels, 3);
    EXPECT_EQ(recording().samples_per_event, 8);
    EXPECT_EQ(recording().n_samples, 2 * 8 * 4 + 1000);  // channel 1 has four waveforms
    EXPECT_FALSE(recording().is_continuous);
    EXPECT_EQ(recording().electrode_type, electrode_utah_array);
    EXPECT_TRUE(session->detection.use_lockout);
    EXPECT_EQ(recording().vscale_HP, 0.25f);
    EXPECT_EQ(recording().record_date[0], 2021);
    EXPECT_EQ(recording().record_date[2], 25);
    EXPECT_EQ(recording().record_time[2], 13);
    expect_waveform(0, 1, 100);
    expect_waveform(3, 1, 116);
    expect_waveform(4, 1, 132);  // noise is stored, but is no event
    expect_waveform(9, 1, 148);
    expect_waveform(1, 3, 100);
    EXPECT_EQ(recording().vd.channel(1)[108], 0);
    EXPECT_EQ(events(),
              (std::vector<event>{
                  {104, 1, 1}, {104, 3, 4}, {104, 2, 0}, {120, 1, 2}, {152, 1, 1}, {120, 3, 4}}));
    EXPECT_EQ(session->clusters.n_clusters, 4);
    EXPECT_EQ(session->clusters.current_cluster, 1);
    EXPECT_EQ(recording().timestamp(2, 1), 4000);  // µs
    EXPECT_EQ(recording().timestamp(4, 1), 9000);
    EXPECT_EQ(recording().record_unit(3, 1), -1);
    EXPECT_EQ(event_record_time_ms(*session, 152, 1), 9);
    EXPECT_FLOAT_EQ(recording().duration_mins, 10.0f / 60000);
    EXPECT_EQ(session->templates.template_points, 9);  // a waveform either side of its middle
    EXPECT_EQ(session->templates.centre_channel(4), 3);
    EXPECT_GT(session->templates.mean(1, 1)[4], 100.0f);
    EXPECT_EQ(check_session(*session), "cluster 3 has no events");
  }
  for (const char* line :
       {"the acquisition program", "two rats", "Unrecognised extended header 3", "There are 3 ch",
        "Sample Frequency = 30000 Hz", "Reading waveforms, please wait ...", "max_timestamp=300",
        "6 events", "There are 4 clusters", "Warning: No events in cluster 3",
        "Allocating memory for 1064 voltage samples", "3 packets have an unrecognised id",
        "Warning: missing config file: assigning default channel positions"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
  EXPECT_EQ(count_lines("Unrecognised packet id = 65535"), 1);
  EXPECT_EQ(count_lines("Unrecognised packet id = 9"), 1);
  EXPECT_EQ(count_lines("Unrecognised packet id = 0"), 0);
}

TEST_F(nev_test, treated_as_continuous_waveforms_go_to_their_time) {
  session->preferences.treat_as_continuous = true;
  nev_fixture f = many_kinds();
  f.resolution = 10000;  // three samples to a count
  f.packets = {{0, 2, 1}, {30, 1, 1}, {60, 3, 2}, {20, 2, 0}, {100, 1, 1}};
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().n_samples, 307);
  EXPECT_TRUE(session.user.logged("The last waveform ends 7 samples behind the last time stamp"));
  EXPECT_FALSE(recording().is_continuous);
  expect_waveform(1, 1, 90);
  expect_waveform(2, 3, 180);
  expect_waveform(3, 2, 60);
  // The first sample of the first waveform would lie in front of the recording.
  EXPECT_EQ(recording().vd.channel(2)[0], 0);
  EXPECT_EQ(recording().vd.channel(2)[1], nev_sample(0, 1));
  EXPECT_EQ(events(),
            (std::vector<event>{{4, 2, 2}, {94, 1, 1}, {184, 3, 4}, {64, 2, 0}, {304, 1, 1}}));
  EXPECT_EQ(recording().channel_event_count[1], 0);
  EXPECT_FLOAT_EQ(recording().duration_mins, 10.0f / 60000);
  EXPECT_EQ(check_session(*session), "cluster 3 has no events");
  // What is no waveform lengthens the recording too.
  f.packets = {{10, 1, 1}, {70, 0, 0}};
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().n_samples, 210);
  // Nothing but a packet at zero: no time at all.
  f.packets = {{0, 0, 0}, {0, 2, 1}};
  f.points = 1;
  EXPECT_FALSE(open(nev_bytes(f)));
  EXPECT_TRUE(session.user.told("# of samples in file is 0", "Can't read file"));
  expect_empty();
}

TEST_F(nev_test, a_configuration_maps_electrodes_to_channels) {
  nev_fixture f;
  f.electrodes = {{4, 250}, {5, 250}, {7, 250}};
  f.packets = {{10, 4, 1}, {20, 5, 0}, {30, 7, 1}, {40, 7, 0}, {50, 4, 0}};
  write_config("Array\n4 2 0 0\n7 1 0 400\n9 3 0 800\n");
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().chan_y[3], 800);
  EXPECT_FALSE(session.user.logged("missing config file"));
  expect_waveform(0, 2, 100);
  expect_waveform(2, 1, 100);
  expect_waveform(3, 1, 116);
  expect_waveform(4, 2, 116);
  // Electrode 5 is not in the map; 4 and 7 are no channels to register unclassified events to.
  EXPECT_EQ(events(), (std::vector<event>{{104, 2, 2}, {104, 1, 1}, {120, 1, 0}, {120, 2, 0}}));
  EXPECT_TRUE(session.user.logged("2 unclassified events are registered to the channel"));
  EXPECT_EQ(check_session(*session), "");
  // Within the number of channels they are registered to the electrode's own number.
  f.electrodes = {{1, 250}, {2, 250}};
  f.packets = {{10, 1, 1}, {20, 1, 0}, {30, 2, 0}};
  write_config("Array\n1 2 0 0\n2 1 0 400\n");
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(events(), (std::vector<event>{{104, 2, 1}, {120, 1, 0}, {104, 2, 0}}));
  // Saved at once, they are not taken for noise for standing elsewhere.
  const std::string copy = folder.file("copy.nev");
  ASSERT_TRUE(write_nev_with_units(*session, copy));
  const std::vector<char> written = read_bytes(copy);
  EXPECT_EQ(written[nev_unit_offset(f, 0)], 1);
  EXPECT_EQ(written[nev_unit_offset(f, 1)], 0);
  EXPECT_EQ(written[nev_unit_offset(f, 2)], 0);
}

TEST_F(nev_test, without_electrode_headers_the_configuration_counts) {
  nev_fixture f;
  f.electrodes = {};
  f.packets = {{10, 1, 1}};
  EXPECT_FALSE(open(nev_bytes(f)));
  EXPECT_TRUE(session.user.told("# of channels in file is 0", "Can't read file"));
  EXPECT_TRUE(session.user.logged(failure_line));
  EXPECT_TRUE(session.user.told("Error reading .nev file", "Open a recording file"));
  expect_empty();
  write_config("Array\n1 1 0 0\n2 2 0 400\n");
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().n_channels, 2);
  EXPECT_EQ(recording().n_samples, 1000);
  EXPECT_EQ(recording().vscale_HP, 1.0f);
  EXPECT_EQ(session->events.n_events, 0);
}

TEST_F(nev_test, a_missing_or_bad_configuration_may_be_refused) {
  session.user.answers["Cannot find electrode configuration file, continue anyway?"] = false;
  EXPECT_FALSE(open(nev_bytes(many_kinds())));
  expect_empty();
  write_config("Array\n1 1 0 0\n2 1 0 400\n");  // channel 1 twice
  EXPECT_FALSE(open(nev_bytes(many_kinds())));
  EXPECT_TRUE(
      session.user.asked("Cannot find electrode configuration file, continue anyway?", "Warning"));
  expect_empty();
  session.user.answers["Cannot find electrode configuration file, continue anyway?"] = true;
  ASSERT_TRUE(open(nev_bytes(many_kinds())));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().chan_y[2], 100);  // not what the bad file says
}

TEST_F(nev_test, the_scale_is_that_of_the_first_electrode_that_has_one) {
  nev_fixture f;
  f.packets = {{10, 1, 1}};
  f.electrodes = {{1, 0}, {2, 500}, {3, 500}};
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().vscale_HP, 0.5f);
  EXPECT_EQ(count_lines("different voltage scaling"), 0);
  f.electrodes = {{1, 500}, {2, 21516}, {3, 21516}};
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().vscale_HP, 0.5f);
  EXPECT_EQ(count_lines("different voltage scaling"), 1);
}

TEST_F(nev_test, a_clock_of_day_counts_from_the_first_packet) {
  nev_fixture f;
  f.is_v3 = true;
  f.resolution = 1'000'000'000;
  const std::uint64_t now = 1'700'000'000'000'000'000u;
  f.packets = {{now, 1, 1}, {now + 2'000'000, 1, 1}, {now - 5, 1, 1}};
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().timestamp(1, 1), 0);
  EXPECT_EQ(recording().timestamp(2, 1), 2000);
  EXPECT_EQ(recording().timestamp(3, 1), 0);
  session->preferences.treat_as_continuous = true;
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(recording().n_samples, 67);
}

TEST(nev_ticks, are_scaled_without_overflow) {
  EXPECT_EQ(ticks_to(114000, 2000, 30000), 7600);
  EXPECT_EQ(ticks_to(114014, 2000, 30000), 7600);
  EXPECT_EQ(ticks_to(114015, 2000, 30000), 7601);
  EXPECT_EQ(ticks_to(1'700'000'000'123'456'789u, 1'000'000, 1'000'000'000), 1'700'000'000'123'456);
  EXPECT_EQ(ticks_to(~std::uint64_t{0}, 1'000'000, 1), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(ticks_to(~std::uint64_t{0}, 1, 4'294'967'295u), 4'294'967'297);
}

// --- the writer

TEST_F(nev_test, units_follow_the_clusters) {
  nev_fixture f = many_kinds();
  f.other_headers = {"WHATEVER"};
  f.tail_bytes = 5;
  const std::vector<char> bytes = nev_bytes(f);
  ASSERT_TRUE(open(bytes));
  event_table& e = session->events;
  // The last event of channel 1 joins the second unit, and that of channel 2 is lost.
  e.event_cluster[5] = 2;
  e.event_time[3] = 500;
  // Cluster 4 is the only one of channel 3, but its number is above the count of channels.
  session.user.lines.clear();
  const std::string copy = folder.file("copy.nev");
  ASSERT_TRUE(write_nev_with_units(*session, copy));
  EXPECT_TRUE(session.user.told("Blackrock .nev recording data saved", "Save sorted spikes"));
  std::vector<char> expected = bytes;
  const std::string signed_comment = "two rats Created by Kestrelvane";
  std::copy(signed_comment.begin(), signed_comment.end(), expected.begin() + 76);
  expected[nev_unit_offset(f, 2)] = static_cast<char>(255);
  expected[nev_unit_offset(f, 9)] = 2;
  EXPECT_EQ(read_bytes(copy), expected);
  EXPECT_EQ(read_bytes(path), bytes);
  EXPECT_EQ(count_lines("Unrecognised packet id = 65535"), 1);
  EXPECT_EQ(count_lines("Unrecognised extended header 1"), 1);
  // Units that were not touched keep their numbers, gaps and single events or not.
  nev_fixture gaps;
  gaps.electrodes = {{1, 250}, {2, 250}, {9, 250}};
  gaps.packets = {{10, 2, 3}, {20, 9, 1}, {30, 1, 2}, {40, 2, 1}, {50, 2, 3}};
  gaps.comment = "copied by Kestrelvane";
  ASSERT_TRUE(open(nev_bytes(gaps)));
  ASSERT_TRUE(write_nev_with_units(*session, copy));
  EXPECT_EQ(read_bytes(copy), nev_bytes(gaps));
  // Signed once; a comment that is already full loses its end.
  f.comment = signed_comment;
  ASSERT_TRUE(open(nev_bytes(f)));
  ASSERT_TRUE(write_nev_with_units(*session, copy));
  EXPECT_EQ(read_bytes(copy), nev_bytes(f));
  f.comment = std::string(255, 'x');
  ASSERT_TRUE(open(nev_bytes(f)));
  ASSERT_TRUE(write_nev_with_units(*session, copy));
  EXPECT_EQ(std::string(read_bytes(copy).data() + 76 + 233), "Created by Kestrelvane");
}

// A plain form of the look-up: the first event of the channel, in order of number, that
// lies within the waveform.
std::int32_t plain_unit(const session_state& session, std::int32_t channel, std::int64_t from,
                        std::int32_t unit, const std::vector<std::int32_t>& units) {
  const event_table& e = session.events;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_channel[i] != channel || e.event_time[i] < from ||
        e.event_time[i] > from + session.recording.samples_per_event) {
      continue;
    }
    const std::int32_t cluster = e.event_cluster[i];
    const bool counts = cluster >= 1 && cluster <= session.recording.n_channels;
    return counts ? units[static_cast<std::size_t>(cluster)] : unit;
  }
  return 255;
}

TEST_F(nev_test, the_writer_finds_the_events_a_plain_search_finds) {
  vector_random random{7};
  for (const bool continuous : {false, true}) {
    for (const bool is_v3 : {false, true}) {
      nev_fixture f;
      f.is_v3 = is_v3;
      f.electrodes = {{1, 250}, {2, 250}, {3, 250}, {4, 250}, {5, 250}};
      for (std::uint64_t k = 0; k < 400; ++k) {
        f.packets.push_back({50 + 5 * k, static_cast<std::int32_t>(random.next() / 64 % 5) + 1,
                             static_cast<std::int32_t>(random.next() / 64 % 3)});
      }
      session->preferences.treat_as_continuous = continuous;
      ASSERT_TRUE(open(nev_bytes(f)));
      // As after a sort of its own: events moved, some gone, clusters mixed.
      event_table& e = session->events;
      e.n_events -= 20;
      for (std::int32_t i = 1; i <= e.n_events; ++i) {
        e.event_time[i] += static_cast<std::int32_t>(random.next() / 64 % 9) - 4;
        e.event_cluster[i] = static_cast<std::int32_t>(random.next() / 64 % 8);
      }
      session->clusters.n_clusters = 7;
      for (std::int32_t c = 1; c <= 7; ++c) session->templates.channels(c)[1] = c % 3 + 1;
      // By centre channel 2, 3, 1, 2, 3, 1, 2.
      const std::vector<std::int32_t> units = {0, 1, 1, 1, 2, 2, 2, 3};
      session->preferences.treat_as_continuous = false;  // what counts is how it was read
      const std::string copy = folder.file("copy.nev");
      ASSERT_TRUE(write_nev_with_units(*session, copy));
      const std::vector<char> written = read_bytes(copy);
      std::vector<std::int64_t> n_seen(6);
      for (std::size_t k = 0; k < f.packets.size(); ++k) {
        const nev_spike& s = f.packets[k];
        const std::int64_t record = n_seen[static_cast<std::size_t>(s.id)]++;
        const std::int64_t from =
            continuous ? static_cast<std::int64_t>(s.stamp) : 100 + 16 * record;
        const std::int32_t unit = plain_unit(*session, s.id, from, s.unit, units);
        ASSERT_EQ(static_cast<unsigned char>(written[nev_unit_offset(f, k)]), unit) << k;
      }
    }
  }
}

TEST_F(nev_test, writing_without_clusters_marks_what_is_no_event) {
  const nev_fixture f = many_kinds();
  ASSERT_TRUE(open(nev_bytes(f)));
  session->clusters.n_clusters = 0;
  for (std::int32_t i = 1; i <= session->events.n_events; ++i) session->events.event_cluster[i] = 0;
  session->events.n_events = 2;
  ASSERT_TRUE(write_nev_with_units(*session, folder.file("copy.nev")));
  const std::vector<char> written = read_bytes(folder.file("copy.nev"));
  std::vector<int> units;
  for (std::size_t k = 0; k < f.packets.size(); ++k) {
    units.push_back(static_cast<unsigned char>(written[nev_unit_offset(f, k)]));
  }
  EXPECT_EQ(units, (std::vector<int>{1, 2, 255, 255, 255, 0, 0, 0, 1, 255, 255}));
}

TEST_F(nev_test, the_loaded_file_is_replaced_and_never_lost) {
  const std::vector<char> bytes = nev_bytes(many_kinds());
  ASSERT_TRUE(open(bytes));
  const std::string kept = folder.file("rec.___tmp");
  const std::string other = folder.file("other name.nev");
  std::filesystem::create_symlink(path, other);
  for (const std::string& name : {path, other}) {
    session->events.event_cluster[1] = 2;
    ASSERT_TRUE(write_nev_with_units(*session, name));
    EXPECT_FALSE(file_exists(kept));
    EXPECT_EQ(read_bytes(path)[nev_unit_offset(many_kinds(), 0)], 2);
    write_bytes(path, bytes);
  }
  EXPECT_TRUE(std::filesystem::is_symlink(other));
  // A disk that fills up while the copy is written.
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{100, before.rlim_max};
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const bool written = write_nev_with_units(*session, path);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, old_handler);
  EXPECT_FALSE(written);
  EXPECT_TRUE(session.user.told("Error saving Blackrock .nev data " + path + ": File too large",
                                "Export sorted data"));
  EXPECT_EQ(read_bytes(path), bytes);
  EXPECT_FALSE(file_exists(kept));
  // A file that is no longer what was read.
  write_bytes(path, {'n', 'o'});
  EXPECT_FALSE(write_nev_with_units(*session, path));
  EXPECT_EQ(read_bytes(path), (std::vector<char>{'n', 'o'}));
  write_bytes(path, bytes);
  // What an earlier run may have left behind is not touched.
  write_bytes(kept, {'m', 'i', 'n', 'e'});
  EXPECT_FALSE(write_nev_with_units(*session, path));
  EXPECT_TRUE(session.user.logged("Can't rename file"));
  EXPECT_EQ(read_bytes(path), bytes);
  EXPECT_EQ(read_bytes(kept), (std::vector<char>{'m', 'i', 'n', 'e'}));
  // Gone altogether.
  std::filesystem::remove(path);
  EXPECT_FALSE(write_nev_with_units(*session, folder.file("copy.nev")));
  EXPECT_FALSE(file_exists(folder.file("copy.nev")));
}

TEST_F(nev_test, the_export_list_has_it) {
  const export_format* format = find_export_format("nev");
  ASSERT_NE(format, nullptr);
  EXPECT_STREQ(format->filter, "Blackrock (Utah array) (*.NEV)");
  ASSERT_TRUE(open(nev_bytes(many_kinds())));
  EXPECT_TRUE(export_sorted_spikes(*session, *format, folder.file("sorted.nev"), {}));
  ASSERT_TRUE(open(read_bytes(folder.file("sorted.nev"))));
  EXPECT_EQ(session->events.n_events, 6);
}

// --- files that lie

TEST_F(nev_test, cut_files_are_read_as_far_as_they_go_or_refused) {
  const nev_fixture f = many_kinds();
  const std::vector<char> bytes = nev_bytes(f);
  for (std::size_t n = 0; n < bytes.size(); n += n < 336 ? 37 : 3) {
    const bool opened = open({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n)});
    EXPECT_EQ(opened, n >= nev_packet_offset(f, 0)) << n;
    if (opened) {
      EXPECT_EQ(check_session(*session).find(" has no events") == std::string::npos,
                check_session(*session).empty());
    } else {
      expect_empty();
      EXPECT_TRUE(session.user.logged(failure_line)) << n;
      EXPECT_TRUE(session.user.told("Error reading .nev file")) << n;
    }
  }
}

TEST_F(nev_test, impossible_headers_are_refused) {
  nev_fixture f = many_kinds();
  const std::vector<char> good = nev_bytes(f);
  const std::vector<std::pair<std::size_t, std::vector<std::int32_t>>> bad = {
      {12, {0, 335, -1, 1 << 30}},        // bytes in headers
      {16, {0, 7, 8, 9, 1'050'000, -2}},  // bytes of a packet
      {20, {0}},                          // resolution
      {24, {0, -1, 1'000'001}},           // rate
      {332, {-1, 1 << 30, 1'000'000}}};   // extended headers
  for (const auto& [offset, values] : bad) {
    for (const std::int32_t value : values) {
      EXPECT_FALSE(open(with_i32(good, offset, value))) << offset << " " << value;
      expect_empty();
    }
  }
  // One packet that is longer than the file is no packet.
  ASSERT_TRUE(open(with_i32(good, 16, 1 << 20)));
  EXPECT_EQ(session->events.n_events, 0);
  for (const char* magic : {"########", "NEURALCD", "neuralev"}) {
    std::vector<char> bytes = good;
    std::copy(magic, magic + 8, bytes.begin());
    EXPECT_FALSE(open(bytes)) << magic;
    expect_empty();
  }
  f.electrodes = {{4097, 250}};
  EXPECT_FALSE(open(nev_bytes(f)));
  EXPECT_TRUE(session.user.told("# of channels in file exceeds upper limit of 4096"));
  f.electrodes = {{4096, 250}};
  EXPECT_TRUE(open(nev_bytes(f)));
  // Time stamps that no time axis holds.
  session->preferences.treat_as_continuous = true;
  f = many_kinds();
  f.is_v3 = true;
  f.packets = {{~std::uint64_t{0}, 1, 1}};
  EXPECT_FALSE(open(nev_bytes(f)));
  expect_empty();
}

TEST_F(nev_test, units_beyond_the_limit_of_clusters_are_unclustered) {
  session->max_clusters = 150;
  nev_fixture f;
  f.packets = {{10, 1, 127}, {20, 2, 23}, {30, 2, 24}, {40, 3, 127}};
  ASSERT_TRUE(open(nev_bytes(f)));
  EXPECT_EQ(events(), (std::vector<event>{{104, 1, 127}, {104, 2, 150}, {120, 2, 0}, {104, 3, 0}}));
  EXPECT_EQ(session->clusters.n_clusters, 150);
  EXPECT_TRUE(session.user.logged("2 events of units beyond the limit of clusters"));
}

TEST_F(nev_test, an_interrupted_read_leaves_an_empty_session) {
  const std::vector<char> bytes = nev_bytes(many_kinds());
  for (const std::int64_t poll : {1, 2, 3}) {
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = poll;
    EXPECT_FALSE(open(bytes)) << poll;
    EXPECT_TRUE(session.user.logged("Reading interrupted"));
    EXPECT_FALSE(session.user.logged("Error"));
    expect_empty();
  }
}

// --- real recordings

struct real_nev {
  const char* path;
  std::int32_t n_channels, samples, n_events, n_clusters;
  float scale;
  // A waveform: channel, its number there, time stamp, and how it begins.
  std::int32_t channel, record;
  std::int64_t stamp;
  std::vector<int> first;
};

TEST_F(nev_test, real_recordings_read_as_others_read_them) {
  // clang-format off
  const real_nev samples[] = {
      {"FileSpec2.3001.nev", 144, 48, 964, 0, 0.25f, 1, 1, 19312, {-209, -224, -74, 205}},
      {"blackrock_2_1/l101210-001.nev", 144, 48, 14210, 129, 1.0f, 1, 1, 281, {-4, -3, 4, 2}},
      {"blackrock_3_0/file_spec_3_0.nev", 256, 48, 864, 3, 0.25f, 1, 2, 26864699, {-1, -31, -6, -34}},
      {"segment/PauseCorrect/pause_correct.nev", 144, 38, 11183, 133, 0.25f, 1, 1, 0, {}},
      {"segment/PauseSpikesOutside/pause_spikes_outside_seg.nev", 144, 38, 11297, 133, 0.25f, 1, 1, 0, {}},
  };
  // clang-format on
  std::int32_t n_found = 0;
  for (const real_nev& sample : samples) {
    const std::string file = sample_path(std::string("blackrock/") + sample.path);
    if (file.empty()) continue;
    ++n_found;
    ASSERT_TRUE(open_recording(*session, file)) << sample.path;
    EXPECT_EQ(recording().n_channels, sample.n_channels) << sample.path;
    EXPECT_EQ(recording().samples_per_event, sample.samples);
    EXPECT_EQ(recording().sampling_frequency, 30000);
    EXPECT_EQ(recording().vscale_HP, sample.scale);
    EXPECT_EQ(session->events.n_events, sample.n_events) << sample.path;
    EXPECT_EQ(session->clusters.n_clusters, sample.n_clusters) << sample.path;
    if (sample.first.empty()) continue;
    const std::int16_t* v =
        recording().vd.channel(sample.channel) + 100 + 2 * sample.samples * (sample.record - 1);
    EXPECT_EQ(std::vector<int>(v, v + 4), sample.first) << sample.path;
    EXPECT_EQ(recording().timestamp(sample.record, sample.channel), sample.stamp * 100 / 3);
  }
  if (n_found == 0) GTEST_SKIP() << "no real recordings on this machine";
}

}  // namespace
}  // namespace kestrelvane::test
