#include "recording/formats/spikeglx/spikeglx_meta.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <span>

#include "files/text_lines.h"
#include "session/limits.h"

namespace kestrelvane {

namespace {

// --- text to values

// Every number of a text, whatever stands between; "2020-11-03T10:35" has five.
number_group numbers_in(std::string_view text) {
  number_group numbers;
  while (!text.empty()) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    // A number too large for a float is passed over like a word.
    if (error == std::errc() && std::isfinite(value)) {
      numbers.push_back(value);
      text.remove_prefix(static_cast<std::size_t>(end - text.data()));
      if (!text.empty()) text.remove_prefix(1);  // what separates, a minus between dates too
    } else {
      text.remove_prefix(1);
    }
  }
  return numbers;
}

double number_or(std::string_view text, double otherwise) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && std::isfinite(value) ? value : otherwise;
}

std::int32_t whole_or(std::string_view text, std::int32_t otherwise) {
  const double value = number_or(text, otherwise);
  // What no integer holds is not taken.
  return std::abs(value) <= 1e9 ? static_cast<std::int32_t>(value) : otherwise;
}

std::int32_t whole_at(const number_group& group, std::size_t i) {
  return i < group.size() && std::abs(group[i]) <= 1e9 ? static_cast<std::int32_t>(group[i]) : 0;
}

// The numbers of each "(...)". A header may begin with a part number as a word; it is
// taken out first so that its digits are not taken for a field.
std::vector<number_group> bracket_groups(std::string_view text) {
  // As many as channels and one header, whatever the file has.
  constexpr std::size_t most_groups = channel_limit + 1;
  std::vector<number_group> groups;
  while (groups.size() < most_groups) {
    const std::size_t open = text.find('(');
    const std::size_t close = text.find(')', open);
    if (open == std::string_view::npos || close == std::string_view::npos) break;
    std::string_view inside = text.substr(open + 1, close - open - 1);
    const bool is_word = !inside.empty() && ((inside[0] >= 'A' && inside[0] <= 'Z') ||
                                             (inside[0] >= 'a' && inside[0] <= 'z'));
    if (is_word) inside.remove_prefix(std::min(inside.find(','), inside.size()));
    groups.push_back(numbers_in(inside));
    text.remove_prefix(close + 1);
  }
  return groups;
}

record_start start_of(std::string_view text) {
  // The minus between the parts of a date is no sign.
  std::string plain(text);
  std::replace(plain.begin(), plain.end(), '-', ' ');
  const number_group n = numbers_in(plain);
  if (n.size() < 6) return {};
  return {whole_at(n, 0), whole_at(n, 1), whole_at(n, 2),
          whole_at(n, 3), whole_at(n, 4), whole_at(n, 5)};
}

void take_counts(spikeglx_meta& meta, std::string_view value) {
  const number_group counts = numbers_in(value);
  meta.has_counts = !counts.empty();
  meta.n_ap = whole_at(counts, 0);
  meta.n_lf = whole_at(counts, 1);
}

void take_key(spikeglx_meta& meta, std::string_view key, std::string_view value) {
  if (key == "fileCreateTime") meta.created = start_of(value);
  if (key == "fileSizeBytes") {
    // Held to what the cast can take.
    meta.n_file_bytes = static_cast<std::int64_t>(std::clamp(number_or(value, 0), 0.0, 9e18));
  }
  if (key == "nSavedChans") meta.n_saved_channels = whole_or(value, 0);
  if (key == "typeThis") meta.stream = value;
  if (key == "snsApLfSy") take_counts(meta, value);
  if (key == "acqApLfSy") meta.n_acquired_ap = whole_or(value, 0);
  if (key == "imSampRate") meta.sampling_frequency = number_or(value, 0);
  if (key == "imAiRangeMax") meta.range_max = number_or(value, 0);
  if (key == "imMaxInt") meta.largest_value = whole_or(value, 0);
  if (key == "imDatPrb_pn") meta.part_number = value;
  if (key == "imDatPrb_type") meta.probe_type = whole_or(value, -1);
  if (key == "snsSaveChanSubset") meta.first_channel = whole_or(value, 0);
  if (key == "imChan0apGain") meta.first_ap_gain = number_or(value, 0);
  if (key == "imChan0lfGain") meta.first_lf_gain = number_or(value, 0);
  if (key == "~imroTbl") meta.readout = bracket_groups(value);
  if (key == "~snsShankMap") meta.shank_map = bracket_groups(value);
  if (key == "~snsGeomMap") meta.geometry_map = bracket_groups(value);
}

// --- what is known of the probes

