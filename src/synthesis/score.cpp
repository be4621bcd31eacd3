#include "synthesis/score.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "session/session_state.h"

namespace kestrelvane {

namespace {

constexpr double half = 0.5;
constexpr double four_fifths = 0.8;

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

template <typename Number>
bool read_number(std::string_view text, Number& number) {
  text = trimmed(text);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  // The whole field must be the number.
  return error == std::errc() && end == text.data() + text.size();
}

std::vector<std::string_view> fields_of(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    const std::size_t comma = line.find(',');
    fields.push_back(line.substr(0, comma));
    if (comma == std::string_view::npos) return fields;
    line.remove_prefix(comma + 1);
  }
}

bool read_text(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// take(fields, line number) for each line with something on it; stops at false.
template <typename Take>
bool walk_lines(std::string_view text, Take&& take) {
  for (std::int64_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, end));
    if (!line.empty() && !take(fields_of(line), number)) return false;
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return true;
}

bool read_spike(const std::vector<std::string_view>& fields, spike_list::spike& spike) {
  spike.channel = 0;
  // Two fields are enough; the channel is for the table alone.
  return fields.size() >= 2 && read_number(fields[0], spike.time) && std::isfinite(spike.time) &&
         read_number(fields[1], spike.unit) && spike.unit >= 0 &&
         (fields.size() < 3 || read_number(fields[2], spike.channel));
}

struct unit_train {
  std::int32_t unit, channel;
  std::vector<double> times;
};

// Trains in ascending order of unit, times ascending.
std::vector<unit_train> trains_of(const spike_list& list) {
  std::map<std::int32_t, unit_train> trains;
  std::map<std::int32_t, std::map<std::int32_t, std::int32_t>> channels;
  for (const spike_list::spike& s : list.spikes) {
    trains[s.unit].times.push_back(s.time);
    ++channels[s.unit][s.channel];
  }
  std::vector<unit_train> result;
  for (auto& [unit, train] : trains) {
    std::sort(train.times.begin(), train.times.end());
    const auto& of_unit = channels[unit];
    train.unit = unit;
    // The first of equal ones, which is the lowest channel.
    train.channel = std::max_element(of_unit.begin(), of_unit.end(), [](auto& a, auto& b) {
                      return a.second < b.second;
                    })->first;
    result.push_back(std::move(train));
  }
  return result;
}

double agreement(std::size_t n_a, std::size_t n_b, std::int32_t n_matches) {
  const double either = static_cast<double>(n_a + n_b) - n_matches;
  // Two trains without any spike agree in nothing.
  return either > 0 ? n_matches / either : 0;
}

double ratio(std::int32_t part, std::int32_t whole) {
  return whole > 0 ? static_cast<double>(part) / whole : 0;
}

std::string units_path(const std::string& truth_path) {
  constexpr std::string_view ending = ".truth.csv";
  if (!truth_path.ends_with(ending)) return {};
  return truth_path.substr(0, truth_path.size() - ending.size()) + ".units.csv";
}

void join_units_file(const std::string& path, sort_score& score) {
  std::string text;
  // No such file: the score is told without amplitudes.
  if (path.empty() || !read_text(path, text)) return;
  struct unit_values {
    double amplitude_uv, rate_hz, snr = 0;
  };
  std::map<std::int32_t, unit_values> known;
  walk_lines(text, [&](const std::vector<std::string_view>& fields, std::int64_t) {
    std::int32_t unit;
    unit_values values{};
    if (fields.size() >= 5 && read_number(fields[0], unit) &&
        read_number(fields[3], values.amplitude_uv) && read_number(fields[4], values.rate_hz)) {
      // Only some makers tell the last.
      if (fields.size() < 6 || !read_number(fields[5], values.snr)) values.snr = 0;
      known[unit] = values;
    }
    return true;
  });
  for (unit_score& u : score.units) {
    const auto found = known.find(u.unit);
    if (found == known.end()) continue;
    u.amplitude_uv = found->second.amplitude_uv;
    u.rate_hz = found->second.rate_hz;
    u.snr = found->second.snr;
    score.has_amplitudes = true;
  }
}

bool tells_noise(const sort_score& score) { return score.has_amplitudes && score.noise_uv > 0; }

// The first line says what is counted; of the others only those with units are told.
std::string band_lines(const sort_score& score) {
  std::string text;
  for (const score_band& band : count_in_bands(score)) {
    std::string where = fmt::format("{} to {} times", band.from, band.to);
    if (std::isinf(band.to)) where = fmt::format("{} or more times above", band.from);
    if (band.from == 0) where = fmt::format("below {} times", band.to);
    const bool first = text.empty();
    // The first band has the words that the others go without.
    if (!first && band.n_units == 0) continue;
    text += fmt::format("{}{}: {} of {}{}\n", where, first ? " the noise" : "",
                        band.n_above_four_fifths, band.n_units,
                        first ? " units with accuracy 0.8 or better" : "");
  }
  return text;
}

nlohmann::json band_json(const sort_score& score) {
  nlohmann::json bands = nlohmann::json::array();
  for (const score_band& band : count_in_bands(score)) {
    bands.push_back({{"from", band.from},
                     {"to", std::isinf(band.to) ? nlohmann::json() : nlohmann::json(band.to)},
                     {"units", band.n_units},
                     {"above_0.8", band.n_above_four_fifths}});
  }
  return bands;
}

// One row's shortest augmenting path in the assignment of least cost. Columns and
// rows are counted from 1; row_of[0] is the row that is being placed.
struct assignment_search {
  const std::vector<double>& gains;
  std::int32_t n_rows, n_columns;
  std::vector<double> row_potential, column_potential;
  std::vector<std::int32_t> row_of, column_before;

