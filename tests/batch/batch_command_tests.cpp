// The batch command as a user runs it: exit status, words, files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "operations/open_recording.h"
#include "results/work_file.h"
#include "session/settings_files.h"
#include "support/child_process.h"
#include "support/neuralynx_fixture.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using words = std::vector<std::string>;
using namespace std::string_literals;

process_result run(const words& arguments) { return run_process(KESTRELVANE_BATCH, arguments); }

std::string text_of(const std::string& path) {
  const std::vector<char> bytes = read_bytes(path);
  return {bytes.begin(), bytes.end()};
}

// One small recording with known units for all tests of this file.
struct shared_recording {
  temporary_directory directory;
  std::string path = directory.file("test.tsf");
  process_result made = run({"make-test", path, "--electrode", "polytrode", "--channels", "6",
                             "--minutes", "0.4", "--units", "4", "--amplitude-min", "120",
                             "--firing-rate", "12", "--seed", "3", "--quiet"});
};

const shared_recording& recording() {
  static const shared_recording made;
  return made;
}

struct batch_test : ::testing::Test {
  temporary_directory directory;
  const std::string& tsf = recording().path;

  void SetUp() override { ASSERT_EQ(recording().made.status, 0) << recording().made.err; }
  std::string file(const std::string& name) const { return directory.file(name); }
  bool exists(const std::string& name) const { return std::filesystem::exists(file(name)); }
  nlohmann::json json_of(const std::string& name) const {
    return nlohmann::json::parse(text_of(file(name)));
  }
};

// A work file without its run log.
std::vector<char> without_log(const std::string& path) {
  small_session session;
  session.user.default_answer = true;
  EXPECT_TRUE(open_recording(*session, recording().path));
  bool wrong_file = false;
  EXPECT_TRUE(read_work_file(*session, path, wrong_file)) << session.user.all_lines();
  EXPECT_EQ(check_session(*session), "");
  session->log.n_log_lines = 0;
  EXPECT_TRUE(write_work_file(*session, path + ".again"));
  return read_bytes(path + ".again");
}

TEST_F(batch_test, the_spikes_of_a_recording_of_spikes_are_sorted) {
  std::vector<ntt_fixture_record> records;
  for (std::int32_t i = 0; i < 400; ++i) {
    records.push_back({1000u * static_cast<std::uint64_t>(i), 0, i % 7, {1 + i % 2}, 6000});
  }
  const std::string ntt = file("spikes.ntt");
  write_bytes(ntt, ntt_bytes(neuralynx_header(ntt_header_lines()), records));
  const std::string told = "its 400 events are sorted, and event detection is skipped";
  process_result result = run({"sort", ntt, "--report", file("r.json"), "--save-work", file("a")});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr(told));
  EXPECT_EQ(json_of("r.json")["events"], 400);
  EXPECT_THAT(result.err, Not(HasSubstr("Event detection method is")));

  // Asked for, detection is done.
  for (const words& asked :
       {words{"detect", ntt, "--report", file("d.json")},
        words{"sort", ntt, "--report", file("d.json"), "--set", "skip_event_detection=false"}}) {
    result = run(asked);
    EXPECT_THAT(result.err, Not(HasSubstr(told)));
    EXPECT_THAT(result.err, HasSubstr("Event detection method is"));
  }
  // A continuous recording holds more than the events that it comes with.
  result = run({"sort", tsf, "--stop-after", "detection"});
  EXPECT_THAT(result.err, HasSubstr("Event detection method is"));
}

// A full device under a stream, a closed one, a reader that has gone: the sort is there all the
// same, and the status tells whether all that was asked for is.
TEST_F(batch_test, a_sort_outlives_its_console_and_its_log) {
  const std::string work = file("a.wrk");
  const std::string sort = std::string(KESTRELVANE_BATCH) + " sort " + tsf +
                           " --stop-after detection --home " + directory.path + " --save-work " +
                           work;
  const std::vector<std::pair<std::string, int>> endings{{" 2>/dev/full", 0},
                                                         {" 2>&-", 0},
                                                         {" >/dev/full", 1},
                                                         {" >&- 2>&- <&-", 1},
                                                         {" --quiet >&-", 0},
                                                         {" --log /dev/full", 1},
                                                         {" 2>&1 | head -c 1; exit 0", 0}};
  std::vector<char> first;
  for (const auto& [ending, status] : endings) {
    std::filesystem::remove(work);
    const process_result result = run_process("/bin/sh", {"-c", sort + ending});
    EXPECT_EQ(result.status, status) << ending << result.err;
    ASSERT_TRUE(exists("a.wrk")) << ending;
    const std::vector<char> bytes = without_log(work);
    if (first.empty()) first = bytes;
    EXPECT_TRUE(bytes == first) << ending;
  }
  const process_result full = run_process("/bin/sh", {"-c", sort + " --log /dev/full"});
  EXPECT_THAT(full.err, HasSubstr("The logfile /dev/full lacks lines: No space left on device"));
}

