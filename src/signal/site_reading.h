// What stands between the sites: voltages at a place, from those of the sites round it.
//
// They are those that are most likely given those at the sites, for a field that goes along with
// itself over about 20 µm (Krige, J. Chem. Metall. Min. Soc. S. Afr. 52, 1951).
#pragma once

#include <cstdint>
#include <vector>

#include "session/recording_store.h"

namespace kestrelvane {

struct site_source {
  std::int32_t channel;
  float weight;
};

// What the place `way` µm above a channel's site reads of the sites in use round it. told: how much
// of the field they tell there, 0 nothing, 1 all.
std::vector<site_source> sources_at(const recording_store& recording, std::int32_t channel,
                                    double way, double& told);

}  // namespace kestrelvane
