#include "numerics/processors.h"

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <thread>

namespace kestrelvane {

namespace {

constexpr double no_quota = std::numeric_limits<double>::infinity();

// Machines of more processors than the plain set has places for need a longer one.
std::int32_t processors_of_affinity() {
  for (int places = CPU_SETSIZE; places <= 64 * CPU_SETSIZE; places *= 2) {
    const std::size_t bytes = CPU_ALLOC_SIZE(places);
    const auto release = [](cpu_set_t* set) { CPU_FREE(set); };
    const std::unique_ptr<cpu_set_t, decltype(release)> set(CPU_ALLOC(places), release);
    if (set == nullptr) break;
    if (sched_getaffinity(0, bytes, set.get()) == 0) return CPU_COUNT_S(bytes, set.get());
  }
  return static_cast<std::int32_t>(std::thread::hardware_concurrency());
}

// "max" and -1 stand for no quota, and read as none.
double read_ratio(std::istream& quota, std::istream& period) {
  double microseconds = 0, each = 0;
  if (!(quota >> microseconds) || !(period >> each) || microseconds <= 0 || each <= 0) {
    return no_quota;
  }
  return microseconds / each;
}

double quota_in(const std::string& folder, bool second_version) {
  if (second_version) {
    std::ifstream both(folder + "/cpu.max");
    return read_ratio(both, both);
  }
  std::ifstream quota(folder + "/cpu.cfs_quota_us"), period(folder + "/cpu.cfs_period_us");
  return read_ratio(quota, period);
}

// The least of a group and of those above it. In a container the path may be one of the machine
// outside, which is not seen here; the folder at the top is then the group itself.
double quota_of_group(const std::string& top, std::string path, bool second_version) {
  double least = quota_in(top, second_version);
  while (path.size() > 1) {
    least = std::min(least, quota_in(top + path, second_version));
    path.resize(path.rfind('/'));
  }
  return least;
}

bool names_processors(const std::string& controllers) {
  std::istringstream words(controllers);
  for (std::string word; std::getline(words, word, ',');) {
    if (word == "cpu") return true;
  }
  return false;
}

std::string text_of(const char* path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

}  // namespace

std::int32_t processors_of_quota(const std::string& groups, const std::string& mounted) {
  double least = no_quota;
  std::istringstream lines(groups);
  // "0::/path" is the one hierarchy of version 2, "4:cpu,cpuacct:/path" one of version 1.
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (first == line.npos || second == line.npos || line.compare(second + 1, 1, "/") != 0)
      continue;
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const std::string path = line.substr(second + 1);
    if (controllers.empty()) {
      least = std::min(least, quota_of_group(mounted, path, true));
      // Where both versions are in use, the second has a folder of its own.
      least = std::min(least, quota_of_group(mounted + "/unified", path, true));
    } else if (names_processors(controllers)) {
      for (const std::string& name : {controllers, std::string("cpu")}) {
        least = std::min(least, quota_of_group(mounted + "/" + name, path, false));
      }
    }
  }
  if (least == no_quota) return 0;
  return static_cast<std::int32_t>(std::max(1.0, std::ceil(std::min(least, 1e6))));
}

std::int32_t usable_processors() {
  const std::int32_t allowed = std::max(1, processors_of_affinity());
  const std::int32_t quota = processors_of_quota(text_of("/proc/self/cgroup"), "/sys/fs/cgroup");
  return quota > 0 ? std::min(allowed, quota) : allowed;
}

}  // namespace kestrelvane
