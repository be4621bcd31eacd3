#include "files/literal_text.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <cmath>

namespace kestrelvane {

namespace {

using json = nlohmann::json;

// Bounds for text that was made to exhaust the stack, or the memory.
constexpr int deepest = 16;
constexpr std::size_t most_elements = 200'000;

struct literal_reader {
  std::string_view text;
  std::size_t at = 0;
  std::size_t n_elements = 0;
  std::string problem;

  bool failed() const { return !problem.empty(); }
  json fail(const std::string& what) {
    if (!failed()) {
      const auto line = std::count(text.begin(), text.begin() + static_cast<long>(at), '\n') + 1;
      problem = fmt::format("line {}: {}", line, what);
    }
    return nullptr;
  }
  char peek() const { return at < text.size() ? text[at] : '\0'; }
};

bool is_name_character(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Past blanks, line ends, continuation signs and comments.
void skip_space(literal_reader& in) {
  while (in.at < in.text.size()) {
    const char c = in.text[in.at];
    if (c == '#') {
      in.at = std::min(in.text.find('\n', in.at), in.text.size());
    } else if (c == '\\' || std::isspace(static_cast<unsigned char>(c))) {
      ++in.at;
    } else {
      return;
    }
  }
}

bool accept(literal_reader& in, char wanted) {
  skip_space(in);
  if (in.peek() != wanted) return false;
  ++in.at;
  return true;
}

std::string_view take_name(literal_reader& in) {
  const std::size_t from = in.at;
  while (is_name_character(in.peek())) ++in.at;
  return in.text.substr(from, in.at - from);
}

json take_value(literal_reader& in, int depth);

json take_number(literal_reader& in) {
  const char* from = in.text.data() + in.at;
  const char* to = in.text.data() + in.text.size();
  // from_chars knows no plus sign. It has no locale, either: the point is always a point.
  if (from < to && *from == '+') ++from;
  double value = 0;
  const auto [end, error] = std::from_chars(from, to, value);
  if (error != std::errc() || !std::isfinite(value)) return in.fail("not a number");
  in.at = static_cast<std::size_t>(end - in.text.data());
  return value;
}

json take_quoted(literal_reader& in) {
  const char quote = in.text[in.at];
  const std::size_t end = in.text.find(quote, in.at + 1);
  if (end == std::string_view::npos) return in.fail("a text without an end");
  json value = std::string(in.text.substr(in.at + 1, end - in.at - 1));
  in.at = end + 1;
  return value;
}

// Elements up to the closing bracket.
json take_elements(literal_reader& in, char close, int depth) {
  json list = json::array();
  while (!in.failed() && !accept(in, close)) {
    list.push_back(take_value(in, depth + 1));
    // Over the whole text, so that nesting does not get round it.
    if (++in.n_elements > most_elements) return in.fail("too many elements");
    if (!accept(in, ',') && (skip_space(in), in.peek() != close)) {
      return in.fail("a comma or an end is missing");
    }
  }
  return list;
}

std::string key_text(const json& key) {
  if (key.is_string()) return key.get<std::string>();
  return key.is_number() ? fmt::format("{}", key.get<double>()) : std::string();
}

json take_dictionary(literal_reader& in, int depth) {
  json values = json::object();
  while (!in.failed() && !accept(in, '}')) {
    const json key = take_value(in, depth + 1);
    if (!accept(in, ':')) return in.fail("a colon is missing");
    values[key_text(key)] = take_value(in, depth + 1);
    if (++in.n_elements > most_elements) return in.fail("too many elements");
    if (!accept(in, ',') && (skip_space(in), in.peek() != '}')) {
      return in.fail("a comma or an end is missing");
    }
  }
  return values;
}

json make_range(literal_reader& in, const json& arguments) {
  double bounds[3] = {0, 0, 1};  // from, to, step
  const std::size_t n = arguments.size();
  if (n < 1 || n > 3) return in.fail("a range has one to three numbers");
  for (std::size_t i = 0; i < n; ++i) {
    if (!arguments[i].is_number()) return in.fail("a range has one to three numbers");
    const double bound = std::trunc(arguments[i].get<double>());
    // Beyond 2^53 a step of one would not lead anywhere.
    constexpr double largest = 1e9;
    if (std::abs(bound) > largest) return in.fail("a number of a range is too large");
    // A single number is where the range ends.
    bounds[n == 1 ? 1 : i] = bound;
  }
  // Before the list is made, which a hostile range would fill the memory with.
  if (bounds[2] == 0 || std::abs((bounds[1] - bounds[0]) / bounds[2]) > most_elements) {
    return in.fail("too many elements");
  }
  json list = json::array();
  for (double v = bounds[0]; bounds[2] > 0 ? v < bounds[1] : v > bounds[1]; v += bounds[2]) {
    list.push_back(v);
  }
  // Counted with all others: many short ranges make a long list.
  in.n_elements += list.size();
  if (in.n_elements > most_elements) return in.fail("too many elements");
  return list;
}

json take_word(literal_reader& in, int depth) {
  const std::string_view name = take_name(in);
  if (name == "None") return nullptr;
  if (name == "True" || name == "False") return name == "True";
  if (name != "list" && name != "range") {
    return in.fail(fmt::format("{} is not a literal", name));
  }
  if (!accept(in, '(')) return in.fail("a bracket is missing");
  const json arguments = take_elements(in, ')', depth);
  if (in.failed()) return nullptr;
  if (name == "range") return make_range(in, arguments);
  if (arguments.empty()) return json::array();
  return arguments.size() == 1 && arguments[0].is_array() ? arguments[0]
                                                          : in.fail("not a list of elements");
}

// A tuple, or an expression in brackets.
json take_bracketed(literal_reader& in, int depth) {
  const std::size_t from = in.at;
  json list = take_elements(in, ')', depth);
  if (in.failed() || list.size() != 1) return list;
  // A comma before the bracket makes a tuple of a single element.
  std::size_t last = in.at - 2;
  while (last > from && std::isspace(static_cast<unsigned char>(in.text[last]))) --last;
  return in.text[last] == ',' ? list : json(list[0]);
}

json take_term(literal_reader& in, int depth) {
  skip_space(in);
  const char c = in.peek();
  // Before the next level is entered.
  if (depth > deepest) return in.fail("nested too deeply");
  if (accept(in, '[')) return take_elements(in, ']', depth);
  if (accept(in, '(')) return take_bracketed(in, depth);
  if (accept(in, '{')) return take_dictionary(in, depth);
  if (c == '\'' || c == '"') return take_quoted(in);
  if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') return take_word(in, depth);
  return take_number(in);
}

// A term, or lists joined by plus signs.
json take_value(literal_reader& in, int depth) {
  json value = take_term(in, depth);
  while (!in.failed() && value.is_array() && accept(in, '+')) {
    const json more = take_term(in, depth);
    if (!more.is_array()) return in.fail("only lists can be joined");
    for (const json& element : more) value.push_back(element);
  }
  return value;
}

}  // namespace

bool parse_literal_assignments(std::string_view text, json& values, std::string& problem) {
  literal_reader in{text, 0, 0, {}};
  values = json::object();
  skip_space(in);
  while (in.at < text.size() && !in.failed()) {
    const std::string name(take_name(in));
    if (name.empty() || !accept(in, '=')) {
      in.fail("not an assignment of a literal");
      break;
    }
    values[name] = take_value(in, 0);
    // Ends a statement where a line does not.
    accept(in, ';');
    skip_space(in);
  }
  problem = in.problem;
  return !in.failed();
}

}  // namespace kestrelvane
