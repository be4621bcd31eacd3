// Lists of channels as a user types them: "3,8-11" is 3, 8, 9, 10, 11.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace kestrelvane {

// Appends the channels of the list. False when the text is no such list; channels
// are 1 or above and at most channel_limit.
bool parse_channel_list(std::string_view text, std::vector<std::int32_t>& channels);

}  // namespace kestrelvane
