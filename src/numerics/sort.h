// Order without moving: sorting by index, and the median by selection.
#pragma once

#include <cstdint>

#include "numerics/failure_log.h"

namespace kestrelvane {

// order[0..n-1] becomes the permutation, counted from 1, that lists keys in
// ascending order: the smallest is keys[order[0] - 1]. Not stable, and the place
// of equal keys is part of the result, since the choice of waveform points and
// the order of components follow from it: quicksort with the median of the
// first, middle and last element as pivot, held at the second place of the part
// while it is divided; parts below 8 elements by straight insertion; a stack of
// 25 parts (Press et al., Numerical Recipes, 2nd edition in C, 8.4).
//
// False, after "Error: nstack too small", when the stack overflows: order is then
// a permutation that is not sorted. Keys that are not numbers end up anywhere.
bool index_sort(std::int32_t n, const float* keys, std::int32_t* order,
                const failure_log& log = {});

// The element at place (n + 1) / 2 of the n sorted values, the lower of the
// middle pair for even n; 0 when there are none. The values are left in
// another order.
float select_median(std::int32_t n, float* values);

}  // namespace kestrelvane
