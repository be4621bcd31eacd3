#include "numerics/sort.h"

#include <algorithm>
#include <utility>

namespace kestrelvane {

namespace {

constexpr std::int32_t insertion_below = 7;  // by last minus first
constexpr std::int32_t stack_limit = 50;     // two places for each part

// Places below are counted from 1, as the permutation is.
struct index_sorter {
  const float* keys;
  std::int32_t* order;

  std::int32_t& at(std::int32_t place) const { return order[place - 1]; }
  float key(std::int32_t place) const { return keys[at(place) - 1]; }
  void exchange(std::int32_t a, std::int32_t b) const { std::swap(at(a), at(b)); }
  void put_in_order(std::int32_t a, std::int32_t b) const {
    if (key(a) > key(b)) exchange(a, b);
  }

  void insertion(std::int32_t first, std::int32_t last) const {
    for (std::int32_t place = first + 1; place <= last; ++place) {
      const std::int32_t moving = at(place);
      const float moving_key = keys[moving - 1];
      std::int32_t i = place - 1;
      // Negated, so that a key that is no number stops nothing.
      for (; i >= first && !(key(i) <= moving_key); --i) at(i + 1) = at(i);
      at(i + 1) = moving;
    }
  }

  // Divides a part round its pivot. Afterwards places first..below are not above
  // the pivot and places above..last not below it. Both scans stop at keys equal
  // to the pivot; the ordered triple keeps them inside the part.
  void divide(std::int32_t first, std::int32_t last, std::int32_t& below,
              std::int32_t& above) const {
    exchange(first + (last - first) / 2, first + 1);
    put_in_order(first, last);
    put_in_order(first + 1, last);
    put_in_order(first, first + 1);
    const std::int32_t pivot = at(first + 1);
    const float pivot_key = keys[pivot - 1];
    std::int32_t i = first + 1;
    std::int32_t j = last;
    for (;;) {
      do ++i;
      while (key(i) < pivot_key);
      do --j;
      while (key(j) > pivot_key);
      if (j < i) break;
      exchange(i, j);
    }
    at(first + 1) = at(j);
    at(j) = pivot;
    below = j - 1;
    above = i;
  }
};

}  // namespace

bool index_sort(std::int32_t n, const float* keys, std::int32_t* order, const failure_log& log) {
  const index_sorter s{keys, order};
  for (std::int32_t i = 1; i <= n; ++i) s.at(i) = i;
  struct part {
    std::int32_t first, last;
  };
  part waiting[stack_limit / 2];
  std::int32_t n_waiting = 0;
  part now{1, n};
  for (;;) {
    if (now.last - now.first < insertion_below) {
      s.insertion(now.first, now.last);
      if (n_waiting == 0) return true;
      now = waiting[--n_waiting];
      continue;
    }
    std::int32_t below, above;
    s.divide(now.first, now.last, below, above);
    if (n_waiting == stack_limit / 2) {
      log("Error: nstack too small");
      return false;
    }
    // The larger part waits, which bounds the stack by the logarithm of n.
    const part lower{now.first, below};
    const part upper{above, now.last};
    const bool upper_waits = now.last - above + 1 >= below + 1 - now.first;
    waiting[n_waiting++] = upper_waits ? upper : lower;
    now = upper_waits ? lower : upper;
  }
}

float select_median(std::int32_t n, float* values) {
  if (n <= 0) return 0.0f;
  float* median = values + (n + 1) / 2 - 1;
  std::nth_element(values, median, values + n);
  return *median;
}

}  // namespace kestrelvane
