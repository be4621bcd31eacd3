// A file system that fails, for a program that has this library loaded before all others.
//
// KESTRELVANE_FAULT is "CALL N ERRNO FOLDER": the N-th call of that kind (open, write, fsync, close
// or rename) on a path of the folder fails with that errno, and nothing else does. N = 0: none.
// At the end of the process the file KESTRELVANE_FAULT_REPORT gets a line "CALL COUNT" for each
// kind and "failed CALL PATH" for the one that did.
//
// The C library writes the buffers of its streams by calls that nobody can step in for. So streams
// over files of the folder are made anew here, over routines of ours that do the same calls.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

enum call_kind { call_open, call_write, call_fsync, call_close, call_rename, n_call_kinds };
constexpr std::array<const char*, n_call_kinds> call_names{"open", "write", "fsync", "close",
                                                           "rename"};

// Of this process and of those that it has split from itself.
struct shared_counts {
  std::array<std::atomic<int>, n_call_kinds> counts;
  std::array<char, PATH_MAX + 32> failed;
};

struct fault_plan {
  shared_counts& shared = *static_cast<shared_counts*>(mmap(
      nullptr, sizeof(shared_counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::array<std::atomic<int>, n_call_kinds>& counts = shared.counts;
  std::string call, folder;
  int at = 0, error = 0;
  std::mutex mutex;
  std::map<std::FILE*, int> descriptors;  // of the streams made here

  fault_plan() {
    const char* text = std::getenv("KESTRELVANE_FAULT");
    std::array<char, 16> name{};
    int folder_at = 0;
    if (text == nullptr ||
        std::sscanf(text, "%15s %d %d %n", name.data(), &at, &error, &folder_at) != 3) {
      return;
    }
    call = name.data();
    folder = text + folder_at;
  }
  fault_plan(const fault_plan&) = delete;
  fault_plan& operator=(const fault_plan&) = delete;
  ~fault_plan() {
    const char* path = std::getenv("KESTRELVANE_FAULT_REPORT");
    if (path == nullptr) return;
    std::string text = shared.failed.data();
    for (int k = 0; k < n_call_kinds; ++k) {
      text += std::string(call_names[static_cast<std::size_t>(k)]) + ' ' +
              std::to_string(counts[static_cast<std::size_t>(k)]) + '\n';
    }
    const auto file = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (syscall(SYS_write, file, text.data(), text.size()) < 0) std::abort();
    syscall(SYS_close, file);
  }
  bool concerns(const char* path) const {
    return !folder.empty() && path != nullptr && std::string_view(path).starts_with(folder);
  }
};

// Made by the first call, which may come before this library is initialised.
fault_plan& plan() {
  static fault_plan the_plan;
  return the_plan;
}

// True, and errno is set, where this call is to fail.
bool fails(call_kind kind, const char* path) {
  fault_plan& p = plan();
  if (!p.concerns(path)) return false;
  const auto k = static_cast<std::size_t>(kind);
  if (++p.counts[k] != p.at || p.call != call_names[k]) return false;
  const std::lock_guard lock(p.mutex);
  std::snprintf(p.shared.failed.data(), p.shared.failed.size(), "failed %s %s\n", call_names[k],
                path);
  errno = p.error;
  return true;
}

std::string path_of(int descriptor) {
  const int before = errno;
  std::array<char, PATH_MAX> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t n = readlink(link.c_str(), path.data(), path.size());
  errno = before;
  return {path.data(), static_cast<std::size_t>(n < 0 ? 0 : n)};
}

template <typename Routine>
Routine* next_of(const char* name) {
  return reinterpret_cast<Routine*>(dlsym(RTLD_NEXT, name));
}

int descriptor_of(void* cookie) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
}

ssize_t read_stream(void* cookie, char* to, std::size_t n) {
  return syscall(SYS_read, descriptor_of(cookie), to, n);
}

// Half of the bytes come to the file before the device is full: a torn file is what is asked about.
ssize_t write_stream(void* cookie, const char* from, std::size_t n) {
  const int descriptor = descriptor_of(cookie);
  if (fails(call_write, path_of(descriptor).c_str())) {
    const int error = errno;
    syscall(SYS_write, descriptor, from, n / 2);
    errno = error;
    return 0;
  }
  return syscall(SYS_write, descriptor, from, n);
}

int seek_stream(void* cookie, off64_t* offset, int whence) {
  const off64_t at = lseek64(descriptor_of(cookie), *offset, whence);
  if (at < 0) return -1;
  *offset = at;
  return 0;
}

int close_stream(void* cookie) {
  const int descriptor = descriptor_of(cookie);
  const bool failed = fails(call_close, path_of(descriptor).c_str());
  const int error = errno;
  syscall(SYS_close, descriptor);
  errno = error;
  return failed ? -1 : 0;
}

std::FILE* make_stream(int descriptor, const char* mode) {
  void* cookie = reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor));
  std::FILE* file =
      fopencookie(cookie, mode, {read_stream, write_stream, seek_stream, close_stream});
  const std::lock_guard lock(plan().mutex);
  plan().descriptors[file] = descriptor;
  return file;
}

// The mode is there for a file that may be made.
int open_file(const char* path, int flags, va_list rest) {
  const auto mode =
      static_cast<mode_t>((flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, int) : 0);
  if (fails(call_open, path)) return -1;
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int opened = open_file(path, flags, rest);
  va_end(rest);
  return opened;
}

int open64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int opened = open_file(path, flags, rest);
  va_end(rest);
  return opened;
}

std::FILE* fopen(const char* path, const char* mode) {
  if (fails(call_open, path)) return nullptr;
  return next_of<std::FILE*(const char*, const char*)>("fopen")(path, mode);
}

std::FILE* fdopen(int descriptor, const char* mode) {
  if (mode[0] != 'r' && plan().concerns(path_of(descriptor).c_str())) {
    return make_stream(descriptor, mode);
  }
  return next_of<std::FILE*(int, const char*)>("fdopen")(descriptor, mode);
}

int fileno(std::FILE* file) {
  {
    const std::lock_guard lock(plan().mutex);
    const auto found = plan().descriptors.find(file);
    if (found != plan().descriptors.end()) return found->second;
  }
  return next_of<int(std::FILE*)>("fileno")(file);
}

int fclose(std::FILE* file) {
  {
    // Its address may be the next stream's.
    const std::lock_guard lock(plan().mutex);
    plan().descriptors.erase(file);
  }
  return next_of<int(std::FILE*)>("fclose")(file);
}

ssize_t write(int descriptor, const void* bytes, std::size_t n) {
  if (fails(call_write, path_of(descriptor).c_str())) return -1;
  return syscall(SYS_write, descriptor, bytes, n);
}

int fsync(int descriptor) {
  if (fails(call_fsync, path_of(descriptor).c_str())) return -1;
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

int syncfs(int descriptor) {
  if (fails(call_fsync, path_of(descriptor).c_str())) return -1;
  return static_cast<int>(syscall(SYS_syncfs, descriptor));
}

int rename(const char* from, const char* to) {
  if (fails(call_rename, to)) return -1;
  return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) {
  if (fails(call_rename, to)) return -1;
  return static_cast<int>(syscall(SYS_renameat2, from_folder, from, to_folder, to, flags));
}

int mkdir(const char* path, mode_t mode) {
  if (fails(call_open, path)) return -1;
  return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

}  // extern "C"
