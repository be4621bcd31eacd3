// HDF5 recordings: the walk to the voltages, their conversion, and files that mean ill.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>
#include <numeric>
#include <thread>

#include "operations/open_recording.h"
#include "recording/formats/hdf/hdf_probe.h"
#include "recording/formats/hdf/hdf_samples.h"
#include "recording/formats/hdf/hdf_text.h"
#include "recording/formats/hdf/hdf_walk.h"
#include "support/hdf_fixture.h"
#include "support/samples.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

// A user who goes straight to a place and reads it with these edits; empty ones are left as
// the file fills them. Refused, the user gives up.
void plan_walk(scripted_interface& user, const std::string& place, const std::string& rate = "",
               const std::string& scale = "") {
  user.pages.clear();
  user.on_walk = [&user, place, rate, scale](const hdf_page& page) {
    hdf_choice choice;
    choice.path = place;
    choice.rate = rate.empty() ? page.rate : rate;
    choice.scale = scale.empty() ? page.scale : scale;
    if (user.pages.size() == 1) choice.step = hdf_step::go_to;
    if (user.pages.size() == 2) choice.step = hdf_step::read;
    return choice;
  };
}

const std::string mcs_data = std::string(mcs_stream) + "/ChannelData";
const std::string nwb_data = std::string(nwb_series) + "/data";

struct hdf_test : testing::Test {
  temporary_directory folder;
  small_session session;
  scripted_interface& user = session.user;
  const std::string mcs = folder.file("rec.h5");
  const std::string nwb = folder.file("rec.nwb");

  hdf_test() { user.default_answer = true; }

  bool open(const std::string& path, const std::string& place, const std::string& rate = "",
            const std::string& scale = "") {
    user.lines.clear();
    user.boxes.clear();
    plan_walk(user, place, rate, scale);
    return open_recording(*session, path);
  }
  int sample(std::int32_t channel, std::int64_t time) {
    return session->recording.vd.channel(channel)[time];
  }
  // Every sample is the fixture's, and what surrounds them is zero.
  void expect_fixture_samples(std::int32_t n_channels, std::int64_t n_samples) {
    const recording_store& r = session->recording;
    ASSERT_EQ(r.n_channels, n_channels);
    ASSERT_EQ(r.n_samples, n_samples);
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      for (std::int64_t t = 1; t <= n_samples; ++t) {
        ASSERT_EQ(sample(c, t), hdf_fixture_value(static_cast<std::uint64_t>(c - 1),
                                                  static_cast<std::uint64_t>(t - 1)))
            << c << " " << t;
      }
      EXPECT_EQ(sample(c, 0), 0);
      EXPECT_EQ(sample(c, n_samples + 1), 0);
    }
    EXPECT_EQ(sample(n_channels + 1, 5), 0);
  }
  void expect_empty() {
    EXPECT_EQ(session->recording.n_samples, 0);
    EXPECT_EQ(session->recording.n_channels, 0);
    EXPECT_FALSE(session->operation.open_succeeded);
    EXPECT_EQ(check_session(*session), "");
  }
  int count_lines(const std::string& text) {
    int n = 0;
    for (const std::string& line : user.lines) n += line.find(text) != std::string::npos;
    return n;
  }
};

// ------------------------------------------------------------------ whole reads

TEST_F(hdf_test, a_multi_channel_file_is_read_with_what_it_says_of_itself) {
  for (const bool optional_members : {true, false}) {
    mcs_fixture f;
    f.optional_members = optional_members;
    make_mcs_file(mcs, f);
    ASSERT_TRUE(open(mcs, mcs_data)) << user.all_lines();
    expect_fixture_samples(4, 300);
    EXPECT_TRUE(user.boxes.empty());
    EXPECT_EQ(session->recording.sampling_frequency, 20000);
    EXPECT_EQ(session->recording.vscale_HP, 381.47f);
    EXPECT_TRUE(user.walk_ended);
    EXPECT_EQ(session->recording.record_date[0], 2014);
    EXPECT_EQ(session->recording.record_date[1], 7);
    EXPECT_EQ(session->recording.record_date[2], 9);
    for (const char* line :
         {"Reading MCS HDF data file (beta)", "Setting vscale_HP=381.47; SampleFrequency=20000",
          "Recording date = Mittwoch, 9. Juli 2014", "MEA name = Linear8", "MEA layout = Linear8",
          "MEA serial number =", "Sampling frequency in HDF file=20000",
          "Voltage scaling factor=381.47", "chunked layout", "Reading, please wait ...",
          "read finished without errors", "reading rate =", " MBytes/s",
          "Finished reading hdf file"}) {
      EXPECT_TRUE(user.logged(line)) << line;
    }
    EXPECT_FALSE(user.logged("limited"));
    EXPECT_FALSE(user.logged("Variable gains"));
    EXPECT_EQ(check_session(*session), "");
  }
}