// Where the sites of a shank lie, counted row by row from the lowest, µm.
struct site_layout {
  std::int32_t columns;
  double even, odd;  // first column of even and odd rows, from the left edge of the shank
  double column_pitch, row_pitch, shank_pitch;
};

constexpr site_layout staggered_70{2, 27, 11, 32, 20, 0};
constexpr site_layout linear_70{2, 27, 27, 32, 20, 0};
constexpr site_layout staggered_125{2, 27, 11, 87, 20, 0};
constexpr site_layout linear_125{2, 11, 11, 103, 20, 0};
constexpr site_layout dense_70{8, 14, 14, 6, 6, 0};
constexpr site_layout two_70{2, 27, 27, 32, 15, 250};

struct probe_part {
  std::string_view number;
  const site_layout& layout;
};

// Probes of different layouts share a type; the part number tells them apart.
constexpr probe_part parts[] = {
    {"PRB_1_4_0480_1", staggered_70},
    {"PRB_1_4_0480_1_C", staggered_70},
    {"PRB_1_2_0480_2", staggered_70},
    {"NP1010", staggered_70},
    {"NP1011", staggered_70},
    {"NP1012", staggered_70},
    {"NP1013", staggered_70},
    {"NP1015", linear_70},
    {"NP1016", linear_70},
    {"NP1017", linear_70},
    {"NP1020", staggered_125},
    {"NP1021", staggered_125},
    {"NP1022", linear_125},
    {"NP1030", staggered_125},
    {"NP1031", staggered_125},
    {"NP1032", linear_125},
    {"NP1033", linear_125},
    {"NP1100", dense_70},
    {"PRB2_1_2_0640_0", two_70},
    {"PRB2_4_2_0640_0", two_70},
    {"NP2000", two_70},
    {"NP2003", two_70},
    {"NP2004", two_70},
    {"NP2010", two_70},
    {"NP2013", two_70},
    {"NP2014", two_70},
    {"NP2020", two_70},
    {"NP2021", two_70},
};

// What the type alone tells.
struct probe_kind {
  std::span<const std::int32_t> types;
  std::int32_t largest_value;  // of the converter
  double fixed_gain;           // 0: per channel, in the readout table
  const site_layout* layout;   // null: the sites are not known
};

constexpr std::int32_t one_types[] = {0};
constexpr std::int32_t one_linear_types[] = {1015, 1016};
constexpr std::int32_t one_wide_types[] = {1020, 1021};
constexpr std::int32_t one_dense_types[] = {1100};
constexpr std::int32_t one_other_types[] = {1022, 1030, 1031, 1032, 1033, 1120,
                                            1121, 1122, 1123, 1200, 1300};
constexpr std::int32_t two_first_types[] = {21, 24};
constexpr std::int32_t two_types[] = {2003, 2004, 2005, 2006, 2013, 2014, 2020, 2021};
constexpr probe_kind kinds[] = {
    {one_types, 512, 0, &staggered_70},       {one_linear_types, 512, 0, &linear_70},
    {one_wide_types, 512, 0, &staggered_125}, {one_dense_types, 512, 0, &dense_70},
    {one_other_types, 512, 0, nullptr},       {two_first_types, 8192, 80, &two_70},
    {two_types, 2048, 100, &two_70},
};

// Phase 3A names no type; its readout table begins with three numbers.
bool is_phase_3a(const spikeglx_meta& meta) {
  return meta.probe_type < 0 && !meta.readout.empty() && meta.readout[0].size() == 3;
}

std::int32_t type_of(const spikeglx_meta& meta) {
  if (is_phase_3a(meta)) return 0;
  if (meta.probe_type < 0 && !meta.readout.empty() && meta.readout[0].size() == 2) {
    // Without a key of its own the type may stand at the head of the table.
    return whole_at(meta.readout[0], 0);
  }
  return meta.probe_type;
}

const probe_kind* find_kind(const spikeglx_meta& meta) {
  const std::int32_t type = type_of(meta);
  for (const probe_kind& kind : kinds) {
    if (std::find(kind.types.begin(), kind.types.end(), type) != kind.types.end()) return &kind;
  }
  return nullptr;
}

// The layout by the part number, or by the type where that is none of the table; by tells
// which. Null when neither tells.
const site_layout* find_layout(const spikeglx_meta& meta, std::string& by) {
  for (const probe_part& part : parts) {
    if (part.number != meta.part_number) continue;
    by = "part number " + meta.part_number;
    return &part.layout;
  }
  by = is_phase_3a(meta) ? "the readout table of phase 3A"
                         : "probe type " + std::to_string(type_of(meta));
  by += meta.part_number.empty() ? ", without a part number"
                                 : ", part number " + meta.part_number + " being unknown";
  const probe_kind* kind = find_kind(meta);
  return kind == nullptr ? nullptr : kind->layout;
}

