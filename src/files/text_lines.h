// The lines of a small text file, whole in memory. Line ends of any system count.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelvane {

struct text_lines {
  std::vector<char> bytes;
  std::size_t at = 0;
};

// False when the file cannot be read. Of a file beyond 4 MB only the front is taken.
bool load_text(text_lines& lines, const std::string& path);

// The next line without its end; false after the last.
bool next_line(text_lines& lines, std::string_view& line);

// The numbers at the start of a line, at most limit, separated by blanks, tabs or
// commas; reading stops at the first word that is no finite number.
std::vector<double> leading_numbers(std::string_view line, std::size_t limit);

}  // namespace kestrelvane