// Written where the filter is, read where it is not.
TEST_F(hdf_test, a_filter_that_is_not_installed_is_named) {
  const auto as_it_is = [](unsigned, std::size_t, const unsigned*, std::size_t n, std::size_t*,
                           void**) { return n; };
  const H5Z_class2_t filter{H5Z_CLASS_T_VERS, packed_filter, 1,       1,
                            "as it is",       nullptr,       nullptr, as_it_is};
  ASSERT_GE(H5Zregister(&filter), 0);
  mcs_fixture f;
  f.storage = hdf_storage::packed;
  make_mcs_file(mcs, f);
  EXPECT_TRUE(open(mcs, mcs_data)) << user.all_lines();
  ASSERT_GE(H5Zunregister(packed_filter), 0);
  EXPECT_FALSE(open(mcs, mcs_data));
  EXPECT_TRUE(user.logged("packed by the filter \"zstd\" (number 32015), which is not installed"))
      << user.all_lines();
  expect_empty();
}

TEST_F(hdf_test, every_number_type_layout_and_order_gives_the_same_samples) {
  for (const char* type :
       {"i8", "i16", "u16", "i32", "u32", "i64", "f32", "f64", "i16be", "i32be", "f32be"}) {
    for (const hdf_storage storage :
         {hdf_storage::contiguous, hdf_storage::chunked, hdf_storage::gzip, hdf_storage::compact}) {
      for (const bool channels_first : {true, false}) {
        SCOPED_TRACE(testing::Message()
                     << type << " " << static_cast<int>(storage) << " " << channels_first);
        hdf_numbers data{type, {3, 211}, storage, {}, nullptr};
        if (!channels_first) {
          data.size = {211, 3};
          data.value = [](std::uint64_t t, std::uint64_t c) { return hdf_fixture_value(c, t); };
        }
        const bool negative = type[0] != 'u';
        if (!negative) {  // shifted up, since these hold none
          const bool first = channels_first;
          data.value = [first](std::uint64_t row, std::uint64_t column) {
            return 125 + (first ? hdf_fixture_value(row, column) : hdf_fixture_value(column, row));
          };
        }
        {
          hdf_maker maker(nwb);
          maker.numbers("/a/voltages", data);
        }
        ASSERT_TRUE(open(nwb, "a/voltages/", "25000", "0.5")) << user.all_lines();
        if (negative) {
          expect_fixture_samples(3, 211);
        } else {
          EXPECT_EQ(sample(2, 77), 125 + hdf_fixture_value(1, 76));
        }
        EXPECT_EQ(session->recording.sampling_frequency, 25000);
        EXPECT_EQ(session->recording.vscale_HP, 0.5f);
        EXPECT_TRUE(user.logged("There are 3 channels in the folder"));
        EXPECT_TRUE(user.logged(channels_first ? "Read finished without errors"
                                               : "finished redimensioning"));
        // The same from a file of the other kind, wherever the dataset stands.
        const std::string other = folder.file("same.h5");
        std::filesystem::copy_file(nwb, other, std::filesystem::copy_options::overwrite_existing);
        ASSERT_TRUE(open(other, "/a/voltages", "25000", "0.5")) << user.all_lines();
        EXPECT_EQ(sample(3, 100), hdf_fixture_value(2, 99) + (negative ? 0 : 125));
      }
    }
  }
}

TEST_F(hdf_test, tiles_and_threads_leave_no_seam) {
  // Chunks that divide nothing evenly, several tiles in both directions, both orders.
  session->preferences.multi_threaded = true;
  for (const std::int32_t threads : {1, 3}) {
    set_thread_count(*session, threads);
    for (const bool channels_first : {true, false}) {
      for (const char* type : {"i16", "i32"}) {
        const std::uint64_t n_channels = 37, n_samples = 60011;
        hdf_numbers data{type, {n_channels, n_samples}, hdf_storage::chunked, {10, 20000}, nullptr};
        if (!channels_first) {
          data.size = {n_samples, n_channels};
          data.chunk = {30000, 10};
          data.value = [](std::uint64_t t, std::uint64_t c) { return hdf_fixture_value(c, t); };
        }
        {
          hdf_maker maker(nwb);
          maker.numbers("/voltages", data);
        }
        ASSERT_TRUE(open(nwb, "/voltages", "1000", "1"));
        expect_fixture_samples(37, 60011);
      }
    }
  }
}

TEST_F(hdf_test, a_dataset_of_one_dimension_is_one_channel) {
  {
    hdf_maker maker(nwb);
    maker.numbers("/v",
                  {"i16", {400}, hdf_storage::chunked, {100}, [](std::uint64_t t, std::uint64_t) {
                     return hdf_fixture_value(0, t);
                   }});
  }
  ASSERT_TRUE(open(nwb, "/v", "1000", "1"));
  expect_fixture_samples(1, 400);
}

TEST_F(hdf_test, the_configuration_places_the_channels) {
  make_nwb_file(nwb);
  const std::string words = "Probe\n1 3 0 40\n2 1 0 0\n3 4 20 0\n4 2 20 40\n";
  write_bytes(folder.file("rec.cfg"), {words.begin(), words.end()});
  ASSERT_TRUE(open(nwb, nwb_data));
  EXPECT_EQ(sample(3, 9), hdf_fixture_value(0, 8));
  EXPECT_EQ(sample(2, 9), hdf_fixture_value(3, 8));
  EXPECT_EQ(session->recording.chan_y[3], 40);
  // And where they stand one after the other in the file.
  make_mcs_file(mcs);
  ASSERT_TRUE(open(mcs, mcs_data));
  EXPECT_EQ(sample(4, 9), hdf_fixture_value(2, 8));
  EXPECT_FALSE(user.logged("default channel positions"));
}

