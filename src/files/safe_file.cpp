#include "files/safe_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "files/file_place.h"
#include "files/input_file.h"

namespace kestrelvane {

namespace {

constexpr std::size_t longest_name = 255;  // of a file in its folder, in bytes
constexpr mode_t permission_bits = 0777;   // a copy of a program runs as nobody else

bool fail(safe_file& out, int error) {
  if (!out.failed) out.error = error;
  out.failed = true;
  errno = out.error;
  return false;
}

std::string random_name(const std::string& target) {
  constexpr std::string_view letters = "0123456789abcdefghijklmnopqrstuvwxyz";
  constexpr std::size_t n_random = 8;
  static thread_local std::random_device device;
  std::uniform_int_distribution<std::size_t> pick(0, letters.size() - 1);
  std::string ending = ".";
  for (std::size_t i = 0; i < n_random; ++i) ending += letters[pick(device)];
  ending += ".tmp";
  // A name that is as long as names may be has room for no more.
  return folder_of(target) + file_name_of(target).substr(0, longest_name - ending.size()) + ending;
}

// A descriptor of a file that was not there before; -1 with errno. What somebody has put under
// the name is neither followed nor emptied.
int make_file(const std::string& path, mode_t mode) {
  return open(path.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_WRONLY | O_CLOEXEC, mode);
}

int make_temporary(std::string& path, const std::string& target, mode_t mode) {
  constexpr int most_tries = 100;
  int descriptor = -1;
  for (int i = 0; i < most_tries; ++i) {
    path = random_name(target);
    descriptor = make_file(path, mode);
    if (descriptor >= 0 || errno != EEXIST) break;
  }
  return descriptor;
}

void copy_permissions(int descriptor, const struct stat& older) {
  mode_t mode = older.st_mode & permission_bits;
  struct stat made {};
  if (fstat(descriptor, &made) != 0) return;
  const bool is_same = made.st_uid == older.st_uid && made.st_gid == older.st_gid;
  // Only the superuser gives files away; the group may be one of the user's own.
  constexpr auto same_owner = static_cast<uid_t>(-1);
  if (!is_same && fchown(descriptor, older.st_uid, older.st_gid) != 0 &&
      fchown(descriptor, same_owner, older.st_gid) != 0) {
    // Another group than the one that was allowed more than all others.
    mode = (mode & ~mode_t{070}) | (((mode & 07) << 3) & mode);
  }
  fchmod(descriptor, mode);
}

// What a target is. Of one that is not there yet nothing is known, and found is false.
struct target_state {
  bool found = false;
  bool straight = false;  // written without a temporary file
  struct stat status {};
};

// False with errno when it can be no file.
bool look_at(const std::string& target, target_state& state) {
  state.found = stat(target.c_str(), &state.status) == 0;
  // Links that lead in a circle.
  if (!state.found) return errno == ENOENT;
  if (S_ISDIR(state.status.st_mode)) {
    errno = EISDIR;
    return false;
  }
  state.straight = !S_ISREG(state.status.st_mode) || names_open_file(target);
  return true;
}

bool take_stream(safe_file& out, int descriptor) {
  if (descriptor < 0) return fail(out, errno);
  out.file = fdopen(descriptor, "wb");
  if (out.file == nullptr) {
    const int error = errno;
    close(descriptor);
    return fail(out, error);
  }
  std::setvbuf(out.file, nullptr, _IOFBF, 1 << 20);
  return true;
}

bool close_file(safe_file& out) {
  const bool closed = std::fclose(out.file) == 0;
  out.file = nullptr;
  return closed || fail(out, errno);
}

void remove_temporary(const safe_file& out) {
  if (!out.temporary_path.empty()) unlink(out.temporary_path.c_str());
  errno = out.error;
}

}  // namespace

safe_file::~safe_file() {
  if (file == nullptr && !whole) return;
  if (file != nullptr) close_file(*this);
  remove_temporary(*this);
}

bool open_safe_file(safe_file& out, const std::string& path, const std::string& temporary) {
  out.target = follow_links(path);
  out.temporary_path.clear();
  out.failed = out.whole = false;
  out.error = 0;
  target_state state;
  if (!look_at(out.target, state)) return fail(out, errno);
  if (state.straight) {
    // Behind what stands in a file that standard output has been sent to.
    return take_stream(out, open(out.target.c_str(), O_WRONLY | O_APPEND | O_NOCTTY | O_CLOEXEC));
  }
  // Nobody may look into it before it has the permissions of the old one.
  const mode_t mode = state.found ? 0600 : 0666;
  int descriptor = -1;
  if (temporary.empty()) {
    descriptor = make_temporary(out.temporary_path, out.target, mode);
  } else {
    // Where it can be renamed from: a link may lead to another device.
    out.temporary_path = folder_of(out.target) + file_name_of(temporary);
    unlink(out.temporary_path.c_str());
    descriptor = make_file(out.temporary_path, mode);
  }
  if (!take_stream(out, descriptor)) return false;
  if (state.found) copy_permissions(fileno(out.file), state.status);
  return true;
}

void take_permissions(safe_file& out, const std::string& older) {
  struct stat status {};
  if (out.file == nullptr || out.temporary_path.empty()) return;
  if (stat(older.c_str(), &status) == 0) copy_permissions(fileno(out.file), status);
}

bool try_safe_file(const std::string& path, std::string& problem) {
  problem.clear();
  const std::string target = follow_links(path);
  target_state state;
  bool good = look_at(target, state);
  if (good && state.straight) {
    // Not opened: a pipe would wait for its reader.
    good = access(target.c_str(), W_OK) == 0;
  } else if (good) {
    std::string trial;
    const int descriptor = make_temporary(trial, target, 0600);
    good = descriptor >= 0;
    if (good) {
      close(descriptor);
      unlink(trial.c_str());
    }
  }
  if (!good) problem = std::strerror(errno);
  return good;
}

bool write_bytes(safe_file& out, const void* bytes, std::size_t n) {
  if (out.failed || n == 0) return !out.failed;
  if (std::fwrite(bytes, 1, n, out.file) != n) return fail(out, errno);
  return true;
}

bool write_text(safe_file& out, std::string_view text) {
  return write_bytes(out, text.data(), text.size());
}

bool close_safe_file(safe_file& out, file_flush flush) {
  // Not opened, or finished before.
  if (out.file == nullptr) {
    errno = out.error;
    return false;
  }
  const bool straight = out.temporary_path.empty();
  if (std::fflush(out.file) != 0) fail(out, errno);
  // On the device before the rename: a machine that dies in between would otherwise leave an empty
  // file under the name. Pipes and most devices know nothing of it.
  const bool flushed = flush == file_flush::later || fsync(fileno(out.file)) == 0;
  if (!flushed && !straight) fail(out, errno);
  close_file(out);
  if (out.failed) remove_temporary(out);
  out.whole = !out.failed;
  return out.whole;
}

bool flush_file_system(const std::string& folder) {
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool flushed = syncfs(descriptor) == 0;
  const int error = errno;
  close(descriptor);
  errno = error;
  return flushed;
}

bool finish_safe_file(safe_file& out, file_flush flush) {
  if (!close_safe_file(out, flush)) return false;
  out.whole = false;
  if (!out.temporary_path.empty() &&
      std::rename(out.temporary_path.c_str(), out.target.c_str()) != 0) {
    fail(out, errno);
    remove_temporary(out);
  }
  return !out.failed;
}

std::string why_not_saved(const std::string& path) {
  return errno == 0 ? path : path + ": " + std::strerror(errno);
}

}  // namespace kestrelvane
