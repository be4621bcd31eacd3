// Files that never destroy what was there.
//
// A file is written beside its target under a temporary name that nothing else has,
// flushed to the device, and renamed over the target when it is whole. A failed save
// leaves the old file as it was and nothing beside it; a killed one may leave a
// "name.random.tmp". Links stay: the file that they lead to is replaced, and the new
// one has the permissions, the owner and the group of the old one as far as the system
// allows it. What is not a plain file (a device, a pipe, a descriptor) has no old state
// to keep and is written straight.
//
// Where a routine returns false, errno is what the first failure was, or 0 when it was
// the caller who gave the file up. It is so, too, after a file that was opened has gone
// without having been finished.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

namespace kestrelvane {

struct safe_file {
  std::string target;          // what is replaced: the path, its links followed
  std::string temporary_path;  // beside it; empty when the target is written straight
  std::FILE* file = nullptr;
  bool failed = false;  // a write has failed; the rest is skipped
  int error = 0;        // the errno of that
  bool whole = false;   // closed, and waits for its name

  safe_file() = default;
  safe_file(const safe_file&) = delete;
  safe_file& operator=(const safe_file&) = delete;
  ~safe_file();
};

// Creates the temporary file. temporary: its name, for a file whose remains somebody looks for;
// what has that name, a link as well, is removed before. False when it cannot be created.
bool open_safe_file(safe_file& out, const std::string& path, const std::string& temporary = "");

// The new file gets permissions and owner of this one; open_safe_file has done so for a target
// that is there. For targets that have been put aside.
void take_permissions(safe_file& out, const std::string& older);

// Whether there is room for a new file beside the target: one without bytes is made and removed
// again. False with the system's words for it.
bool try_safe_file(const std::string& path, std::string& problem);

// Appends bytes; a failure is remembered in failed and returned.
bool write_bytes(safe_file& out, const void* bytes, std::size_t n);
bool write_text(safe_file& out, std::string_view text);

// One plain value in the byte order of the machine, which is the file's.
template <typename T>
bool write_value(safe_file& out, const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  return write_bytes(out, &value, sizeof value);
}

// later: the bytes may still be on the way to the device, where a caller with many files flushes
// the file system once.
enum class file_flush { now, later };
// Of the file system that the folder is on. False with errno.
bool flush_file_system(const std::string& folder);

// Flushes, closes and renames over the target. False when anything failed.
bool finish_safe_file(safe_file& out, file_flush flush = file_flush::now);

// The first half of that: the file is whole and has no name yet; it goes unless somebody gives it
// one (files/safe_set.h).
bool close_safe_file(safe_file& out, file_flush flush = file_flush::now);

// Right after one of the above has failed: the path and the system's words for it, as
// "x.csv: No space left on device"; the path alone where there are none.
std::string why_not_saved(const std::string& path);

}  // namespace kestrelvane
