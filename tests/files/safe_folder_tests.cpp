// A folder of files is the old one or the new one, whenever its writer dies.
#include "files/safe_folder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>
#include <utility>

#include "files/safe_file.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;
using contents = std::map<std::string, std::string>;

contents contents_of(const std::string& folder) {
  contents files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (entry.is_directory()) {
      files[entry.path().filename()] = "folder";
      continue;
    }
    const std::vector<char> bytes = read_bytes(entry.path());
    files[entry.path().filename()] = std::string(bytes.begin(), bytes.end());
  }
  return files;
}

bool write_small(const std::string& path, const std::string& text) {
  safe_file out;
  return open_safe_file(out, path) && write_text(out, text) && finish_safe_file(out);
}

bool goes(const std::string& name) { return name == "old only"; }

bool write_set(const std::string& path, const std::string& text, int n_files = 3) {
  safe_folder out;
  if (!open_safe_folder(out, path)) return false;
  for (int i = 0; i < n_files; ++i) {
    if (!write_small(out.temporary + "/" + std::to_string(i), text)) return false;
  }
  return finish_safe_folder(out, goes);
}

TEST(safe_folder, new_files_old_ones_and_those_of_others) {
  const temporary_directory home;
  const std::string path = home.file("above/set");
  ASSERT_TRUE(write_set(path + "/", "first"));
  EXPECT_EQ(contents_of(path), (contents{{"0", "first"}, {"1", "first"}, {"2", "first"}}));
  write_bytes(path + "/notes", {'x'});
  write_bytes(path + "/old only", {'x'});
  fs::create_directory(path + "/cache");
  write_bytes(path + "/cache/deep", {'x'});
  fs::permissions(path, fs::perms(0750));
  fs::create_symlink("above/set", home.file("link"));
  ASSERT_TRUE(write_set(home.file("link"), "second", 2));
  EXPECT_EQ(
      contents_of(path),
      (contents{
          {"0", "second"}, {"1", "second"}, {"2", "first"}, {"cache", "folder"}, {"notes", "x"}}));
  EXPECT_TRUE(fs::exists(path + "/cache/deep"));
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0750));
  EXPECT_TRUE(fs::is_symlink(home.file("link")));
  EXPECT_EQ(contents_of(home.file("above")).size(), 1u) << "nothing is left beside it";
}

TEST(safe_folder, one_that_is_given_up_leaves_the_old) {
  const temporary_directory home;
  const std::string path = home.file("set");
  ASSERT_TRUE(write_set(path, "first"));
  const contents before = contents_of(path);
  {
    safe_folder out;
    ASSERT_TRUE(open_safe_folder(out, path));
    EXPECT_TRUE(write_small(out.temporary + "/0", "second"));
  }
  EXPECT_EQ(contents_of(path), before);
  EXPECT_EQ(contents_of(home.path).size(), 1u);
  write_bytes(home.file("file"), {'x'});
  safe_folder out;
  EXPECT_FALSE(open_safe_folder(out, home.file("file")));
  EXPECT_EQ(errno, ENOTDIR);
}

// A kill at any moment, over and over: a child writes sets without a pause.
TEST(safe_folder, a_kill_leaves_one_set_whole) {
  const temporary_directory home;
  const std::string path = home.file("set");
  constexpr int n_files = 5;
  std::mt19937 random(5);
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(write_set(path, "0", n_files));
  // Two or three sets come to their end, on a fast disk and on a busy one.
  const std::chrono::microseconds most = 3 * std::chrono::duration_cast<std::chrono::microseconds>(
                                                 std::chrono::steady_clock::now() - begin);
  std::uniform_int_distribution<std::int64_t> moment(0, most.count());
  std::size_t sets_seen = 0;
  std::string last = "0";
  for (int i = 1; i <= 40; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int k = 0;; ++k) write_set(path, std::to_string(1000 * i + k), n_files);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const contents now = contents_of(path);
    ASSERT_EQ(now.size(), std::size_t{n_files}) << i;
    EXPECT_TRUE(std::all_of(now.begin(), now.end(), [&](const auto& f) {
      return f.second == now.at("0");
    })) << i;
    sets_seen += last != now.at("0");
    last = now.at("0");
  }
  EXPECT_GE(sets_seen, 1u);
}

}  // namespace
}  // namespace kestrelvane::test
