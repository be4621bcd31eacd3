#include "recording/formats/hdf/hdf_samples.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>
#include <numeric>
#include <set>
#include <system_error>

#include "numerics/parallel.h"
#include "recording/interleaved.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// Bytes of a tile, unless one chunk is larger: small enough that what the library has just
// stored is still in the cache when it is spread.
constexpr std::uint64_t tile_bytes = 1 << 20;
// The same where tiles go straight to their place.
constexpr std::uint64_t direct_tile_bytes = 16 << 20;
// No compression that the library has makes more of a byte.
constexpr double greatest_compression = 1100;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// --- what the file can hold

// Other files that a dataset keeps its samples in.
std::set<std::string> sources_of(hid_t creation) {
  std::set<std::string> names;
  char name[4096];
  const int n_files = H5Pget_external_count(creation);
  for (int i = 0; i < n_files; ++i) {
    name[0] = '\0';
    H5Pget_external(creation, static_cast<unsigned>(i), sizeof name, name, nullptr, nullptr);
    name[sizeof name - 1] = '\0';
    names.insert(name);
  }
  std::size_t n_sources = 0;
  if (H5Pget_layout(creation) != H5D_VIRTUAL) return names;
  H5Pget_virtual_count(creation, &n_sources);
  for (std::size_t i = 0; i < n_sources; ++i) {
    if (H5Pget_virtual_filename(creation, i, name, sizeof name) < 0) continue;
    name[sizeof name - 1] = '\0';
    names.insert(name);
  }
  return names;
}

double size_of_file(const std::string& path) {
  std::error_code problem;
  const std::uintmax_t bytes = std::filesystem::file_size(path, problem);
  // A file that is not there holds nothing.
  return problem ? 0.0 : static_cast<double>(bytes);
}

double available_bytes(const hdf_file& in, hid_t creation) {
  double bytes = size_of_file(in.path);
  for (const std::string& name : sources_of(creation)) {
    bytes += size_of_file((std::filesystem::path(in.folder) / name).string());
  }
  return bytes;
}

// --- conversion

std::int16_t limited_integer(std::int64_t value, std::int64_t& n_limited) {
  const std::int64_t kept = std::clamp<std::int64_t>(value, -32768, 32767);
  n_limited += kept != value;
  return static_cast<std::int16_t>(kept);
}

// Nearest integers, halves away from zero; what is no number becomes 0. Values to whole
// numbers first, then those to 16 bits: two loops, each over lanes of one width.
template <typename ValueOf>
std::int64_t limit_values(std::int64_t n, std::int16_t* to, ValueOf&& value_of) {
  constexpr double beyond = 40000;  // outside of 16 bits, inside of 32
  constexpr std::int32_t no_number = -1'000'000'000;
  constexpr std::int64_t block = 512;
  std::int32_t whole[block];
  std::int64_t n_limited = 0;
  for (std::int64_t first = 0; first < n; first += block) {
    const std::int64_t count = std::min(block, n - first);
    for (std::int64_t i = 0; i < count; ++i) {
      // Held before it is rounded, so that the cast always has an answer.
      const double value = value_of(first + i);
      const double near = std::min(std::max(value, -beyond), beyond);
      const double rounded = near + std::copysign(0.5, near);
      // Only what is no number differs from itself.
      whole[i] = static_cast<std::int32_t>(value == value ? rounded : no_number);
    }
    std::int32_t here = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      const std::int32_t within = std::min(std::max(whole[i], -32768), 32767);
      const std::int32_t kept = whole[i] == no_number ? 0 : within;
      here += kept != whole[i];
      to[first + i] = static_cast<std::int16_t>(kept);
    }
    n_limited += here;
  }
  return n_limited;
}

template <typename T>
std::int64_t convert_unchanged(const T* values, std::int16_t* to, std::int64_t n) {
  if constexpr (std::is_floating_point_v<T>) {
    // Whole numbers wider than 16 bits are limited without a detour over floats.
    return limit_values(n, to, [values](std::int64_t i) { return double{values[i]}; });
  } else {
    std::int64_t n_limited = 0;
    for (std::int64_t i = 0; i < n; ++i) to[i] = limited_integer(values[i], n_limited);
    return n_limited;
  }
}

