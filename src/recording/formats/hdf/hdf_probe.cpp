#include "recording/formats/hdf/hdf_probe.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include "recording/formats/hdf/hdf_walk.h"

extern char** environ;

namespace kestrelvane {

namespace {

using namespace std::chrono_literals;

constexpr const char* probe_argument = "--probe-hdf-file";
constexpr auto longest_wait = 120s;  // a large file on a slow network
// A file that is made to keep the library busy, or to fill the memory, ends the child.
constexpr rlim_t processor_seconds = 10;
constexpr rlim_t memory_bytes = rlim_t{4} << 30;
// A length in the file may ask for less than that, and the library takes a refusal of memory for
// one more fault of the file: what it has really used tells. Samples are not looked at.
constexpr std::uint64_t largest_use = std::uint64_t{512} << 20;  // bytes
constexpr const char* this_program = "/proc/self/exe";

// Set once, before there are threads.
bool program_has_probe = false;
bool this_is_the_probe = false;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memory_can_be_limited = false;  // a sanitizer reserves terabytes
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool memory_can_be_limited = false;
#else
constexpr bool memory_can_be_limited = true;
#endif
#else
constexpr bool memory_can_be_limited = true;
#endif

void set_limit(decltype(RLIMIT_CPU) what, rlim_t value) {
  // Both bounds, so that nothing can raise it again.
  const rlimit limit{value, value};
  setrlimit(what, &limit);
}

// The most memory that this process has used so far, bytes; 0 when the system does not tell.
std::uint64_t most_memory_used() {
  std::ifstream status("/proc/self/status");
  const std::string_view name = "VmHWM:";  // kB
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name))
      return 1024 * std::strtoull(line.c_str() + name.size(), nullptr, 10);
  }
  return 0;
}

// Waits for a child; false when it is still there at the end or the flag is up.
bool wait_for(pid_t child, int& status, const std::atomic<bool>* interrupt) {
  const auto end = std::chrono::steady_clock::now() + longest_wait;
  auto nap = 200us;
  for (;;) {
    const pid_t found = waitpid(child, &status, WNOHANG);
    if (found == child) return true;
    if (found < 0 && errno != EINTR) return false;
    const bool raised = interrupt != nullptr && *interrupt;
    if (raised || std::chrono::steady_clock::now() > end) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      return false;
    }
    std::this_thread::sleep_for(nap);
    // Short files answer at once; for long ones the waiting becomes coarser.
    if (nap < 10ms) nap *= 2;
  }
}

bool start_probe(const std::string& path, pid_t& child) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return false;
  // Its last words are nobody's business.
  for (const int stream : {0, 1, 2}) {
    posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
  }
  std::string program = this_program, argument = probe_argument, file = path;
  char* arguments[] = {program.data(), argument.data(), file.data(), nullptr};
  const int problem = posix_spawn(&child, this_program, &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  return problem == 0;
}

// All that a walk through the file can show. What the library refuses is no matter here.
void walk_all(const std::string& path) {
  hdf_file in;
  if (open_hdf_file(in, path) != hdf_error::none) return;
  hdf_page page;
  make_hdf_page(in, "/", page);
  find_hdf_scaling(in, "/");
  for (const hdf_entry& entry : list_hdf_tree(in, hdf_tree_extent::all)) {
    make_hdf_page(in, entry.place, page);
    find_hdf_scaling(in, entry.place);
    const hdf_id dataset = open_hdf_dataset(in, entry.place);
    // Walks the whole index of the chunks.
    if (dataset.ok()) H5Dget_storage_size(dataset);
  }
}

}  // namespace

bool look_at_hdf_file(const std::string& path) {
  const std::uint64_t before = most_memory_used();
  walk_all(path);
  return most_memory_used() <= before + largest_use;
}

bool run_as_hdf_probe(int argc, char** argv, int& status) {
  program_has_probe = true;
  if (argc != 3 || std::string(argv[1]) != probe_argument) return false;
  this_is_the_probe = true;
  set_limit(RLIMIT_CORE, 0);
  set_limit(RLIMIT_CPU, processor_seconds);
  if (memory_can_be_limited) set_limit(RLIMIT_AS, memory_bytes);
  status = look_at_hdf_file(argv[2]) ? 0 : 1;
  // Nothing is worth tidying up.
  _exit(status);
}

hdf_probe_outcome probe_hdf_file(const std::string& path, const std::atomic<bool>* interrupt) {
  pid_t child = 0;
  // Without a probe the file is read as it is.
  if (!program_has_probe || this_is_the_probe || !start_probe(path, child)) {
    return hdf_probe_outcome::survived;
  }
  int status = 0;
  const bool ended = wait_for(child, status, interrupt);
  if (!ended && interrupt != nullptr && *interrupt) return hdf_probe_outcome::interrupted;
  // A signal or another exit means that reading the file is not safe.
  const bool well = ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return well ? hdf_probe_outcome::survived : hdf_probe_outcome::died;
}

}  // namespace kestrelvane
