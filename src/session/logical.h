// Logical and fixed-length text: the two file types that C++ has no name for.
//
// A logical is a 32-bit word, all bits set for true and 0 for false, tested on
// its lowest bit. It has the same form in memory and in every file, so that a
// list of logicals moves as one block.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace kestrelvane {

struct logical {
  std::int32_t word = 0;

  constexpr logical() = default;
  constexpr logical(bool value) : word(value ? -1 : 0) {}      // NOLINT: meant to convert
  constexpr operator bool() const { return (word & 1) != 0; }  // NOLINT: meant to convert
};
static_assert(sizeof(logical) == 4);

// A text of at most N bytes, blank-padded in files. Zeroed storage reads as
// blank, so a cleared table of texts is a table of empty texts.
template <int N>
struct fixed_text {
  char bytes[N];

  // The text without its trailing blanks and NULs.
  std::string_view view() const {
    int n = N;
    while (n > 0 && (bytes[n - 1] == ' ' || bytes[n - 1] == '\0')) --n;
    return {bytes, static_cast<std::size_t>(n)};
  }
  bool is_blank() const { return view().empty(); }

  // Stores a text: cut at N bytes, blank-padded.
  void assign(std::string_view text) {
    const std::size_t n = text.size() < N ? text.size() : N;
    std::memcpy(bytes, text.data(), n);
    std::memset(bytes + n, ' ', N - n);
  }
  void blank() { std::memset(bytes, ' ', N); }
};

using text256 = fixed_text<256>;
static_assert(sizeof(text256) == 256);

}  // namespace kestrelvane
