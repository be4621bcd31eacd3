#include "files/safe_set.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "files/input_file.h"

namespace kestrelvane {

namespace {

// How a file came to its name, and so how it goes back.
enum class placed { not_yet, exchanged, made, replaced };

struct step {
  const char* from;
  const char* to;
  placed how;
};

// What both processes see; the steps stand behind it.
struct shared_work {
  std::size_t n;
  std::size_t at;  // the step that failed
  int error;
  bool done;
  step steps[1];
};

// Exchanged, the old file stays under the temporary name until all are there. File systems that
// know no exchange replace it, and then it cannot come back.
bool place(step& s) {
  if (renameat2(AT_FDCWD, s.from, AT_FDCWD, s.to, RENAME_NOREPLACE) == 0) {
    s.how = placed::made;
  } else if (errno == EEXIST && renameat2(AT_FDCWD, s.from, AT_FDCWD, s.to, RENAME_EXCHANGE) == 0) {
    s.how = placed::exchanged;
  } else if ((errno == EINVAL || errno == ENOSYS) && rename(s.from, s.to) == 0) {
    s.how = placed::replaced;
  }
  return s.how != placed::not_yet;
}

void take_back(const step& s) {
  if (s.how == placed::exchanged) {
    renameat2(AT_FDCWD, s.from, AT_FDCWD, s.to, RENAME_EXCHANGE);
  } else if (s.how == placed::made) {
    rename(s.to, s.from);
  }
}

// Nothing but calls of the system: the process may be the copy of one whose other threads held
// locks.
void place_all(shared_work& work, const std::vector<const char*>& goes) {
  for (std::size_t i = 0; i < work.n; ++i) {
    if (work.steps[i].how != placed::not_yet || place(work.steps[i])) continue;
    work.error = errno;
    work.at = i;
    while (i-- > 0) take_back(work.steps[i]);
    work.done = true;
    return;
  }
  for (const char* old : goes) unlink(old);
  for (std::size_t i = 0; i < work.n; ++i) {
    if (work.steps[i].how == placed::exchanged) unlink(work.steps[i].from);
  }
  work.done = true;
}

// By a process of its own, and waits for it. Does nothing where there can be none, for lack of
// memory or by a limit.
void place_apart(shared_work& work, const std::vector<const char*>& goes) {
  // What ends the program may go to all of its processes: not to one that belongs to another
  // session, and not before it does.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t child = fork();
  if (child == 0) {
    setsid();
    place_all(work, goes);
    _exit(0);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (child < 0) return;
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) continue;
}

// One call for all files: a call for each waits for the device each time.
bool flush_all(const safe_set& set) {
  const auto first = std::find_if(set.files.begin(), set.files.end(),
                                  [](const safe_file& f) { return !f.temporary_path.empty(); });
  return first == set.files.end() || flush_file_system(folder_of(first->target));
}

std::size_t bytes_of_work(std::size_t n) { return sizeof(shared_work) + n * sizeof(step); }

// Null with errno.
shared_work* share_work(const safe_set& set, std::size_t n) {
  void* pages =
      mmap(nullptr, bytes_of_work(n), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
  auto* work = static_cast<shared_work*>(pages);
  *work = {};
  for (const safe_file& file : set.files) {
    if (file.temporary_path.empty()) continue;
    work->steps[work->n++] = {file.temporary_path.c_str(), file.target.c_str(), placed::not_yet};
  }
  return work;
}

bool fail(safe_set& set, const std::string& path, int error) {
  set.failed = path;
  errno = error;
  return false;
}

}  // namespace

bool leave_in_set(safe_file& out) { return close_safe_file(out, file_flush::later); }

bool finish_safe_set(safe_set& set) {
  std::size_t n = 0;
  for (const safe_file& file : set.files) {
    if (!file.whole) return fail(set, file.target, file.error);
    n += !file.temporary_path.empty();
  }
  // What was written straight, to a device, has its bytes.
  if (n == 0) return true;
  const std::string first = set.files.front().target;
  if (!flush_all(set)) return fail(set, first, errno);
  shared_work* work = share_work(set, n);
  if (work == nullptr) return fail(set, first, errno);
  std::vector<const char*> goes;
  for (const std::string& old : set.goes) goes.push_back(old.c_str());
  place_apart(*work, goes);
  // Also what a process has left that somebody has killed for itself.
  if (!work->done) place_all(*work, goes);
  const int error = work->error;
  if (error != 0) fail(set, work->steps[work->at].to, error);
  munmap(work, bytes_of_work(n));
  errno = error;
  if (error != 0) return false;
  for (safe_file& file : set.files) file.whole = false;
  return true;
}

}  // namespace kestrelvane
