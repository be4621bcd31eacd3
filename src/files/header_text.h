// Text of acquisition systems as the run log can show it.
#pragma once

#include <string>
#include <string_view>

namespace kestrelvane {

// The text up to its first NUL, without control characters and trailing blanks. What is
// not UTF-8 is taken for Latin-1, which older systems write.
std::string legible_text(std::string_view text);

}  // namespace kestrelvane
