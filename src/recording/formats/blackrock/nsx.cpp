#include "recording/formats/blackrock/nsx.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <vector>

#include "files/byte_cursor.h"
#include "files/header_text.h"
#include "recording/formats/blackrock/nev_layout.h"
#include "recording/formats/blackrock/nsx_packets.h"
#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "recording/record_start.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t basic_bytes = 314;
constexpr std::int64_t channel_bytes = 66;
constexpr std::int64_t old_basic_bytes = 32;       // version 2.1
constexpr std::int64_t period_resolution = 30000;  // counts of the period per second

struct nsx_header {
  bool is_old = false;  // version 2.1
  std::string label;
  std::int64_t header_bytes = 0;
  std::int64_t period = 0;
  std::int64_t n_channels = 0;
  nsx_stream stream;
  record_start start;
  std::vector<double> scales;  // µV per bit of each channel
};

std::int64_t take_u32(byte_cursor& in) { return take_value<std::uint32_t>(in); }

// --- the header of version 2.1

// Scales of electrodes by id, from the .nev file of the same name.
std::vector<double> read_companion_scales(const session_state& session, const std::string& path) {
  std::vector<double> scales;
  for (const char* extension : {".nev", ".NEV"}) {
    const std::string companion = replace_extension(path, extension);
    input_file file;
    nev_layout layout;
    // The first companion that can be read.
    if (!open_input_file(file, companion) || !read_nev_layout(session, file, layout)) continue;
    scan_nev_electrodes(
        file, layout,
        [&](const nev_electrode& electrode) {
          const auto id = static_cast<std::size_t>(electrode.id);
          if (scales.size() <= id) scales.resize(id + 1);
          scales[id] = electrode.scale;
        },
        [](std::int64_t) {});
    log_message(session, "Voltage scaling taken from " + file_name_of(companion));
    break;
  }
  return scales;
}

// 0 where the .nev file does not know the electrode.
void take_old_scales(const session_state& session, const std::string& path, byte_cursor& in,
                     nsx_header& header) {
  const std::vector<double> of_electrodes = read_companion_scales(session, path);
  for (std::int64_t c = 0; c < header.n_channels; ++c) {
    const auto id = static_cast<std::size_t>(take_u32(in));
    header.scales.push_back(id < of_electrodes.size() ? of_electrodes[id] : 0);
  }
  // The scale of channel 1 is what all others are brought to.
  if (header.scales[0] != 0) return;
  if (of_electrodes.empty()) std::fill(header.scales.begin(), header.scales.end(), 1.0);
  header.scales[0] = 1.0;
  log_message(session, "The voltage scaling is not known: 1 uV/bit is assumed");
}

bool read_old_header(const session_state& session, const input_file& file, const std::string& path,
                     nsx_header& header) {
  const std::vector<char> basic = read_block(file, 8, old_basic_bytes - 8);
  byte_cursor in{basic.data(), basic.size()};
  header.is_old = true;
  header.label = take_text(in, 16);
  header.period = take_u32(in);
  header.n_channels = take_u32(in);
  if (in.failed) return refuse_file(session, "Early end to file");
  if (!check_channel_count(session, header.n_channels)) return false;
  header.header_bytes = old_basic_bytes + 4 * header.n_channels;
  // Four bytes to an electrode.
  const std::vector<char> ids = read_block(file, old_basic_bytes, 4 * header.n_channels);
  byte_cursor id_list{ids.data(), ids.size()};
  if (std::ssize(ids) < 4 * header.n_channels) return refuse_file(session, "Early end to file");
  take_old_scales(session, path, id_list, header);
  return true;
}

// --- the header of the later versions

// µV per bit of one channel; not finite where its header makes no sense.
double take_scale(byte_cursor& in) {
  skip_bytes(in, 22);  // kind, electrode, label, connector, pin
  const double low_bits = take_i16(in), high_bits = take_i16(in);
  const double low = take_i16(in), high = take_i16(in);
  const std::string_view units = take_text(in, 16);
  skip_bytes(in, 20);  // filters
  // Equal bounds give no number, which is tested where scales are compared.
  const double scale = (high - low) / (high_bits - low_bits);
  return !units.empty() && units[0] == 'm' ? 1000 * scale : scale;
}

