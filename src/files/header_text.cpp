#include "files/header_text.h"

#include <algorithm>

namespace kestrelvane {

namespace {

// Bytes of the UTF-8 character at the front; 0 when there is none.
std::size_t utf8_length(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return 1;
  // 0xC0, 0xC1 and everything from 0xF5 on begin no character.
  const std::size_t n = first >= 0xC2 && first < 0xE0   ? 2
                        : first >= 0xE0 && first < 0xF0 ? 3
                        : first >= 0xF0 && first < 0xF5 ? 4
                                                        : 0;
  if (n == 0 || text.size() < n) return 0;
  const auto continues = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
  return std::all_of(text.begin() + 1, text.begin() + n, continues) ? n : 0;
}

}  // namespace

std::string legible_text(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  std::string out;
  while (!text.empty()) {
    const std::size_t n = utf8_length(text);
    const auto c = static_cast<unsigned char>(text.front());
    // The two bytes that stand for this Latin-1 character.
    if (n == 0) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (n == 1 && (c < 0x20 || c == 0x7F)) {
      // A control character could break the line of the log.
      out += ' ';
    } else {
      out += text.substr(0, n);
    }
    text.remove_prefix(std::max<std::size_t>(n, 1));
  }
  // Fields are padded with blanks, which say nothing.
  out.erase(out.find_last_not_of(' ') + 1);
  return out;
}

}  // namespace kestrelvane
