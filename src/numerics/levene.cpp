#include "numerics/levene.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include "numerics/special_functions.h"

namespace kestrelvane {

namespace {

using value_groups = std::span<const std::span<const float>>;

// How far the values lie from the mean of their group, and how much that varies.
struct deviations_of_groups {
  std::vector<double> means;           // of each group
  double sum = 0.0;                    // over all values
  double within = 0.0, between = 0.0;  // sums of squares
};

// The number of values; 0 when a group has none.
std::size_t count_values(value_groups groups) {
  std::size_t n = 0;
  for (const auto& group : groups) {
    if (group.empty()) return 0;
    n += group.size();
  }
  return n;
}

// The deviations of one group; sums in 64 bits, value by value.
void add_group(std::span<const float> group, deviations_of_groups& d) {
  const auto size = static_cast<double>(group.size());
  double sum = 0.0, deviations = 0.0, squares = 0.0;
  for (const float v : group) sum += v;
  const double mean = sum / size;
  for (const float v : group) deviations += std::fabs(v - mean);
  d.means.push_back(deviations / size);
  for (const float v : group) {
    const double difference = std::fabs(v - mean) - d.means.back();
    squares += difference * difference;
  }
  d.within += squares;
  d.sum += deviations;
}

deviations_of_groups take_deviations(value_groups groups, std::size_t n) {
  deviations_of_groups d;
  for (const auto& group : groups) add_group(group, d);
  const double grand_mean = d.sum / static_cast<double>(n);
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const double difference = d.means[g] - grand_mean;
    d.between += static_cast<double>(groups[g].size()) * difference * difference;
  }
  return d;
}

bool refuse(const failure_log& log, const char* words) {
  log(words);
  return false;
}

}  // namespace

bool levene_test(std::span<const std::span<const float>> groups, levene_result& result,
                 const failure_log& log) {
  result = {};
  const std::size_t k = groups.size();
  if (k < 2) return refuse(log, "1 error calculating k");
  // As many groups as values leave nothing to vary within them.
  const std::size_t n = count_values(groups);
  if (n <= k) return refuse(log, "2 error calculating k");
  const deviations_of_groups d = take_deviations(groups, n);
  // With no variation within the groups the quotient has no end.
  if (!(d.within > 0.0)) return refuse(log, "3 error calculating k");
  const auto freedom_between = static_cast<double>(k - 1);
  const auto freedom_within = static_cast<double>(n - k);
  const double w = (d.between / freedom_between) / (d.within / freedom_within);
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
