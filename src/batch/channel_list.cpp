#include "batch/channel_list.h"

#include <charconv>

#include "session/limits.h"

namespace kestrelvane {

namespace {

bool parse_channel(std::string_view text, std::int32_t& channel) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, channel);
  // The whole text must be the number.
  return error == std::errc{} && stop == end && channel >= 1 && channel <= channel_limit;
}

}  // namespace

bool parse_channel_list(std::string_view text, std::vector<std::int32_t>& channels) {
  while (true) {
    const std::size_t comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    // Channels count from 1, so that a dash is never a sign.
    const std::size_t dash = item.find('-');
    std::int32_t first = 0, last = 0;
    if (!parse_channel(item.substr(0, dash), first)) return false;
    last = first;
    if (dash != std::string_view::npos && !parse_channel(item.substr(dash + 1), last)) return false;
    // A range that runs backwards is taken for a slip.
    if (last < first) return false;
    for (std::int32_t c = first; c <= last; ++c) channels.push_back(c);
    if (comma == std::string_view::npos) return true;
    text.remove_prefix(comma + 1);
  }
}

}  // namespace kestrelvane
