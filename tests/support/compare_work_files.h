// Two work files of version 8 side by side, field by field.
//
// Sorts are held to the same bits across threads and builds; a work file is the
// record of a sort, and this says where two of them part. The run log is left out:
// it tells of times. The fields are those of results/work_file_rows.h.
#pragma once

#include <string>
#include <vector>

namespace kestrelvane::test {

enum class work_files { alike, differ, unreadable };

// Compares the bytes of a and b but for the lines of the run log and their number.
// words then says what is wrong: the first field that differs, the element (from 1)
// and what both files hold there, or which file ends early or is no work file.
// Fields that are not words count in bytes.
work_files compare_work_file_bytes(const std::vector<char>& a, const std::vector<char>& b,
                                   std::string& words);

// The same, of two files.
work_files compare_work_files(const std::string& path_a, const std::string& path_b,
                              std::string& words);

}  // namespace kestrelvane::test