// One channel's values.
template <typename T>
std::int64_t convert_run(const hdf_conversion& plan, std::uint64_t channel, const T* values,
                         std::int16_t* to, std::int64_t n) {
  if (!plan.changes) return convert_unchanged(values, to, n);
  const double gain = plan.gain[channel], shift = plan.shift[channel];
  return limit_values(
      n, to, [=](std::int64_t i) { return static_cast<double>(values[i]) * gain + shift; });
}

// Values of neighbouring channels, time point after time point.
template <typename T>
std::int64_t convert_points(const hdf_conversion& plan, std::uint64_t first_channel,
                            std::uint64_t n_channels, const T* values, std::int16_t* to,
                            std::uint64_t n_points) {
  const auto n = static_cast<std::int64_t>(n_channels);
  if (!plan.changes) {
    return convert_unchanged(values, to, static_cast<std::int64_t>(n_points) * n);
  }
  const double* gain = plan.gain.data() + first_channel;
  const double* shift = plan.shift.data() + first_channel;
  std::int64_t n_limited = 0;
  for (std::uint64_t p = 0; p < n_points; ++p, values += n, to += n) {
    n_limited += limit_values(
        n, to, [=](std::int64_t i) { return static_cast<double>(values[i]) * gain[i] + shift[i]; });
  }
  return n_limited;
}

// --- tiles

struct tile {
  std::uint64_t row = 0, n_rows = 0, column = 0, n_columns = 0;
};

// A size that takes whole chunks, about as many bytes as wanted.
std::uint64_t whole_chunks(std::uint64_t wanted, std::uint64_t chunk, std::uint64_t all) {
  const std::uint64_t chunks = std::max<std::uint64_t>(wanted / chunk, 1);
  return std::min(chunks * chunk, all);
}

tile usual_tile(const hdf_layout& layout, std::uint64_t element, std::uint64_t bytes) {
  tile t;
  // A band of whole chunk rows: no chunk is unpacked twice.
  const std::uint64_t band = layout.chunk_rows * layout.columns * element;
  if (band <= bytes || layout.columns <= layout.chunk_columns) {
    t.n_columns = layout.columns;
    t.n_rows = whole_chunks(bytes / (layout.columns * element), layout.chunk_rows, layout.rows);
  } else {
    // Bands too large for memory are cut, again at whole chunks.
    t.n_rows = std::min(layout.chunk_rows, layout.rows);
    t.n_columns = whole_chunks(bytes / (t.n_rows * element), layout.chunk_columns, layout.columns);
  }
  return t;
}

struct sample_reader {
  session_state& session;
  hid_t dataset;
  const hdf_layout& layout;
  const hdf_conversion& plan;
  interleaved_channels channels;  // where each channel of the file goes
  hdf_id file_space;
  hdf_read_result result;
};

bool select_tile(sample_reader& r, const tile& t) {
  const hsize_t start[2] = {t.row, t.column}, count[2] = {t.n_rows, t.n_columns};
  return H5Sselect_hyperslab(r.file_space, H5S_SELECT_SET, start, nullptr, count, nullptr) >= 0;
}

bool read_tile(sample_reader& r, const tile& t, hid_t type, hid_t memory_space, void* to) {
  const auto start = std::chrono::steady_clock::now();
  const bool read = select_tile(r, t) &&
                    H5Dread(r.dataset, type, memory_space, r.file_space, H5P_DEFAULT, to) >= 0;
  // Taken at once: the next call of the library would overwrite it.
  if (!read) r.result.problem = hdf_read_problem(r.dataset);
  r.result.read_seconds += seconds_since(start);
  return read;
}

// Time index of the first sample of a tile.
std::int64_t first_index(const sample_reader& r, const tile& t) {
  return 1 + static_cast<std::int64_t>(r.layout.channels_first ? t.column : t.row);
}

