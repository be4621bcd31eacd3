#include "recording/recent_files.h"
#include "session/run_log.h"

#include <algorithm>
#include <cerrno>

#include "files/byte_cursor.h"
#include "files/input_file.h"
#include "files/safe_file.h"
#include "session/logical.h"

namespace kestrelvane {

namespace {

std::string list_path(const session_state& session) { return session.home_directory + "/kv.ufl"; }

}  // namespace

recent_files read_recent_files(const session_state& session) {
  recent_files recent;
  input_file file;
  if (session.home_directory.empty()) return recent;
  if (!open_input_file(file, list_path(session))) {
    recent.unread = file_exists(list_path(session));
    return recent;
  }
  const std::vector<char> bytes = read_block(file, 0, 8 + sizeof(text256) * recent_limit);
  byte_cursor in{bytes.data(), bytes.size()};
  recent.recent_version = take_i32(in);
  const std::int32_t n_recent = take_i32(in);
  // A count of a damaged file; ten is all there can be.
  if (n_recent < 0 || n_recent > static_cast<std::int32_t>(recent_limit)) return recent;
  for (std::int32_t i = 0; i < n_recent; ++i) {
    const text256 entry = take_value<text256>(in);
    if (!entry.is_blank()) recent.paths.emplace_back(entry.view());
  }
  return in.failed ? recent_files{} : recent;
}

bool write_recent_files(const session_state& session, const recent_files& recent) {
  safe_file out;
  if (session.home_directory.empty()) return false;
  if (recent.unread) {
    errno = EPERM;
    log_failed_save(session, list_path(session));
    return false;
  }
  open_safe_file(out, list_path(session));
  const std::size_t n = std::min(recent.paths.size(), recent_limit);
  write_value(out, recent.recent_version);
  write_value(out, static_cast<std::int32_t>(n));
  // Always ten entries, blank where there are fewer.
  for (std::size_t i = 0; i < recent_limit; ++i) {
    text256 entry;
    entry.assign(i < n ? recent.paths[i] : std::string());
    write_value(out, entry);
  }
  if (finish_safe_file(out)) return true;
  log_failed_save(session, list_path(session));
  return false;
}

void promote_recent_file(recent_files& recent, const std::string& path) {
  // A longer path would come back cut short, as a file that is not there.
  if (path.size() > sizeof(text256)) return;
  // An earlier entry moves up and does not stand twice.
  std::erase(recent.paths, path);
  recent.paths.insert(recent.paths.begin(), path);
  if (recent.paths.size() > recent_limit) recent.paths.resize(recent_limit);
}

}  // namespace kestrelvane
