#include "recording/formats/hdf/hdf_scaling.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "recording/formats/hdf/hdf_text.h"
#include "session/limits.h"

namespace kestrelvane {

namespace {

constexpr hsize_t info_row_limit = channel_limit;
constexpr std::size_t compared_rows = 252;
constexpr double largest_scale = 1000;  // µV/bit that the dialog accepts
// Fine enough for any amplifier, and 16 bits then hold 3.2 mV either way.
constexpr double floating_point_scale = 0.1;

struct info_row {
  double tick = 0, factor = 0, exponent = 0, ad_zero = 0, row = 0;
};

// The members that are used, by name, with ADZero and RowIndex only where a file has them.
bool make_row_type(hid_t file_type, hdf_id& memory) {
  struct member {
    const char* name;
    std::size_t offset;
    bool needed;
  };
  static constexpr member members[] = {
      {"Tick", offsetof(info_row, tick), true},
      {"ConversionFactor", offsetof(info_row, factor), true},
      {"Exponent", offsetof(info_row, exponent), true},
      {"ADZero", offsetof(info_row, ad_zero), false},
      {"RowIndex", offsetof(info_row, row), false},
  };
  memory = hdf_id(H5Tcreate(H5T_COMPOUND, sizeof(info_row)));
  if (!memory.ok()) return false;
  for (const member& m : members) {
    const int index = H5Tget_member_index(file_type, m.name);
    const H5T_class_t kind =
        index < 0 ? H5T_NO_CLASS : H5Tget_member_class(file_type, static_cast<unsigned>(index));
    const bool usable = kind == H5T_INTEGER || kind == H5T_FLOAT;
    // Optional members are left out where they are of another kind.
    if (!usable && m.needed) return false;
    if (usable && H5Tinsert(memory, m.name, m.offset, H5T_NATIVE_DOUBLE) < 0) return false;
  }
  return true;
}

// The rows of an InfoChannel dataset; none when it is not of that kind.
std::vector<info_row> read_info_rows(hdf_file& in, const std::string& place) {
  const hdf_id dataset = open_hdf_dataset(in, place);
  if (!dataset.ok()) return {};
  const hdf_id type(H5Dget_type(dataset));
  const hdf_id space(H5Dget_space(dataset));
  hdf_id row_type;
  if (!type.ok() || !space.ok() || H5Tget_class(type) != H5T_COMPOUND ||
      H5Sget_simple_extent_ndims(space) != 1 || H5Tget_size(type) > 65536 ||
      !make_row_type(type, row_type)) {
    return {};
  }
  hsize_t n = 0;
  H5Sget_simple_extent_dims(space, &n, nullptr);
  // Rows beyond the limit could stand for no channel.
  n = std::min(n, info_row_limit);
  const hsize_t start = 0;
  const hdf_id memory_space(H5Screate_simple(1, &n, nullptr));
  std::vector<info_row> rows(static_cast<std::size_t>(n));
  // Without a number of its own a row stands for the row of its place.
  for (std::size_t i = 0; i < rows.size(); ++i) rows[i].row = static_cast<double>(i);
  if (n == 0 || !memory_space.ok() ||
      H5Sselect_hyperslab(space, H5S_SELECT_SET, &start, nullptr, &n, nullptr) < 0 ||
      H5Dread(dataset, row_type, memory_space, space, H5P_DEFAULT, rows.data()) < 0) {
    return {};
  }
  return rows;
}

double scale_of(const info_row& row) { return row.factor * std::pow(10.0, row.exponent + 6); }

void note_ad_zero(hdf_scaling& scaling, const std::vector<info_row>& rows) {
  const auto zero = [](const info_row& row) { return row.ad_zero == 0; };
  if (std::all_of(rows.begin(), rows.end(), zero)) return;
  // By the number of the row, and not by its place in the list.
  scaling.ad_zero.assign(rows.size(), 0.0);
  for (const info_row& row : rows) {
    const auto n = static_cast<double>(rows.size());
    if (row.row >= 0 && row.row < n)
      scaling.ad_zero[static_cast<std::size_t>(row.row)] = row.ad_zero;
  }
}

void apply_info_channel(hdf_scaling& scaling, const std::string& place,
                        const std::vector<info_row>& rows) {
  const info_row& first = rows.front();
  scaling.info_channel = place;
  // Held to two seconds; what is below a microsecond is no rate.
  const auto tick = static_cast<std::int64_t>(std::clamp(first.tick, 0.0, 2e6));
  if (tick > 0) {
    scaling.has_rate = true;
    scaling.rate = static_cast<double>(1000000 / tick);
  }
  const double scale = scale_of(first);
  if (std::isfinite(scale)) {
    scaling.has_scale = true;
    scaling.scale = scale;
    scaling.uv_per_value = scale;
  }
  const std::size_t n = std::min(rows.size(), compared_rows);
  for (std::size_t i = 1; i < n; ++i) {
    if (scale_of(rows[i]) != scale) scaling.variable_gains = true;
  }
  note_ad_zero(scaling, rows);
}

std::vector<double> read_channel_conversion(hdf_file& in, const std::string& place) {
  if (kind_of_hdf_object(in, place) != hdf_kind::dataset) return {};
  const hdf_id dataset = open_hdf_dataset(in, place);
  if (!dataset.ok()) return {};
  const hdf_id space(H5Dget_space(dataset));
  const hdf_id type(H5Dget_type(dataset));
  hsize_t n = 0;
  if (!space.ok() || !type.ok() || H5Tget_class(type) != H5T_FLOAT ||
      H5Sget_simple_extent_ndims(space) != 1 || H5Sget_simple_extent_dims(space, &n, nullptr) < 0 ||
      n == 0 || n > channel_limit) {
    return {};
  }
  std::vector<double> values(static_cast<std::size_t>(n));
  if (H5Dread(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()) < 0) {
    return {};
  }
  const auto usable = [](double v) { return std::isfinite(v) && v != 0; };
  // A single bad factor spoils the list: channels would differ by it.
  return std::all_of(values.begin(), values.end(), usable) ? values : std::vector<double>();
}

H5T_class_t class_of_dataset(hdf_file& in, const std::string& place) {
  const hdf_id dataset = open_hdf_dataset(in, place);
  if (!dataset.ok()) return H5T_NO_CLASS;
  const hdf_id type(H5Dget_type(dataset));
  return type.ok() ? H5Tget_class(type) : H5T_NO_CLASS;
}

// The mean rate of a dataset of times in seconds, from its first and last.
bool rate_of_timestamps(hdf_file& in, const std::string& place, double& rate) {
  if (kind_of_hdf_object(in, place) != hdf_kind::dataset) return false;
  const hdf_id dataset = open_hdf_dataset(in, place);
  if (!dataset.ok()) return false;
  const hdf_id space(H5Dget_space(dataset));
  const hdf_id type(H5Dget_type(dataset));
  hsize_t n = 0;
  if (!space.ok() || !type.ok() || H5Tget_class(type) != H5T_FLOAT ||
      H5Sget_simple_extent_ndims(space) != 1 || H5Sget_simple_extent_dims(space, &n, nullptr) < 0 ||
      // Two values are enough, but a chunk of a hostile file may be huge.
      n < 2 || !cheap_to_look_at(dataset)) {
    return false;
  }
  const hsize_t ends[2] = {0, n - 1}, two = 2;
  double times[2] = {};
  const hdf_id memory_space(H5Screate_simple(1, &two, nullptr));
  if (!memory_space.ok() || H5Sselect_elements(space, H5S_SELECT_SET, 2, ends) < 0 ||
      H5Dread(dataset, H5T_NATIVE_DOUBLE, memory_space, space, H5P_DEFAULT, times) < 0) {
    return false;
  }
  rate = static_cast<double>(n - 1) / (times[1] - times[0]);
  return std::isfinite(rate) && rate > 0;
}

// The attributes of a dataset of voltages and what stands beside it.
void apply_attributes(hdf_scaling& scaling, hdf_file& in, const std::string& dataset,
                      const std::string& group) {
  if (read_hdf_number(in, dataset, "conversion", scaling.conversion)) {
    scaling.has_conversion = std::isfinite(scaling.conversion) && scaling.conversion != 0;
  } else {
    // Without a factor the unit may tell: values in volts need none.
    scaling.has_conversion = read_hdf_text(in, dataset, "unit") == "volts";
  }
  if (!scaling.has_conversion) {
    scaling.conversion = 1;
    return;
  }
  if (!read_hdf_number(in, dataset, "offset", scaling.offset) || !std::isfinite(scaling.offset)) {
    scaling.offset = 0;
  }
  scaling.channel_conversion =
      read_channel_conversion(in, hdf_place_below(group, "channel_conversion"));
  const double gain = scaling.channel_conversion.empty() ? 1 : scaling.channel_conversion.front();
  scaling.uv_per_value = scaling.conversion * gain * 1e6;
  scaling.has_scale = true;
  scaling.scale = scaling.uv_per_value;
  const bool usable = scaling.scale > 0 && scaling.scale <= largest_scale;
  // A scale beyond what the dialog takes is one of floats in volts: they get one that fits.
  if (!usable && class_of_dataset(in, dataset) == H5T_FLOAT) scaling.scale = floating_point_scale;
}

}  // namespace

hdf_scaling find_hdf_scaling(hdf_file& in, const std::string& place) {
  hdf_scaling scaling;
  const bool is_dataset = kind_of_hdf_object(in, place) == hdf_kind::dataset;
  const std::string group = is_dataset ? hdf_place_above(place) : place;
  const std::string dataset = is_dataset ? place : hdf_place_below(place, "data");
  const std::string info = hdf_place_below(group, "InfoChannel");
  if (kind_of_hdf_object(in, info) == hdf_kind::dataset) {
    const std::vector<info_row> rows = read_info_rows(in, info);
    if (!rows.empty()) apply_info_channel(scaling, info, rows);
  }
  // One source is enough, and this one is of the recorder itself.
  if (!scaling.info_channel.empty()) return scaling;
  const std::string start = hdf_place_below(group, "starting_time");
  if (kind_of_hdf_object(in, start) == hdf_kind::dataset) {
    scaling.has_rate = read_hdf_number(in, start, "rate", scaling.rate);
  }
  if (!scaling.has_rate) {
    scaling.has_rate = rate_of_timestamps(in, hdf_place_below(group, "timestamps"), scaling.rate);
  }
  if (is_dataset || kind_of_hdf_object(in, dataset) == hdf_kind::dataset) {
    apply_attributes(scaling, in, dataset, group);
  }
  return scaling;
}

std::string hdf_rate_text(const hdf_scaling& scaling) {
  return scaling.has_rate ? fmt::format("{:.12g}", scaling.rate) : std::string();
}

std::string hdf_scale_text(const hdf_scaling& scaling) {
  return scaling.has_scale ? fmt::format("{:.9g}", scaling.scale) : std::string();
}

}  // namespace kestrelvane
