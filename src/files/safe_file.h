// Files that never destroy what was there.
//
// A file is written beside its target under a temporary name, flushed to the
// device, and renamed over the target when it is whole. A failed save leaves the
// partial file under its temporary name and the old file as it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

namespace kestrelvane {

struct safe_file {
  std::string path;            // the target
  std::string temporary_path;  // beside it
  std::FILE* file = nullptr;
  bool failed = false;  // a write has failed; the rest is skipped

  safe_file() = default;
  safe_file(const safe_file&) = delete;
  safe_file& operator=(const safe_file&) = delete;
  ~safe_file();
};

// Creates the temporary file, path + ".tmp" unless it is given another name. False when it
// cannot be created.
bool open_safe_file(safe_file& out, const std::string& path, const std::string& temporary = "");

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

// Flushes, closes and renames over the target. False when anything failed.
bool finish_safe_file(safe_file& out);

}  // namespace kestrelvane