// Rows of the file to neighbouring channels of vd, in one call of the library.
bool read_in_place(sample_reader& r, const tile& t) {
  voltage_store& vd = r.session.recording.vd;
  const auto channel = static_cast<std::int32_t>(t.row) + 1;
  std::int16_t* to = vd.channel(channel) + first_index(r, t);
  // The distance of two channels in memory is the length of a row to the library.
  const auto stride = static_cast<hsize_t>(vd.channel(2) - vd.channel(1));
  const hsize_t size[2] = {t.n_rows, stride}, start[2] = {0, 0}, count[2] = {t.n_rows, t.n_columns};
  const hdf_id memory(H5Screate_simple(2, size, nullptr));
  return memory.ok() &&
         H5Sselect_hyperslab(memory, H5S_SELECT_SET, start, nullptr, count, nullptr) >= 0 &&
         read_tile(r, t, H5T_NATIVE_INT16, memory, to);
}

template <typename T>
struct type_of;
template <>
struct type_of<std::int16_t> {
  static hid_t id() { return H5T_NATIVE_INT16; }
};
template <>
struct type_of<std::int32_t> {
  static hid_t id() { return H5T_NATIVE_INT32; }
};
template <>
struct type_of<float> {
  static hid_t id() { return H5T_NATIVE_FLOAT; }
};
template <>
struct type_of<double> {
  static hid_t id() { return H5T_NATIVE_DOUBLE; }
};

// Channels that stand row by row in a tile.
template <typename T>
void store_rows(sample_reader& r, const tile& t, const T* values) {
  std::vector<std::int64_t> limited(t.n_rows, 0);
  const std::int64_t index = first_index(r, t);
  const auto last = static_cast<std::int64_t>(t.n_rows) - 1;
  parallel_for(threads_now(r.session), 0, last, [&](std::int64_t i, std::int32_t) {
    const std::uint64_t row = t.row + static_cast<std::uint64_t>(i);
    const std::int32_t channel = r.channels.target[row];
    if (channel == 0) return;
    const auto n = static_cast<std::int64_t>(t.n_columns);
    limited[i] = convert_run(r.plan, row, values + i * n,
                             r.session.recording.vd.channel(channel) + index, n);
  });
  r.result.n_limited += std::accumulate(limited.begin(), limited.end(), std::int64_t{0});
}

// Time points that stand row by row in a tile. bits has room for one tile, and is values
// itself when there is nothing to convert.
template <typename T>
void store_points(sample_reader& r, const tile& t, const T* values, std::int16_t* bits) {
  interleaved_channels part;
  const auto begin = r.channels.target.begin() + static_cast<std::ptrdiff_t>(t.column);
  part.target.assign(begin, begin + static_cast<std::ptrdiff_t>(t.n_columns));
  // Blocks of whole squares, several per thread.
  const std::int32_t n_threads = threads_now(r.session);
  const std::uint64_t share = t.n_rows / (4 * static_cast<std::uint64_t>(n_threads)) + 1;
  // In 32s, as samples are spread by lines of the cache.
  const std::uint64_t block = (share + 31) / 32 * 32;
  const std::uint64_t n_blocks = (t.n_rows - 1) / block + 1;
  std::vector<std::int64_t> limited(n_blocks, 0);
  const auto last = static_cast<std::int64_t>(n_blocks) - 1;
  parallel_for(n_threads, 0, last, [&](std::int64_t i, std::int32_t) {
    const std::uint64_t from = static_cast<std::uint64_t>(i) * block;
    const std::uint64_t n = std::min(block, t.n_rows - from);
    std::int16_t* points = bits + from * t.n_columns;
    if constexpr (!std::is_same_v<T, std::int16_t>) {
      limited[i] =
          convert_points(r.plan, t.column, t.n_columns, values + from * t.n_columns, points, n);
    }
    spread_points(r.session, part, points, static_cast<std::int64_t>(n),
                  first_index(r, t) + static_cast<std::int64_t>(from));
  });
  r.result.n_limited += std::accumulate(limited.begin(), limited.end(), std::int64_t{0});
}

// A tile by way of a buffer that all tiles share.
template <typename T>
struct tile_buffer {
  std::vector<T> values;
  std::vector<std::int16_t> bits;

