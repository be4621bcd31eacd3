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

}  // namespace kestrelvane
