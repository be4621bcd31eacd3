// Two forms timed in turn, several times over; the best time of each counts.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

namespace kestrelvane::test {

inline double seconds(const std::function<void()>& body) {
  const auto begin = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

struct best_times {
  double first = 1e30, second = 1e30;
};

inline best_times time_side_by_side(int rounds, const std::function<void()>& first,
                                    const std::function<void()>& second) {
  best_times best;
  for (int i = 0; i < rounds; ++i) {
    best.first = std::min(best.first, seconds(first));
    best.second = std::min(best.second, seconds(second));
  }
  return best;
}

inline void report(const std::string& name, const best_times& times, bool same) {
  fmt::print("{:<52} {:>10.2f} ms {:>10.2f} ms   x {:.2f}{}\n", name, 1e3 * times.first,
             1e3 * times.second, times.first / times.second, same ? "" : "   RESULTS DIFFER");
  std::fflush(stdout);
}

}  // namespace kestrelvane::test