  bool read(sample_reader& r, const tile& t) {
    // Of the same shape as the tile: between shapes that differ the library goes element by
    // element.
    const hsize_t size[2] = {t.n_rows, t.n_columns};
    const hdf_id memory(H5Screate_simple(r.layout.rank, size, nullptr));
    values.resize(static_cast<std::size_t>(t.n_rows * t.n_columns));
    if (!memory.ok() || !read_tile(r, t, type_of<T>::id(), memory, values.data())) return false;
    const auto start = std::chrono::steady_clock::now();
    if (r.layout.channels_first) {
      store_rows(r, t, values.data());
    } else if constexpr (std::is_same_v<T, std::int16_t>) {
      store_points(r, t, values.data(), values.data());
    } else {
      bits.resize(values.size());
      store_points(r, t, values.data(), bits.data());
    }
    r.result.spread_seconds += seconds_since(start);
    return true;
  }
};

// Every tile in the order of the file.
template <typename Read>
void read_tiles(sample_reader& r, const tile& usual, std::int32_t bar_from, Read&& read) {
  const hdf_layout& layout = r.layout;
  constexpr std::int32_t bar_to = 95;
  tile t;
  for (t.row = 0; t.row < layout.rows; t.row += usual.n_rows) {
    t.n_rows = std::min(usual.n_rows, layout.rows - t.row);
    for (t.column = 0; t.column < layout.columns; t.column += usual.n_columns) {
      t.n_columns = std::min(usual.n_columns, layout.columns - t.column);
      if (reading_interrupted(r.session) || !read(t)) return;
      const double done =
          (static_cast<double>(t.row) + static_cast<double>(t.n_rows) *
                                            static_cast<double>(t.column + t.n_columns) /
                                            static_cast<double>(layout.columns)) /
          static_cast<double>(layout.rows);
      set_progress(r.session, meter::reading,
                   bar_from + static_cast<std::int32_t>((bar_to - bar_from) * done), 115);
    }
  }
  r.result.finished = true;
}

template <typename T>
void read_buffered(sample_reader& r, std::int32_t bar_from) {
  tile_buffer<T> buffer;
  read_tiles(r, usual_tile(r.layout, sizeof(T), tile_bytes), bar_from,
             [&](const tile& t) { return buffer.read(r, t); });
}

// Whether rows of the file are rows of vd, in the same order.
bool rows_stay(const sample_reader& r) {
  if (!r.layout.channels_first || r.plan.read_as != hdf_conversion::values::bits) return false;
  for (std::size_t i = 0; i < r.channels.target.size(); ++i) {
    // A configuration that moves a single channel needs the buffers.
    if (r.channels.target[i] != static_cast<std::int32_t>(i) + 1) return false;
  }
  return true;
}

}  // namespace

bool describe_hdf_layout(hid_t dataset, hdf_layout& layout) {
  const hdf_id space(H5Dget_space(dataset));
  const hdf_id creation(H5Dget_create_plist(dataset));
  if (!space.ok() || !creation.ok()) return false;
  hsize_t size[H5S_MAX_RANK] = {}, chunk[H5S_MAX_RANK] = {};
  layout.rank = H5Sget_simple_extent_dims(space, size, nullptr);
  if (layout.rank != 1 && layout.rank != 2) return false;
  layout.rows = size[0];
  layout.columns = layout.rank == 2 ? size[1] : 1;
  switch (H5Pget_layout(creation)) {
    case H5D_CONTIGUOUS:
      layout.words = "contiguous layout";
      break;
    case H5D_CHUNKED:
      layout.words = "chunked layout";
      if (H5Pget_chunk(creation, layout.rank, chunk) != layout.rank) return false;
      // A chunk may be larger than the dataset, and must not be 0.
      layout.chunk_rows = std::clamp<std::uint64_t>(chunk[0], 1, layout.rows);
      if (layout.rank == 2) {
        layout.chunk_columns = std::clamp<std::uint64_t>(chunk[1], 1, layout.columns);
      }
      break;
    case H5D_VIRTUAL:
      layout.words = "cvirtual layout";
      break;
    case H5D_COMPACT:
      layout.words = "compact layout";
      break;
    default:
      return false;
  }
  // No recording has more channels than samples; equal numbers count as channels first.
  layout.channels_first = layout.rows <= layout.columns;
  const auto [smaller, larger] = std::minmax(layout.rows, layout.columns);
  // The margin after the last sample must be countable, too.
  constexpr std::uint64_t most = std::numeric_limits<std::int32_t>::max() - 100000;
  if (smaller < 1 || smaller > channel_limit || larger > most) return false;
  layout.n_channels = static_cast<std::int64_t>(smaller);
  layout.n_samples = static_cast<std::int64_t>(larger);
  return true;
}

