// Files that belong together among others in a folder: as a whole the old ones or the new ones.
//
// No file system gives several names at once. So all new files are whole under temporary names and
// on the device before the first gets its own; then a process of its own, which lives for these few
// steps and which no kill of the program reaches, gives the names, each in exchange for the old
// file. Where one cannot be given, those before it go back. What is left is a machine that stops
// in the midst of these steps, some microseconds a file.
#pragma once

#include <string>
#include <vector>

#include "files/safe_file.h"

namespace kestrelvane {

struct safe_set {
  std::vector<safe_file> files;   // each closed by leave_in_set
  std::vector<std::string> goes;  // old files without a successor
  std::string failed;             // the file that a failure is about

  explicit safe_set(std::size_t n) : files(n) {}
};

// Closes a file that has been written. Its bytes may still be on the way to the device. False with
// errno.
bool leave_in_set(safe_file& out);

// Brings the bytes to the device and gives all names; old files in goes are removed. False with
// errno, and every old file stands as it was.
bool finish_safe_set(safe_set& set);

}  // namespace kestrelvane
