// Levene's test: do groups have the same variance?
#pragma once

#include <span>

#include "numerics/failure_log.h"

namespace kestrelvane {

struct levene_result {
  float w = 0;            // the statistic, an F ratio of deviations from the group means
  float probability = 1;  // of a ratio as large when the variances are equal
};

// Levene (1960), with means. Logs "Levene's W, prob.=" and both numbers. False,
// after "1 error calculating k" with fewer than two groups, "2 error calculating
// k" with an empty group or no more values than groups, or "3 error calculating
// k" when no value deviates from the others' distance to the mean.
bool levene_test(std::span<const std::span<const float>> groups, levene_result& result,
                 const failure_log& log = {});

}  // namespace kestrelvane
