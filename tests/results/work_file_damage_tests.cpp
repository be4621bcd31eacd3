// Damaged work files: a failure in words, a consistent session, and nothing worse.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "results/work_file.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

namespace kestrelvane::test {
namespace {

struct damage_test : ::testing::Test {
  small_session session;
  temporary_directory directory;
  std::string path = directory.file("a.wrk");

  damage_test() {
    make_recording(*session, 3, 10000);
    session.user.default_answer = true;  // go on with another recording's file
  }
  bool read(const std::vector<char>& bytes) {
    write_bytes(path, bytes);
    bool wrong_file = false;
    return read_work_file(*session, path, wrong_file);
  }
  void expect_no_sort() {
    EXPECT_EQ(check_session(*session), "");
    EXPECT_EQ(session->events.n_events, 0);
    EXPECT_EQ(session->clusters.n_clusters, 0);
    EXPECT_EQ(session->lists.n_kv_pairs, 0);
  }
};

void put_word(std::vector<char>& bytes, std::size_t at, std::int32_t value) {
  std::memcpy(bytes.data() + at, &value, 4);
}

TEST_F(damage_test, a_file_that_ends_anywhere_early_is_refused) {
  for (const std::int32_t version : {8, 7, 4}) {
    work_file_content content;
    content.version = version;
    const work_file_bytes file = make_work_file(content);
    const std::size_t whole = file.bytes.size();
    for (const work_file_field& field : file.fields) {
      // At a field's start and just past it; the comments may end at their start.
      for (const std::size_t length : {field.offset, field.offset + 1}) {
        SCOPED_TRACE(testing::Message() << "version " << version << " cut in " << field.name);
        const bool between_comments = field.name == "comment length" && length == field.offset;
        if (length >= whole || between_comments) continue;
        const auto end = file.bytes.begin() + static_cast<std::ptrdiff_t>(length);
        ASSERT_FALSE(read({file.bytes.begin(), end}));
        expect_no_sort();
      }
    }
  }
  EXPECT_TRUE(session.user.logged("Work file is damaged: template_sd ends early"));
  // Settings that were read before the end stay.
  EXPECT_EQ(session->detection.noise_window_secs, 11);
  // And the next file reads as if nothing had happened.
  EXPECT_TRUE(read(make_work_file({}).bytes));
  EXPECT_EQ(session->events.n_events, 7);
}

TEST_F(damage_test, hostile_counts_are_refused_before_anything_is_stored) {
  constexpr std::int32_t huge = std::numeric_limits<std::int32_t>::max();
  for (const char* name : {"n_events", "n_clusters", "n_channels", "template_points", "n_kv_pairs",
                           "n_log_lines", "filter_history count"}) {
    for (const std::int32_t value : {-1, std::numeric_limits<std::int32_t>::min(), huge, huge / 4,
                                     50'000'001, 4001, 1025, 152, 51}) {
      SCOPED_TRACE(testing::Message() << name << " = " << value);
      work_file_bytes file = make_work_file({});
      put_word(file.bytes, file.at(name), value);
      EXPECT_FALSE(read(file.bytes));
      expect_no_sort();
    }
  }
  EXPECT_TRUE(session.user.logged("n_events is -1, beyond 0..50000000"));
  EXPECT_TRUE(session.user.logged("n_channels is 51, but the recording has 3 channels"));
}

TEST_F(damage_test, events_and_comments_of_nowhere_are_refused) {
  const work_file_bytes good = make_work_file({});
  const std::pair<const char*, std::int32_t> faults[] = {
      {"event_channel", 0},   {"event_channel", 4},    {"event_cluster", 4},
      {"event_cluster", -2},  {"comment cluster", 0},  {"comment cluster", 4},
      {"comment length", -1}, {"comment length", 257},
  };
  for (const auto& [name, value] : faults) {
    SCOPED_TRACE(testing::Message() << name << " = " << value);
    work_file_bytes file = good;
    put_word(file.bytes, file.at(name), value);
    EXPECT_FALSE(read(file.bytes));
    expect_no_sort();
  }
}

TEST_F(damage_test, no_single_flipped_bit_breaks_the_session) {
  const work_file_bytes file = make_work_file({});
  int refused = 0;
  std::size_t at = 0;
  while (at < file.bytes.size()) {
    for (const int bit : {static_cast<int>(at % 7), 7}) {
      std::vector<char> bytes = file.bytes;
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << bit));
      refused += read(bytes) ? 0 : 1;
      const std::string problem = check_session(*session);
      // An event moved to another cluster may leave its own without any.
      ASSERT_TRUE(problem.empty() || problem.ends_with("has no events") ||
                  problem.find("masked channel") != std::string::npos)
          << "byte " << at << " bit " << bit << ": " << problem;
    }
    // Texts and legacy tables at a stride, everything else byte by byte.
    const bool opaque = (at >= 24 && at < 1048) ||
                        (at >= file.at("history_a") && at < file.at("n_kv_pairs")) ||
                        (at >= file.at("reserved") && at < file.at("n_log_lines"));
    at += opaque ? 97 : 1;
  }
  EXPECT_GT(refused, 20);
}

TEST_F(damage_test, what_is_no_file_is_refused) {
  bool wrong_file = false;
  EXPECT_FALSE(read_work_file(*session, directory.file("absent.wrk"), wrong_file));
  EXPECT_FALSE(read_work_file(*session, directory.path, wrong_file));
  EXPECT_FALSE(read_work_file(*session, "/dev/zero", wrong_file));
  EXPECT_FALSE(read({}));
  EXPECT_FALSE(wrong_file);
  EXPECT_TRUE(session.user.logged("Work file cannot be opened"));
}

}  // namespace
}  // namespace kestrelvane::test
