// Settings drawn at random, each within the range of its row.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane::test {

// What decides about a sort; windows and pictures keep theirs. About one row in five is drawn:
// most of those near their default, where settings work together, the rest from the whole range
// and from its ends. Returns the settings that are other than before, as "name=value" lines.
std::string draw_settings(session_state& session, std::uint32_t seed);

}  // namespace kestrelvane::test
