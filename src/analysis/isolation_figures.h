// How far a unit's spikes lie from those of its neighbours in a space of waveform features.
//
// Plain routines over points of so many dimensions, row by row; measure_isolation chooses points
// and space. What cannot be told is no number: of fewer than 20 points, or of points that lie in
// a plane.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "clustering/membership.h"
#include "session/session_state.h"

namespace kestrelvane {

struct feature_points {
  std::int32_t dimensions = 0;
  std::vector<float> values;
  std::int32_t size() const {
    return dimensions > 0 ? static_cast<std::int32_t>(values.size()) / dimensions : 0;
  }
  const float* point(std::int32_t i) const { return values.data() + std::int64_t{i} * dimensions; }
};

// Squared Mahalanobis distance of each of the others from the unit's mean, by the unit's
// covariance. Empty where that cannot be inverted.
std::vector<double> mahalanobis_distances(const feature_points& unit, const feature_points& others);

// The squared distance within which there are as many others as the unit has spikes; weights: how
// many spikes each of the others stands for. No number where there are fewer others than spikes.
// Source: Harris et al., Neuron 32, 2001; Schmitzer-Torbert et al., Neuroscience 131, 2005.
double isolation_distance(std::span<const double> distances, std::span<const double> weights,
                          double n_spikes);

// Sum over the others of their probability to lie so far out if they were the unit's own, by the
// chi-squared distribution, over the unit's spikes. Source: Schmitzer-Torbert et al. 2005.
double l_ratio(std::span<const double> distances, std::span<const double> weights, double n_spikes,
               std::int32_t dimensions);

// Of the four nearest neighbours of each of the unit's points, the fraction that are the unit's;
// and the same of the others' points. Both of as many points on either side.
// Source: Chung et al., Neuron 95, 2017; Siegle et al., Nature 592, 2021.
struct neighbour_rates {
  double hit, miss;
};
neighbour_rates nearest_neighbour_rates(const feature_points& unit, const feature_points& others);

// The two on the line on which they are furthest apart (Fisher's discriminant): distance of the
// means over the root mean square of the two standard deviations.
// Source: Hill, Mehta and Kleinfeld, J. Neurosci. 31, 2011; Siegle et al. 2021.
// overlap: spikes of the unit which, by two Gaussians on that line as large as the units, would
// rather be the other's, as a fraction: the false positives of Hill et al. 2011.
struct separation {
  double d_prime, overlap;
};
separation separate(const feature_points& unit, const feature_points& other, double n_unit,
                    double n_other);

struct isolation_figures {
  double hit, miss;      // of nearest neighbours
  double distance;       // isolation distance
  double l_ratio;        // of the same distances
  std::int32_t nearest;  // the neighbour of the least d'; 0: none
  double d_prime;        // from the nearest
  double overlap;        // with the nearest
};
// Units whose centre channel the unit's template has, or that have the unit's.
std::vector<std::int32_t> list_neighbours(const session_state& session, std::int32_t unit);

// Among its neighbours. The features are the first eight principal components of the unit's and the
// neighbours' spikes together, at the 50 points at which the templates differ most. Of at most 1000
// spikes of the unit and 200 of each neighbour.
isolation_figures measure_isolation(const session_state& session, const cluster_event_lists& lists,
                                    std::int32_t unit);

}  // namespace kestrelvane