namespace {

// The library makes room for as many bytes as the index says of a chunk, and takes from it as many
// as the chunk has. What filters make of a chunk tells no length.
bool chunks_are_whole(hid_t dataset, hid_t creation, double chunk_bytes) {
  hsize_t n_chunks = 0;
  if (H5Pget_nfilters(creation) > 0) return true;
  const hdf_id space(H5Dget_space(dataset));
  if (!space.ok() || H5Dget_num_chunks(dataset, space, &n_chunks) < 0) return false;
  const auto stored = static_cast<double>(H5Dget_storage_size(dataset));
  return stored == chunk_bytes * static_cast<double>(n_chunks);
}

}  // namespace

bool hdf_file_holds_samples(hdf_file& in, hid_t dataset, const hdf_layout& layout,
                            std::string& words) {
  const hdf_id creation(H5Dget_create_plist(dataset));
  const hdf_id type(H5Dget_type(dataset));
  if (!creation.ok() || !type.ok()) return false;
  const H5D_layout_t kind = H5Pget_layout(creation);
  const auto element = static_cast<double>(H5Tget_size(type));
  const double there = available_bytes(in, creation);
  // In 64-bit floats, where no product of counts overflows.
  const double wanted =
      element * static_cast<double>(layout.n_channels) * static_cast<double>(layout.n_samples);
  const bool packed = kind == H5D_CHUNKED || kind == H5D_VIRTUAL;
  // Contiguous samples take their own size; packed ones may be much smaller.
  if (wanted > there * (packed ? greatest_compression : 1.0)) {
    words = fmt::format("The dataset claims {:.0f} MB, more than its file can hold", wanted / 1e6);
    return false;
  }
  // Samples that were never written would read as the fill value.
  if (kind != H5D_VIRTUAL && H5Dget_storage_size(dataset) == 0) {
    words = "The dataset holds no samples";
    return false;
  }
  hsize_t chunk[2] = {};
  if (kind != H5D_CHUNKED || H5Pget_chunk(creation, 2, chunk) < 1) return true;
  double chunk_bytes = element;
  for (int i = 0; i < layout.rank; ++i) chunk_bytes *= static_cast<double>(chunk[i]);
  if (!chunks_are_whole(dataset, creation, chunk_bytes)) {
    words = "The chunks of the dataset are not as long as their samples";
    return false;
  }
  // One chunk is unpacked whole, however little of it is wanted.
  if (chunk_bytes <= std::max(64e6, there * greatest_compression)) return true;
  words = "The chunks of the dataset are larger than its file can fill";
  return false;
}

