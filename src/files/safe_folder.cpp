#include "files/safe_folder.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "files/file_place.h"

namespace kestrelvane {

namespace {

namespace fs = std::filesystem;

// A folder that was not there before; empty with errno.
std::string make_folder(const std::string& stem) {
  // Which wants its letters at the end; the name gets its ending afterwards.
  std::string pattern = stem + ".XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return {};
  if (rename(pattern.c_str(), (pattern + ".tmp").c_str()) == 0) return pattern + ".tmp";
  const int error = errno;
  rmdir(pattern.c_str());
  errno = error;
  return {};
}

// Exchanging needs one device: a folder that another one is mounted on has not that of the folder
// above it.
bool can_be_exchanged(const std::string& target) {
  struct stat own {};
  struct stat above {};
  return stat(target.c_str(), &own) != 0 ||
         (stat(fs::absolute(target).parent_path().c_str(), &above) == 0 &&
          own.st_dev == above.st_dev);
}

// As a folder that the user makes, or the one that is replaced.
void set_permissions(const safe_folder& out) {
  struct stat older {};
  if (stat(out.target.c_str(), &older) == 0) {
    if (chown(out.temporary.c_str(), older.st_uid, older.st_gid) != 0) errno = 0;
    chmod(out.temporary.c_str(), older.st_mode & 07777);
    return;
  }
  const mode_t mask = umask(0);
  umask(mask);
  chmod(out.temporary.c_str(), 0777 & ~mask);
}

std::vector<std::string> names_in(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code failed;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, failed)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

bool is_folder(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Files that stay get their second name while the old folder still stands.
void link_what_stays(const safe_folder& out,
                     const std::function<bool(const std::string& name)>& goes) {
  for (const std::string& name : names_in(out.target)) {
    const std::string from = out.target + '/' + name, to = out.temporary + '/' + name;
    if (goes(name) || is_folder(from) || exists(to)) continue;
    // Where there are no second names they follow after the exchange.
    if (link(from.c_str(), to.c_str()) != 0) errno = 0;
  }
}

// The old folder has the temporary name now. What cannot follow stays in it, and is not lost.
void empty_old_folder(const safe_folder& out,
                      const std::function<bool(const std::string& name)>& goes) {
  for (const std::string& name : names_in(out.temporary)) {
    const std::string from = out.temporary + '/' + name, to = out.target + '/' + name;
    if (goes(name) || exists(to)) {
      unlink(from.c_str());
    } else {
      rename(from.c_str(), to.c_str());
    }
  }
  rmdir(out.temporary.c_str());
}

// One file after the other, for folders that cannot be exchanged.
bool move_into_target(const safe_folder& out,
                      const std::function<bool(const std::string& name)>& goes) {
  const std::vector<std::string> names = names_in(out.temporary);
  for (const std::string& name : names) {
    const std::string from = out.temporary + '/' + name, to = out.target + '/' + name;
    if (rename(from.c_str(), to.c_str()) != 0) return false;
  }
  for (const std::string& name : names_in(out.target)) {
    if (!goes(name) || std::find(names.begin(), names.end(), name) != names.end()) continue;
    unlink((out.target + '/' + name).c_str());
  }
  rmdir(out.temporary.c_str());
  return true;
}

bool exchange(const safe_folder& out) {
  return renameat2(AT_FDCWD, out.temporary.c_str(), AT_FDCWD, out.target.c_str(),
                   RENAME_EXCHANGE) == 0;
}

}  // namespace

safe_folder::~safe_folder() {
  if (temporary.empty()) return;
  const int error = errno;
  for (const std::string& name : names_in(temporary)) unlink((temporary + '/' + name).c_str());
  rmdir(temporary.c_str());
  errno = error;
}

bool open_safe_folder(safe_folder& out, const std::string& path) {
  std::string plain = fs::path(path).lexically_normal().string();
  while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
  out.target = follow_links(plain);
  out.had_target = exists(out.target);
  if (out.had_target && !is_folder(out.target)) {
    errno = ENOTDIR;
    return false;
  }
  std::error_code failed;
  fs::create_directories(fs::absolute(out.target).parent_path(), failed);
  if (failed) {
    errno = failed.value();
    return false;
  }
  out.is_beside = can_be_exchanged(out.target);
  if (out.is_beside) out.temporary = make_folder(out.target);
  if (out.temporary.empty() && out.had_target) {
    out.is_beside = false;
    out.temporary = make_folder(out.target + "/new");
  }
  if (out.temporary.empty()) return false;
  if (out.is_beside) set_permissions(out);
  return true;
}

bool finish_safe_folder(safe_folder& out, const std::function<bool(const std::string& name)>& goes,
                        file_flush flush) {
  if (flush == file_flush::later && !flush_file_system(out.temporary)) return false;
  bool done = false;
  if (!out.had_target) {
    done = rename(out.temporary.c_str(), out.target.c_str()) == 0;
  } else if (out.is_beside) {
    link_what_stays(out, goes);
    done = exchange(out);
    if (done) empty_old_folder(out, goes);
  }
  // A file system that knows no exchange, or a folder that must not move.
  if (!done && out.had_target) done = move_into_target(out, goes);
  if (done) out.temporary.clear();
  return done;
}

}  // namespace kestrelvane
