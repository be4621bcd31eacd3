// The filters' spectra by a well-known library in single precision: what the product's own form
// is measured against, for its error and its time.
#pragma once

#include <vector>

namespace kestrelvane::test {

// Both arrays of 2^20 points, forward, times gains[min(k, N - k)], and back.
struct library_filter {
  explicit library_filter(const std::vector<float>& gains);
  library_filter(const library_filter&) = delete;
  library_filter& operator=(const library_filter&) = delete;
  ~library_filter();
  void run();

  std::vector<float> re, im;

 private:
  const std::vector<float>& gains_;
  void* forward_;
  void* backward_;
};

}  // namespace kestrelvane::test
