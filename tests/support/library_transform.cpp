#include "support/library_transform.h"

#include <fftw3.h>

#include <algorithm>

namespace kestrelvane::test {

namespace {

constexpr int n_points = 1 << 20;

// Plain codelets under a plan by formula: the form that the filters once used, with the same bits
// on every processor.
fftwf_plan plan(float* re, float* im) {
  const fftwf_iodim axis{n_points, 1, 1};
  return fftwf_plan_guru_split_dft(1, &axis, 0, nullptr, re, im, re, im,
                                   FFTW_ESTIMATE | FFTW_NO_SIMD | FFTW_DESTROY_INPUT);
}

}  // namespace

library_filter::library_filter(const std::vector<float>& gains)
    : re(n_points), im(n_points), gains_(gains) {
  forward_ = plan(re.data(), im.data());
  // With the arrays exchanged the forward sum runs backward.
  backward_ = plan(im.data(), re.data());
}

library_filter::~library_filter() {
  fftwf_destroy_plan(static_cast<fftwf_plan>(forward_));
  fftwf_destroy_plan(static_cast<fftwf_plan>(backward_));
}

void library_filter::run() {
  fftwf_execute(static_cast<fftwf_plan>(forward_));
  for (std::vector<float>* x : {&re, &im}) {
    for (int k = 0; k < n_points; ++k) {
      (*x)[k] *= gains_[std::min(k, n_points - k)] / n_points;
    }
  }
  fftwf_execute(static_cast<fftwf_plan>(backward_));
}

}  // namespace kestrelvane::test
