#include "files/safe_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestrelvane {

safe_file::~safe_file() {
  if (file != nullptr) std::fclose(file);
}

bool open_safe_file(safe_file& out, const std::string& path, const std::string& temporary) {
  out.path = path;
  out.temporary_path = temporary.empty() ? path + ".tmp" : temporary;
  out.failed = false;
  out.file = std::fopen(out.temporary_path.c_str(), "wb");
  if (out.file == nullptr) {
    out.failed = true;
    return false;
  }
  std::setvbuf(out.file, nullptr, _IOFBF, 1 << 20);
  return true;
}

bool try_safe_file(const std::string& path, std::string& problem) {
  const std::string trial = path + ".try";
  // Never over a file of that name: whoever has it wrote here before.
  const int descriptor = open(trial.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
  if (descriptor < 0) {
    problem = errno == EEXIST ? "" : std::strerror(errno);
    return problem.empty();
  }
  close(descriptor);
  std::remove(trial.c_str());
  problem.clear();
  return true;
}

bool write_bytes(safe_file& out, const void* bytes, std::size_t n) {
  if (out.failed || n == 0) return !out.failed;
  if (std::fwrite(bytes, 1, n, out.file) != n) out.failed = true;
  return !out.failed;
}

bool write_text(safe_file& out, std::string_view text) {
  return write_bytes(out, text.data(), text.size());
}

bool finish_safe_file(safe_file& out) {
  if (out.file == nullptr) return false;
  // On the device before the rename: a machine that dies in between would otherwise leave an empty
  // file under the name.
  if (std::fflush(out.file) != 0 || fsync(fileno(out.file)) != 0) out.failed = true;
  if (std::fclose(out.file) != 0) out.failed = true;
  out.file = nullptr;
  if (!out.failed && std::rename(out.temporary_path.c_str(), out.path.c_str()) != 0) {
    out.failed = true;
  }
  return !out.failed;
}

}  // namespace kestrelvane
