#include "files/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kestrelvane {

input_file::~input_file() {
  if (descriptor >= 0) close(descriptor);
}

bool open_input_file(input_file& in, const std::string& path) {
  // Without O_NONBLOCK, opening a pipe would wait for a writer.
  in.descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status {};
  if (in.descriptor < 0 || fstat(in.descriptor, &status) != 0) {
    in.problem = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    in.problem = S_ISDIR(status.st_mode) ? "It is a folder" : "It is not an ordinary file";
    return false;
  }
  in.size = status.st_size;
  return true;
}

bool read_at(const input_file& in, std::int64_t offset, void* to, std::int64_t count) {
  // The system moves at most 2 GB in one call.
  constexpr std::int64_t most = std::int64_t{1} << 30;
  char* at = static_cast<char*>(to);
  while (count > 0) {
    const ssize_t n =
        pread(in.descriptor, at, static_cast<std::size_t>(std::min(count, most)), offset);
    if (n < 0 && errno == EINTR) continue;
    // 0 is the end of the file: it has become shorter since it was opened.
    if (n <= 0) return false;
    at += n;
    offset += n;
    count -= n;
  }
  return true;
}

std::vector<char> read_block(const input_file& in, std::int64_t offset, std::int64_t count) {
  // An offset beyond the end leaves none.
  count = std::clamp<std::int64_t>(in.size - offset, 0, count);
  std::vector<char> block(static_cast<std::size_t>(count));
  if (!read_at(in, offset, block.data(), count)) block.clear();
  return block;
}

void expect_sequential_reading(const input_file& in) {
  posix_fadvise(in.descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
}

std::string replace_extension(const std::string& path, const std::string& extension) {
  const std::size_t name = folder_of(path).size();
  const std::size_t dot = path.find_last_of('.');
  // A dot at the front of a name begins no extension.
  const bool has_extension = dot != std::string::npos && dot > name;
  return path.substr(0, has_extension ? dot : std::string::npos) + extension;
}

std::string file_name_of(const std::string& path) { return path.substr(folder_of(path).size()); }

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

bool file_exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace kestrelvane
