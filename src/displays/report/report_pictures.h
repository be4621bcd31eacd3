// The pictures of a report, as text to stand inside a page.
//
// Painted by the same routines as those of the windows, on white, and small: what a vector picture
// holds without showing it is taken out. Runs on any thread; needs an application for its fonts,
// but no screen.
#pragma once

#include <cstdint>
#include <string>

#include "displays/clusters/cluster_index.h"
#include "session/session_state.h"

namespace kestrelvane {

// The probe with its units.
std::string probe_as_svg(const session_state& session, cluster_index& index);
// Of one unit: template with its s.d. band, autocorrelogram, heights against time (of at most 1000
// spikes).
std::string template_as_svg(const session_state& session, cluster_index& index, std::int32_t unit);
std::string autocorrelogram_as_svg(const session_state& session, std::int32_t unit);
std::string heights_as_svg(const session_state& session, cluster_index& index, std::int32_t unit);

// An .svg without the lines in front of its picture, the titles of whoever made it, and groups
// that hold nothing.
std::string bare_svg(const std::string& svg);

}  // namespace kestrelvane
