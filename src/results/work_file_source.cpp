#include "results/work_file_source.h"

#include <fmt/format.h>

#include <vector>

namespace kestrelvane {

bool fail(work_file_source& in, std::string problem) {
  if (in.problem.empty()) in.problem = std::move(problem);
  return false;
}

bool open_source(work_file_source& in, const std::string& path) {
  if (!open_input_file(in.file, path)) {
    return fail(in, fmt::format("Work file cannot be opened: {}", in.file.problem));
  }
  in.counts.of[per_file] = 1;
  return true;
}

std::int64_t remaining(const work_file_source& in) { return in.file.size - in.position; }

bool read_bytes(work_file_source& in, void* bytes, std::int64_t n) {
  if (n > remaining(in)) return fail(in, "ends early");
  if (!read_at(in.file, in.position, bytes, n)) return fail(in, "cannot be read");
  in.position += n;
  return true;
}

bool pass_over(work_file_source& in, std::int64_t n) {
  if (n > remaining(in)) return fail(in, "ends early");
  in.position += n;
  return true;
}

bool read_padded(work_file_source& in, std::string& text, std::int64_t length) {
  std::vector<char> bytes(static_cast<std::size_t>(length));
  if (!read_bytes(in, bytes.data(), length)) return false;
  std::size_t n = bytes.size();
  while (n > 0 && (bytes[n - 1] == ' ' || bytes[n - 1] == '\0')) --n;
  text.assign(bytes.data(), n);
  return true;
}

}  // namespace kestrelvane
