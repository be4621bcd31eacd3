// The end of the noise among the scores of a unit.
//
// A unit that fires at two sizes has two humps of scores, and its lowest point is the wrong place
// to cut them. What noise and far-off cells add lies at the lower end and falls off from there. The
// scores are taken for a sum of such a tail and two humps, fitted by expectation and maximisation
// (Dempster, Laird & Rubin, J. R. Stat. Soc. B 39, 1977); the noise ends where the humps begin to
// be the larger part.
#pragma once

#include "sorting/tracked_units.h"

namespace kestrelvane {

// Ratios of score to energy; least_ratio is the lowest that a spike may have, between that of the
// humps. 0: noise is nowhere the larger part.
double find_noise_end(const tracked_unit& unit, double least_ratio, double between);

}  // namespace kestrelvane
