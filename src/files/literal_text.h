// Values written as literals of a scripting language: numbers, texts, lists, tuples,
// dictionaries, ranges, and sums of lists. Nothing is run: a name that is none of
// list, range, True, False and None is refused.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kestrelvane {

// The assignments NAME = VALUE of a text as an object. Keys of dictionaries become texts,
// tuples arrays. False with the problem in words at the first thing that is no literal.
bool parse_literal_assignments(std::string_view text, nlohmann::json& values, std::string& problem);

}  // namespace kestrelvane