bool read_channel_headers(const session_state& session, const input_file& file,
                          nsx_header& header) {
  const std::vector<char> block = read_block(file, basic_bytes, channel_bytes * header.n_channels);
  byte_cursor in{block.data(), block.size()};
  for (std::int64_t c = 0; c < header.n_channels; ++c) header.scales.push_back(take_scale(in));
  return !in.failed || refuse_file(session, "Early end to file");
}

// Where the data begin, by the channel count unless the header gives room for more.
void settle_header_bytes(const session_state& session, const input_file& file, nsx_header& header) {
  const std::int64_t by_count = basic_bytes + channel_bytes * header.n_channels;
  const std::int64_t stated = header.header_bytes;
  // A count that is too small would read headers as samples.
  if (stated < by_count || stated > file.size) header.header_bytes = by_count;
  if (stated == by_count) return;
  log_message(session, fmt::format("Size of headers in file is {}, of {} channels {}: data are "
                                   "taken from {} on",
                                   stated, header.n_channels, by_count, header.header_bytes));
}

bool read_header(session_state& session, const input_file& file, nsx_header& header) {
  const std::vector<char> basic = read_block(file, 8, basic_bytes - 8);
  byte_cursor in{basic.data(), basic.size()};
  skip_bytes(in, 2);  // version
  header.header_bytes = take_u32(in);
  header.label = take_text(in, 16);
  skip_bytes(in, 256);  // comment
  header.period = take_u32(in);
  header.stream.resolution = take_u32(in);
  header.start = take_blackrock_start(in);
  header.n_channels = take_u32(in);
  if (in.failed) return refuse_file(session, "Early end to file");
  if (!check_channel_count(session, header.n_channels)) return false;
  if (header.stream.resolution < 1) {
    return refuse_file(
        session, fmt::format("Time stamp resolution in file is {}", header.stream.resolution));
  }
  if (!read_channel_headers(session, file, header)) return false;
  settle_header_bytes(session, file, header);
  return true;
}

bool read_any_header(session_state& session, const input_file& file, const std::string& path,
                     nsx_header& header) {
  const std::vector<char> magic = read_block(file, 0, 8);
  const std::string_view kind{magic.data(), magic.size()};
  if (kind == "NEURALSG") return read_old_header(session, file, path, header);
  if (kind == "NEURALCD" || kind == "BRSMPGRP") {
    header.stream.stamp_bytes = kind == "BRSMPGRP" ? 8 : 4;
    return read_header(session, file, header);
  }
  log_message(session, "The file does not begin as a Blackrock .nsx file does");
  return false;
}

bool take_header(session_state& session, nsx_header& header) {
  recording_store& r = session.recording;
  if (header.period < 1 || header.period > period_resolution) {
    return refuse_file(session, fmt::format("Sampling period in file is {}", header.period));
  }
  // Whole Hz: what the division leaves is told.
  r.sampling_frequency = static_cast<std::int32_t>(period_resolution / header.period);
  if (period_resolution % header.period != 0) {
    log_message(session, fmt::format("The sampling frequency of {:.3f} Hz is taken as {} Hz",
                                     static_cast<double>(period_resolution) /
                                         static_cast<double>(header.period),
                                     r.sampling_frequency));
  }
  note_record_start(session, header.start);
  log_message(session, legible_text(header.label));
  r.vscale_HP = static_cast<float>(header.scales[0]);
  r.n_channels =
      r.no_config_file ? static_cast<std::int32_t>(header.n_channels) : r.n_mapped_channels;
  r.is_continuous = true;
  header.stream.n_channels = header.n_channels;
  header.stream.rate = r.sampling_frequency;
  header.stream.at = header.header_bytes;
  return check_voltage_scale(session, r.vscale_HP);
}

// --- scales that differ

