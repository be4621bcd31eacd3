// The list of recent recordings, kv.ufl in home_directory: at most ten paths, most
// recent first. A missing or unreadable file is an empty list; while home_directory is
// empty nothing is read or written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::size_t recent_limit = 10;

struct recent_files {
  std::int32_t recent_version = 0;  // of no known meaning; kept as it is
  std::vector<std::string> paths;
  bool unread = false;  // there is a list that could not be read; it is not written over
};

recent_files read_recent_files(const session_state& session);
// False when the list cannot be written; the old one is then whole.
bool write_recent_files(const session_state& session, const recent_files& recent);

// Puts a path on top, removing an earlier copy and what is then beyond the tenth.
void promote_recent_file(recent_files& recent, const std::string& path);

}  // namespace kestrelvane
