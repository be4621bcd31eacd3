// Where a file is, whatever its path looks like.
//
// Two paths may lead to one file: by links, by "..", by another mount of the folder. The place is
// the device and the number of the file there; of one that does not exist yet, those of the
// nearest folder above it and the names below.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace kestrelvane {

struct file_place {
  std::uint64_t device = 0, inode = 0;
  std::string below;  // of a file that is still to be made
  auto operator<=>(const file_place&) const = default;
};

file_place place_of_file(const std::string& path);

// Where the links lead that the last name of path is, whether anything is there or not. One that
// stands for an open file of a process (in /proc) is not followed.
std::string follow_links(const std::string& path);

// Whether path names a file that a process has open: standard output, a descriptor.
bool names_open_file(const std::string& path);

}  // namespace kestrelvane
