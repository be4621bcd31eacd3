// What saving leaves in a folder: never less than was there, and nobody else's file touched.
#include "files/safe_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>

#include "files/file_place.h"
#include "support/full_device.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;

std::string text_of(const std::string& path) {
  const std::vector<char> bytes = read_bytes(path);
  return {bytes.begin(), bytes.end()};
}

void put(const std::string& path, const std::string& text) {
  write_bytes(path, {text.begin(), text.end()});
}

bool save(const std::string& path, const std::string& text, const std::string& temporary = "") {
  safe_file out;
  if (open_safe_file(out, path, temporary)) write_text(out, text);
  return finish_safe_file(out);
}

struct stat status_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

unsigned mode_of(const std::string& path) { return status_of(path).st_mode & 07777; }

struct safe_file_test : ::testing::Test {
  temporary_directory folder;
  std::string path = folder.file("a.csv");
  std::size_t n_files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder.path), {}));
  }
};

TEST_F(safe_file_test, files_of_others_beside_the_target_stay) {
  put(path + ".tmp", "the user's own");
  put(path + ".try", "that, too");
  std::string problem;
  EXPECT_TRUE(try_safe_file(path, problem));
  ASSERT_TRUE(save(path, "new"));
  EXPECT_EQ(text_of(path), "new");
  EXPECT_EQ(text_of(path + ".tmp"), "the user's own");
  EXPECT_EQ(text_of(path + ".try"), "that, too");
  EXPECT_EQ(n_files(), 3u);

  // Two that write one file at a time do not write into each other.
  safe_file first, second;
  ASSERT_TRUE(open_safe_file(first, path) && open_safe_file(second, path));
  EXPECT_NE(first.temporary_path, second.temporary_path);
  write_text(first, "first");
  write_text(second, "second");
  EXPECT_TRUE(finish_safe_file(first));
  EXPECT_EQ(text_of(path), "first");
  EXPECT_TRUE(finish_safe_file(second));
  EXPECT_EQ(text_of(path), "second");
}

TEST_F(safe_file_test, a_link_planted_under_the_temporary_name_is_not_followed) {
  const std::string precious = folder.file("precious"), temporary = folder.file("state.tmp");
  put(precious, "precious");
  fs::create_symlink(precious, temporary);
  fs::create_symlink(precious, path + ".tmp");
  ASSERT_TRUE(save(path, "new", temporary));
  ASSERT_TRUE(save(path, "newer"));
  EXPECT_EQ(text_of(precious), "precious");
  EXPECT_EQ(text_of(path), "newer");
  EXPECT_FALSE(fs::exists(temporary));
  // What a killed run has left is in nobody's way.
  put(temporary, "torn");
  ASSERT_TRUE(save(path, "newest", temporary));
  EXPECT_EQ(text_of(path), "newest");
}

TEST_F(safe_file_test, links_stay_and_lead_to_the_new_file) {
  temporary_directory other;
  const std::string real = other.file("real.csv"), link = folder.file("link");
  fs::create_symlink(real, path);
  fs::create_symlink("a.csv", link);  // by a name beside it
  ASSERT_TRUE(save(link, "made where the link led to"));
  EXPECT_EQ(text_of(real), "made where the link led to");
  ASSERT_TRUE(save(path, "replaced", folder.file("state.tmp")));
  EXPECT_EQ(text_of(real), "replaced");
  EXPECT_TRUE(fs::is_symlink(path) && fs::is_symlink(link));
  EXPECT_EQ(n_files(), 2u);
  EXPECT_EQ(std::distance(fs::directory_iterator(other.path), {}), 1);

  const std::string circle = folder.file("circle");
  fs::create_symlink(circle, circle);
  EXPECT_FALSE(save(circle, "nowhere"));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_TRUE(fs::is_symlink(circle));
}

TEST_F(safe_file_test, permissions_of_the_old_file_are_kept) {
  for (const mode_t mode : {0600, 0640, 0666, 0444}) {
    put(path, "old");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    {
      safe_file out;
      ASSERT_TRUE(open_safe_file(out, path));
      // Not only at the end: what is written is secret, too.
      EXPECT_EQ(mode_of(out.temporary_path), mode);
      EXPECT_TRUE(finish_safe_file(out));
    }
    EXPECT_EQ(mode_of(path), mode);
    ASSERT_EQ(unlink(path.c_str()), 0);
  }
  const mode_t mask = umask(027);
  ASSERT_TRUE(save(path, "new"));
  umask(mask);
  EXPECT_EQ(mode_of(path), 0640u) << "as any new file";
  const std::string aside = folder.file("aside");
  put(aside, "put aside");
  ASSERT_EQ(chmod(aside.c_str(), 0604), 0);
  safe_file out;
  ASSERT_TRUE(open_safe_file(out, path));
  take_permissions(out, aside);
  ASSERT_TRUE(finish_safe_file(out));
  EXPECT_EQ(mode_of(path), 0604u);
}

