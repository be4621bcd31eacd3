// A sort is the same sort at any number of threads, and after a pause of a day: work
// files of every stage are compared byte by byte, but for the run log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/compare_work_files.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"
#include "synthesis/test_recording.h"

namespace kestrelvane::test {
namespace {

using words = std::vector<std::string>;

// The first differing field; "" when the files are alike.
std::string difference(const std::vector<char>& a, const std::vector<char>& b) {
  std::string told;
  const work_files result = compare_work_file_bytes(a, b, told);
  EXPECT_EQ(result == work_files::alike, told.empty());
  return told;
}

// ------------------------------------------------------------ the judge itself

// One bit turned over in every field of a file in turn.
TEST(compare_work_files, names_the_field_that_differs) {
  const work_file_bytes file = make_work_file({});
  int n_fields = 0;
  for (const work_file_field& field : file.fields) {
    if (field.name == "n_log_lines") continue;  // the lines behind it would be misread
    std::vector<char> changed = file.bytes;
    changed[field.offset] ^= 1;
    const std::string told = difference(file.bytes, changed);
    ++n_fields;
    if (field.name == "log_lines") {
      EXPECT_EQ(told, "");
    } else if (field.name == "label") {
      EXPECT_EQ(told, "the second file is no work file of version 8");
    } else {
      const std::string name = field.name.starts_with("comment ") ? "cluster_comment" : field.name;
      EXPECT_THAT(told, testing::StartsWith(name)) << field.name;
      EXPECT_NE(told, name) << "no place in it";
    }
  }
  EXPECT_GT(n_fields, 100);
}

TEST(compare_work_files, counts_logs_and_torn_files) {
  work_file_content content;
  const std::vector<char> file = make_work_file(content).bytes;
  EXPECT_EQ(difference(file, file), "");
  content.log_lines.assign(9, "another story");
  EXPECT_EQ(difference(file, make_work_file(content).bytes), "");
  content.event_time[2] += 5;
  EXPECT_THAT(difference(file, make_work_file(content).bytes),
              testing::StartsWith("event_time, element 3 of 7: 300 (or "));
  content.comments[3] = "bb";
  content.event_time[2] -= 5;
  EXPECT_THAT(difference(file, make_work_file(content).bytes),
              testing::StartsWith("cluster_comment: "));
  std::string told;
  for (const std::size_t length : {0, 10, 1000, 2000}) {
    const std::vector<char> torn(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(compare_work_file_bytes(file, torn, told), work_files::unreadable) << length;
    EXPECT_THAT(told, testing::StartsWith("the second file ")) << length;
  }
  EXPECT_EQ(compare_work_files("absent.wrk", "absent.wrk", told), work_files::unreadable);
}

// ------------------------------------------------------------ the sorts

const std::string stages[] = {"detection", "channel-clusters", "first-pass", "lists", "all"};

// One recording, and its sort saved at every stage without threads.
struct serial_sorts {
  temporary_directory directory;
  std::string tsf = directory.file("test.tsf");
  std::string problem;
  std::string last_words;  // of the whole sort

  std::string work(const std::string& stage) const { return directory.file(stage + ".wrk"); }

  serial_sorts() {
    test_recording_options options;
    options.n_channels = 8;
    options.minutes = 0.5;
    options.n_units = 8;
    options.amplitude_min_uv = 60;
    options.median_rate = 16;
    options.seed = 11;
    if (!make_test_recording(options, tsf, {}, problem)) return;
    for (const std::string& stage : stages) {
      const process_result sort =
          run_process(KESTRELVANE_BATCH,
                      {"sort", tsf, "--serial", "--stop-after", stage, "--save-work", work(stage)});
      if (sort.status != 0) problem += stage + ": " + sort.err;
      last_words = sort.out;
    }
  }
};

const serial_sorts& serial() {
  static const serial_sorts made;
  return made;
}

// A sort with these options against the serial one of that stage.
void expect_serial_result(const std::string& stage, const words& options) {
  SCOPED_TRACE(stage + " with " + testing::PrintToString(options));
  temporary_directory directory;
  words arguments{"sort", serial().tsf, "--quiet", "--save-work", directory.file("a.wrk")};
  arguments.insert(arguments.end(), options.begin(), options.end());
  const process_result sort = run_process(KESTRELVANE_BATCH, arguments);
  ASSERT_EQ(sort.status, 0) << sort.err;
  EXPECT_EQ(difference(read_bytes(serial().work(stage)), read_bytes(directory.file("a.wrk"))), "");
}

struct stage_identity : ::testing::Test {
  void SetUp() override { ASSERT_EQ(serial().problem, ""); }
};

TEST_F(stage_identity, the_serial_sort_is_one_worth_comparing) {
  int events = 0, clusters = 0;
  ASSERT_EQ(std::sscanf(serial().last_words.c_str(), "%d events, %d clusters", &events, &clusters),
            2)
      << serial().last_words;
  EXPECT_GT(events, 3000);
  EXPECT_GE(clusters, 6);
  for (std::size_t i = 1; i < std::size(stages); ++i) {
    EXPECT_NE(
        difference(read_bytes(serial().work(stages[i - 1])), read_bytes(serial().work(stages[i]))),
        "")
        << stages[i];
  }
}

TEST_F(stage_identity, any_number_of_threads) {
  for (const std::string& stage : stages) {
    for (const std::string threads : {"1", "2", "7"}) {
      expect_serial_result(stage, {"--stop-after", stage, "--threads", threads});
    }
  }
}

TEST_F(stage_identity, a_saved_stage_reads_back_and_writes_the_same) {
  // With both skips nothing is left to do before the stop.
  for (const std::string& stage : stages) {
    words options{"--work", serial().work(stage), "--skip-detection", "--stop-after", "detection"};
    if (stage != "detection") options.push_back("--skip-clustering");
    expect_serial_result(stage, options);
  }
}

TEST_F(stage_identity, a_sort_taken_up_again_ends_as_one_in_one_go) {
  for (const std::string stage : {"channel-clusters", "first-pass", "lists", "all"}) {
    expect_serial_result(
        stage, {"--work", serial().work("detection"), "--skip-detection", "--stop-after", stage});
  }
  for (const std::string from : {"first-pass", "lists"}) {
    expect_serial_result("all", {"--work", serial().work(from), "--skip-detection",
                                 "--skip-clustering", "--stop-after", "all"});
  }
}

}  // namespace
}  // namespace kestrelvane::test