TEST_F(batch_test, a_result_that_cannot_be_printed_ends_with_1) {
  for (const std::string& arguments : {"info " + tsf, "info " + tsf + " --json", "--help"s}) {
    const process_result result =
        run_process("/bin/sh", {"-c", KESTRELVANE_BATCH " " + arguments + " >/dev/full"});
    EXPECT_EQ(result.status, 1) << arguments;
  }
  const process_result info =
      run_process("/bin/sh", {"-c", KESTRELVANE_BATCH " info " + tsf + " >/dev/full"});
  EXPECT_THAT(info.err, HasSubstr("Can't write to standard output: No space left on device"));
  // Settings that cannot be kept: their folder is not there.
  const process_result kept = run({"info", tsf, "--home", file("absent")});
  EXPECT_EQ(kept.status, 1);
  EXPECT_THAT(kept.err, HasSubstr("Failed to save the settings in " + file("absent") + ": "));
}

// Under whatever path: as it is, by a detour, by a hard link and by a symbolic one, before there is
// anything there; the log first, which is opened before all else.
TEST_F(batch_test, no_output_replaces_an_input_or_another_output) {
  const std::string mine = file("mine.tsf"), work = file("w.wrk");
  std::filesystem::copy_file(tsf, mine);
  std::filesystem::create_hard_link(mine, file("hard.csv"));
  std::filesystem::create_symlink("mine.tsf", file("soft.csv"));
  std::filesystem::create_symlink("new.json", file("dangling.json"));
  ASSERT_EQ(run({"detect", mine, "--save-work", work}).status, 0);
  write_bytes(file("mine.cfg"), {'x'});
  write_bytes(file("w.curation.jsonl"), {'x'});
  const std::vector<char> samples = read_bytes(mine), saved = read_bytes(work);
  const words detect{"detect", mine}, again{"detect", mine, "--work", work},
      curate{"curate", mine, "--work", work, "--replay", file("w.curation.jsonl")};
  const std::vector<std::pair<words, words>> refused{
      {detect, {"--log", mine}},
      {detect,
       {"--save-work", directory.path + "/../" +
                           std::filesystem::path(directory.path).filename().string() +
                           "/mine.tsf"}},
      {detect, {"--report", file("hard.csv")}},
      {detect, {"--export", "csv=" + file("soft.csv")}},
      {detect, {"--export", "nwb=" + mine}},
      {detect, {"--export", "tsf=" + mine}},
      {detect, {"--report", file("mine.cfg")}},
      {again, {"--save-work", work}},
      {again, {"--parameters", file("mine.cfg"), "--log", file("mine.cfg")}},
      {curate, {"--save-work", work}},
      {curate, {"--report", file("w.curation.jsonl")}},
      {curate, {"--save-work", file("v.wrk"), "--report", file("v.curation.jsonl")}},
      {detect, {"--log", file("new.json"), "--report", file("dangling.json")}},
      {detect, {"--export", "txt=" + file("u"), "--report", file("u_17.txt")}},
      {detect, {"--export", "csv=" + file("a"), "--export", "nwb=" + file("./a")}},
      {{"convert", mine, file("soft.csv")}, {}},
  };
  for (const auto& [verb, options] : refused) {
    words arguments = verb;
    arguments.insert(arguments.end(), options.begin(), options.end());
    const process_result result = run(arguments);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments) << result.err;
    EXPECT_THAT(result.err, testing::AnyOf(HasSubstr("this would replace"),
                                           HasSubstr("this is the same file as")));
    EXPECT_TRUE(read_bytes(mine) == samples) << testing::PrintToString(arguments);
    EXPECT_TRUE(read_bytes(work) == saved) << testing::PrintToString(arguments);
    EXPECT_FALSE(exists("new.json"));
  }
  // Neighbours are no clash, nor is a device that takes both.
  EXPECT_EQ(run({"detect", mine, "--set", "skip_event_detection=false", "--save-work",
                 file("mine.wrk"), "--export", "csv=" + file("mine.csv"), "--log", "/dev/null",
                 "--report", file("mine.json")})
                .status,
            0);
}

