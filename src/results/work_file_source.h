// A work file being read, front to back.
//
// Nothing is stored, and no count believed, beyond the length of the file. What cannot be read
// leaves its reason in problem; the first one stays.
#pragma once

#include <cstdint>
#include <string>

#include "files/input_file.h"
#include "results/work_file_rows.h"

namespace kestrelvane {

struct work_file_source {
  input_file file;
  std::int64_t position = 0;
  std::int32_t version = 0;
  work_file_counts counts;
  std::string problem;  // why the read failed
};

// Notes the problem, and returns false.
bool fail(work_file_source& in, std::string problem);

bool open_source(work_file_source& in, const std::string& path);
std::int64_t remaining(const work_file_source& in);  // bytes

// The length first: a count from a damaged file must not be read for.
bool read_bytes(work_file_source& in, void* bytes, std::int64_t n);
bool pass_over(work_file_source& in, std::int64_t n);
// A text field of length bytes without the blanks or zeros at its end.
bool read_padded(work_file_source& in, std::string& text, std::int64_t length);

}  // namespace kestrelvane
