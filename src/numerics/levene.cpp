#include "numerics/levene.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include "numerics/special_functions.h"

namespace kestrelvane {

bool levene_test(std::span<const std::span<const float>> groups, levene_result& result,
                 const failure_log& log) {
  result = {};
  const std::size_t k = groups.size();
  if (k < 2) {
    log("1 error calculating k");
    return false;
  }
  std::size_t n = 0;
  bool any_empty = false;
  for (const auto& group : groups) {
    n += group.size();
    any_empty |= group.empty();
  }
  // As many groups as values leave nothing to vary within them.
  if (any_empty || n <= k) {
    log("2 error calculating k");
    return false;
  }
  // Deviations of the values from their group's mean; then an analysis of
  // variance of those deviations.
  double within = 0.0, grand_sum = 0.0;
  std::vector<double> means(k);
  for (std::size_t g = 0; g < k; ++g) {
    const auto size = static_cast<double>(groups[g].size());
    double sum = 0.0, deviations = 0.0, squares = 0.0;
    for (const float v : groups[g]) sum += v;
    const double mean = sum / size;
    for (const float v : groups[g]) deviations += std::fabs(v - mean);
    means[g] = deviations / size;
    for (const float v : groups[g]) {
      const double d = std::fabs(v - mean) - means[g];
      squares += d * d;
    }
    within += squares;
    grand_sum += deviations;
  }
  // With no variation within the groups the quotient has no end.
  if (!(within > 0.0)) {
    log("3 error calculating k");
    return false;
  }
  const double grand_mean = grand_sum / static_cast<double>(n);
  double between = 0.0;
  for (std::size_t g = 0; g < k; ++g) {
    const double d = means[g] - grand_mean;
    between += static_cast<double>(groups[g].size()) * d * d;
  }
  const auto freedom_between = static_cast<double>(k - 1);
  const auto freedom_within = static_cast<double>(n - k);
  const double w = (between / freedom_between) / (within / freedom_within);
  result.w = static_cast<float>(w);
  // The tail of the F distribution as an incomplete beta function.
  result.probability =
      betai(static_cast<float>(0.5 * freedom_within), static_cast<float>(0.5 * freedom_between),
            static_cast<float>(freedom_within / (freedom_within + freedom_between * w)), log);
  char words[80];
  std::snprintf(words, sizeof words, "Levene's W, prob.= %.6g %.6g", double{result.w},
                double{result.probability});
  log(words);
  return true;
}

}  // namespace kestrelvane
