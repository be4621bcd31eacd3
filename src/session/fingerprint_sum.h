// Whether two states are the same, told by a number: a sum over their bytes, mixed word by word,
// and not how far they are apart. Fast, and against nobody's intent to deceive it. The sums stand
// in files of history, so that the words and their order must stay as they are.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "numerics/table.h"

namespace kestrelvane {

struct fingerprint_sum {
  std::uint64_t value = 0x4b657374;  // any number but 0, which would swallow leading zeros

  static std::uint64_t mixed(std::uint64_t sum, std::uint64_t word) {
    // 2^64 over the golden ratio; the shift brings the high bits, where products mix best, down.
    sum = (sum ^ word) * 0x9e3779b97f4a7c15u;
    return sum ^ (sum >> 29);
  }
  void add(std::uint64_t word) { value = mixed(value, word); }
  void add_bytes(const void* bytes, std::size_t n) {
    const auto* from = static_cast<const unsigned char*>(bytes);
    // Four sums side by side: each waits for its own product alone.
    std::array<std::uint64_t, 4> sums{value, value + 1, value + 2, value + 3};
    for (; n >= 32; from += 32, n -= 32) {
      std::array<std::uint64_t, 4> words;
      std::memcpy(words.data(), from, 32);
      for (std::size_t i = 0; i < 4; ++i) sums[i] = mixed(sums[i], words[i]);
    }
    for (const std::uint64_t sum : sums) add(sum);
    for (; n >= 8; from += 8, n -= 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, from, 8);
      add(word);
    }
    std::uint64_t rest = 0;
    std::memcpy(&rest, from, n);
    add(rest);
  }
  template <typename T>
  void add_column(const table<T>& column, std::int64_t n) {
    add_bytes(column.first(), static_cast<std::size_t>(n) * sizeof(T));
  }
};

}  // namespace kestrelvane
