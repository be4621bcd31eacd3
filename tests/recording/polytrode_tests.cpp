// Surf and PRF: the records, what they leave in the session, and files that lie.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "operations/open_recording.h"
#include "recording/site_layouts.h"
#include "support/polytrode_fixture.h"
#include "support/reader_test.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct polytrode_test : testing::Test {
  temporary_directory folder;
  small_session session;

  recording_store& recording() { return session->recording; }

  bool open(const std::string& name, const std::vector<char>& bytes) {
    write_bytes(folder.file(name), bytes);
    session.user.boxes.clear();
    session.user.lines.clear();
    session.user.default_answer = true;
    return read_recording(*session, folder.file(name));
  }
  bool open_surf(const std::vector<std::vector<char>>& parts) {
    return open("rec.srf", joined(parts));
  }

  void expect_empty() {
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_FALSE(recording().vd.is_allocated());
    EXPECT_TRUE(recording().stimulus.digital_values.empty());
    EXPECT_EQ(check_session(*session), "");
  }

  long count_lines(const std::string& text) {
    return std::count(session.user.lines.begin(), session.user.lines.end(), text);
  }
};

TEST_F(polytrode_test, records_of_a_surf_file_go_where_they_belong) {
  ASSERT_TRUE(open_surf(surf_parts()));
  EXPECT_EQ(recording().n_channels, 54);
  EXPECT_EQ(recording().sampling_frequency, 25000);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.9765625f);
  EXPECT_EQ(recording().electrode_type, electrode_polytrode);
  // From the last stamp, 200 ms, and the count of all its values.
  EXPECT_EQ(recording().n_samples, 199'999 / 40 + 1 + 54 * 2500);
  for (const std::int64_t block : {0, 1, 2}) {
    for (const std::int32_t c : {1, 2, 54}) {
      for (const std::int64_t i : {0, 1, 2499}) {
        EXPECT_EQ(recording().vd.channel(c)[1 + 2500 * block + i],
                  surf_value(100'000 * block, 2500 * (c - 1) + i));
      }
    }
  }
  EXPECT_EQ(recording().vd.channel(1)[7501], 0);
  EXPECT_EQ(recording().chan_x[54], 28);
  EXPECT_EQ(recording().chan_y[54], 1137);
  EXPECT_EQ(recording().site_pitch, 32);
  EXPECT_EQ(recording().record_date[0], 2005);
  EXPECT_EQ(recording().record_time[2], 14);
  const stimulus_records& stimulus = recording().stimulus;
  ASSERT_EQ(stimulus.digital_values.size(), 1u);
  EXPECT_EQ(stimulus.digital_values[0].timestamp, 150'000);
  EXPECT_EQ(stimulus.digital_values[0].value, 42);
  ASSERT_EQ(stimulus.headers.size(), 1u);
  EXPECT_EQ(stimulus.headers[0].script, "print 'grating'");
  EXPECT_EQ(stimulus.lfp.n_lfp_samples, 300);
  EXPECT_EQ(stimulus.lfp.sites[1], 5);
  EXPECT_EQ(stimulus.lfp.sampling_frequency_LFP, stimulus.lfp.rates[1]);
  EXPECT_GT(stimulus.lfp.rates[1], 0);
  EXPECT_EQ(stimulus.lfp.samples[1][250], surf_value(200'000, 50));
  for (const char* line :
       {"Reading SURF data file", "Please wait, parsing records ...", "Finished parsing.",
        "3 HP records were read", "3 LP records were read", "Internal gain=1", "system ready",
        "user message", "Spike voltage scale=0.9765625", "LFP voltage scale 0.9765625",
        "140000 voltage values read"}) {
    EXPECT_TRUE(count_lines(line) == 1 || session.user.logged(line)) << line;
  }
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(polytrode_test, gaps_pauses_and_unknown_records_are_logged) {
  std::vector<std::vector<char>> parts = surf_parts(1);
  parts.push_back(surf_block_record("PS", 300'000, 0, 54 * 100));
  parts.push_back(surf_block_record("PC", 300'000, 1, 100));
  parts.push_back(surf_message("ZZ", "what is this"));
  parts.push_back(surf_block_record("PS", 400'000, 0, 54 * 100));
  ASSERT_TRUE(open_surf(parts));
  EXPECT_TRUE(session.user.logged("Error: Missing short record in file"));
  EXPECT_TRUE(session.user.logged("Warning: pause in file at t=0.000 secs"));
  EXPECT_TRUE(session.user.logged("Error: Unparsed record ID=ZZ"));
  EXPECT_TRUE(session.user.logged("2 HP records were read"));
  EXPECT_EQ(recording().vd.channel(2)[7501], surf_value(300'000, 100));
}

TEST_F(polytrode_test, a_surf_file_that_cannot_be_read_says_why) {
  std::vector<std::vector<char>> parts = surf_parts(1);
  parts[0][2] = 'X';
  EXPECT_FALSE(open_surf(parts));
  EXPECT_TRUE(session.user.logged("Mistake reading file header"));
  expect_empty();

  surf_layout_fixture layout;
  const auto with_layout = [&] {
    parts = surf_parts(1);
    parts[3] = surf_layout_record(layout);
    const bool opened = open_surf(parts);
    if (!opened) expect_empty();
    return opened;
  };
  layout.major = 1;
  EXPECT_FALSE(with_layout());
  EXPECT_TRUE(session.user.logged("Old version surf file"));
  layout = {.electrode = "\xB5Map54_9z"};
  EXPECT_FALSE(with_layout());
  EXPECT_TRUE(session.user.logged("Unidentified Electrode type: "));
  EXPECT_TRUE(session.user.told("Error: unrecognised electrode type", "Can't read file"));
  for (const std::int32_t bad : {0, -1, -32768}) {
    layout = {.n_channels = bad};
    EXPECT_FALSE(with_layout()) << bad;
    layout = {.rate = bad};
    EXPECT_FALSE(with_layout()) << bad;
    layout = {.internal_gain = bad};
    EXPECT_FALSE(with_layout()) << bad;
  }
  layout = {.kind = 'E'};
  EXPECT_FALSE(with_layout());
  layout = {.description = "no site"};
  layout.electrode = "uMap54_1a";
  EXPECT_TRUE(with_layout());

  parts = surf_parts(1);
  parts.push_back(surf_layout_record({.kind = 'C', .description = "no site"}));
  EXPECT_TRUE(open_surf(parts));
  EXPECT_TRUE(session.user.logged("Error decoding LFP site number"));
}

TEST_F(polytrode_test, surf_files_cut_off_anywhere_and_stamps_that_lie) {
  const std::vector<char> whole = joined(surf_parts(2));
  for (std::size_t n = 0; n < whole.size(); n += 1 + n / 37) {
    const bool opened = open("rec.srf", {whole.begin(), whole.begin() + static_cast<long>(n)});
    if (!opened) expect_empty();
    EXPECT_EQ(check_session(*session), "");
  }
  for (const std::int64_t stamp :
       {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{40'000'000'000},
        std::numeric_limits<std::int64_t>::max()}) {
    std::vector<std::vector<char>> parts = surf_parts(1);
    parts.push_back(surf_block_record("PS", stamp, 0, 54));
    parts.push_back(surf_block_record("PC", stamp, 1, 54));
    EXPECT_EQ(open_surf(parts), stamp < 0) << stamp;
    EXPECT_EQ(check_session(*session), "");
  }
}

TEST_F(polytrode_test, the_maps_add_up) {
  struct sums {
    const char* name;
    int x, y;
  };
  for (const sums& s : {sums{"Map54_1a", 0, 33921},
                        {"\xC2\xB5Map54_1b", 0, 25650},
                        {"uMap54_1c", 0, 37863},
                        {"\xB5Map54_2a", 0, 48249},
                        {"Map54_2b", 0, 35775},
                        {"pt16b_HS27", 0, 6420}}) {
    const polytrode_map* map = find_polytrode_map(s.name);
    ASSERT_NE(map, nullptr) << s.name;
    int x = 0, y = 0;
    for (const polytrode_site& site : map->sites) {
      x += site.x;
      y += site.y;
    }
    EXPECT_EQ(x, s.x);
    EXPECT_EQ(y, s.y) << s.name;
  }
  EXPECT_EQ(find_polytrode_map("map54_1a"), nullptr);
}

TEST_F(polytrode_test, epochs_stand_a_second_apart) {
  prf_fixture f;
  f.masked = {3, 54};
  ASSERT_TRUE(open("rec.prf", prf_bytes(f)));
  EXPECT_EQ(recording().n_epochs, 2);
  EXPECT_EQ(recording().epoch_first_index[1], 1);
  EXPECT_EQ(recording().epoch_first_index[2], 85'001);
  EXPECT_EQ(recording().n_samples, 160'000);
  EXPECT_EQ(std::string(recording().epoch_code[1], 2), "OR");
  EXPECT_EQ(std::string(recording().epoch_code[2], 2), " ?");
  for (const std::int32_t c : {1, 54}) {
    EXPECT_EQ(recording().vd.channel(c)[60'000], prf_sample(1, c, 59'999));
    EXPECT_EQ(recording().vd.channel(c)[60'001], 0);
    EXPECT_EQ(recording().vd.channel(c)[85'001], prf_sample(2, c, 0));
    EXPECT_EQ(recording().vd.channel(c)[135'000], prf_sample(2, c, 49'999));
  }
  EXPECT_TRUE(recording().chan_mask[3]);
  EXPECT_FALSE(recording().chan_mask[4]);
  // From the first start to the end of the last epoch.
  EXPECT_NEAR(recording().duration_mins, 12.0 / 60, 1e-4);
  EXPECT_EQ(recording().srf_path, folder.file("rec.prf"));
  for (const char* line : {"format=1", "Comments two epochs", "Polytrode name Map54_1b", "Epochs=2",
                           "Name of epoch is driftbar_01", "Checking time stamps", "10000 2400",
                           "Finished reading combined surf file!"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
}

TEST_F(polytrode_test, the_start_of_an_epochs_name_gives_its_code) {
  prf_fixture f;
  f.n_channels = 2;
  f.epochs.clear();
  const std::pair<const char*, const char*> names[] = {
      {"csd", "CS"},       {"CSD", " ?"},        {"blankscreen", "BL"}, {"spont_2", "SP"},
      {"grating", "GR"},   {"mseq32", "MS"},     {"MVI_0", "MV"},       {"mvi1", " ?"},
      {"f-1_noise", "F1"}, {"sparsebars", "SB"}, {"jitter", "JI"}};
  for (const auto& [name, code] : names) f.epochs.push_back({name, 0, 10});
  ASSERT_TRUE(open("rec.prf", prf_bytes(f)));
  std::int32_t e = 0;
  for (const auto& [name, code] : names) {
    EXPECT_EQ(std::string(recording().epoch_code[++e], 2), code) << name;
  }
}

TEST_F(polytrode_test, prf_files_that_lie_are_refused) {
  const auto refused = [&](const prf_fixture& f) {
    const bool opened = open("rec.prf", prf_bytes(f));
    if (!opened) expect_empty();
    return !opened && !session.user.boxes.empty();
  };
  prf_fixture small;
  small.epochs = {{"blank", 0, 300}};
  prf_fixture f = small;
  f.label = "Polytrode data  ";
  EXPECT_TRUE(refused(f));
  EXPECT_TRUE(session.user.logged("Mistake reading file header"));
  f = small;
  f.polytrode = "Map55";
  EXPECT_TRUE(refused(f));
  for (const std::int32_t bad : {0, -5, 5000, std::numeric_limits<std::int32_t>::max()}) {
    f = small;
    f.told_epochs = bad;
    EXPECT_TRUE(refused(f)) << bad;
  }
  for (const std::int32_t bad : {0, -7}) {
    f = small;
    f.n_channels = bad;
    EXPECT_TRUE(refused(f)) << bad;
    f = small;
    f.rate = bad;
    EXPECT_TRUE(refused(f)) << bad;
  }
  for (const std::int64_t bad :
       {std::int64_t{-2}, std::int64_t{301}, std::numeric_limits<std::int64_t>::max()}) {
    f = small;
    f.told_samples = bad;
    EXPECT_TRUE(refused(f)) << bad;
  }
  const std::vector<char> whole = prf_bytes(small);
  for (std::size_t n = 0; n < whole.size(); n += 1 + n / 7) {
    EXPECT_FALSE(open("rec.prf", {whole.begin(), whole.begin() + static_cast<long>(n)})) << n;
    expect_empty();
  }
}

}  // namespace
}  // namespace kestrelvane::test
