// A disk that is full, broken or closed to us, at every single call of a save: the run ends in
// words and with a status, the old files are whole, and nothing is left beside them.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <sstream>

#include "operations/open_recording.h"
#include "operations/program_run.h"
#include "results/work_file.h"
#include "support/child_process.h"
#include "support/small_session.h"
#include "synthesis/test_recording.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* calls[] = {"open", "write", "fsync", "close", "rename"};
constexpr int errors[] = {ENOSPC, EIO, EACCES};

struct fault {
  std::string call = "none";
  int at = 0, error = 0;
};

// A night of it also writes what takes many files.
bool is_soak() { return std::getenv("KESTRELVANE_SOAK") != nullptr; }

using folder_bytes = std::map<std::string, std::vector<char>>;  // by path within the folder

// Files name the temporary folder that they were made in; all these names are of one length.
void forget_folder(std::vector<char>& bytes) {
  constexpr std::string_view beginning = "/kestrelvane-";
  constexpr std::ptrdiff_t n_random = 6;
  auto at = bytes.begin();
  while (true) {
    at = std::search(at, bytes.end(), beginning.begin(), beginning.end());
    if (bytes.end() - at < std::ssize(beginning) + n_random) return;
    at = std::fill_n(at + std::ssize(beginning), n_random, '*');
  }
}

folder_bytes bytes_of(const std::string& folder) {
  folder_bytes all;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      std::vector<char>& bytes = all[fs::relative(entry.path(), folder)];
      bytes = read_bytes(entry.path());
      forget_folder(bytes);
    }
  }
  return all;
}

struct faulty_run {
  process_result result;
  std::map<std::string, int> counts;
  std::string failed;  // the path within the folder; empty when every call went well
};

faulty_run run_on(const std::string& folder, const fault& f, const std::string& command,
                  const std::vector<std::string>& arguments) {
  const temporary_directory aside;
  std::vector<std::string> words{
      fmt::format("KESTRELVANE_FAULT={} {} {} {}", f.call, f.at, f.error, folder),
      "KESTRELVANE_FAULT_REPORT=" + aside.file("report"), "LD_PRELOAD=" KESTRELVANE_FAILING_FILES,
      "ASAN_OPTIONS=verify_asan_link_order=0", command};
  words.insert(words.end(), arguments.begin(), arguments.end());
  faulty_run run{run_process("/usr/bin/env", words), {}, {}};
  std::ifstream report(aside.file("report"));
  std::string first, second;
  while (report >> first >> second) {
    if (first == "failed") {
      report >> second;
      run.failed = fs::relative(second, folder);
    } else {
      run.counts[first] = std::stoi(second);
    }
  }
  return run;
}

// A work file is whole when it can be read over its recording.
bool is_whole_work_file(const std::string& recording, const std::string& path) {
  small_session session;
  session.user.default_answer = true;
  bool wrong_file = false;
  return open_recording(*session, recording) && read_work_file(*session, path, wrong_file) &&
         session->events.n_events > 0 && check_session(*session).empty();
}

// One kind of run, tried with every fault in a copy of one folder.
struct file_faults : ::testing::Test {
  temporary_directory before, after;  // as it is found, and as a run without a fault leaves it
  folder_bytes old_files, new_files;
  std::string command;
  // Of a run in this folder.
  std::function<std::vector<std::string>(const std::string& folder)> arguments;
  std::function<void(const std::string& folder, const faulty_run& run)> check;

  file_faults() {
    test_recording_options options;
    options.electrode = test_electrode::tetrode;
    options.n_channels = 4;
    options.minutes = 0.04;
    options.n_units = 2;
    options.median_rate = 20;
    options.sampling_frequency = 20000;
    std::string problem;
    EXPECT_TRUE(make_test_recording(options, before.file("a.tsf"), {}, problem)) << problem;
    fs::create_directory(before.file("home"));
  }

  std::vector<std::string> sort_in(const std::string& folder, const char* size) const {
    std::vector<std::string> words{"sort",        folder + "/a.tsf",
                                   "--save-work", folder + "/a.wrk",
                                   "--export",    "csv=" + folder + "/a.csv",
                                   "--report",    folder + "/a.json",
                                   "--home",      folder + "/home",
                                   "--threads",   "1",
                                   "--quiet",     "--set",
                                   size};
    if (!is_soak()) return words;
    for (const char* name : {"nwb", "ptcs", "txt", "tsf"}) {
      words.insert(words.end(), {"--export", fmt::format("{0}={1}/b.{0}", name, folder)});
    }
    return words;
  }