TEST_F(batch_test, the_truth_of_a_test_recording_is_a_file_of_its_own) {
  std::filesystem::create_symlink("a.truth.csv", file("a.tsf"));
  const process_result result = run({"make-test", file("a.tsf"), "--minutes", "0.02"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("this is the same file as the output " + file("a.tsf")));
  EXPECT_FALSE(exists("a.truth.csv"));
}

TEST_F(batch_test, wrong_usage_ends_with_2) {
  for (const words& arguments :
       {words{}, words{"fly"}, words{"sort"}, words{"sort", tsf, "--set", "nonsense=1"},
        words{"sort", tsf, "--set", "gac_gain"}, words{"sort", tsf, "--set", "gac_gain=1e9"},
        words{"sort", tsf, "--export", "csv"}, words{"sort", tsf, "--export", "doc=a.doc"},
        words{"sort", tsf, "--mask", "2-1"}, words{"sort", tsf, "--mask", "two"},
        words{"sort", tsf, "--answer", "maybe"}, words{"sort", tsf, "--stop-after", "lunch"},
        words{"sort", tsf, "--threads", "0"}, words{"info", tsf, "--save-work", "a.wrk"},
        words{"export", tsf}, words{"info", tsf, "--json", "--values", "0:5"},
        words{"make-test", file("a.tsf"), "--electrode", "spoon"},
        words{"make-test", file("a.tsf"), "--minutes", "-1"}}) {
    const process_result result = run(arguments);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments) << result.err;
    EXPECT_FALSE(result.err.empty()) << testing::PrintToString(arguments);
  }
}