// ------------------------------------------------------------------ rate and scale

TEST_F(hdf_test, info_channel_fills_the_edits_and_warns_once_of_other_gains) {
  mcs_fixture f;
  f.rows = {{0, -9, 0, 33, 1000}, {1, -9, 0, 33, 1000}, {2, -8, 0, 33, 1000}, {3, -9, 0, 33, 7}};
  make_mcs_file(mcs, f);
  // By way of the group, so that the file's words are met twice.
  user.on_walk = [this](const hdf_page& page) {
    const char* places[] = {mcs_stream, "/", mcs_stream, mcs_data.c_str()};
    hdf_choice choice{hdf_step::go_to, 0, "", page.rate, page.scale};
    const std::size_t turn = user.pages.size();
    choice.step = turn <= 4 ? hdf_step::go_to : hdf_step::read;
    if (turn <= 4) choice.path = places[turn - 1];
    return choice;
  };
  ASSERT_TRUE(open_recording(*session, mcs)) << user.all_lines();
  EXPECT_EQ(session->recording.sampling_frequency, 30303);  // 1,000,000 / 33, cut
  EXPECT_EQ(session->recording.vscale_HP, 1.0f);
  EXPECT_EQ(count_lines("**** Variable gains for channels! *****"), 1);
  EXPECT_EQ(count_lines("Setting vscale_HP=1; SampleFrequency=30303"), 1);
  EXPECT_EQ(sample(3, 5), hdf_fixture_value(2, 4));  // the first row stands
}

TEST_F(hdf_test, the_zero_level_is_taken_out_by_the_row_that_it_is_given_for) {
  mcs_fixture f;
  f.type = "u16";
  f.storage = hdf_storage::contiguous;
  f.rows = {{1, -9, 32768, 50, 1000}, {0, -9, 32000, 50, 1000}};
  f.n_channels = 2;
  f.value = [](std::uint64_t c, std::uint64_t t) {
    return hdf_fixture_value(c, t) + (c == 0 ? 32000 : 32768);
  };
  make_mcs_file(mcs, f);
  ASSERT_TRUE(open(mcs, mcs_data));
  expect_fixture_samples(2, 300);
}

TEST_F(hdf_test, wide_values_are_rounded_limited_and_counted) {
  // 1 µV a unit, and bits of 2 µV: halves, away from zero.
  const auto value = [](std::uint64_t t, std::uint64_t c) {
    const double values[] = {3, -3, 1, -1, 0, 70000, -70000, 65534, 65535, -65536, -65537};
    return c == 0 && t < 11 ? values[t] : 2.0;
  };
  for (const char* type : {"i32", "i64", "f32", "f64"}) {
    SCOPED_TRACE(type);
    nwb_fixture f;
    f.type = type;
    f.value = value;
    f.conversion = 1e-6;
    make_nwb_file(nwb, f);
    ASSERT_TRUE(open(nwb, nwb_data, "", "2")) << user.all_lines();
    EXPECT_EQ(session->recording.sampling_frequency, 30000);
    EXPECT_EQ(session->recording.vscale_HP, 2.0f);
    const int wanted[] = {2, -2, 1, -1, 0, 32767, -32768, 32767, 32767, -32768, -32768};
    for (int t = 0; t < 11; ++t) EXPECT_EQ(sample(1, t + 1), wanted[t]) << t;
    EXPECT_EQ(sample(2, 1), 1);
    // 70000, -70000, 65535 (32768) and -65537 (-32769) did not fit.
    EXPECT_EQ(count_lines("Warning: 4 samples did not fit 16 bits and were limited"), 1);
  }
}

TEST_F(hdf_test, what_is_no_number_becomes_zero_and_counts) {
  nwb_fixture f;
  f.type = "f64";
  f.value = [](std::uint64_t t, std::uint64_t c) {
    if (c != 1 || t > 1) return 1e-6;
    return t == 0 ? std::numeric_limits<double>::quiet_NaN()
                  : -std::numeric_limits<double>::infinity();
  };
  f.conversion = 1;  // in volts: no bit of the recorder to go by
  make_nwb_file(nwb, f);
  ASSERT_TRUE(open(nwb, nwb_data));
  EXPECT_EQ(session->recording.vscale_HP, 0.1f);
  EXPECT_EQ(sample(1, 1), 10);
  EXPECT_EQ(sample(2, 1), 0);
  EXPECT_EQ(sample(2, 2), -32768);
  EXPECT_TRUE(user.logged("Warning: 2 samples did not fit 16 bits"));
}

