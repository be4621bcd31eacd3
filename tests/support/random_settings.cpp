#include "support/random_settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "session/settings_table.h"

namespace kestrelvane::test {

namespace {

double part(std::mt19937& random) { return static_cast<double>(random()) / 4294967296.0; }

// Between a quarter of the default and four times it; a default of 0 stands for 1.
double near_default(const setting_row& row, std::int32_t element, std::mt19937& random) {
  const double usual = row.default_of(element) == 0 ? 1 : row.default_of(element);
  return usual * std::exp2(4 * part(random) - 2);
}

double draw_value(const setting_row& row, std::int32_t element, std::mt19937& random) {
  double value = 0;
  const auto kind = random() % 10;
  if (row.high - row.low <= 20) {
    value = row.low + (row.high - row.low) * part(random);  // lists and switches: any of them
    if (kind == 0) value = random() % 2 == 0 ? row.low : row.high;
  } else if (kind < 8) {
    value = near_default(row, element, random);
  } else if (kind < 9) {
    // By the order of its size: most of a wide range lies in its last decade.
    value = row.low + std::expm1(part(random) * std::log1p(row.high - row.low));
  } else {
    value = random() % 2 == 0 ? row.low : row.high;
  }
  return std::clamp(value, row.low, row.high);
}

}  // namespace

std::string draw_settings(session_state& session, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::string drawn;
  for (const setting_row& row : settings_table()) {
    const bool is_of_sort =
        row.group == setting_group::parameters || row.group == setting_group::strategy;
    if (row.address == nullptr || !is_of_sort || row.count != 1) continue;
    if (random() % 5 != 0) continue;
    const double value = draw_value(row, 0, random);
    std::string text = row.type == setting_type::real ? fmt::format("{}", static_cast<float>(value))
                                                      : fmt::format("{}", std::llround(value));
    std::string problem;
    // Two that do not go together stay as they are.
    if (set_setting(session, row.name, text, problem))
      drawn += fmt::format("{}={}\n", row.name, text);
  }
  return drawn;
}

}  // namespace kestrelvane::test
