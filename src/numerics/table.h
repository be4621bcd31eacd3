// table<T>: a fixed-capacity array counted from 1, committed lazily.
//
// reserve() takes address space from the system; a page costs memory only once
// it is written to, and reads as zero before that. clear() gives the pages back,
// which zeroes any number of elements at the price of those that were used.
// Element 1 is the first; element 0 exists and is spare, so that a list may keep
// its own count there. Bounds are checked when KESTRELVANE_CHECK_BOUNDS is set
// (debug and sanitizer builds).
//
// T must be trivially copyable and its zero bytes must be its empty value.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace kestrelvane {

// Pages from the system: zero-filled, committed when touched. Null on failure.
void* reserve_pages(std::size_t bytes);
void release_pages(void* pages, std::size_t bytes);
// The range reads as zero afterwards; whole pages inside it are given back.
void zero_pages(void* first, std::size_t bytes);
// True when the system could commit so many more bytes now. Reserving always
// succeeds, so what will be filled throughout must be asked about first.
bool memory_can_hold(std::int64_t bytes);
// Asks for large pages under a range that will be filled throughout.
void prefer_large_pages(void* first, std::size_t bytes);

[[noreturn]] void stop_on_bad_index(std::int64_t index, std::int64_t capacity);

template <typename T>
class table {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  table() = default;
  explicit table(std::int64_t capacity) { reserve(capacity); }
  table(const table&) = delete;
  table& operator=(const table&) = delete;
  ~table() { release(); }

  // Room for elements 1..capacity, all zero. False when the system refuses;
  // the table is then empty.
  bool reserve(std::int64_t capacity) {
    release();
    const std::size_t bytes = (static_cast<std::size_t>(capacity) + 1) * sizeof(T);
    elements_ = static_cast<T*>(reserve_pages(bytes));
    if (elements_ == nullptr) return false;
    capacity_ = capacity;
    return true;
  }

  void release() {
    if (elements_ != nullptr) release_pages(elements_, bytes());
    elements_ = nullptr;
    capacity_ = 0;
  }

  // Zeroes every element.
  void clear() {
    if (elements_ != nullptr) zero_pages(elements_, bytes());
  }

  // Zeroes elements first..capacity.
  void clear_from(std::int64_t first) {
    if (elements_ != nullptr && first <= capacity_) {
      zero_pages(elements_ + first, static_cast<std::size_t>(capacity_ + 1 - first) * sizeof(T));
    }
  }

  T& operator[](std::int64_t i) {
    check(i);
    return elements_[i];
  }
  const T& operator[](std::int64_t i) const {
    check(i);
    return elements_[i];
  }

  // Pointer to element 1.
  T* first() { return elements_ + 1; }
  const T* first() const { return elements_ + 1; }

  // Pointer to element 0: base()[i] is element i, without a bounds check.
  T* base() { return elements_; }
  const T* base() const { return elements_; }

  std::int64_t capacity() const { return capacity_; }

 private:
  std::size_t bytes() const { return (static_cast<std::size_t>(capacity_) + 1) * sizeof(T); }

  void check([[maybe_unused]] std::int64_t i) const {
#ifdef KESTRELVANE_CHECK_BOUNDS
    if (i < 0 || i > capacity_) stop_on_bad_index(i, capacity_);
#endif
  }

  T* elements_ = nullptr;
  std::int64_t capacity_ = 0;
};

// A record of tables, or a const one: what the walks over its columns take.
template <typename T, typename Record>
concept record_of = std::same_as<std::remove_const_t<T>, Record>;

}  // namespace kestrelvane