  double cost(std::int32_t row, std::int32_t column) const {
    return -gains[std::size_t(row - 1) * n_columns + (column - 1)];
  }

  void place(std::int32_t row) {
    std::vector<double> least(n_columns + 1, std::numeric_limits<double>::infinity());
    std::vector<bool> done(n_columns + 1, false);
    row_of[0] = row;
    std::int32_t column = 0;
    // Goes from column to column until one is free.
    do {
      done[column] = true;
      const std::int32_t at_row = row_of[column];
      double step = std::numeric_limits<double>::infinity();
      std::int32_t next = 0;
      for (std::int32_t c = 1; c <= n_columns; ++c) {
        if (done[c]) continue;
        const double reduced = cost(at_row, c) - row_potential[at_row] - column_potential[c];
        // Strictly less: of equal ones the lower column.
        if (reduced < least[c]) {
          least[c] = reduced;
          column_before[c] = column;
        }
        if (least[c] < step) {
          step = least[c];
          next = c;
        }
      }
      // The potentials keep every reduced cost at 0 or above, and at 0 along the path.
      for (std::int32_t c = 0; c <= n_columns; ++c) {
        if (done[c]) {
          row_potential[row_of[c]] += step;
          column_potential[c] -= step;
        } else {
          least[c] -= step;
        }
      }
      column = next;
    } while (row_of[column] != 0);
    // Each row on the path moves to the column where the search met it.
    while (column != 0) {
      row_of[column] = row_of[column_before[column]];
      column = column_before[column];
    }
  }
};

// What each sorted unit is to the planted ones; gains by planted unit, row after row.
void classify_units(const std::vector<unit_train>& found, const std::vector<double>& gains,
                    const std::vector<std::int32_t>& partner, sort_score& score) {
  for (std::size_t k = 0; k < found.size(); ++k) {
    std::int32_t n_shared = 0;
    bool is_partner = false;
    for (std::size_t i = 0; i < partner.size(); ++i) {
      if (gains[i * found.size() + k] < shared_agreement) continue;
      ++n_shared;
      if (partner[i] == static_cast<std::int32_t>(k)) is_partner = true;
    }
    if (n_shared == 0 && found[k].times.size() >= std::size_t{false_unit_spikes}) {
      ++score.n_false_units;
    }
    if (n_shared > 0 && !is_partner) ++score.n_redundant_units;
    if (n_shared > 1) ++score.n_overmerged_units;
  }
}

}  // namespace