constexpr std::int32_t ultra_high_density = 1110;  // one gain for all, in the table's header

// Gain of the first saved channel; 0 when it is not told.
double first_gain(const spikeglx_meta& meta, const probe_kind* kind) {
  const double named = meta.is_lf() ? meta.first_lf_gain : meta.first_ap_gain;
  if (meta.readout.empty()) return 0;
  if (whole_at(meta.readout[0], 0) == ultra_high_density && meta.readout[0].size() >= 5) {
    return meta.readout[0][meta.is_lf() ? 4 : 3];
  }
  // A gain that the file names is that of the recording, the table's that of the kind.
  if (kind != nullptr && kind->fixed_gain > 0) return named > 0 ? named : kind->fixed_gain;
  std::int32_t channel = meta.first_channel;
  // LF channels are numbered on from the AP channels.
  if (meta.is_lf() && channel >= meta.n_acquired_ap) channel -= meta.n_acquired_ap;
  for (std::size_t i = 1; i < meta.readout.size(); ++i) {
    const number_group& entry = meta.readout[i];
    if (entry.size() >= 5 && whole_at(entry, 0) == channel) return entry[meta.is_lf() ? 4 : 3];
  }
  return named;
}

std::vector<probe_site> sites_of_geometry_map(const spikeglx_meta& meta) {
  std::vector<probe_site> sites;
  const std::vector<number_group>& map = meta.geometry_map;
  // The part number is gone from the header: shanks, pitch, width.
  const double pitch = map.empty() || map[0].size() < 2 ? 0 : map[0][1];
  for (std::size_t i = 1; i < map.size(); ++i) {
    // A list with a short entry is of a kind that is not known.
    if (map[i].size() < 3) return {};
    sites.push_back({map[i][0] * pitch + map[i][1], map[i][2]});
  }
  return sites;
}

std::vector<probe_site> sites_of_shank_map(const spikeglx_meta& meta, const site_layout& layout) {
  std::vector<probe_site> sites;
  const std::vector<number_group>& map = meta.shank_map;
  // Shanks, columns, rows of the map, which need not be those of the probe: some are written as
  // if every probe had two columns. Only the count of sites from the lowest is the same.
  const std::int32_t map_columns = map.empty() ? 0 : whole_at(map[0], 1);
  if (map_columns < 1) return {};
  for (std::size_t i = 1; i < map.size(); ++i) {
    const number_group& entry = map[i];
    if (entry.size() < 3) return {};
    const std::int32_t shank = whole_at(entry, 0), column = whole_at(entry, 1);
    const std::int64_t row = whole_at(entry, 2);
    if (column < 0 || column >= map_columns || row < 0) return {};
    const std::int64_t site = row * map_columns + column;
    const std::int64_t site_row = site / layout.columns;
    const double first = site_row % 2 == 0 ? layout.even : layout.odd;
    sites.push_back({shank * layout.shank_pitch + first +
                         static_cast<double>(site % layout.columns) * layout.column_pitch,
                     static_cast<double>(site_row) * layout.row_pitch});
  }
  return sites;
}

}  // namespace

bool read_meta_file(const std::string& path, spikeglx_meta& meta) {
  text_lines lines;
  if (!load_text(lines, path)) return false;
  std::string_view line;
  while (next_line(lines, line)) {
    const std::size_t equals = line.find('=');
    // Only the first equals sign counts: values may have their own.
    if (equals == std::string_view::npos) continue;
    take_key(meta, line.substr(0, equals), line.substr(equals + 1));
  }
  return true;
}

std::optional<double> exact_scale(const spikeglx_meta& meta) {
  const probe_kind* kind = find_kind(meta);
  double largest = meta.largest_value;
  if (largest <= 0 && kind != nullptr) largest = kind->largest_value;
  const double gain = first_gain(meta, kind);
  // Any of the three missing leaves the scale unknown.
  if (largest <= 0 || gain <= 0 || meta.range_max <= 0) return std::nullopt;
  return 1e6 * meta.range_max / largest / gain;
}

std::vector<probe_site> list_probe_sites(const spikeglx_meta& meta, std::string& origin) {
  origin = "~snsGeomMap";
  std::vector<probe_site> sites = sites_of_geometry_map(meta);
  if (!sites.empty()) return sites;
  std::string by;
  const site_layout* layout = find_layout(meta, by);
  origin = "~snsShankMap, by " + by;
  return layout == nullptr ? std::vector<probe_site>{} : sites_of_shank_map(meta, *layout);
}

}  // namespace kestrelvane