TEST_F(batch_test, every_verb_explains_itself) {
  const process_result top = run({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const std::string verb :
       {"info", "sort", "detect", "export", "convert", "make-test", "score"}) {
    EXPECT_THAT(top.out, HasSubstr(verb));
    const process_result help = run({verb, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("Usage"));
  }
  EXPECT_THAT(run({"sort", "--help"}).out, HasSubstr("--stop-after"));
}

TEST_F(batch_test, bad_recordings_end_with_1_and_words) {
  std::ofstream(file("empty.tsf"));
  std::ofstream(file("label.tsf")) << "This is no recording, whatever its name says.";
  std::ofstream(file("notes.doc")) << "x";
  std::filesystem::create_directory(file("folder.tsf"));
  const std::pair<std::string, const char*> cases[] = {
      {file("absent.tsf"), "Can't find file"},
      {file("empty.tsf"), "Error reading tsf data file"},
      {file("label.tsf"), "Error reading tsf data file"},
      {file("notes.doc"), "Unrecognised file type"},
      {file("folder.tsf"), "Can't open file"},
      {"/dev/null", "Unrecognised file type"},
  };
  for (const auto& [path, said] : cases) {
    for (const std::string verb : {"info", "sort"}) {
      const process_result result = run({verb, path, "--quiet"});
      EXPECT_EQ(result.status, 1) << path;
      EXPECT_THAT(result.err, HasSubstr(said)) << path;
      EXPECT_EQ(result.out, "");
    }
  }
}

TEST_F(batch_test, info_tells_what_a_recording_holds) {
  const process_result text = run({"info", tsf, "--mask", "2"});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.out, HasSubstr("sampling frequency   25000 Hz"));
  EXPECT_THAT(text.out, HasSubstr("masked"));
  const process_result json = run({"info", tsf, "--json", "--quiet"});
  EXPECT_EQ(json.err, "");
  const nlohmann::json told = nlohmann::json::parse(json.out);
  EXPECT_EQ(told["channels"], 6);
  EXPECT_EQ(told["samples"], 600000);
  EXPECT_EQ(told["sites"].size(), 6u);
  EXPECT_GT(told["sites"][0]["noise_uv"], 1.0);
}

TEST_F(batch_test, sort_writes_what_was_asked_for) {
  const process_result result =
      run({"sort", tsf, "--save-work", file("a.wrk"), "--export", "csv=" + file("a.csv"),
           "--export", "txt=" + file("u.txt"), "--export", "tsf=" + file("a.tsf"), "--report",
           file("a.json"), "--log", file("a.log"), "--set", "min_cluster_size=30"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("Beginning autosort"));
  EXPECT_THAT(result.err, HasSubstr("Work saved in file " + file("a.wrk")));
  EXPECT_THAT(result.err, testing::Not(HasSubstr("\r"))) << "no bar without a terminal";
  EXPECT_THAT(result.out, HasSubstr("p-p/µV"));
  EXPECT_THAT(text_of(file("a.log")), HasSubstr("events were detected"));
  EXPECT_TRUE(exists("u_1.txt"));

  const nlohmann::json report = json_of("a.json");
  EXPECT_EQ(report["completed"], true);
  EXPECT_EQ(report["settings"]["min_cluster_size"], 30);
  EXPECT_EQ(report["settings"]["overlap_threshold"], 0.15);
  EXPECT_EQ(report["units"].size(), report["clusters"]);
  ASSERT_GE(report["units"].size(), 2u);
  EXPECT_GT(report["units"][0]["snr"], 3.0);
  EXPECT_GT(report["peak_memory_bytes"], 600000 * 6 * 2);
  std::vector<std::string> stages;
  for (const auto& stage : report["stages"]) stages.push_back(stage["name"]);
  EXPECT_THAT(stages, testing::IsSupersetOf({"reading", "detection", "channel-clusters",
                                             "first-pass", "lists", "merge-and-split"}));
  // Nothing of the sort is beside the files that were asked for.
  EXPECT_FALSE(exists("a.txt"));
}

TEST_F(batch_test, a_saved_sort_reads_back_and_exports_the_same) {
  ASSERT_EQ(run({"sort", tsf, "--quiet", "--save-work", file("a.wrk"), "--export",
                 "csv=" + file("a.csv")})
                .status,
            0);
  const process_result exported =
      run({"export", tsf, "--work", file("a.wrk"), "--export", "csv=" + file("b.csv")});
  EXPECT_EQ(exported.status, 0) << exported.err;
  EXPECT_THAT(exported.err, HasSubstr("Retrieved file " + file("a.wrk")));
  EXPECT_EQ(text_of(file("b.csv")), text_of(file("a.csv")));
  EXPECT_NE(text_of(file("a.csv")), "");

  // Read over its recording and written again, the file is the same but for the log.
  without_log(file("a.wrk"));
  std::filesystem::rename(file("a.wrk.again"), file("c.wrk"));
  without_log(file("c.wrk"));
  EXPECT_EQ(read_bytes(file("c.wrk")), read_bytes(file("c.wrk.again")));

  // The road taken again from the saved clusters; settings of the command line hold.
  const process_result again =
      run({"sort", tsf, "--work", file("a.wrk"), "--skip-detection", "--skip-clustering", "--set",
           "overlap_threshold=0.25", "--report", file("r.json")});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(json_of("r.json")["settings"]["overlap_threshold"], 0.25);
  EXPECT_THAT(again.err, testing::Not(HasSubstr("Detecting events")));
}

TEST_F(batch_test, a_window_of_the_command_line_counts_over_that_of_a_work_file) {
  const words detect = {"detect", tsf, "--quiet", "--save-work", file("events.wrk")};
  ASSERT_EQ(run(detect).status, 0);
  const words window = {"--set", "template_window_start_ms=-0.5", "--set",
                        "template_window_end_ms=1.1"};
  const auto sort = [&](words arguments, const char* csv) {
    arguments.insert(arguments.end(), window.begin(), window.end());
    arguments.insert(arguments.end(), {"--quiet", "--export", "csv=" + file(csv)});
    const process_result sorted = run(arguments);
    EXPECT_EQ(sorted.status, 0) << sorted.err;
  };
  // In one go, and from the events of a run with the usual window: one sort.
  sort({"sort", tsf}, "once.csv");
  sort({"sort", tsf, "--work", file("events.wrk"), "--skip-detection"}, "again.csv");
  EXPECT_EQ(text_of(file("again.csv")), text_of(file("once.csv")));

  // Clusters that stay get templates of the new window; one that reaches too far is cut.
  ASSERT_EQ(run({"sort", tsf, "--quiet", "--save-work", file("a.wrk")}).status, 0);
  sort({"sort", tsf, "--work", file("a.wrk"), "--skip-detection", "--skip-clustering", "--log",
        file("kept.log")},
       "kept.csv");
  EXPECT_THAT(text_of(file("kept.log")), HasSubstr("Recalculating templates and realigning"));
  const process_result far =
      run({"detect", tsf, "--work", file("a.wrk"), "--set", "template_window_start_ms=-900"});
  EXPECT_THAT(far.err, HasSubstr("The spike temporal window was shortened to prevent overflow"));
}

TEST_F(batch_test, detect_finds_events_and_masked_channels_take_no_part) {
  const process_result result =
      run({"detect", tsf, "--mask", "1,3-4", "--quiet", "--save-work", file("d.wrk")});
  EXPECT_EQ(result.status, 0) << result.err;
  small_session session;
  ASSERT_TRUE(open_recording(*session, tsf));
  bool wrong_file = false;
  ASSERT_TRUE(read_work_file(*session, file("d.wrk"), wrong_file));
  EXPECT_GT(session->events.n_events, 100);
  EXPECT_EQ(session->clusters.n_clusters, 0);
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    EXPECT_THAT(session->events.event_channel[e], testing::AnyOf(2, 5, 6));
  }
  EXPECT_EQ(run({"detect", tsf, "--mask", "7", "--quiet"}).status, 1);
}

TEST_F(batch_test, what_cannot_be_written_or_read_fails_in_words) {
  const std::string nowhere = file("absent/");
  const process_result result =
      run({"detect", tsf, "--quiet", "--save-work", nowhere + "a.wrk", "--export",
           "csv=" + nowhere + "a.csv", "--report", nowhere + "a.json"});
  EXPECT_EQ(result.status, 1);
  for (const char* name : {"a.wrk", "a.csv", "a.json"}) {
    EXPECT_THAT(result.err, HasSubstr("Can't write " + nowhere + name + ": No such file"));
  }

  const process_result log = run({"detect", tsf, "--log", nowhere + "a.log"});
  EXPECT_EQ(log.status, 1);
  EXPECT_THAT(log.err, HasSubstr("Error opening logfile"));

  std::ofstream(file("bad.wrk")) << "no work file";
  const process_result work = run({"sort", tsf, "--work", file("bad.wrk")});
  EXPECT_EQ(work.status, 1);
  EXPECT_THAT(work.err, HasSubstr("Failed to read file " + file("bad.wrk")));

  const process_result ntt = run({"detect", tsf, "--quiet", "--export", "ntt=" + file("a.ntt"),
                                  "--save-work", file("ntt.wrk")});
  EXPECT_EQ(ntt.status, 1);
  EXPECT_FALSE(std::filesystem::exists(file("ntt.wrk")));  // refused before the work
  EXPECT_THAT(ntt.err, HasSubstr("No Neuralynx data in memory"));

  EXPECT_EQ(run({"sort", tsf, "--parameters", nowhere}).status, 1);
  EXPECT_EQ(run({"sort", tsf, "--skip-detection"}).status, 1);
}

TEST_F(batch_test, outputs_are_tried_before_the_recording_is_read) {
  std::filesystem::create_directory(file("taken.csv"));
  std::ofstream(file("plain"));
  const std::pair<std::string, std::string> cases[] = {
      {"csv=" + file("taken.csv"), "Can't write " + file("taken.csv") + ": it is a folder"},
      {"phy=" + file("plain"), "Can't write " + file("plain") + ": Not a directory"},
      {"txt=" + file("no/u.txt"), "Can't write " + file("no/u.txt") + ": No such file"},
  };
  for (const auto& [asked, said] : cases) {
    // There is no such recording either, and it is not looked for.
    const process_result result = run({"sort", file("absent.tsf"), "--export", asked});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(said));
    EXPECT_THAT(result.err, testing::Not(HasSubstr("Can't find file")));
  }
  EXPECT_EQ(run({"convert", tsf, file("no/c.tsf")}).status, 1);
  // Folders of a Phy folder are made; trying leaves nothing behind.
  const process_result result =
      run({"sort", file("absent.tsf"), "--export", "phy=" + file("new/folder/phy"), "--export",
           "csv=" + file("a.csv")});
  EXPECT_THAT(result.err, HasSubstr("Can't find file"));
  EXPECT_FALSE(exists("new") || exists("a.csv") || exists("a.csv.try"));
}