bool read_spike_list(const std::string& path, spike_list& list, std::string& problem) {
  list.spikes.clear();
  std::string text;
  if (!read_text(path, text)) {
    problem = "cannot read " + path;
    return false;
  }
  const bool done = walk_lines(text, [&](const auto& fields, std::int64_t number) {
    spike_list::spike spike;
    if (read_spike(fields, spike)) {
      list.spikes.push_back(spike);
      return true;
    }
    double time;
    // A first line that begins with no number is one of titles.
    if (number == 1 && !read_number(fields[0], time)) return true;  // titles
    problem = fmt::format("{}, line {}: not a time, a unit and a channel", path, number);
    return false;
  });
  std::stable_sort(list.spikes.begin(), list.spikes.end(),
                   [](const auto& a, const auto& b) { return a.time < b.time; });
  return done;
}

std::int32_t count_matches(const std::vector<double>& a, const std::vector<double>& b,
                           double window_s) {
  // Times in files are rounded: half a unit of the last of five decimals on top.
  const double window = window_s + 0.5e-5;
  std::int32_t n = 0;
  for (std::size_t i = 0, k = 0; i < a.size() && k < b.size();) {
    // The earliest partner in reach is the best choice for two trains in order.
    if (std::fabs(a[i] - b[k]) <= window) {
      ++n, ++i, ++k;
    } else if (a[i] < b[k]) {
      ++i;
    } else {
      ++k;
    }
  }
  return n;
}

std::vector<std::int32_t> best_assignment(const std::vector<double>& gains, std::int32_t n_rows,
                                          std::int32_t n_columns) {
  std::vector<std::int32_t> column_of(n_rows, -1);
  if (n_rows > n_columns) {
    // The search needs a column for every row: turned about.
    std::vector<double> turned(gains.size());
    for (std::int32_t r = 0; r < n_rows; ++r) {
      for (std::int32_t c = 0; c < n_columns; ++c) {
        turned[std::size_t(c) * n_rows + r] = gains[std::size_t(r) * n_columns + c];
      }
    }
    const std::vector<std::int32_t> row_of = best_assignment(turned, n_columns, n_rows);
    for (std::int32_t c = 0; c < n_columns; ++c) {
      if (row_of[c] >= 0) column_of[row_of[c]] = c;
    }
    return column_of;
  }
  const std::size_t rows = n_rows + 1, columns = n_columns + 1;
  assignment_search search{gains,
                           n_rows,
                           n_columns,
                           std::vector<double>(rows, 0.0),
                           std::vector<double>(columns, 0.0),
                           std::vector<std::int32_t>(columns, 0),
                           std::vector<std::int32_t>(columns, 0)};
  for (std::int32_t row = 1; row <= n_rows; ++row) search.place(row);
  for (std::int32_t c = 1; c <= n_columns; ++c) {
    const std::int32_t row = search.row_of[c];
    // An assignment without any gain is none.
    if (row > 0 && search.cost(row, c) < 0) column_of[row - 1] = c - 1;
  }
  return column_of;
}

