// Gradient ascent clustering of the session's clusters: parameters from the settings,
// points from the principal components, the ladder, and its lines in the log.
#pragma once

#include <cstdint>

#include "clustering/gradient_ascent.h"
#include "session/session_state.h"

namespace kestrelvane {

// As the user has set them, on the threads of the running operation.
gac_parameters gac_parameters_of(const session_state& session);

// Those of Autosort, which always splits obvious clusters early, whatever the setting says
// about splits by hand. autosort_state remembers it for the work file.
gac_parameters automatic_gac_parameters(session_state& session);

// The principal component values of a cluster, or of a pair at its shift, and the
// ladder run on them. Returns final_stage.
std::int32_t gac_run_cluster(session_state& session, const gac_parameters& parameters,
                             std::int32_t cluster, gac_points& points, gac_tables& tables);
std::int32_t gac_run_pair(session_state& session, const gac_parameters& parameters, std::int32_t a,
                          std::int32_t b, gac_points& points, gac_tables& tables);

// Sigma of a stage in µV.
float stage_sigma_uv(const session_state& session, std::int32_t s);

}  // namespace kestrelvane
