// Quotas of control groups as the kernel writes them.
#include "numerics/processors.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <filesystem>
#include <fstream>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct processors : ::testing::Test {
  temporary_directory mounted;
  void write(const std::string& name, const std::string& text) const {
    const std::filesystem::path path = mounted.file(name);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  std::int32_t of(const std::string& groups) const {
    return processors_of_quota(groups, mounted.path);
  }
};

TEST_F(processors, second_version) {
  EXPECT_EQ(of("0::/\n"), 0);
  write("a/cpu.max", "max 100000\n");
  EXPECT_EQ(of("0::/a\n"), 0);
  write("a/b/cpu.max", "250000 100000\n");
  EXPECT_EQ(of("0::/a/b\n"), 3);    // two and a half
  EXPECT_EQ(of("0::/a/b/c\n"), 3);  // holds for what is in it
  write("a/b/c/cpu.max", "800000 100000\n");
  EXPECT_EQ(of("0::/a/b/c\n"), 3);
  write("a/b/c/cpu.max", "1000 100000\n");
  EXPECT_EQ(of("0::/a/b/c\n"), 1);
  EXPECT_EQ(of("0::/a\n"), 0);
  // A path of the machine outside a container.
  write("cpu.max", "400000 200000\n");
  EXPECT_EQ(of("0::/elsewhere/job_7\n"), 2);
}

TEST_F(processors, first_version_and_both) {
  const std::string groups = "5:memory:/job\n4:cpu,cpuacct:/job\n0::/job\n";
  write("memory/job/cpu.cfs_quota_us", "100000\n");
  write("cpu,cpuacct/job/cpu.cfs_quota_us", "-1\n");
  write("cpu,cpuacct/job/cpu.cfs_period_us", "100000\n");
  EXPECT_EQ(of(groups), 0);
  write("cpu,cpuacct/job/cpu.cfs_quota_us", "400000\n");
  EXPECT_EQ(of(groups), 4);
  write("unified/job/cpu.max", "200000 100000\n");
  EXPECT_EQ(of(groups), 2);
  for (const char* none : {"", "nonsense", "4:cpu", "4:cpu:job", "0::", "3:cpuset:/job"}) {
    EXPECT_EQ(of(none), 0) << none;
  }
}

TEST_F(processors, affinity_is_followed) {
  cpu_set_t before, one;
  ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
  const std::int32_t all = usable_processors();
  EXPECT_LE(all, CPU_COUNT(&before));
  int first = 0;
  while (!CPU_ISSET(first, &before)) ++first;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  EXPECT_EQ(usable_processors(), 1);
  EXPECT_EQ(sched_setaffinity(0, sizeof before, &before), 0);
  EXPECT_EQ(usable_processors(), all);
}

}  // namespace
}  // namespace kestrelvane::test
