// Cross-correlograms of many pairs of units by one pass over the events.
//
// A pair by itself is counted by a search of each spike of one unit among those of the other; of
// two hundred units each event would be searched for two hundred times. Here each event is set
// against those that follow it in the table, as far as the bins reach, whoever they are of, and the
// counts of a unit against all others lie beside each other. References are those that the stride
// of each pair gives: which of a unit's spikes are references differs by partner, so each event
// carries a weight of 0 or 1 for every unit.
#pragma once

#include <cstdint>
#include <vector>

#include "analysis/correlograms.h"

namespace kestrelvane {

// Adds the counts of all pairs of two different units to the results, whose strides are set.
// bin_of_ticks: the bin of each difference in samples by its magnitude, beyond the reach 51.
// False, and nothing is changed, where pair by pair is quicker, or a pair or an event is there
// twice. Counts are the same at any number of threads.
bool count_correlogram_grid(std::int32_t n_threads, const std::vector<spike_train>& trains,
                            const std::vector<train_pair>& pairs,
                            const std::vector<std::int8_t>& bin_of_ticks,
                            std::vector<correlogram>& results);

}  // namespace kestrelvane
