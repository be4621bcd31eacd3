#include "files/file_place.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace kestrelvane {

namespace {

constexpr int most_links = 40;  // as the system follows them

bool find_place(const std::filesystem::path& path, file_place& place) {
  struct stat found {};
  if (stat(path.c_str(), &found) != 0) return false;
  place.device = found.st_dev;
  place.inode = found.st_ino;
  return true;
}

}  // namespace

file_place place_of_file(const std::string& path) {
  file_place place;
  if (find_place(path, place)) return place;
  std::error_code failure;
  // A link that leads nowhere yet is followed by whoever writes: its target counts.
  const std::string target = follow_links(path);
  std::filesystem::path there = std::filesystem::weakly_canonical(target, failure);
  if (failure) there = target;
  there = there.lexically_normal();
  do {
    // A path of names alone lies in the current folder.
    const std::filesystem::path parent = there.has_parent_path() ? there.parent_path() : ".";
    place.below.insert(0, there.filename().string());
    place.below.insert(0, 1, '/');
    if (parent == there) break;
    there = parent;
  } while (!find_place(there, place) && there != ".");
  return place;
}

bool names_open_file(const std::string& path) {
  std::error_code failure;
  // The folder may be a link itself, as /dev/fd is.
  const std::filesystem::path folder =
      std::filesystem::canonical(std::filesystem::path(path).parent_path() / ".", failure);
  return !failure && folder.string().starts_with("/proc/");
}

std::string follow_links(const std::string& path) {
  std::error_code failure;
  std::string target = path;
  for (int links = 0; links < most_links && std::filesystem::is_symlink(target, failure) &&
                      !names_open_file(target);
       ++links) {
    const std::filesystem::path next = std::filesystem::read_symlink(target, failure);
    target = (std::filesystem::path(target).parent_path() / next).string();
  }
  return target;
}

}  // namespace kestrelvane