sort_score score_sort(const spike_list& sorted, const spike_list& truth) {
  const std::vector<unit_train> planted = trains_of(truth);
  const std::vector<unit_train> found = trains_of(sorted);
  const auto n_rows = static_cast<std::int32_t>(planted.size());
  const auto n_columns = static_cast<std::int32_t>(found.size());
  std::vector<double> gains(planted.size() * found.size());
  std::vector<std::int32_t> matches(gains.size());
  for (std::size_t i = 0; i < planted.size(); ++i) {
    for (std::size_t k = 0; k < found.size(); ++k) {
      const std::int32_t n = count_matches(planted[i].times, found[k].times, match_window_s);
      matches[i * found.size() + k] = n;
      gains[i * found.size() + k] = agreement(planted[i].times.size(), found[k].times.size(), n);
    }
  }
  const std::vector<std::int32_t> partner = best_assignment(gains, n_rows, n_columns);
  sort_score score;
  score.n_planted_spikes = static_cast<std::int32_t>(truth.spikes.size());
  score.n_sorted_spikes = static_cast<std::int32_t>(sorted.spikes.size());
  score.n_sorted_units = score.n_extra_units = n_columns;
  for (std::size_t i = 0; i < planted.size(); ++i) {
    unit_score u;
    u.unit = planted[i].unit;
    u.channel = planted[i].channel;
    u.n_planted = static_cast<std::int32_t>(planted[i].times.size());
    if (partner[i] >= 0) {
      const std::size_t at = i * found.size() + partner[i];
      u.sorted_unit = found[partner[i]].unit;
      u.n_sorted = static_cast<std::int32_t>(found[partner[i]].times.size());
      u.n_matches = matches[at];
      u.accuracy = gains[at];
      u.precision = ratio(u.n_matches, u.n_sorted);
      u.recall = ratio(u.n_matches, u.n_planted);
      --score.n_extra_units;
      score.n_matches += u.n_matches;
    }
    // Both limits belong to the better side.
    if (u.accuracy >= half) ++score.n_above_half;
    if (u.accuracy >= four_fifths) ++score.n_above_four_fifths;
    score.units.push_back(u);
  }
  classify_units(found, gains, partner, score);
  return score;
}

bool score_with_truth(const spike_list& sorted, const std::string& truth_path, sort_score& score,
                      std::string& problem) {
  spike_list truth;
  if (!read_spike_list(truth_path, truth, problem)) return false;
  score = score_sort(sorted, truth);
  join_units_file(units_path(truth_path), score);
  return true;
}

bool score_files(const std::string& sorted_path, const std::string& truth_path, sort_score& score,
                 std::string& problem) {
  spike_list sorted;
  return read_spike_list(sorted_path, sorted, problem) &&
         score_with_truth(sorted, truth_path, score, problem);
}

double median_noise_uv(const session_state& session) {
  const recording_store& r = session.recording;
  std::vector<double> noise;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) noise.push_back(double{r.chan_noise[c]} * r.vscale_HP);
  }
  if (noise.empty()) return 0;
  std::sort(noise.begin(), noise.end());
  // The same place twice when the number is odd.
  return (noise[(noise.size() - 1) / 2] + noise[noise.size() / 2]) / 2;
}

double amplitude_over_noise(const sort_score& score, const unit_score& unit) {
  return score.noise_uv > 0 ? unit.amplitude_uv / score.noise_uv : 0;
}

std::vector<score_band> count_in_bands(const sort_score& score) {
  if (!tells_noise(score)) return {};
  std::vector<score_band> bands{{10, std::numeric_limits<double>::infinity()}, {7, 10}, {0, 7}};
  for (const unit_score& u : score.units) {
    // Not every unit need be in the file of units.
    if (u.amplitude_uv <= 0) continue;
    const double height = amplitude_over_noise(score, u);
    for (score_band& band : bands) {
      // The lower end belongs to a band, the upper to the one above.
      if (height < band.from || height >= band.to) continue;
      ++band.n_units;
      if (u.accuracy >= four_fifths) ++band.n_above_four_fifths;
    }
  }
  return bands;
}

snr_count count_above_snr(const sort_score& score) {
  snr_count count;
  for (const unit_score& u : score.units) {
    if (u.snr <= 0 || u.snr < score.min_snr) continue;
    ++count.n_units;
    if (u.accuracy >= four_fifths) ++count.n_above_four_fifths;
  }
  return count;
}

