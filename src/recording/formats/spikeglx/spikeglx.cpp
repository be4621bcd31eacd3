#include "recording/formats/spikeglx/spikeglx.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "files/input_file.h"
#include "files/text_lines.h"
#include "recording/formats/spikeglx/spikeglx_meta.h"
#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "recording/site_tables.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t block_bytes = 50000;  // a rest shorter than this is not read

std::int16_t to_position(double um) {
  constexpr double low = std::numeric_limits<std::int16_t>::min();
  constexpr double high = std::numeric_limits<std::int16_t>::max();
  // Cut to whole µm, and held to the range of a position.
  return static_cast<std::int16_t>(std::clamp(std::trunc(um), low, high));
}

// --- positions

// Those of the ".meta"; false when it has none.
bool place_sites_of_meta(session_state& session, const spikeglx_meta& meta, std::int32_t& n_sites) {
  std::string origin;
  const std::vector<probe_site> sites = list_probe_sites(meta, origin);
  n_sites = static_cast<std::int32_t>(std::min<std::size_t>(sites.size(), channel_limit));
  if (n_sites == 0) {
    if (!meta.shank_map.empty()) log_message(session, "No positions from " + origin);
    return false;
  }
  // Far up a long shank positions would leave their range: they count from the lowest site.
  double lowest = 0, highest = 0;
  for (const probe_site& site : sites) highest = std::max(highest, site.y);
  if (highest > std::numeric_limits<std::int16_t>::max()) {
    lowest = highest;
    for (const probe_site& site : sites) lowest = std::min(lowest, site.y);
    log_message(session, fmt::format("Positions count from the lowest site, at {} um", lowest));
  }
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= n_sites; ++c) {
    const probe_site& site = sites[c - 1];
    r.chan_x[c] = to_position(site.x);
    r.chan_y[c] = to_position(site.y - lowest);
  }
  log_message(session, fmt::format("No geometry.txt: positions of {} sites are those of the .meta "
                                   "file",
                                   n_sites));
  log_message(session, "Positions from " + origin);
  return true;
}

bool place_sites(session_state& session, const std::string& path, const spikeglx_meta& meta,
                 std::int32_t& n_sites) {
  const std::string geometry = folder_of(path) + "geometry.txt";
  if (read_geometry_file(session, geometry, n_sites) && n_sites > 0) {
    // A geometry file beside the recording is the user's own word.
    log_message(session, "Site geometry file read correctly");
    return true;
  }
  if (place_sites_of_meta(session, meta, n_sites)) return true;
  log_message(session, "Error reading Site geometry file");
  return false;
}

// --- the ".meta"

void set_scale(session_state& session, const spikeglx_meta& meta) {
  recording_store& r = session.recording;
  if (const std::optional<double> exact = exact_scale(meta)) {
    r.vscale_HP = static_cast<float>(*exact);
    log_message(session, fmt::format("Voltage scaling = {:.7g} uV/bit, from imAiRangeMax and the "
                                     "gain of the first channel in the .meta file",
                                     *exact));
    return;
  }
  constexpr double per_volt = 122.07031 / 80;
  const double scale = meta.range_max * per_volt;
  // A scale that no probe has is not believed; the samples are then shown in bits.
  r.vscale_HP = scale > 0.01 && scale < 10 ? static_cast<float>(scale) : 1.0f;
  log_message(session, fmt::format("Voltage scaling = {:.7g} uV/bit, assumed from imAiRangeMax",
                                   r.vscale_HP));
}

bool take_channels(session_state& session, const spikeglx_meta& meta) {
  recording_store& r = session.recording;
  const std::int32_t n = meta.n_channels();
  if (!check_channel_count(session, n)) return false;
  // A time point must not be longer than a block can hold.
  if (meta.n_saved_channels < n || meta.n_saved_channels > block_bytes / 2) {
    return refuse_file(session, fmt::format("{} spike channels of {} saved channels in .meta file",
                                            n, meta.n_saved_channels));
  }
  r.n_channels = n;
  log_message(session, fmt::format("n spike channels in meta file = {}", n));
  if (meta.is_lf()) {
    log_message(session, "The .meta file describes an LF recording: its LF channels are read");
  }
  return true;
}

bool take_rate(session_state& session, const spikeglx_meta& meta) {
  recording_store& r = session.recording;
  // Fractions of a Hz add up to whole samples in an hour.
  if (!check_sampling_frequency(session, meta.sampling_frequency)) return false;
  r.sampling_frequency_exact = meta.sampling_frequency;
  r.sampling_frequency = static_cast<std::int32_t>(std::lround(meta.sampling_frequency));
  log_message(session, fmt::format("SampleFrequency8={:.12g}", meta.sampling_frequency));
  return true;
}

