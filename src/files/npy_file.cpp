#include "files/npy_file.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <charconv>
#include <string_view>

#include "files/byte_cursor.h"

namespace kestrelvane {

namespace {

constexpr std::string_view magic = "\x93NUMPY";

// What stands behind 'key': in the dictionary; empty when the key is missing.
std::string_view value_of(std::string_view text, std::string_view key) {
  const std::size_t at = text.find(fmt::format("'{}':", key));
  if (at == std::string_view::npos) return {};
  // Past the two quotes and the colon.
  text.remove_prefix(at + key.size() + 3);
  const std::size_t start = text.find_first_not_of(' ');
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

bool take_shape(std::string_view text, std::vector<std::int64_t>& shape) {
  if (!text.starts_with('(')) return false;
  text = text.substr(1, text.find(')') - 1);
  // Arrays of more indices are none that are read here.
  constexpr std::size_t most_indices = 8;
  while (shape.size() < most_indices) {
    // Old writers put an L after whole numbers.
    const std::size_t start = text.find_first_not_of(" ,L");
    if (start == std::string_view::npos) return true;
    text.remove_prefix(start);
    std::int64_t n = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
    if (error != std::errc() || n < 0) return false;
    shape.push_back(n);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  }
  return false;
}

// Bytes of one element, from the digits of its type.
std::int64_t element_bytes(std::string_view type) {
  std::int64_t n = 0;
  if (type.size() < 3) return 0;
  std::from_chars(type.data() + 2, type.data() + type.size(), n);
  return n;
}

bool data_fits(const npy_header& header, std::int64_t file_bytes) {
  std::int64_t n = element_bytes(header.type);
  if (n < 1) return false;
  for (const std::int64_t count : header.shape) {
    // Divided and not multiplied: no shape can overflow the test.
    if (count > 0 && n > file_bytes / count) return false;
    n *= count;
  }
  return n <= file_bytes - header.data_at;
}

}  // namespace

bool read_npy_header(const input_file& file, npy_header& header) {
  constexpr std::int64_t longest_header = 4096;
  const std::vector<char> block = read_block(file, 0, longest_header);
  byte_cursor in{block.data(), block.size()};
  if (take_text(in, magic.size()) != magic) return false;
  const auto version = take_value<std::uint8_t>(in);
  skip_bytes(in, 1);
  // The length grew from two bytes to four with version 2.
  const std::uint32_t length =
      version == 1 ? take_value<std::uint16_t>(in) : take_value<std::uint32_t>(in);
  const std::string_view text = take_text(in, length);
  if (in.failed || version < 1 || version > 2) return false;
  const std::string_view type = value_of(text, "descr");
  if (!type.starts_with('\'')) return false;
  header.type = type.substr(1, type.find('\'', 1) - 1);
  header.column_order = value_of(text, "fortran_order").starts_with("True");
  header.data_at = static_cast<std::int64_t>(in.at);
  return take_shape(value_of(text, "shape"), header.shape) && data_fits(header, file.size);
}

std::string npy_header_text(const std::string& type, const std::vector<std::int64_t>& shape) {
  std::string text = fmt::format("{{'descr': '{}', 'fortran_order': False, 'shape': ({}{}), }}",
                                 type, fmt::join(shape, ", "), shape.size() == 1 ? "," : "");
  constexpr std::size_t front = magic.size() + 4, alignment = 64;
  // Blanks up to the alignment, the last of them a line end.
  // Room for the line end is counted, too.
  const std::size_t whole = (front + text.size() + 1 + alignment - 1) / alignment * alignment;
  text.resize(whole - front - 1, ' ');
  text += '\n';
  std::string header(magic);
  header += '\x01';
  header += '\0';
  header += static_cast<char>(text.size() & 0xFF);
  header += static_cast<char>(text.size() >> 8);
  return header + text;
}

}  // namespace kestrelvane
