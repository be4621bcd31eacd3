#include "results/nwb_units.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <cerrno>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

#include "analysis/unit_quality.h"
#include "files/input_file.h"
#include "files/safe_file.h"
#include "recording/acquisition_facts.h"
#include "recording/formats/hdf/hdf_file.h"
#include "results/exports.h"
#include "results/spike_times.h"
#include "session/template_window.h"
#include "session/version.h"
#include "sorting/unit_table.h"

namespace kestrelvane {

namespace {

constexpr const char* schema_version = "2.7.0";
constexpr const char* core = "core";
constexpr const char* common = "hdmf-common";
constexpr const char* ephys = "/general/extracellular_ephys";
constexpr const char* electrodes_place = "/general/extracellular_ephys/electrodes";

using texts = std::vector<std::string>;

// A file in the making; once a step has failed the others do nothing.
struct nwb_file {
  hdf_id file;
  hdf_id text_type;   // variable length, UTF-8
  hdf_id truth_type;  // as other tools store truth values
  bool failed = false;
  std::mt19937_64 random{std::random_device{}()};
};

void expect(nwb_file& out, bool good) {
  if (!good) out.failed = true;
}

// A random identity in the usual 36 characters.
std::string new_identity(nwb_file& out) {
  const std::uint64_t a = out.random(), b = out.random();
  return fmt::format("{:08x}-{:04x}-4{:03x}-{:04x}-{:012x}", a >> 32, (a >> 16) & 0xffff, a & 0xfff,
                     // The form of a random identity: a 4, and two fixed bits at the head of the
                     // last group but one.
                     0x8000 | (b >> 50), b & 0xffffffffffffull);
}

// --- pieces of a file

struct shape {
  std::vector<hsize_t> size;  // empty: one value
};

hdf_id make_space(const shape& s) {
  if (s.size.empty()) return hdf_id(H5Screate(H5S_SCALAR));
  return hdf_id(H5Screate_simple(static_cast<int>(s.size.size()), s.size.data(), nullptr));
}

shape list_of(std::size_t n) { return {{n}}; }

std::vector<const char*> pointers_to(const texts& values) {
  std::vector<const char*> pointers;
  for (const std::string& value : values) pointers.push_back(value.c_str());
  return pointers;
}

void write_attribute(nwb_file& out, hid_t object, const char* name, hid_t type, hid_t memory_type,
                     const shape& s, const void* values) {
  if (out.failed) return;
  const hdf_id space = make_space(s);
  const hdf_id attribute(H5Acreate2(object, name, type, space, H5P_DEFAULT, H5P_DEFAULT));
  expect(out, space.ok() && attribute.ok() && H5Awrite(attribute, memory_type, values) >= 0);
}

void write_text_attribute(nwb_file& out, hid_t object, const char* name, const std::string& value) {
  const char* pointer = value.c_str();
  write_attribute(out, object, name, out.text_type, out.text_type, {}, &pointer);
}

void write_texts_attribute(nwb_file& out, hid_t object, const char* name, const texts& values) {
  write_attribute(out, object, name, out.text_type, out.text_type, list_of(values.size()),
                  pointers_to(values).data());
}

void write_number_attribute(nwb_file& out, hid_t object, const char* name, double value) {
  write_attribute(out, object, name, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, {}, &value);
}

// An attribute that points to another object of the file.
void write_reference(nwb_file& out, hid_t object, const char* name, const std::string& target) {
  if (out.failed) return;
  hobj_ref_t reference{};
  expect(out, H5Rcreate(&reference, out.file, target.c_str(), H5R_OBJECT, H5I_INVALID_HID) >= 0);
  write_attribute(out, object, name, H5T_STD_REF_OBJ, H5T_STD_REF_OBJ, {}, &reference);
}

// What every typed object says of itself.
void mark(nwb_file& out, hid_t object, const char* type, const char* where) {
  write_text_attribute(out, object, "namespace", where);
  write_text_attribute(out, object, "neurodata_type", type);
  write_text_attribute(out, object, "object_id", new_identity(out));
}

hdf_id make_group(nwb_file& out, const std::string& place) {
  if (out.failed) return {};
  hdf_id group(H5Gcreate2(out.file, place.c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
  expect(out, group.ok());
  return group;
}

hdf_id make_dataset(nwb_file& out, const std::string& place, hid_t type, hid_t memory_type,
                    const shape& s, const void* values) {
  if (out.failed) return {};
  const hdf_id space = make_space(s);
  hdf_id dataset(
      H5Dcreate2(out.file, place.c_str(), type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
  // A column of a table without rows has nothing to write, nor memory to write from.
  const bool empty = space.ok() && H5Sget_simple_extent_npoints(space) == 0;
  expect(out, dataset.ok() && (empty || H5Dwrite(dataset, memory_type, H5S_ALL, H5S_ALL,
                                                 H5P_DEFAULT, values) >= 0));
  return dataset;
}

void make_text(nwb_file& out, const std::string& place, const std::string& value) {
  const char* pointer = value.c_str();
  make_dataset(out, place, out.text_type, out.text_type, {}, &pointer);
}

// --- tables

// A table whose columns are added one by one; finish_table lists them.
struct nwb_table {
  std::string place;
  hdf_id group;
  texts columns;
};

nwb_table make_table(nwb_file& out, const std::string& place, const char* type, const char* where,
                     const std::string& description, const std::vector<std::int64_t>& ids) {
  nwb_table table{place, make_group(out, place), {}};
  mark(out, table.group, type, where);
  write_text_attribute(out, table.group, "description", description);
  const hdf_id id = make_dataset(out, place + "/id", H5T_STD_I64LE, H5T_NATIVE_INT64,
                                 list_of(ids.size()), ids.data());
  mark(out, id, "ElementIdentifiers", common);
  return table;
}

void finish_table(nwb_file& out, const nwb_table& table) {
  write_texts_attribute(out, table.group, "colnames", table.columns);
}

// The values of a column, and how they lie in the file and in memory.
struct column_values {
  hid_t type, memory_type;
  shape extent;
  const void* values;
  const char* column_type = "VectorData";
};

hdf_id add_column(nwb_file& out, nwb_table& table, const char* name, const std::string& description,
                  const column_values& c) {
  hdf_id column =
      make_dataset(out, table.place + "/" + name, c.type, c.memory_type, c.extent, c.values);
  mark(out, column, c.column_type, common);
  write_text_attribute(out, column, "description", description);
  table.columns.emplace_back(name);
  return column;
}

hdf_id add_floats(nwb_file& out, nwb_table& table, const char* name, const std::string& description,
                  const std::vector<float>& values) {
  return add_column(out, table, name, description,
                    {H5T_IEEE_F32LE, H5T_NATIVE_FLOAT, list_of(values.size()), values.data()});
}

void add_texts(nwb_file& out, nwb_table& table, const char* name, const std::string& description,
               const texts& values) {
  add_column(out, table, name, description,
             {out.text_type, out.text_type, list_of(values.size()), pointers_to(values).data()});
}

void add_truths(nwb_file& out, nwb_table& table, const char* name, const std::string& description,
                const std::vector<std::int8_t>& values) {
  add_column(out, table, name, description,
             {out.truth_type, out.truth_type, list_of(values.size()), values.data()});
}

// Where the elements of each row end in the column of that name; the smallest width that
// holds the last.
void add_index(nwb_file& out, const nwb_table& table, const char* name,
               const std::vector<std::uint64_t>& ends) {
  // The ends rise, so that the last is the largest.
  const std::uint64_t last = ends.empty() ? 0 : ends.back();
  const hid_t type = last < 256          ? H5T_STD_U8LE
                     : last < 65536      ? H5T_STD_U16LE
                     : last < 4294967296 ? H5T_STD_U32LE
                                         : H5T_STD_U64LE;
  const std::string column = table.place + "/" + name;
  const hdf_id index = make_dataset(out, column + "_index", type, H5T_NATIVE_UINT64,
                                    list_of(ends.size()), ends.data());
  mark(out, index, "VectorIndex", common);
  write_text_attribute(out, index, "description", fmt::format("Index for {}", name));
  write_reference(out, index, "target", column);
}

// --- the head of the file

// ISO 8601 with the zone of this machine.
std::string time_text(std::time_t when) {
  std::tm parts{};
  localtime_r(&when, &parts);
  // What stands where the system does not tell.
  char zone[8] = "+0000";
  std::strftime(zone, sizeof zone, "%z", &parts);
  const std::string z = zone;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}{}:{}", parts, z.substr(0, 3), z.substr(3));
}

bool start_is_known(const recording_store& r) {
  return r.record_date[0] > 1900 && r.record_date[1] >= 1 && r.record_date[2] >= 1;
}

// Of the recording; the beginning of the computer's time when it is not known.
std::string start_text(const recording_store& r) {
  if (!start_is_known(r)) return "1970-01-01T00:00:00+00:00";
  std::tm parts{};
  parts.tm_year = r.record_date[0] - 1900;
  parts.tm_mon = r.record_date[1] - 1;
  parts.tm_mday = r.record_date[2];
  parts.tm_hour = r.record_time[2];
  parts.tm_min = r.record_time[1];
  parts.tm_sec = r.record_time[0];
  // Whether it was summer time is for the system to find out.
  parts.tm_isdst = -1;
  return time_text(std::mktime(&parts));
}

void write_head(nwb_file& out, const session_state& session) {
  const recording_store& r = session.recording;
  const hdf_id root = hdf_id(H5Gopen2(out.file, "/", H5P_DEFAULT));
  expect(out, root.ok());
  mark(out, root, "NWBFile", core);
  write_text_attribute(out, root, "nwb_version", schema_version);
  const std::string now = time_text(std::time(nullptr)), start = start_text(r);
  const char* created = now.c_str();
  make_dataset(out, "/file_create_date", out.text_type, out.text_type, list_of(1), &created);
  make_text(out, "/identifier", new_identity(out));
  make_text(out, "/session_description",
            fmt::format("Units sorted from {} by Kestrelvane {}{}",
                        file_name_of(source_file_path(session)), program_version,
                        start_is_known(r) ? "" : "; the start of the recording is not known"));
  make_text(out, "/session_start_time", start);
  make_text(out, "/timestamps_reference_time", start);
  for (const char* place : {"/acquisition", "/analysis", "/processing", "/stimulus",
                            "/stimulus/presentation", "/stimulus/templates", "/general"}) {
    make_group(out, place);
  }
}

// --- electrodes

// A name that can stand in a path.
std::string group_name(const recording_store& r) {
  std::string name = r.electrode_name;
  // "electrodes" is the name of the table beside it, and a dot that of the group itself.
  std::replace(name.begin(), name.end(), '/', '_');
  while (!name.empty() && name.back() == ' ') name.pop_back();
  return name.empty() || name == "electrodes" || name == "." ? "electrode_group" : name;
}

// The device and the group; their place is returned.
std::string write_electrode_group(nwb_file& out, const recording_store& r) {
  make_group(out, "/general/devices");
  const hdf_id device = make_group(out, "/general/devices/recording_device");
  mark(out, device, "Device", core);
  write_text_attribute(out, device, "description", "not known");
  make_group(out, ephys);
  std::string place = std::string(ephys) + "/" + group_name(r);
  const hdf_id group = make_group(out, place);
  mark(out, group, "ElectrodeGroup", core);
  write_text_attribute(out, group, "description", "all channels of the recording");
  write_text_attribute(out, group, "location", "unknown");
  if (out.failed) return place;
  expect(out, H5Lcreate_soft("/general/devices/recording_device", group, "device", H5P_DEFAULT,
                             H5P_DEFAULT) >= 0);
  return place;
}

std::vector<std::int64_t> numbers_from(std::int64_t first, std::int32_t n) {
  std::vector<std::int64_t> numbers(static_cast<std::size_t>(n));
  std::iota(numbers.begin(), numbers.end(), first);
  return numbers;
}

void write_electrodes(nwb_file& out, const recording_store& r) {
  const std::string group = write_electrode_group(out, r);
  const auto n = static_cast<std::size_t>(r.n_channels);
  nwb_table table = make_table(out, electrodes_place, "DynamicTable", common,
                               "a row per channel of the recording", numbers_from(0, r.n_channels));
  // Where in the brain is not known.
  const std::vector<float> unknown(n, std::numeric_limits<float>::quiet_NaN());
  add_floats(out, table, "x", "x coordinate in the brain, not known", unknown);
  add_floats(out, table, "y", "y coordinate in the brain, not known", unknown);
  add_floats(out, table, "z", "z coordinate in the brain, not known", unknown);
  add_texts(out, table, "location", "part of the brain", texts(n, "unknown"));
  std::vector<hobj_ref_t> groups(n);
  for (hobj_ref_t& reference : groups) {
    if (out.failed) break;
    expect(out, H5Rcreate(&reference, out.file, group.c_str(), H5R_OBJECT, H5I_INVALID_HID) >= 0);
  }
  add_column(out, table, "group", "the electrode group",
             {H5T_STD_REF_OBJ, H5T_STD_REF_OBJ, list_of(n), groups.data()});
  add_texts(out, table, "group_name", "name of the electrode group", texts(n, group_name(r)));
  std::vector<float> x(r.chan_x.first(), r.chan_x.first() + n);
  std::vector<float> y(r.chan_y.first(), r.chan_y.first() + n);
  add_floats(out, table, "rel_x", "x position on the electrode, um", x);
  add_floats(out, table, "rel_y", "y position on the electrode, um", y);
  std::vector<std::int8_t> masked;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) masked.push_back(r.chan_mask[c] ? 1 : 0);
  add_truths(out, table, "masked", "the channel took no part in the sort", masked);
  finish_table(out, table);
}

// --- units

struct unit_times {
  std::vector<double> seconds;      // unit after unit, ascending within each
  std::vector<std::uint64_t> ends;  // of each unit
};

unit_times list_times(const session_state& session) {
  const event_table& e = session.events;
  const auto n_units = static_cast<std::size_t>(session.clusters.n_clusters);
  unit_times times;
  std::vector<std::uint64_t> next(n_units + 1, 0);
  const auto unit_of = [&](std::int32_t i) {
    const std::int32_t c = e.event_cluster[i];
    // Rows stand for clusters that exist; anything else has none.
    return c >= 1 && c <= session.clusters.n_clusters ? static_cast<std::size_t>(c) : 0;
  };
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (unit_of(i) > 0) ++next[unit_of(i)];
  }
  std::partial_sum(next.begin(), next.end(), next.begin());
  // Element 0 counts what belongs to no unit, which is nothing.
  times.ends.assign(next.begin() + 1, next.end());
  times.seconds.resize(next.back());
  // From the end down: each end moves to where its unit begins, and events stay in order.
  for (std::int32_t i = e.n_events; i >= 1; --i) {
    const std::size_t unit = unit_of(i);
    if (unit > 0) times.seconds[--next[unit]] = clock_seconds(session, i);
  }
  // Events are in order of discovery; readers take times for ascending.
  for (std::size_t u = 0; u < n_units; ++u) {
    const std::uint64_t first = u == 0 ? 0 : times.ends[u - 1];
    std::sort(times.seconds.begin() + static_cast<std::ptrdiff_t>(first),
              times.seconds.begin() + static_cast<std::ptrdiff_t>(times.ends[u]));
  }
  return times;
}

std::string times_description(const session_state& session) {
  return session.recording.is_continuous ? "times of the spikes, s from the first sample"
                                         : "times of the spikes, s on the clock of the recording";
}

void add_times(nwb_file& out, nwb_table& table, const session_state& session) {
  const unit_times times = list_times(session);
  const hdf_id column = add_column(
      out, table, "spike_times", times_description(session),
      {H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, list_of(times.seconds.size()), times.seconds.data()});
  const double resolution = clock_resolution(session);
  if (resolution > 0) write_number_attribute(out, column, "resolution", resolution);
  add_index(out, table, "spike_times", times.ends);

  // One interval per unit: more, or none, is more than most readers understand.
  clock_span span = recording_span(session);
  // No spike may lie outside the interval of its unit.
  for (const double seconds : times.seconds) {
    span = {std::min(span.from, seconds), std::max(span.to, seconds)};
  }
  const auto n = static_cast<std::size_t>(session.clusters.n_clusters);
  std::vector<double> intervals;
  for (std::size_t u = 0; u < n; ++u) {
    intervals.insert(intervals.end(), {span.from, span.to});
  }
  add_column(out, table, "obs_intervals", "interval in which the unit was looked for, s",
             {H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, {{n, 2}}, intervals.data()});
  std::vector<std::uint64_t> ends(n);
  std::iota(ends.begin(), ends.end(), std::uint64_t{1});
  add_index(out, table, "obs_intervals", ends);
}

// The channel on which a unit is largest; 1 when its template has none.
std::int32_t channel_of(const session_state& session, std::int32_t cluster) {
  const std::int32_t channel = session.templates.centre_channel(cluster);
  return channel >= 1 && channel <= session.recording.n_channels ? channel : 1;
}

void add_electrodes(nwb_file& out, nwb_table& table, const session_state& session) {
  std::vector<std::int64_t> rows;
  std::vector<std::uint64_t> ends;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    // Rows of the table of electrodes count from 0.
    rows.push_back(channel_of(session, c) - 1);
    ends.push_back(rows.size());
  }
  const hdf_id column = add_column(
      out, table, "electrodes", "the centre channel of the template",
      {H5T_STD_I64LE, H5T_NATIVE_INT64, list_of(rows.size()), rows.data(), "DynamicTableRegion"});
  write_reference(out, column, "table", electrodes_place);
  add_index(out, table, "electrodes", ends);
}

void add_waveform(nwb_file& out, nwb_table& table, const session_state& session, const char* name,
                  const char* description, bool deviation) {
  const template_table& t = session.templates;
  const float volts_per_bit = session.recording.vscale_HP * 1e-6f;
  const auto n_points = static_cast<std::size_t>(t.template_points);
  std::vector<float> volts;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const std::int32_t channel = channel_of(session, c);
    const float* bits = deviation ? t.sd(c, channel) : t.mean(c, channel);
    for (std::size_t p = 1; p <= n_points; ++p) volts.push_back(bits[p] * volts_per_bit);
  }
  const auto n = static_cast<std::size_t>(session.clusters.n_clusters);
  const hdf_id column =
      add_column(out, table, name, description,
                 {H5T_IEEE_F32LE, H5T_NATIVE_FLOAT, {{n, n_points}}, volts.data()});
  write_text_attribute(out, column, "unit", "volts");
  const auto rate = static_cast<float>(exact_rate(session.recording));
  write_attribute(out, column, "sampling_rate", H5T_IEEE_F32LE, H5T_NATIVE_FLOAT, {}, &rate);
}

void add_quality(nwb_file& out, nwb_table& table, const session_state& session) {
  std::vector<std::int64_t> n_spikes;
  std::vector<float> rates, peaks, snr;
  std::vector<std::int8_t> signed_off;
  texts quality, comments, labels;
  for (const unit_row& row : make_unit_table(session)) {
    n_spikes.push_back(row.n_events);
    rates.push_back(static_cast<float>(row.rate));
    // As the tables of the program show it.
    peaks.push_back(static_cast<float>(rounded_uv(row.peak_to_peak)));
    snr.push_back(static_cast<float>(row.snr));
    signed_off.push_back(session.clusters.cluster_signed_off[row.cluster] ? 1 : 0);
    quality.emplace_back(row.status == cluster_status::stable     ? "stable"
                         : row.status == cluster_status::unstable ? "unstable"
                                                                  : "unknown");
    comments.emplace_back(session.clusters.cluster_comment[row.cluster].view());
    labels.emplace_back(name_of(session.clusters.cluster_label[row.cluster]).name);
  }
  add_column(out, table, "n_spikes", "number of spikes",
             {H5T_STD_I64LE, H5T_NATIVE_INT64, list_of(n_spikes.size()), n_spikes.data()});
  add_floats(out, table, "firing_rate", "spikes per second of the recording", rates);
  add_floats(out, table, "peak_to_peak_uv", "of the template on the electrode, uV", peaks);
  add_floats(out, table, "snr", "peak-to-peak amplitude over the noise of the electrode", snr);
  add_truths(out, table, "signed_off", "no part of the unit could be split off any more",
             signed_off);
  add_texts(out, table, "quality", "stable: distinct from every other unit", quality);
  add_texts(out, table, "comment", "as the sorter wrote it", comments);
  if (has_unit_labels(session.clusters)) {
    add_texts(out, table, "label", "good, mua (multi-unit), noise or unsorted, by hand", labels);
  }
}

// What cannot be told of a unit is no number. None without templates of the window in force, nor
// when it was interrupted: columns are as long as the table.
void add_figures(nwb_file& out, nwb_table& table, const session_state& session) {
  if (templates_are_outdated(session)) return;
  const std::vector<unit_quality> units = measure_quality(session);
  if (units.empty()) return;
  for (const quality_figure& figure : further_quality_figures()) {
    std::vector<float> values;
    for (const unit_quality& unit : units) values.push_back(static_cast<float>(unit.*figure.value));
    add_floats(out, table, figure.name, fmt::format("{} ({})", figure.meaning, figure.source),
               values);
  }
}

void write_units(nwb_file& out, const session_state& session) {
  nwb_table table = make_table(out, "/units", "Units", core, "sorted units, by cluster number",
                               numbers_from(1, session.clusters.n_clusters));
  add_times(out, table, session);
  add_electrodes(out, table, session);
  add_waveform(out, table, session, "waveform_mean", "mean waveform on the electrode", false);
  add_waveform(out, table, session, "waveform_sd", "standard deviation round the mean", true);
  add_quality(out, table, session);
  add_figures(out, table, session);
  finish_table(out, table);
}

bool make_types(nwb_file& out) {
  out.text_type = hdf_id(H5Tcopy(H5T_C_S1));
  out.truth_type = hdf_id(H5Tenum_create(H5T_NATIVE_INT8));
  const std::int8_t no = 0, yes = 1;
  return out.text_type.ok() && out.truth_type.ok() &&
         H5Tset_size(out.text_type, H5T_VARIABLE) >= 0 &&
         H5Tset_cset(out.text_type, H5T_CSET_UTF8) >= 0 &&
         H5Tenum_insert(out.truth_type, "FALSE", &no) >= 0 &&
         H5Tenum_insert(out.truth_type, "TRUE", &yes) >= 0;
}

// The bytes of the whole file. It is made in memory: a library that meets a full device half
// way through a file cannot let go of it again, and fails when the program ends.
bool make_nwb_file(const session_state& session, std::vector<char>& bytes) {
  constexpr std::size_t step = 1 << 20;  // by which the memory grows
  // Before any other call, whoever has used the library before.
  if (H5open() < 0) return false;
  // The library would print its complaints; ours go to a box.
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  const hdf_id access(H5Pcreate(H5P_FILE_ACCESS));
  if (!access.ok() || H5Pset_fapl_core(access, step, false) < 0) return false;
  nwb_file out;
  out.file = hdf_id(H5Fcreate("units.nwb", H5F_ACC_TRUNC, H5P_DEFAULT, access));
  if (!out.file.ok() || !make_types(out)) return false;
  write_head(out, session);
  write_electrodes(out, session.recording);
  write_units(out, session);
  expect(out, H5Fflush(out.file, H5F_SCOPE_LOCAL) >= 0);
  // The first call asks for the size.
  const ssize_t n = out.failed ? -1 : H5Fget_file_image(out.file, nullptr, 0);
  if (n <= 0) return false;
  bytes.resize(static_cast<std::size_t>(n));
  return H5Fget_file_image(out.file, bytes.data(), bytes.size()) == n;
}

}  // namespace

bool write_nwb_units(const session_state& session, const std::string& path) {
  constexpr const char* title = "Save sorted spikes";
  std::vector<char> bytes;
  safe_file out;
  const bool made = make_nwb_file(session, bytes);
  errno = 0;  // whatever the library has tried
  if (made && open_safe_file(out, path) && write_bytes(out, bytes.data(), bytes.size()) &&
      finish_safe_file(out)) {
    tell(session, "NWB units saved", title, box_icon::information);
    return true;
  }
  tell(session, "Error saving NWB units " + why_not_saved(path), title);
  return false;
}

}  // namespace kestrelvane