TEST_F(batch_test, what_is_there_is_not_made_again) {
  const words detect{"detect",      tsf,        "--skip-existing", "--save-work",
                     file("a.wrk"), "--report", file("a.json")};
  EXPECT_EQ(run({"detect", tsf, "--skip-existing"}).status, 2);
  ASSERT_EQ(run(detect).status, 0);
  write_bytes(file("a.wrk"), {'m', 'i', 'n', 'e'});
  const process_result skipped = run(detect);
  EXPECT_EQ(skipped.status, 0);
  EXPECT_THAT(skipped.err, HasSubstr("Skipped " + tsf + ": all its files are there"));
  EXPECT_EQ(text_of(file("a.wrk")), "mine");
  // One of two is not enough.
  std::filesystem::remove(file("a.json"));
  ASSERT_EQ(run(detect).status, 0);
  EXPECT_NE(text_of(file("a.wrk")), "mine");
  EXPECT_TRUE(exists("a.json"));
}

TEST_F(batch_test, no_events_have_a_status_and_a_report) {
  for (const std::string verb : {"sort", "detect"}) {
    const process_result result = run({verb, tsf, "--set", "variable_multiplier=900", "--save-work",
                                       file("none.wrk"), "--report", file(verb + ".json")});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("No events detected: use lower threshold"));
    EXPECT_FALSE(exists("none.wrk"));
    EXPECT_EQ(json_of(verb + ".json")["events"], 0);
    EXPECT_EQ(json_of(verb + ".json")["interrupted"], false);
  }
  // A filter that is refused has looked for none.
  EXPECT_EQ(run({"sort", tsf, "--filter", "highpass:3000:4"}).status, 1);
}