TEST_F(hdf_test, conversion_of_channels_and_offset_are_honoured) {
  nwb_fixture f;
  f.channel_conversion = {2, 2, 4, 1};
  f.offset = 40e-7;  // 10 bits of 0.4 µV
  make_nwb_file(nwb, f);
  ASSERT_TRUE(open(nwb, nwb_data));
  EXPECT_EQ(session->recording.vscale_HP, 0.4f);
  for (const std::int64_t t : {1, 50, 300}) {
    const auto at = [t](std::uint64_t c) {
      return hdf_fixture_value(c, static_cast<std::uint64_t>(t - 1));
    };
    EXPECT_EQ(sample(1, t), at(0) + 10);
    EXPECT_EQ(sample(3, t), 2 * at(2) + 10);
    EXPECT_EQ(sample(4, t), std::round(at(3) / 2 + 10));
  }
  // The same conversion for all leaves the stored bits alone.
  f.channel_conversion.clear();
  f.offset = 0;
  make_nwb_file(nwb, f);
  ASSERT_TRUE(open(nwb, nwb_data, "", "3"));
  expect_fixture_samples(4, 300);
  EXPECT_EQ(session->recording.vscale_HP, 3.0f);
}

TEST_F(hdf_test, a_rate_comes_from_time_stamps_too) {
  nwb_fixture f;
  f.timestamps = true;
  f.rate = 24414.0625;
  make_nwb_file(nwb, f);
  ASSERT_TRUE(open(nwb, nwb_data));
  EXPECT_EQ(session->recording.sampling_frequency, 24414);
  EXPECT_TRUE(user.logged("is rounded to 24414 Hz"));
}

// ------------------------------------------------------------------ the walk

TEST_F(hdf_test, the_tests_in_front_of_a_read) {
  const auto words = [](std::uint64_t first, std::uint64_t second, const char* rate,
                        const char* scale) {
    double hz = 0, uv = 0;
    return check_hdf_choice({first, second}, rate, scale, hz, uv);
  };
  const char* dimensions = "Check dimensions: this is probably not a valid data folder!";
  const char* rate = "Please enter a valid sampling rate (samples/sec)";
  const char* scale = "Please enter a valid voltage scaling value (uV/bit)";
  EXPECT_EQ(words(100, 100, "1000", "1"), dimensions);
  EXPECT_EQ(words(5000, 4097, "1000", "1"), dimensions);
  EXPECT_EQ(words(5000, 4096, "1000", "1"), "");
  EXPECT_EQ(words(1, 200, "1000", "1"), "");
  EXPECT_EQ(words(199, 1, "1000", "1"), dimensions);
  EXPECT_EQ(words(0, 500, "1000", "1"), dimensions);
  EXPECT_EQ(words(8, 500, "199", "1"), rate);
  EXPECT_EQ(words(8, 500, " 200 ", "0"), "");
  for (const char* bad : {"", "fast", "20000Hz", "100001", "-500", "nan", "1e999"}) {
    EXPECT_EQ(words(8, 500, bad, "1"), rate) << bad;
  }
  for (const char* bad : {"", "x", "-0.1", "1000.1", "inf", "nan", "1,5"}) {
    EXPECT_EQ(words(8, 500, "100000", bad), scale) << bad;
  }
}

TEST_F(hdf_test, refusals_are_told_and_the_dialog_stays) {
  make_mcs_file(mcs);
  std::vector<std::pair<std::string, std::string>> edits = {
      {"199", "1"}, {"20000", "1001"}, {"", "1"}, {"20000", "700"}};
  user.on_walk = [&](const hdf_page& page) {
    const std::size_t turn = user.pages.size() - 1;
    hdf_choice choice{hdf_step::read, 0, mcs_data, page.rate, page.scale};
    if (turn == 0) return choice;  // the root is no dataset
    if (turn == 1) {
      choice.step = hdf_step::go_to;
    } else {
      choice.rate = edits[turn - 2].first;
      choice.scale = edits[turn - 2].second;
    }
    return choice;
  };
  ASSERT_TRUE(open_recording(*session, mcs)) << user.all_lines();
  ASSERT_EQ(user.boxes.size(), 4u);
  EXPECT_TRUE(user.told("Check dimensions: this is probably not a valid data folder!", "Error"));
  EXPECT_TRUE(user.told("Please enter a valid sampling rate (samples/sec)", "Error"));
  EXPECT_TRUE(user.told("Please enter a valid voltage scaling value (uV/bit)", "Error"));
  EXPECT_EQ(user.pages.size(), 6u);
  // What was typed stays in the edits; 381.47 µV a unit become bits of 700 µV.
  EXPECT_EQ(user.pages[4].scale, "1001");
  EXPECT_EQ(sample(1, 2), std::round(hdf_fixture_value(0, 1) * 381.47 / 700));
}

TEST_F(hdf_test, a_user_who_cancels_leaves_nothing) {
  make_recording(*session, 2, 5000);
  make_nwb_file(nwb);
  EXPECT_FALSE(open_recording(*session, nwb));  // no plan: cancelled
  EXPECT_TRUE(user.logged("Cancelling read"));
  EXPECT_TRUE(user.logged("User cancelled operation"));
  EXPECT_TRUE(user.boxes.empty());
  EXPECT_TRUE(user.walk_ended);
  expect_empty();
  session->ui.walk_hdf = nullptr;
  EXPECT_FALSE(open_recording(*session, nwb));
  expect_empty();
}