std::string score_table(const sort_score& score) {
  const bool with_noise = tells_noise(score);
  std::string text = fmt::format("{:>5} {:>7} {:>7} {:>8} {:>8} {:>8}", "unit", "channel", "sorted",
                                 "planted", "events", "matches");
  if (score.has_amplitudes) text += fmt::format(" {:>8} {:>8}", "µV", "Hz");
  if (with_noise) text += fmt::format(" {:>8}", "µV/noise");
  text += fmt::format(" {:>9} {:>9} {:>9}\n", "accuracy", "precision", "recall");
  for (const unit_score& u : score.units) {
    const std::string partner = u.sorted_unit >= 0 ? std::to_string(u.sorted_unit) : "-";
    text += fmt::format("{:>5} {:>7} {:>7} {:>8} {:>8} {:>8}", u.unit, u.channel, partner,
                        u.n_planted, u.n_sorted, u.n_matches);
    if (score.has_amplitudes) text += fmt::format(" {:>8.1f} {:>8.2f}", u.amplitude_uv, u.rate_hz);
    if (with_noise) text += fmt::format(" {:>8.2f}", amplitude_over_noise(score, u));
    text += fmt::format(" {:>9.3f} {:>9.3f} {:>9.3f}\n", u.accuracy, u.precision, u.recall);
  }
  text += fmt::format(
      "{} planted units: {} with accuracy 0.8 or better, {} with 0.5 or better\n"
      "{} sorted units, {} of them without a partner; {} of {} planted spikes matched\n",
      score.units.size(), score.n_above_four_fifths, score.n_above_half, score.n_sorted_units,
      score.n_extra_units, score.n_matches, score.n_planted_spikes);
  text += fmt::format("{} false units, {} redundant, {} over-merged\n", score.n_false_units,
                      score.n_redundant_units, score.n_overmerged_units);
  if (score.min_snr > 0) {
    const snr_count count = count_above_snr(score);
    text += fmt::format("SNR {} or more: {} of {} units with accuracy 0.8 or better\n",
                        score.min_snr, count.n_above_four_fifths, count.n_units);
  }
  if (with_noise) text += fmt::format("noise {:.2f} µV\n", score.noise_uv) + band_lines(score);
  return text;
}

nlohmann::json score_json(const sort_score& score) {
  const bool with_noise = tells_noise(score);
  nlohmann::json units = nlohmann::json::array();
  for (const unit_score& u : score.units) {
    nlohmann::json one = {{"unit", u.unit},           {"channel", u.channel},
                          {"planted", u.n_planted},   {"sorted", u.n_sorted},
                          {"matches", u.n_matches},   {"accuracy", u.accuracy},
                          {"precision", u.precision}, {"recall", u.recall}};
    one["sorted_unit"] = u.sorted_unit >= 0 ? nlohmann::json(u.sorted_unit) : nlohmann::json();
    if (score.has_amplitudes) {
      one["amplitude_uv"] = u.amplitude_uv;
      one["rate_hz"] = u.rate_hz;
    }
    if (u.snr > 0) one["snr"] = u.snr;
    if (with_noise) one["amplitude_over_noise"] = amplitude_over_noise(score, u);
    units.push_back(std::move(one));
  }
  nlohmann::json all = {{"units", std::move(units)},
                        {"planted_units", score.units.size()},
                        {"sorted_units", score.n_sorted_units},
                        {"extra_units", score.n_extra_units},
                        {"planted_spikes", score.n_planted_spikes},
                        {"sorted_spikes", score.n_sorted_spikes},
                        {"matches", score.n_matches},
                        {"above_0.5", score.n_above_half},
                        {"above_0.8", score.n_above_four_fifths},
                        {"false_units", score.n_false_units},
                        {"redundant_units", score.n_redundant_units},
                        {"overmerged_units", score.n_overmerged_units}};
  if (score.min_snr > 0) {
    const snr_count count = count_above_snr(score);
    all["min_snr"] = score.min_snr;
    all["units_above_snr"] = count.n_units;
    all["above_snr_and_0.8"] = count.n_above_four_fifths;
  }
  if (with_noise) {
    all["noise_uv"] = score.noise_uv;
    all["bands"] = band_json(score);
  }
  return all;
}

}  // namespace kestrelvane