TEST_F(batch_test, convert_keeps_samples_and_score_finds_them) {
  ASSERT_EQ(run({"convert", tsf, file("c.tsf"), "--quiet"}).status, 0);
  // Alike but for the display order of the channels, which the maker leaves to the reader.
  std::vector<char> made = read_bytes(tsf), converted = read_bytes(file("c.tsf"));
  ASSERT_EQ(made.size(), converted.size());
  for (std::size_t c = 0; c < 6; ++c) std::memset(&made[36 + 8 * c + 4], 0, 4);
  for (std::size_t c = 0; c < 6; ++c) std::memset(&converted[36 + 8 * c + 4], 0, 4);
  EXPECT_TRUE(made == converted);

  ASSERT_EQ(run({"sort", tsf, "--quiet", "--export", "csv=" + file("s.csv")}).status, 0);
  const std::string truth = recording().directory.file("test.truth.csv");
  const process_result score = run({"score", file("s.csv"), truth, "--json"});
  ASSERT_EQ(score.status, 0) << score.err;
  EXPECT_TRUE(nlohmann::json::parse(score.out).is_object());
  EXPECT_EQ(run({"score", truth, truth}).status, 0);
  const process_result absent = run({"score", file("absent.csv"), truth});
  EXPECT_EQ(absent.status, 1);
  EXPECT_FALSE(absent.err.empty());
}

TEST_F(batch_test, state_files_live_in_home_alone) {
  const words detect{"detect", tsf, "--quiet"};
  words first = detect;
  first.insert(first.end(), {"--home", directory.path, "--set", "noise_window_secs=7"});
  ASSERT_EQ(run(first).status, 0);
  EXPECT_EQ(read_bytes(file("kv_parameters.sav")).size(), parameters_file_bytes);
  EXPECT_EQ(read_bytes(file("kv_prefs.sav")).size(), 268u);
  words second = detect;
  second.insert(second.end(), {"--home", directory.path, "--report", file("r.json")});
  ASSERT_EQ(run(second).status, 0);
  EXPECT_EQ(json_of("r.json")["verb"], "detect");
  EXPECT_EQ(json_of("r.json")["settings"]["noise_window_secs"], 7);
  // The same file can be named without a home; what is set by hand comes after it.
  words third = detect;
  third.insert(third.begin() + 1, {"--set", "coincidence_ms=0.3", "--set", "pe_step=0.5"});
  third.insert(third.end(), {"--parameters", file("kv_parameters.sav"), "--set", "noise_method=1",
                             "--report", file("p.json")});
  ASSERT_EQ(run(third).status, 0);
  EXPECT_EQ(json_of("p.json")["settings"]["noise_window_secs"], 7);
  EXPECT_EQ(json_of("p.json")["settings"]["noise_method"], 1);
  EXPECT_EQ(json_of("p.json")["settings"]["pe_step"], 0.5);
}

TEST_F(batch_test, settings_that_cannot_be_read_are_refused_at_the_start) {
  // A folder in the place of a file opens and cannot be read, whoever runs the test.
  for (const char* name : {"kv_parameters.sav", "kv_prefs.sav"}) {
    const std::string home = file(std::string("home of ") + name);
    std::filesystem::create_directories(home + '/' + name);
    const process_result told = run(
        {"sort", tsf, "--home", home, "--save-work", file("a.wrk"), "--report", file("a.json")});
    EXPECT_EQ(told.status, 1) << name;
    EXPECT_EQ(told.err, "Failed to read file " + home + '/' + name + ": Is a directory\n" +
                            "Nothing is done without the settings in " + home + "\n");
    EXPECT_FALSE(exists("a.wrk")) << "refused before the sort";
    EXPECT_FALSE(exists("a.json"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(home), {}), 1);
  }
  const process_result named = run({"sort", tsf, "--parameters", directory.path});
  EXPECT_EQ(named.status, 1);
  EXPECT_THAT(named.err, HasSubstr("Failed to read file " + directory.path + ": Is a directory"));
}