// A hook that brings the channels of other scales to that of channel 1; none if there are
// no such channels. Samples that leave 16 bits are limited, and counted.
void rescale_channels(const session_state& session, const nsx_header& header,
                      interleaved_channels& channels, std::atomic<std::int64_t>& n_limited) {
  std::vector<double> factors;
  std::int32_t n_bad = 0, n_differing = 0;
  for (const double scale : header.scales) {
    const double factor = scale / header.scales[0];
    // A quotient that no amplifier has would only turn samples into limits.
    const bool sound = std::isfinite(factor) && factor > 0 && factor <= 1e12;
    n_bad += !sound;
    n_differing += sound && factor != 1.0;
    factors.push_back(sound ? factor : 1.0);
  }
  if (n_bad > 0) {
    log_message(
        session,
        fmt::format("{} channels have no voltage scaling: theirs is that of channel 1", n_bad));
  }
  if (n_differing == 0) return;
  log_message(session, fmt::format("{} channels are rescaled to that of channel 1", n_differing));
  channels.change = [factors, &n_limited](std::size_t value, std::int16_t* samples,
                                          std::int64_t n) {
    const double factor = factors[value];
    if (factor == 1.0) return;
    constexpr double low = std::numeric_limits<std::int16_t>::min();
    constexpr double high = std::numeric_limits<std::int16_t>::max();
    std::int64_t beyond = 0;
    for (std::int64_t i = 0; i < n; ++i) {
      const double v = std::trunc(samples[i] * factor);
      beyond += v < low || v > high;
      samples[i] = static_cast<std::int16_t>(std::clamp(v, low, high));
    }
    n_limited += beyond;
  };
}

// --- the samples

bool list_packets(session_state& session, const input_file& file, nsx_header& header,
                  std::vector<nsx_run>& runs) {
  const std::int64_t point_bytes = 2 * header.n_channels;
  if (!header.is_old) return list_nsx_runs(session, file, header.stream, runs);
  // The oldest version has no packets: samples follow the header to the end.
  const std::int64_t n_points = (file.size - header.header_bytes) / point_bytes;
  if (n_points > 0) runs.push_back({header.header_bytes, n_points, 1, 0});
  return true;
}

bool read_samples(session_state& session, const input_file& file, const nsx_header& header,
                  const std::vector<nsx_run>& runs) {
  interleaved_channels channels =
      map_interleaved(session, static_cast<std::int32_t>(header.n_channels));
  std::atomic<std::int64_t> n_limited{0};
  rescale_channels(session, header, channels, n_limited);
  if (!read_nsx_runs(session, file, channels, runs)) return false;
  if (n_limited > 0) {
    log_message(session,
                fmt::format("Warning: {} samples were limited to 16 bits", n_limited.load()));
  }
  return true;
}

bool read_file(session_state& session, const std::string& path) {
  input_file file;
  if (!open_input_file(file, path)) {
    log_message(session, "Failed to Open NSx file");
    log_message(session, file.problem);
    return false;
  }
  recording_store& r = session.recording;
  nsx_header header;
  if (!read_any_header(session, file, path, header) || !take_header(session, header)) return false;
  std::vector<nsx_run> runs;
  if (!list_packets(session, file, header, runs)) return false;
  // Up to the end of the last run; gaps before it are zeros.
  const std::int64_t n_samples =
      runs.empty() ? 0 : runs.back().first_index + runs.back().n_points - 1;
  if (!check_sample_count(session, n_samples)) return false;
  r.n_samples = static_cast<std::int32_t>(n_samples);
  log_message(session, fmt::format("There are {} channels", r.n_channels));
  log_message(session, fmt::format("Sample Frequency = {} Hz", r.sampling_frequency));
  if (!allocate_recording(session, r.n_samples + usual_spare_samples)) return false;
  if (!read_samples(session, file, header, runs)) return false;
  if (r.no_config_file) place_channels_in_line(session);
  set_progress(session, meter::reading, 100, 115);
  return true;
}

}  // namespace

bool read_nsx(session_state& session, const recording_request& request) {
  if (read_file(session, request.path)) return true;
  if (!session.operation.reading_interrupted) {
    log_message(session, "Error opening Blackrock Microsystems NSx file (Utah array)");
  }
  return false;
}

}  // namespace kestrelvane
