#include "files/text_lines.h"

#include <charconv>
#include <cmath>

#include "files/input_file.h"

namespace kestrelvane {

bool load_text(text_lines& lines, const std::string& path) {
  // A configuration has a few hundred lines; what is larger is something else.
  constexpr std::int64_t most_bytes = 4 << 20;
  input_file file;
  if (!open_input_file(file, path)) return false;
  lines.bytes = read_block(file, 0, most_bytes);
  lines.at = 0;
  return true;
}

bool next_line(text_lines& lines, std::string_view& line) {
  const std::string_view rest =
      std::string_view(lines.bytes.data(), lines.bytes.size()).substr(lines.at);
  // A last line without an end is a line; an end with nothing after it begins none.
  if (rest.empty()) return false;
  const std::size_t end = rest.find('\n');
  line = rest.substr(0, end);
  lines.at += end == std::string_view::npos ? rest.size() : end + 1;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return true;
}

std::vector<double> leading_numbers(std::string_view line, std::size_t limit) {
  constexpr std::string_view separators = " \t,";
  std::vector<double> numbers;
  while (numbers.size() < limit) {
    const std::size_t start = line.find_first_not_of(separators);
    if (start == std::string_view::npos) break;
    line.remove_prefix(start);
    // Two signs are no number.
    if (line.size() > 1 && line[0] == '+' && line[1] != '-') line.remove_prefix(1);
    double value = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), value);
    // No number, or one that is not finite, ends them, and so does a word that begins as one.
    if (error != std::errc() || !std::isfinite(value)) break;
    line.remove_prefix(static_cast<std::size_t>(end - line.data()));
    if (!line.empty() && separators.find(line[0]) == std::string_view::npos) break;
    numbers.push_back(value);
  }
  return numbers;
}

}  // namespace kestrelvane