TEST_F(batch_test, a_configuration_places_the_channels) {
  std::ofstream config(file("probe.cfg"));
  config << "probe\n";
  for (int c = 1; c <= 6; ++c) config << c << " " << c << " 7 " << 100 * c << "\n";
  config.close();
  const process_result placed =
      run({"info", tsf, "--config", file("probe.cfg"), "--json", "--quiet"});
  ASSERT_EQ(placed.status, 0) << placed.err;
  EXPECT_EQ(nlohmann::json::parse(placed.out)["sites"][5]["y_um"], 600);

  std::ofstream(file("short.cfg")) << "probe\n1 1 0 0\n";
  const process_result shorter = run({"info", tsf, "--config", file("short.cfg")});
  EXPECT_EQ(shorter.status, 1);
  EXPECT_THAT(shorter.err, HasSubstr("maps 1 channels, the recording has 6"));
  EXPECT_EQ(run({"info", tsf, "--config", file("absent.cfg")}).status, 1);
}

// Sends signals when a line says these words. On a machine that others use, the run may be at its
// end before they come: its files are there then, and it is made again.
process_result run_and_signal(const words& arguments, const std::string& at,
                              const std::vector<int>& signals, const words& files) {
  const auto is_there = [](const std::string& path) { return std::filesystem::exists(path); };
  process_result result;
  for (int tries = 0; tries < 20; ++tries) {
    for (const std::string& path : files) std::filesystem::remove(path);
    result = run_process(KESTRELVANE_BATCH, arguments, [&](pid_t process, const std::string& line) {
      if (line.find(at) == std::string::npos) return;
      for (const int signal : signals) kill(process, signal);
    });
    if (result.status != 0 && std::none_of(files.begin(), files.end(), is_there)) break;
  }
  for (const std::string& path : files) EXPECT_FALSE(is_there(path)) << path << result.err;
  return result;
}

// What the system tells of a process: the letter of its state, 'Z' once it has ended, and the
// signals that it has handlers for.
struct process_look {
  char state = 'Z';
  std::uint64_t caught = 0;
};

process_look look_at(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  process_look look;
  for (std::string word; status >> word;) {
    if (word == "State:") status >> look.state;
    if (word == "SigCgt:") status >> std::hex >> look.caught >> std::dec;
  }
  return look;
}

