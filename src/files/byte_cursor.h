// A bounded reader of little-endian fields in memory.
//
// Readers of recordings load a header as one block and take its fields in file order.
// A read past the end sets failed, gives zero, and so do all later ones: a reader
// tests once, after the last field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace kestrelvane {

struct byte_cursor {
  const char* bytes = nullptr;
  std::size_t n = 0;   // bytes there are
  std::size_t at = 0;  // next byte
  bool failed = false;

  // True when so many more bytes are there.
  bool has(std::size_t count) const { return !failed && count <= n - at; }
};

inline void skip_bytes(byte_cursor& in, std::size_t count) {
  if (in.has(count)) {
    in.at += count;
  } else {
    in.failed = true;
  }
}

// One plain value in the byte order of the machine, which is the file's.
template <typename T>
T take_value(byte_cursor& in) {
  static_assert(std::is_trivially_copyable_v<T>);
  T value{};
  if (in.has(sizeof(T))) std::memcpy(&value, in.bytes + in.at, sizeof(T));
  skip_bytes(in, sizeof(T));
  return value;
}

inline std::int16_t take_i16(byte_cursor& in) { return take_value<std::int16_t>(in); }
inline std::int32_t take_i32(byte_cursor& in) { return take_value<std::int32_t>(in); }
inline float take_f32(byte_cursor& in) { return take_value<float>(in); }

// A field of count bytes; empty past the end.
inline std::string_view take_text(byte_cursor& in, std::size_t count) {
  const std::size_t from = in.at;
  const bool there = in.has(count);
  skip_bytes(in, count);
  return there ? std::string_view(in.bytes + from, count) : std::string_view();
}

}  // namespace kestrelvane