// Streams of other devices have the same files but no spike channels.
bool check_stream(const session_state& session, const spikeglx_meta& meta) {
  // A file that names no stream is taken for that of a probe.
  const bool from_probe = meta.stream.empty() || meta.stream == "imec";
  if (from_probe && meta.has_counts) return true;
  return refuse_file(
      session,
      fmt::format("This .meta file describes {}, not a recording of a probe: it has "
                  "no spike channels to read",
                  from_probe ? "an unknown stream" : fmt::format("a {} recording", meta.stream)));
}

// What the ".meta" says of the recording into the session.
bool take_meta(session_state& session, const spikeglx_meta& meta) {
  note_record_start(session, meta.created);
  if (!take_channels(session, meta) || !take_rate(session, meta)) return false;
  set_scale(session, meta);
  return true;
}

void compare_sizes(const session_state& session, std::int64_t in_meta, std::int64_t actual) {
  if (in_meta == actual) return;
  tell(session, "Size of recording file does not match number of bytes in meta file", "Warning",
       box_icon::warning);
  log_message(session, "n_file_bytes");
  log_message(session, fmt::format("   in .meta file: {}", in_meta));
  log_message(session, fmt::format("     actual file: {}", actual));
}

// --- the samples

// The values after the last whole time point of the last block.
bool read_rest(session_state& session, const input_file& file, const interleaved_channels& channels,
               std::int64_t at, std::int64_t n_values, std::int64_t index) {
  std::vector<std::int16_t> rest(static_cast<std::size_t>(n_values));
  if (!read_at(file, at, rest.data(), 2 * n_values)) return false;
  for (std::size_t v = 0; v < rest.size(); ++v) {
    const std::int32_t c = channels.target[v];
    if (c > 0) session.recording.vd.channel(c)[index] = rest[v];
  }
  return true;
}

bool read_blocks(session_state& session, const input_file& file, std::int32_t n_saved) {
  recording_store& r = session.recording;
  interleaved_channels channels;
  channels.target.resize(static_cast<std::size_t>(n_saved));
  for (std::int32_t v = 0; v < r.n_channels; ++v) channels.target[v] = v + 1;
  const std::int64_t n_values = file.size / block_bytes * block_bytes / 2;
  interleaved_run run;
  run.n_points = n_values / n_saved;
  const read_end end = read_interleaved(session, file, channels, run);
  if (end == read_end::early_end) log_message(session, "Error or end of file");
  return end == read_end::whole && read_rest(session, file, channels, 2 * run.n_points * n_saved,
                                             n_values % n_saved, run.n_points + 1);
}

}  // namespace

bool read_geometry_file(session_state& session, const std::string& path, std::int32_t& n_sites) {
  recording_store& r = session.recording;
  n_sites = 0;
  text_lines lines;
  if (!load_text(lines, path)) return false;
  constexpr std::size_t line_characters = 80;
  std::string_view line;
  while (n_sites < channel_limit && next_line(lines, line)) {
    const std::vector<double> xy = leading_numbers(line.substr(0, line_characters), 2);
    // Lines without two numbers are headings.
    if (xy.size() < 2) continue;
    ++n_sites;
    r.chan_x[n_sites] = to_position(xy[0]);
    r.chan_y[n_sites] = to_position(xy[1]);
  }
  return true;
}

bool read_bin_recording(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  r.is_continuous = true;
  r.electrode_type = electrode_polytrode;
  set_progress(session, meter::reading, 0, 115);
  spikeglx_meta meta;
  const bool has_meta = read_meta_file(replace_extension(request.path, ".meta"), meta);
  if (has_meta && !check_stream(session, meta)) return false;
  std::int32_t n_sites = 0;
  // Without positions the read ends, but the missing ".meta" is told first.
  if (!place_sites(session, request.path, meta, n_sites) && has_meta) return false;
  if (!has_meta) {
    log_message(session, "Matching .meta file not found, cancelling read");
    tell(session, "Missing matching .meta file, cancelling read", ".meta file not found");
    return false;
  }
  if (!take_meta(session, meta)) return false;
  if (n_sites < r.n_channels) {
    tell(session, "Number of channels in geometry.txt is less than number given in .meta file",
         "Warning", box_icon::warning);
  }
  log_message(session,
              fmt::format("Total number of channels in .bin file={}", meta.n_saved_channels));
  log_message(session, fmt::format("Number of channels being read={}", r.n_channels));
  log_message(session, "Neuropixels meta file read correctly");
  input_file file;
  if (!open_input_file(file, request.path)) return false;
  compare_sizes(session, meta.n_file_bytes, file.size);
  // By the channels that are read, and so more than the samples that come.
  const std::int64_t n_samples = file.size / (2 * std::int64_t{r.n_channels});
  if (!allocate_recording(session, n_samples + usual_spare_samples)) return false;
  if (!check_sample_count(session, n_samples)) return false;
  r.n_samples = static_cast<std::int32_t>(n_samples);
  if (!read_blocks(session, file, meta.n_saved_channels)) return false;
  order_channels_linearly(session);
  return true;
}

}  // namespace kestrelvane
