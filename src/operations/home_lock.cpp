#include "operations/home_lock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "operations/recovery.h"

namespace kestrelvane {

namespace {

enum class lock_outcome { locked, taken, not_possible };

// Whether the file that is open is still the one under the name: who gives a lock back removes it.
bool is_current(int file, const std::string& path) {
  struct stat open_one {};
  struct stat named {};
  return fstat(file, &open_one) == 0 && stat(path.c_str(), &named) == 0 &&
         open_one.st_dev == named.st_dev && open_one.st_ino == named.st_ino;
}

lock_outcome try_lock(const session_state& session, std::int32_t number, home_lock& lock) {
  const std::string path = session.home_directory + '/' + numbered_name(home_lock_name, number);
  for (;;) {
    // Not for children: one that outlives the program would hold its number.
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (file < 0) return lock_outcome::not_possible;
    if (flock(file, LOCK_EX | LOCK_NB) != 0) {
      const bool taken = errno == EWOULDBLOCK;
      close(file);
      return taken ? lock_outcome::taken : lock_outcome::not_possible;
    }
    if (is_current(file, path)) {
      lock.descriptor = file;
      lock.path = path;
      return lock_outcome::locked;
    }
    close(file);
  }
}

}  // namespace

home_lock::~home_lock() {
  if (descriptor < 0) return;
  // While it is held, so that nobody's but this one goes.
  unlink(path.c_str());
  close(descriptor);
}

void lock_home(session_state& session, home_lock& lock) {
  session.state_files.number = 1;
  if (session.home_directory.empty()) return;
  for (std::int32_t number = 1; number <= most_instances; ++number) {
    const lock_outcome outcome = try_lock(session, number, lock);
    if (outcome == lock_outcome::taken) continue;
    if (outcome == lock_outcome::not_possible) return;
    session.state_files.number = number;
    break;
  }
  if (session.state_files.number == 1) return;
  tell(session,
       fmt::format("Another instance of Kestrelvane uses {}. This one keeps its recovery data in "
                   "a file of its own, {}.",
                   session.home_directory,
                   numbered_name(autorecover_file_name, session.state_files.number)),
       "Kestrelvane", box_icon::information);
}

bool lock_number(const session_state& session, std::int32_t number, home_lock& lock) {
  return try_lock(session, number, lock) != lock_outcome::taken;
}

}  // namespace kestrelvane
