// A set of files among others is the old one or the new one, whoever dies or fails in between.
#include "files/safe_set.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;

constexpr int n_files = 200;

std::string name_of_file(const std::string& folder, int i) {
  return folder + "/set_" + std::to_string(i) + ".txt";
}

std::string text_of(const std::string& path) {
  const std::vector<char> bytes = read_bytes(path);
  return {bytes.begin(), bytes.end()};
}

bool write_set(const std::string& folder, int n, const std::string& text, std::string& failed,
               const std::vector<std::string>& goes = {}) {
  safe_set set(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) {
    safe_file& file = set.files[static_cast<std::size_t>(i)];
    if (!open_safe_file(file, name_of_file(folder, i)) || !write_text(file, text) ||
        !leave_in_set(file)) {
      return false;
    }
  }
  set.goes = goes;
  const bool finished = finish_safe_set(set);
  failed = set.failed;
  return finished;
}

// The texts of all files of a set; "none" where one is missing.
std::set<std::string> texts_in(const std::string& folder, int n) {
  std::set<std::string> texts;
  for (int i = 0; i < n; ++i) {
    const std::string path = name_of_file(folder, i);
    texts.insert(fs::exists(path) ? text_of(path) : "none");
  }
  return texts;
}

int temporaries_in(const std::string& folder) {
  int n = 0;
  for (const auto& entry : fs::directory_iterator(folder)) n += entry.path().extension() == ".tmp";
  return n;
}

TEST(safe_set, new_files_take_the_place_of_old_ones) {
  const temporary_directory home;
  std::string failed;
  ASSERT_TRUE(write_set(home.path, 3, "old", failed));
  fs::permissions(name_of_file(home.path, 1), fs::perms::owner_read | fs::perms::owner_write);
  std::ofstream(home.file("of others")) << "stays";
  ASSERT_TRUE(write_set(home.path, 2, "new", failed, {name_of_file(home.path, 2)}));
  EXPECT_EQ(texts_in(home.path, 3), (std::set<std::string>{"new", "none"}));
  EXPECT_EQ(fs::status(name_of_file(home.path, 1)).permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(text_of(home.file("of others")), "stays");
  EXPECT_EQ(temporaries_in(home.path), 0);
  EXPECT_TRUE(write_set(home.path, 0, "", failed));
}

TEST(safe_set, one_that_cannot_be_given_its_name_gives_back_all_others) {
  const temporary_directory home;
  std::string failed;
  ASSERT_TRUE(write_set(home.path, 5, "old", failed));
  {
    safe_set set(8);
    for (int i = 0; i < 8; ++i) {
      safe_file& file = set.files[static_cast<std::size_t>(i)];
      ASSERT_TRUE(open_safe_file(file, name_of_file(home.path, i)) && write_text(file, "new") &&
                  leave_in_set(file));
    }
    set.goes = {name_of_file(home.path, 0)};
    // Somebody clears the folder of what looks left over.
    fs::remove(set.files[6].temporary_path);
    EXPECT_FALSE(finish_safe_set(set));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(set.failed, name_of_file(home.path, 6));
  }
  EXPECT_EQ(texts_in(home.path, 5), std::set<std::string>{"old"});
  EXPECT_FALSE(fs::exists(name_of_file(home.path, 5))) << "was not there before";
  EXPECT_EQ(temporaries_in(home.path), 0);
}

// Both the program and the process that gives the names hold the writing end of the pipe: it ends
// when neither is left.
void wait_for_all(int reading_end) {
  std::array<char, 16> bytes{};
  while (read(reading_end, bytes.data(), bytes.size()) > 0) continue;
  close(reading_end);
}

// Held until the first file has a new inode, or for so many ms.
void wait_for_names(const std::string& folder, int ms) {
  struct stat before {};
  struct stat now {};
  stat(name_of_file(folder, 0).c_str(), &before);
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  do {
    stat(name_of_file(folder, 0).c_str(), &now);
  } while (now.st_ino == before.st_ino && std::chrono::steady_clock::now() < until);
}

TEST(safe_set, a_kill_at_any_moment_leaves_one_set) {
  const temporary_directory home;
  std::string failed;
  ASSERT_TRUE(write_set(home.path, n_files, "first", failed));
  std::mt19937 random(7);
  int changed = 0;
  for (int round = 0; round < 9; ++round) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const std::string text = "round " + std::to_string(round);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Of a group of its own, and killed with all of it.
      setpgid(0, 0);
      close(ends[0]);
      for (int i = 0;; ++i) write_set(home.path, n_files, text + '.' + std::to_string(i), failed);
    }
    setpgid(child, child);
    close(ends[1]);
    // Two thirds of the kills come while names are given, the others anywhere.
    if (round % 3 != 0) wait_for_names(home.path, 5000);
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random)));
    kill(-child, SIGKILL);
    waitpid(child, nullptr, 0);
    wait_for_all(ends[0]);
    const std::set<std::string> texts = texts_in(home.path, n_files);
    EXPECT_EQ(texts.size(), 1u) << *texts.begin() << " beside " << *texts.rbegin();
    changed += texts.begin()->starts_with(text);
  }
  EXPECT_GT(changed, 2) << "kills came too early to tell anything";
}

}  // namespace
}  // namespace kestrelvane::test
