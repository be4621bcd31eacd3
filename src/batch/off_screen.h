// Drawing in a process without windows.
#pragma once

#ifdef KESTRELVANE_WITH_DISPLAYS

#include <functional>

namespace kestrelvane {

// Letters come from the platform's fonts, which want an application; a screen they do not. Runs a
// routine that draws inside of one, and returns what it returns.
bool draw_off_screen(const std::function<bool()>& draw);

}  // namespace kestrelvane

#endif