TEST_F(safe_file_test, the_owner_is_kept_where_that_is_allowed) {
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser gives files away";
  constexpr uid_t nobody = 65534;
  put(path, "old");
  ASSERT_EQ(chown(path.c_str(), nobody, nobody), 0);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(save(path, "new"));
  EXPECT_EQ(status_of(path).st_uid, nobody);
  EXPECT_EQ(status_of(path).st_gid, nobody);
  EXPECT_EQ(mode_of(path), 0640u);

  // A group that cannot be kept: the one in its place may do no more than all others.
  constexpr gid_t strange = 12345;
  ASSERT_EQ(chown(path.c_str(), 0, strange), 0);
  ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
  ASSERT_EQ(setegid(nobody), 0);
  ASSERT_EQ(seteuid(nobody), 0);
  const bool saved = save(path, "newer");
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(setegid(0), 0);
  ASSERT_TRUE(saved);
  EXPECT_EQ(status_of(path).st_uid, nobody);
  EXPECT_EQ(mode_of(path), 0600u);
}

TEST_F(safe_file_test, devices_and_pipes_are_written_straight) {
  std::string problem;
  EXPECT_TRUE(try_safe_file("/dev/null", problem)) << problem;
  ASSERT_TRUE(save("/dev/null", "gone"));
  EXPECT_TRUE(S_ISCHR(status_of("/dev/null").st_mode));
  fs::create_symlink("/dev/null", path);
  ASSERT_TRUE(save(path, "gone"));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_FALSE(save("/dev/full", "too much"));
  EXPECT_EQ(errno, ENOSPC);

  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_TRUE(try_safe_file(pipe, problem)) << "and does not wait for a reader";
  auto reader = std::async(std::launch::async, [&] { return text_of(pipe); });
  ASSERT_TRUE(save(pipe, "through the pipe"));
  EXPECT_EQ(reader.get(), "through the pipe");
  EXPECT_TRUE(S_ISFIFO(status_of(pipe).st_mode));
  EXPECT_EQ(n_files(), 2u);
}

TEST_F(safe_file_test, an_open_file_is_appended_to_and_not_replaced) {
  put(path, "said before, ");
  const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  const auto inode = status_of(path).st_ino;
  const std::string number = std::to_string(descriptor);
  EXPECT_TRUE(save("/dev/fd/" + number, "and "));
  EXPECT_TRUE(save("/proc/self/fd/" + number, "after"));
  close(descriptor);
  EXPECT_EQ(status_of(path).st_ino, inode);
  EXPECT_EQ(text_of(path), "said before, and after");
  EXPECT_FALSE(names_open_file(path));
}

TEST_F(safe_file_test, a_failed_save_says_why_and_leaves_nothing_beside) {
  put(path, "old");
  {
    const full_device full;
    EXPECT_FALSE(save(path, std::string(100'000, 'x')));
    EXPECT_EQ(why_not_saved(path), path + ": File too large");
  }
  {
    safe_file out;
    ASSERT_TRUE(open_safe_file(out, path));
    write_text(out, "given up");
    errno = ENOSPC;  // somebody else's
  }
  EXPECT_EQ(why_not_saved(path), path) << "nothing of the system's has failed";
  EXPECT_EQ(text_of(path), "old");
  EXPECT_EQ(n_files(), 1u);

  EXPECT_FALSE(save(folder.file("absent/x"), "new"));
  EXPECT_EQ(why_not_saved("x"), "x: No such file or directory");
  EXPECT_FALSE(save(path + "/x", "new"));
  EXPECT_EQ(why_not_saved("x"), "x: Not a directory");
  EXPECT_FALSE(save(folder.path, "new"));
  EXPECT_EQ(why_not_saved("x"), "x: Is a directory");
}

TEST_F(safe_file_test, names_as_long_as_names_may_be_are_saved) {
  const std::string longest = folder.file(std::string(251, 'n') + ".csv");
  ASSERT_TRUE(save(longest, "new"));
  EXPECT_EQ(text_of(longest), "new");
  EXPECT_EQ(n_files(), 1u);
}

TEST(safe_file, a_failed_save_leaves_the_old_file_whole) {
  temporary_directory folder;
  const std::string path = folder.file("target");
  test::write_bytes(path, {'o', 'l', 'd'});
  {
    safe_file out;
    ASSERT_TRUE(open_safe_file(out, path));
    write_text(out, "half of the n");
    // Given up before it was finished.
  }
  EXPECT_EQ(read_bytes(path), (std::vector<char>{'o', 'l', 'd'}));
  safe_file out;
  ASSERT_TRUE(open_safe_file(out, path));
  write_text(out, "new");
  EXPECT_TRUE(finish_safe_file(out));
  EXPECT_EQ(read_bytes(path), (std::vector<char>{'n', 'e', 'w'}));
  EXPECT_FALSE(finish_safe_file(out));
  EXPECT_FALSE(open_safe_file(out, folder.file("no folder/x")));
  EXPECT_FALSE(write_text(out, "nothing"));
  EXPECT_FALSE(finish_safe_file(out));
}

}  // namespace
}  // namespace kestrelvane::test