namespace {

// How the stored type is read; narrow: the values are bits already. False, after the log
// line, for a type that is no number of ours.
bool choose_values(const session_state& session, hid_t dataset, hdf_conversion& plan,
                   bool& narrow) {
  const hdf_id type(H5Dget_type(dataset));
  const H5T_class_t kind = type.ok() ? H5Tget_class(type) : H5T_NO_CLASS;
  const std::size_t size = type.ok() ? H5Tget_size(type) : 0;
  const bool is_signed = type.ok() && H5Tget_sign(type) == H5T_SGN_2;
  narrow = false;
  if (kind == H5T_INTEGER) {
    if (size != 1 && size != 2 && size != 4 && size != 8) {
      log_message(session, "Warning: read failed with unsupported integer size data");
      return false;
    }
    narrow = size <= 2;
    // Only what 16 bits hold is read as bits.
    const bool fits = size == 1 || (size == 2 && is_signed);
    plan.read_as = fits ? hdf_conversion::values::bits : hdf_conversion::values::integers;
    // Singles would lose digits of such numbers.
    if (size == 8 || (size == 4 && !is_signed)) plan.read_as = hdf_conversion::values::doubles;
  } else if (kind == H5T_FLOAT && (size == 2 || size == 4 || size == 8)) {
    plan.read_as = size == 8 ? hdf_conversion::values::doubles : hdf_conversion::values::singles;
  } else {
    log_message(session, "Warning: unidentified real data type");
    return false;
  }
  return true;
}

// Gain and shift of n channels, from the gain of all.
void plan_channels(const hdf_selection& selection, std::size_t n, double gain,
                   hdf_conversion& plan) {
  const hdf_scaling& scaling = selection.scaling;
  plan.gain.assign(n, gain);
  plan.shift.assign(n, scaling.offset * 1e6 / selection.scale);
  if (scaling.channel_conversion.size() == n) {
    for (std::size_t c = 0; c < n; ++c) {
      // Relative to the first channel, whose scale is that of the recording.
      plan.gain[c] *= scaling.channel_conversion[c] / scaling.channel_conversion.front();
    }
  }
  for (std::size_t c = 0; c < std::min(n, scaling.ad_zero.size()); ++c) {
    plan.shift[c] -= scaling.ad_zero[c] * plan.gain[c];
  }
}

bool any_differs(const std::vector<double>& values, double from) {
  return std::any_of(values.begin(), values.end(), [from](double v) { return v != from; });
}

}  // namespace

bool plan_hdf_conversion(const session_state& session, hid_t dataset,
                         const hdf_selection& selection, const hdf_layout& layout,
                         hdf_conversion& plan) {
  bool narrow = false;
  if (!choose_values(session, dataset, plan, narrow)) return false;
  const double uv_per_value = selection.scaling.uv_per_value;
  double gain = 1;
  // Wide values become bits of the chosen scale; narrow ones are bits already.
  if (!narrow && uv_per_value != 0) gain = uv_per_value / selection.scale;
  // The scale was typed or printed with a few figures.
  if (std::fabs(gain - 1) < 1e-7) gain = 1;
  plan_channels(selection, static_cast<std::size_t>(layout.n_channels), gain, plan);
  const bool gains = any_differs(plan.gain, 1);
  const bool shifts = any_differs(plan.shift, 0);
  plan.changes = gains || shifts;
  // A gain needs more room than bits have until the result is limited.
  if (plan.changes && plan.read_as == hdf_conversion::values::bits) {
    plan.read_as = hdf_conversion::values::integers;
  }
  if (gains) {
    log_message(session, narrow ? "Gains differ between channels; brought to that of the first"
                                : fmt::format("Stored values become bits times {:.6g}", gain));
  }
  if (shifts) log_message(session, "Taking the zero level out of the samples");
  if (!narrow && uv_per_value == 0) {
    log_message(session, "The file gives no unit; stored values are taken as bits");
  }
  return true;
}

hdf_read_result read_hdf_samples(session_state& session, hid_t dataset, const hdf_layout& layout,
                                 const hdf_conversion& plan, std::int32_t bar_from) {
  sample_reader r{session,
                  dataset,
                  layout,
                  plan,
                  map_interleaved(session, static_cast<std::int32_t>(layout.n_channels)),
                  hdf_id(H5Dget_space(dataset)),
                  {}};
  if (!r.file_space.ok()) return r.result;
  // The fast way, where the file stands as vd does.
  if (rows_stay(r)) {
    read_tiles(r, usual_tile(layout, sizeof(std::int16_t), direct_tile_bytes), bar_from,
               [&](const tile& t) { return read_in_place(r, t); });
    return r.result;
  }
  switch (plan.read_as) {
    case hdf_conversion::values::bits:
      read_buffered<std::int16_t>(r, bar_from);
      break;
    case hdf_conversion::values::integers:
      read_buffered<std::int32_t>(r, bar_from);
      break;
    case hdf_conversion::values::singles:
      read_buffered<float>(r, bar_from);
      break;
    case hdf_conversion::values::doubles:
      read_buffered<double>(r, bar_from);
      break;
  }
  return r.result;
}

}  // namespace kestrelvane