TEST_F(hdf_test, an_earlier_recording_is_dropped_with_a_line) {
  make_mcs_file(mcs);
  ASSERT_TRUE(open(mcs, mcs_data));
  const char* line = "The previous file has been closed and all recording data deleted";
  EXPECT_FALSE(user.logged(line));
  ASSERT_TRUE(open(mcs, mcs_data));
  EXPECT_TRUE(user.logged(line));
}

TEST_F(hdf_test, an_interrupt_ends_the_read_empty) {
  make_nwb_file(nwb);
  for (const std::int64_t poll : {1, 2, 3}) {
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = poll;
    EXPECT_FALSE(open(nwb, nwb_data)) << poll;
    EXPECT_TRUE(user.logged("Reading interrupted"));
    EXPECT_TRUE(user.boxes.empty());
    expect_empty();
  }
}

TEST_F(hdf_test, members_are_walked_one_by_one) {
  {
    make_nwb_file(nwb);
    std::filesystem::rename(nwb, mcs);
    hdf_maker maker(nwb);
    maker.group("/g/empty");
    maker.numbers("/g/v", {"i16", {3, 300}, hdf_storage::contiguous, {}, nullptr});
    maker.soft_link("/g/there", "/g/v");
    maker.soft_link("/g/nowhere", "/absent");
    maker.soft_link("/g/round", "/g/round");
    maker.hard_link("/g/up", "/");
    const hid_t type = H5Tcopy(H5T_NATIVE_INT);
    H5Tcommit2(maker.file, "/g/named", type, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    H5Tclose(type);
  }
  const std::vector<hdf_step> steps = {hdf_step::enter, hdf_step::enter, hdf_step::enter,
                                       hdf_step::enter, hdf_step::up,    hdf_step::cancel};
  const std::vector<std::size_t> members = {0, 2, 3, 4, 0, 0};
  user.on_walk = [&](const hdf_page&) {
    const std::size_t turn = user.pages.size() - 1;
    return hdf_choice{steps[turn], members[turn], "", "1000", "1"};
  };
  EXPECT_FALSE(open_recording(*session, nwb));
  ASSERT_EQ(user.pages.size(), 6u);
  EXPECT_EQ(user.pages[0].folder, "/");
  const hdf_page& group = user.pages[1];
  EXPECT_EQ(group.folder, "/g");
  std::string members_told;
  for (const hdf_member& m : group.members)
    members_told += m.name + "=" + m.type + m.leads_to + " ";
  EXPECT_EQ(members_told,
            "empty=group named=named type nowhere=link/absent round=link/g/round there=link/g/v "
            "up=group v=dataset ");
  // Links that lead nowhere leave the page as it was.
  EXPECT_EQ(user.pages[2].folder, "/g");
  EXPECT_EQ(user.pages[3].folder, "/g");
  EXPECT_EQ(count_lines("error finding info"), 2);
  const hdf_page& dataset = user.pages[4];
  EXPECT_EQ(dataset.folder, "/g/there");
  EXPECT_TRUE(dataset.is_dataset);
  EXPECT_EQ(dataset.data_type, "i16");
  EXPECT_EQ(dataset.dimensions, "3 x 300");
  EXPECT_THAT(dataset.values, testing::StartsWith("-125, -114, -103"));
  EXPECT_EQ(user.pages[5].folder, "/g");
  // Through a group that holds itself for as long as a path may be.
  user.pages.clear();
  user.lines.clear();
  user.on_walk = [&](const hdf_page& page) {
    hdf_choice choice{hdf_step::enter, 0, "", "", ""};
    if (user.pages.size() > 200) choice.step = hdf_step::cancel;
    for (std::size_t i = 0; i < page.members.size(); ++i) {
      if (page.members[i].name == "up") choice.member = i;
    }
    return choice;
  };
  EXPECT_FALSE(open_recording(*session, nwb));
  EXPECT_LE(user.pages.back().folder.size(), 256u);
  EXPECT_GT(user.pages.back().folder.size(), 240u);
  EXPECT_TRUE(user.logged("longer than 256 characters"));
}

TEST_F(hdf_test, attributes_are_shown_by_their_class) {
  {
    hdf_maker maker(nwb);
    maker.group("/g");
    maker.many_attributes("/g");
  }
  hdf_file in;
  ASSERT_EQ(open_hdf_file(in, nwb), hdf_error::none);
  hdf_page page;
  ASSERT_TRUE(make_hdf_page(in, "/g", page));
  std::vector<std::string> told;
  for (const hdf_attribute& a : page.attributes) told.push_back(a.name + ": " + a.value);
  EXPECT_THAT(
      told,
      testing::ElementsAre(
          "a_i8: -5", "b_u64: 18446744073709551615", "c_f32: 0.5, -1, 3.25", "d_fixed: padded",
          "e_variable: µV", "f_i24: Unrecognised integer size for attribute",
          "g_f80: Unrecognised attribute float size", "h_vlen: Unsupported VLEN data type",
          "i_reference: Reference data; unsupported", "j_compound: unidentified itype class =6",
          "k_array: unidentified itype class =10", "l_opaque: unidentified itype class =5",
          "m_bits: unidentified itype class =4", "n_time: unidentified attribute type",
          "o_enum: TRUE"));
}

TEST_F(hdf_test, datasets_without_shown_values_say_what_they_are) {
  make_mcs_file(mcs);
  {
    hdf_maker maker(nwb);
    const hsize_t two = 2;
    const hid_t space = H5Screate_simple(1, &two, nullptr);
    const hid_t array = H5Tarray_create2(H5T_NATIVE_INT32, 1, &two);
    H5Dclose(H5Dcreate2(maker.file, "/array", array, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
    H5Dclose(H5Dcreate2(maker.file, "/reference", H5T_STD_REF_OBJ, space, H5P_DEFAULT, H5P_DEFAULT,
                        H5P_DEFAULT));
    H5Tclose(array);
    H5Sclose(space);
    maker.scalar("/scalar", 2.5);
  }
  hdf_file first, second;
  ASSERT_EQ(open_hdf_file(first, mcs), hdf_error::none);
  ASSERT_EQ(open_hdf_file(second, nwb), hdf_error::none);
  hdf_page page;
  ASSERT_TRUE(make_hdf_page(first, std::string(mcs_stream) + "/InfoChannel", page));
  EXPECT_EQ(page.values, "type=H5T_COMPOUND_F");
  ASSERT_TRUE(make_hdf_page(second, "/array", page));
  EXPECT_EQ(page.values, "type=H5T_ARRAY_F");
  ASSERT_TRUE(make_hdf_page(second, "/reference", page));
  EXPECT_EQ(page.values, "type=H5T_REFERENCE_F");
  ASSERT_TRUE(make_hdf_page(second, "/scalar", page));
  EXPECT_EQ(page.values, "2.5");
  EXPECT_EQ(page.dimensions, "scalar");
}

TEST_F(hdf_test, the_tree_lists_every_object_once_with_what_it_suggests) {
  make_nwb_file(nwb);
  {
    hdf_file in;
    ASSERT_EQ(open_hdf_file(in, nwb), hdf_error::none);
    std::string told;
    for (const hdf_entry& e : list_hdf_tree(in)) {
      told += e.place + " " + e.type + " " + e.dimensions + " " + e.rate + " " + e.scale +
              (e.ready ? " ready\n" : "\n");
    }
    EXPECT_EQ(told,
              "/acquisition group   \n"
              "/acquisition/ElectricalSeries group   \n"
              "/acquisition/ElectricalSeries/data i16 300 x 4 30000 0.2 ready\n"
              "/acquisition/ElectricalSeries/starting_time f64 scalar  \n");
  }
  {
    hdf_maker maker(mcs);
    maker.group("/specifications/core");
    maker.group("/a/b");
    maker.hard_link("/a/b/a", "/a");
    maker.hard_link("/z", "/a/b");
    maker.numbers("/a/v", {"f64", {50, 300}, hdf_storage::contiguous, {}, nullptr});
  }
  hdf_file in;
  ASSERT_EQ(open_hdf_file(in, mcs), hdf_error::none);
  const std::vector<hdf_entry> entries = list_hdf_tree(in);
  ASSERT_EQ(entries.size(), 4u);  // /a, /a/b, /a/v, /specifications
  EXPECT_TRUE(entries[2].may_be_data);
  EXPECT_FALSE(entries[2].ready);
}

// ------------------------------------------------------------------ files that mean ill

TEST_F(hdf_test, types_and_scales_that_cannot_be_read) {
  {
    hdf_maker maker(nwb);
    const hsize_t size[2] = {2, 300};
    const hid_t space = H5Screate_simple(2, size, nullptr);
    const hid_t odd = H5Tcopy(H5T_STD_I32LE);
    H5Tset_precision(odd, 20);
    H5Tset_size(odd, 3);
    const std::vector<std::int32_t> zeros(600, 0);
    const auto make = [&](const char* place, hid_t type) {
      const hid_t d =
          H5Dcreate2(maker.file, place, type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
      H5Dwrite(d, H5Tget_class(type) == H5T_STRING ? type : H5T_NATIVE_INT32, H5S_ALL, H5S_ALL,
               H5P_DEFAULT, zeros.data());
      H5Dclose(d);
    };
    make("/i24", odd);
    make("/f80", H5T_NATIVE_LDOUBLE);
    make("/text", H5T_C_S1);
    H5Tclose(odd);
    H5Sclose(space);
    maker.numbers("/good", {"i16", {2, 300}, hdf_storage::contiguous, {}, nullptr});
    maker.numbers("/none", {"i16", {2, 300}, hdf_storage::none, {}, nullptr});
    maker.numbers("/cube", {"i16", {300, 3, 1}, hdf_storage::none, {}, nullptr});
    maker.numbers("/claims", {"i16", {4000, 50000000}, hdf_storage::none, {}, nullptr});
  }
  const std::pair<const char*, const char*> cases[] = {
      {"/i24", "Warning: read failed with unsupported integer size data"},
      {"/f80", "Warning: unidentified real data type"},
      {"/text", "Warning: unidentified real data type"},
      {"/none", "The dataset holds no samples"},
      {"/claims", "The dataset claims 400000 MB, more than its file can hold"}};
  for (const auto& [place, line] : cases) {
    EXPECT_FALSE(open(nwb, place, "1000", "1")) << place;
    EXPECT_TRUE(user.logged(line)) << user.all_lines();
    EXPECT_EQ(user.boxes.size(), 1u);
    EXPECT_THAT(user.boxes[0].text, testing::MatchesRegex("Error #[45] reading hdf file"));
    expect_empty();
  }
  EXPECT_FALSE(open(nwb, "/cube", "1000", "1"));
  EXPECT_TRUE(user.told("Check dimensions: this is probably not a valid data folder!", "Error"));
  EXPECT_FALSE(open(nwb, "/good", "1000", "0"));
  expect_empty();
  EXPECT_FALSE(open(nwb, "/absent", "1000", "1"));
  EXPECT_TRUE(user.logged("error finding info"));
  write_bytes(folder.file("no.h5"), {'n', 'o'});
  EXPECT_FALSE(open(folder.file("no.h5"), "/", "1000", "1"));
  EXPECT_TRUE(user.told("Error #2 reading hdf file", "Open a recording file"));
  expect_empty();
}

// The index of the chunks says how many bytes of each there are, and the library makes room for no
// more. Found by a fuzzer.
TEST_F(hdf_test, chunks_shorter_than_their_samples_are_refused) {
  {
    hdf_maker maker(nwb);
    maker.numbers("/v", {"i16", {2, 200}, hdf_storage::chunked, {2, 100}, nullptr});
  }
  ASSERT_TRUE(open(nwb, "/v", "1000", "1")) << user.all_lines();
  expect_fixture_samples(2, 200);
  // Key of the second chunk: its bytes, a mask of filters, where it begins.
  const std::int32_t key[] = {400, 0, 0, 0, 100, 0};
  const char* begin = reinterpret_cast<const char*>(key);
  std::vector<char> bytes = read_bytes(nwb);
  const auto at = std::search(bytes.begin(), bytes.end(), begin, begin + sizeof key);
  ASSERT_NE(at, bytes.end());
  std::fill_n(at, 4, '\0');
  write_bytes(nwb, bytes);
  EXPECT_FALSE(open(nwb, "/v", "1000", "1"));
  EXPECT_TRUE(user.logged("The chunks of the dataset are not as long as their samples"))
      << user.all_lines();
  expect_empty();
}

TEST_F(hdf_test, other_files_are_opened_within_the_folder_alone) {
  const temporary_directory elsewhere;
  std::filesystem::create_directory(folder.file("part"));
  for (const std::string& path : {folder.file("part/data.h5"), elsewhere.file("data.h5")}) {
    hdf_maker maker(path);
    maker.numbers("/v", {"i16", {2, 300}, hdf_storage::contiguous, {}, nullptr});
  }
  const std::vector<char> samples(1200, 7);
  write_bytes(folder.file("part/raw"), samples);
  write_bytes(elsewhere.file("raw"), samples);
  std::filesystem::create_symlink(elsewhere.path, folder.file("door"));
  {
    hdf_maker maker(nwb);
    maker.external_link("/near", "part/data.h5", "/v");
    maker.external_link("/far", elsewhere.file("data.h5"), "/v");
    maker.external_link(
        "/up", "../" + std::filesystem::path(elsewhere.path).filename().string() + "/data.h5",
        "/v");
    maker.external_link("/door", "door/data.h5", "/v");
    maker.external_numbers("/near_raw", 2, 300, "part/raw");
    maker.external_numbers("/far_raw", 2, 300, elsewhere.file("raw"));
  }
  ASSERT_TRUE(open(nwb, "/near", "1000", "1")) << user.all_lines();
  expect_fixture_samples(2, 300);
  ASSERT_TRUE(open(nwb, "/near_raw", "1000", "1")) << user.all_lines();
  EXPECT_EQ(sample(2, 300), 0x0707);
  for (const char* place : {"/far", "/up", "/door", "/far_raw"}) {
    EXPECT_FALSE(open(nwb, place, "1000", "1")) << place;
    EXPECT_TRUE(user.logged("is outside the folder of the recording; not opened")) << place;
    expect_empty();
  }
}

// Opens whatever a walk through the file offers; the session must come out sound.
void try_everything(hdf_test& test, const std::string& path) {
  std::vector<std::string> places;
  hdf_file in;
  if (open_hdf_file(in, path) == hdf_error::none) {
    for (const hdf_entry& e : list_hdf_tree(in)) {
      if (e.may_be_data) places.push_back(e.place);
    }
  }
  in.file = hdf_id();
  places.push_back(mcs_data);
  for (const std::string& place : places) {
    if (!test.open(path, place, "1000", "1")) test.expect_empty();
    ASSERT_EQ(check_session(*test.session), "") << path;
  }
}

TEST_F(hdf_test, cut_and_bent_files_leave_a_sound_session) {
  mcs_fixture f;
  f.n_channels = 2;
  f.n_samples = 220;
  make_mcs_file(mcs, f);
  const std::vector<char> whole = read_bytes(mcs);
  const std::string path = folder.file("bad.h5");
  for (std::size_t n = 0; n < whole.size(); n += whole.size() / 15 + 1) {
    write_bytes(path, {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n)});
    EXPECT_FALSE(open(path, mcs_data, "1000", "1")) << n;
    expect_empty();
  }
  vector_random random(17);
  for (int i = 0; i < 60; ++i) {
    std::vector<char> bent = whole;
    for (int k = 0; k < 4; ++k) {
      bent[random.next() % bent.size()] = static_cast<char>(random.next() >> 8);
    }
    write_bytes(path, bent);
    try_everything(*this, path);
  }
}

// Gigabytes that a block of the driver is said to have, in a file of a few kilobytes.
TEST_F(hdf_test, a_length_that_no_file_needs_is_not_believed) {
  make_nwb_file(nwb);
  std::vector<char> bent = read_bytes(nwb);
  const auto put = [&](std::size_t at, std::uint64_t value) {
    std::memcpy(bent.data() + at, &value, sizeof(value));
  };
  constexpr std::size_t end_of_file = 40, driver_block = 48;  // in a superblock of version 0
  const std::uint64_t block = bent.size();
  bent.resize(bent.size() + 64);
  put(driver_block, block);
  put(block, std::uint64_t{0x70000000} << 32);
  put(end_of_file, bent.size());
  const std::string path = folder.file("bent.h5");
  write_bytes(path, bent);
  EXPECT_EQ(probe_hdf_file(nwb, nullptr), hdf_probe_outcome::survived);
  EXPECT_EQ(probe_hdf_file(path, nullptr), hdf_probe_outcome::died);
  EXPECT_FALSE(open(path, "/", "1000", "1"));
  expect_empty();
}

TEST_F(hdf_test, a_probe_that_does_not_come_back_is_given_up) {
  make_nwb_file(nwb);
  std::atomic<bool> interrupt{false};
  EXPECT_EQ(probe_hdf_file(nwb, &interrupt), hdf_probe_outcome::survived);
  EXPECT_EQ(probe_hdf_file(folder.file("absent.h5"), nullptr), hdf_probe_outcome::survived);
  // Nobody ever writes into this pipe.
  const std::string pipe = folder.file("pipe.h5");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread user_who_waits([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    interrupt = true;
  });
  EXPECT_EQ(probe_hdf_file(pipe, &interrupt), hdf_probe_outcome::interrupted);
  user_who_waits.join();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child is left behind
}

// ------------------------------------------------------------------ real files

TEST_F(hdf_test, a_real_multi_channel_file) {
  const std::string path = sample_path("mcs_hdf5/2014-07-09T10-17-35W8_Standard_all_500Hz.h5");
  if (path.empty()) GTEST_SKIP();
  ASSERT_TRUE(open(path, mcs_data)) << user.all_lines();
  const recording_store& r = session->recording;
  EXPECT_EQ(r.n_channels, 8);
  EXPECT_EQ(r.n_samples, 9850);
  EXPECT_EQ(r.sampling_frequency, 500);
  EXPECT_EQ(r.vscale_HP, 381.47f);
  EXPECT_EQ(r.record_date[0], 2014);
  // What an independent reader finds.
  const auto sum = [this](std::int32_t channel, std::int64_t n) {
    const std::int16_t* v = session->recording.vd.channel(channel);
    return std::accumulate(v + 1, v + n + 1, 0);
  };
  const int first[] = {-2, -1, 0, 0, 0, -5, 0, 2}, last[] = {0, 3, 7, 3, 4, 0, 8, 2};
  const int sums[] = {11, 19, -108, -24, 34, 13, 76, -30};
  for (std::int32_t c = 1; c <= 8; ++c) {
    EXPECT_EQ(sample(c, 1), first[c - 1]);
    EXPECT_EQ(sample(c, 9850), last[c - 1]);
    EXPECT_EQ(sum(c, 9850), sums[c - 1]);
  }
  ASSERT_TRUE(open(path, "/Data/Recording_0/AnalogStream/Stream_1/ChannelData"));
  EXPECT_EQ(session->recording.n_samples, 9800);
  EXPECT_EQ(sum(2, 9800), -5321);
  // The digital stream suggests a scale of 0, which no recording has.
  EXPECT_FALSE(open(path, "/Data/Recording_0/AnalogStream/Stream_2/ChannelData"));
  expect_empty();
}

TEST_F(hdf_test, real_neurodata_files_are_listed_and_refused) {
  const std::string path = sample_path("nwb/ecephys_tutorial_v2.5.0.nwb");
  if (path.empty()) GTEST_SKIP();
  // 50 samples are too few for a recording.
  EXPECT_FALSE(open(path, nwb_data));
  EXPECT_TRUE(user.told("Check dimensions: this is probably not a valid data folder!", "Error"));
  hdf_file in;
  ASSERT_EQ(open_hdf_file(in, path), hdf_error::none);
  const hdf_scaling scaling = find_hdf_scaling(in, nwb_data);
  EXPECT_EQ(hdf_rate_text(scaling), "20000");
  hdf_page page;
  ASSERT_TRUE(make_hdf_page(in, "/units/spike_times_index", page));
  EXPECT_EQ(page.values, "14, 39, 60, 85, 101, 121, 139, 157, 174, 195");
}

}  // namespace
}  // namespace kestrelvane::test