// False when the process has ended before it looks so.
template <class Test>
bool wait_for(pid_t process, const Test& looks_so) {
  for (;;) {
    const process_look look = look_at(process);
    if (look.state == 'Z') return false;
    if (looks_so(look)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// To a process that has been stopped, since only that cannot come to its end, however long this one
// waits for its own turn, before the last of them is there. False when it has ended already.
bool signal_at_once(pid_t process, const std::vector<int>& signals) {
  kill(process, SIGSTOP);
  const bool stopped = wait_for(process, [](const auto& look) { return look.state == 'T'; });
  for (const int signal : signals) kill(process, signal);
  kill(process, SIGCONT);
  return stopped;
}

// The first signals when clusters exist, each of the next when those before it have been taken,
// after which the system has them and not the program. Again where the sort was done by then.
process_result run_and_press(const words& arguments, const std::vector<std::vector<int>>& presses) {
  process_result result;
  bool in_time = false;
  for (int tries = 0; tries < 20 && !in_time; ++tries) {
    bool begun = false;
    result = run_process(KESTRELVANE_BATCH, arguments, [&](pid_t process, const std::string& line) {
      if (begun || line.find("initial clusters") == std::string::npos) return;
      begun = true;
      in_time = signal_at_once(process, presses[0]);
      for (std::size_t i = 1; i < presses.size() && in_time; ++i) {
        const std::uint64_t bit = std::uint64_t{1} << (presses[i][0] - 1);
        in_time = wait_for(process, [&](const auto& look) { return (look.caught & bit) == 0; }) &&
                  signal_at_once(process, presses[i]);
      }
    });
  }
  EXPECT_TRUE(in_time) << result.err;
  return result;
}

TEST_F(batch_test, an_interrupted_sort_is_kept_and_gone_on_with) {
  const words whole{"sort", tsf, "--save-work", file("w.wrk"), "--export", "csv=" + file("w.csv")};
  ASSERT_EQ(run(whole).status, 0);
  const words sort{"sort",        tsf,
                   "--export",    "csv=" + file("i.csv"),
                   "--report",    file("i.json"),
                   "--export",    "txt=" + file("i.txt"),
                   "--save-work", file("i.wrk")};
  for (const auto& [signal, threads] : {std::pair{SIGINT, "1"}, std::pair{SIGTERM, "4"}}) {
    // As soon as clusters exist.
    const process_result result = run_and_signal(sort, "initial clusters", {signal},
                                                 {file("i.wrk"), file("i.csv"), file("i_1.txt")});
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_THAT(result.err, HasSubstr("User terminated autosort"));
    EXPECT_THAT(result.err, HasSubstr("i.partial.wrk has the sort after "));
    EXPECT_EQ(json_of("i.json")["interrupted"], true);
    without_log(file("i.partial.wrk"));

    words resume = sort;
    resume.insert(resume.end(), {"--resume", "--threads", threads});
    const process_result resumed = run(resume);
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_THAT(resumed.err, HasSubstr("Going on after "));
    EXPECT_THAT(resumed.err, Not(HasSubstr("Event detection method is")));
    EXPECT_FALSE(exists("i.partial.wrk"));
    EXPECT_TRUE(without_log(file("i.wrk")) == without_log(file("w.wrk")));
    EXPECT_EQ(text_of(file("i.csv")), text_of(file("w.csv")));
  }
  EXPECT_EQ(run({"sort", tsf, "--resume"}).status, 2);
  EXPECT_EQ(
      run({"sort", tsf, "--work", file("x.partial.wrk"), "--save-work", file("x.wrk")}).status, 1);
}

TEST_F(batch_test, a_killed_sort_goes_on_where_its_checkpoint_is) {
  const words sort{"sort", tsf, "--export", "csv=" + file("k.csv"), "--resume", "--checkpoint"};
  const process_result killed =
      run_and_signal(sort, "Finished first pass", {SIGKILL}, {file("k.csv")});
  ASSERT_EQ(killed.status, -SIGKILL);
  EXPECT_THAT(killed.err, HasSubstr("There is no " + file("k.partial.wrk")));
  words other = sort;
  other.insert(other.end(), {"--set", "gac_threshold=7"});
  const process_result refused = run(other);
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("is not of this sort"));
  const process_result resumed = run(sort);
  EXPECT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_THAT(resumed.err, HasSubstr("Going on after "));
  EXPECT_FALSE(exists("k.partial.wrk"));
  ASSERT_EQ(run({"sort", tsf, "--export", "csv=" + file("w.csv")}).status, 0);
  EXPECT_EQ(text_of(file("k.csv")), text_of(file("w.csv")));
}

TEST_F(batch_test, what_is_interrupted_is_not_taken_for_done) {
  // The next run of a night looks at no more than whether the files are there.
  const process_result sort = run_and_signal(
      {"sort", tsf, "--save-work", file("j.wrk"), "--report", file("j.json"), "--skip-existing"},
      "initial clusters", {SIGTERM}, {file("j.wrk"), file("j.json")});
  EXPECT_EQ(sort.status, 1);
  // Half of the events are no detection.
  const process_result detect =
      run_and_signal({"detect", tsf, "--save-work", file("d.wrk")}, "Event detection method is",
                     {SIGTERM}, {file("d.wrk")});
  EXPECT_EQ(detect.status, 1);
  EXPECT_THAT(detect.err, HasSubstr("Nothing was saved"));
}

TEST_F(batch_test, the_second_signal_ends_the_program) {
  const words sort{"sort", tsf, "--save-work", file("e.wrk")};
  for (const auto& [first, second] :
       {std::pair{SIGINT, SIGINT}, std::pair{SIGINT, SIGTERM}, std::pair{SIGTERM, SIGINT}}) {
    EXPECT_EQ(run_and_press(sort, {{first}, {second}}).status, -second) << first;
  }
#if !defined(__SANITIZE_THREAD__)
  // Of both kinds at one moment, which the system never takes for one signal. The thread sanitizer
  // does not pass on the second: it keeps signals until the thread calls it, and throws away those
  // whose handler has gone by then.
  EXPECT_LT(run_and_press(sort, {{SIGINT, SIGTERM}}).status, 0);
#endif
}

TEST_F(batch_test, threads_are_those_that_a_job_may_use) {
  const std::string info = KESTRELVANE_BATCH " detect " + tsf + " --quiet --report ";
  ASSERT_EQ(run_process("/bin/sh", {"-c", "taskset -c 0 " + info + file("t.json")}).status, 0);
  EXPECT_EQ(json_of("t.json")["threads"], 1);
  ASSERT_EQ(run_process("/bin/sh", {"-c", "taskset -c 0 " + info + file("u.json") + " --threads 2"})
                .status,
            0);
  EXPECT_EQ(json_of("u.json")["threads"], 2);
}

}  // namespace
}  // namespace kestrelvane::test