  // Neither torn nor gone: each file as it was, or as it should be.
  void expect_whole(const std::string& folder) const {
    const folder_bytes now = bytes_of(folder);
    for (const auto& [name, bytes] : now) {
      EXPECT_FALSE(name.ends_with(".tmp")) << name << " is left";
    }
    for (const auto& [name, bytes] : old_files) EXPECT_TRUE(now.contains(name)) << name;
    for (const auto& [name, bytes] : now) {
      const auto was = old_files.find(name);
      if (was != old_files.end() && was->second == bytes) continue;
      if (name.ends_with(".wrk") || name.ends_with("restart.sav") ||
          name.find("recover") != std::string::npos) {
        EXPECT_TRUE(is_whole_work_file(folder + "/a.tsf", folder + '/' + name)) << name;
      } else if (name.ends_with(".json") || name.ends_with(".nwb")) {
        // Times of the run are in it; its end is not torn.
        ASSERT_TRUE(new_files.contains(name)) << name;
        EXPECT_NEAR(static_cast<double>(bytes.size()),
                    static_cast<double>(new_files.at(name).size()), 200)
            << name;
        EXPECT_EQ(bytes.back(), new_files.at(name).back()) << name;
      } else {
        ASSERT_TRUE(new_files.contains(name)) << name;
        EXPECT_TRUE(bytes == new_files.at(name)) << name << " is neither old nor new";
      }
    }
  }

  faulty_run try_one(const fault& f) const {
    const temporary_directory folder;
    fs::copy(before.path, folder.path, fs::copy_options::recursive);
    const faulty_run run = run_on(folder.path, f, command, arguments(folder.path));
    const std::string what =
        fmt::format("{} {} fails on {} with {}; status {}\n{}", f.call, f.at, run.failed,
                    std::strerror(f.error), run.result.status, run.result.err);
    SCOPED_TRACE(what);
    EXPECT_GE(run.result.status, 0) << "killed";
    expect_whole(folder.path);
    check(folder.path, run);
    return run;
  }

  // Returns how many faults were tried.
  int try_all() {
    old_files = bytes_of(before.path);
    fs::copy(before.path, after.path,
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    const faulty_run good = run_on(after.path, {}, command, arguments(after.path));
    EXPECT_EQ(good.result.status, 0) << good.result.err;
    new_files = bytes_of(after.path);
    std::vector<fault> faults;
    for (const char* call : calls) {
      const int n = good.counts.at(call);
      EXPECT_GT(n, 0) << call;
      for (int at = 1; at <= n; ++at) {
        for (const int error : errors) faults.push_back({call, at, error});
      }
    }
    std::atomic<std::size_t> next = 0;
    std::vector<std::future<void>> workers;
    for (int i = 0; i < 3; ++i) {
      workers.push_back(std::async(std::launch::async, [&] {
        for (std::size_t k = next++; k < faults.size(); k = next++) {
          const faulty_run run = try_one(faults[k]);
          EXPECT_FALSE(run.failed.empty()) << faults[k].call << ' ' << faults[k].at;
        }
      }));
    }
    for (std::future<void>& worker : workers) worker.get();
    return static_cast<int>(faults.size());
  }
};

// The list of recent recordings, which costs nobody any work: it is logged and no more.
bool is_recent_list(const std::string& name) { return name.starts_with("home/kv.ufl"); }

TEST_F(file_faults, of_a_sort_with_all_that_it_writes) {
  command = KESTRELVANE_BATCH;
  arguments = [&](const std::string& folder) { return sort_in(folder, "min_cluster_size=5"); };
  // What an earlier sort has left, with another size in its settings.
  const process_result earlier = run_process(command, sort_in(before.path, "min_cluster_size=6"));
  ASSERT_EQ(earlier.status, 0) << earlier.err;
  write_bytes(before.file("a.csv"), {'o', 'l', 'd'});
  check = [](const std::string&, const faulty_run& run) {
    if (is_recent_list(run.failed)) return;
    EXPECT_NE(run.result.status, 0);
    EXPECT_FALSE(run.result.err.empty());
  };
  const int n = try_all();
  std::printf("%d faults\n", n);
  EXPECT_GT(n, 100);
}

TEST_F(file_faults, of_settings_recovery_and_restart) {
  const process_result sorted =
      run_process(KESTRELVANE_BATCH, sort_in(before.path, "min_cluster_size=5"));
  ASSERT_EQ(sorted.status, 0) << sorted.err;
  command = KESTRELVANE_SESSION_VICTIM;
  arguments = [](const std::string& folder) {
    return std::vector<std::string>{"save", folder + "/home", folder + "/a.tsf", folder + "/a.wrk"};
  };
  // The states of an earlier run, which a failed save must leave.
  ASSERT_EQ(run_process(command, arguments(before.path)).status, 0);
  check = [](const std::string& folder, const faulty_run& run) {
    // The state that is replaced is read for what it holds; where that fails it is kept as it is,
    // and the save goes on.
    const auto is_read = [&](const char* file, const char* words) {
      return run.failed == file && run.result.out.find(words) != std::string::npos;
    };
    const bool of_reading = is_read("home/kv_autorecover.sav", "recovery saved") ||
                            is_read("home/kv_restart.sav", "restart saved");
    if (run.failed.starts_with("home/kv_") && !of_reading) {
      const std::string words = run.result.out + run.result.err;
      EXPECT_NE(words.find("failed"), std::string::npos) << words;
    }
    small_session next;
    next->home_directory = folder + "/home";
    next.user.default_answer = true;
    EXPECT_TRUE(open_at_start(*next, ""));
    EXPECT_EQ(next->clusters.cluster_comment[1].view(), "new");
    EXPECT_EQ(check_session(*next), "");
  };
  const int n = try_all();
  std::printf("%d faults\n", n);
  EXPECT_GT(n, 30);
}

}  // namespace
}  // namespace kestrelvane::test
