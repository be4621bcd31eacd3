#include "recording/formats/neuroscope.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "files/text_lines.h"
#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// The values taken from the description; none where the tag is missing.
struct xml_values {
  std::optional<double> n_channels, sampling_rate, n_bits, voltage_range, amplification, offset;
};

void take_tag(std::string_view line, std::string_view tag, std::optional<double>& value) {
  // The first of a tag counts; others belong to parts of the file that are not read.
  if (value) return;
  const std::size_t at = line.find(tag);
  if (at == std::string_view::npos) return;
  // What follows the value is its end tag.
  std::string_view text = line.substr(at + tag.size());
  text = text.substr(0, text.find('<'));
  const std::vector<double> numbers = leading_numbers(text, 1);
  value = numbers.empty() ? 0.0 : numbers[0];
}

bool read_values(const std::string& path, xml_values& values) {
  constexpr std::size_t line_characters = 256;
  text_lines lines;
  if (!load_text(lines, path)) return false;
  std::string_view line;
  while (next_line(lines, line)) {
    line = line.substr(0, line_characters);
    take_tag(line, "<nChannels>", values.n_channels);
    take_tag(line, "<samplingRate>", values.sampling_rate);
    take_tag(line, "<nBits>", values.n_bits);
    take_tag(line, "<voltageRange>", values.voltage_range);
    take_tag(line, "<amplification>", values.amplification);
    take_tag(line, "<offset>", values.offset);
  }
  return true;
}

// A count from a number of the description; 0 for one that is none.
std::int32_t count_of(const std::optional<double>& value) {
  constexpr double most = 1e9;
  // A number that is none, or too large, is no count.
  return value && std::abs(*value) <= most ? static_cast<std::int32_t>(*value) : 0;
}

// n_channels of the session from those of the file and of the configuration.
bool choose_channels(session_state& session, std::int32_t n_file_channels) {
  recording_store& r = session.recording;
  r.n_channels = n_file_channels;
  if (r.no_config_file) {
    place_channels_in_columns(session);
    return true;
  }
  // Sites without a channel of the file cannot be read.
  if (r.n_mapped_channels > n_file_channels) {
    log_message(session, "More channels in config file than in data file");
    tell(session, "Number of channels in config file exceeds number in data file",
         "Error in config file");
    return false;
  }
  r.n_channels = r.n_mapped_channels;
  if (r.n_mapped_channels < n_file_channels) {
    log_message(session, fmt::format("Will use the {} channels in the configuration file",
                                     r.n_mapped_channels));
  }
  return true;
}

bool set_scale(session_state& session, const xml_values& values) {
  recording_store& r = session.recording;
  const double n_bits = values.n_bits.value_or(0), range = values.voltage_range.value_or(0),
               amplification = values.amplification.value_or(0);
  // Negated, so that what is no number goes the same way.
  if (!(n_bits > 0 && range > 0 && amplification > 0)) {
    constexpr float assumed = 0.4652f;
    r.vscale_HP = assumed;
    log_message(session, "Warning: cannot get voltage scaling from XML file");
    log_message(session, fmt::format("Assuming default voltage scaling = {}", assumed));
    return true;
  }
  r.vscale_HP = static_cast<float>(range * 1e6 / (amplification * std::exp2(n_bits)));
  if (!check_voltage_scale(session, static_cast<double>(r.vscale_HP))) return false;
  log_message(session, fmt::format("Voltage scaling = {} µV per bit", r.vscale_HP));
  return true;
}

bool take_values(session_state& session, const xml_values& values, std::int32_t& n_file_channels) {
  recording_store& r = session.recording;
  n_file_channels = count_of(values.n_channels);
  log_message(session, fmt::format("Data file has {} channels", n_file_channels));
  const double rate = std::round(values.sampling_rate.value_or(0));
  if (!check_channel_count(session, n_file_channels) || !check_sampling_frequency(session, rate)) {
    return false;
  }
  r.sampling_frequency = static_cast<std::int32_t>(rate);
  log_message(session, fmt::format("Sampling frequency = {} Hz", r.sampling_frequency));
  return choose_channels(session, n_file_channels) && set_scale(session, values);
}

std::int16_t limited(std::int32_t value) {
  return static_cast<std::int16_t>(std::clamp<std::int32_t>(
      value, std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max()));
}

// Takes the value of zero volts off every sample.
void subtract_offset(const session_state& session, interleaved_channels& channels, double offset) {
  // What is farther away than two ranges of a sample limits all of them alike.
  const auto zero = static_cast<std::int32_t>(std::clamp(std::round(offset), -65535.0, 65535.0));
  if (zero == 0) return;
  log_message(session, fmt::format("The offset of {} in the XML file is subtracted", zero));
  channels.change = [zero](std::size_t, std::int16_t* samples, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) samples[i] = limited(samples[i] - zero);
  };
}

// A file that ends inside a time point: its first values.
bool read_cut_point(session_state& session, const input_file& file,
                    const interleaved_channels& channels, std::int64_t at, std::int64_t index) {
  std::vector<std::int16_t> point(channels.target.size());
  // A single byte at the end is no value.
  const std::int64_t n_values = (file.size - at) / 2;
  if (n_values == 0) return true;
  if (!read_at(file, at, point.data(), 2 * n_values)) return false;
  for (std::size_t v = 0; v < static_cast<std::size_t>(n_values); ++v) {
    if (channels.target[v] == 0) continue;
    std::int16_t* sample = session.recording.vd.channel(channels.target[v]) + index;
    *sample = point[v];
    if (channels.change) channels.change(v, sample, 1);
  }
  log_message(session, "Early end to file");
  session.recording.n_samples = static_cast<std::int32_t>(index);
  return true;
}

bool read_dat_samples(session_state& session, const input_file& file,
                      const interleaved_channels& channels) {
  recording_store& r = session.recording;
  log_message(session, "Reading .dat file");
  const auto point_bytes = static_cast<std::int64_t>(2 * channels.target.size());
  interleaved_run run;
  run.n_points = file.size / point_bytes;
  r.n_samples = static_cast<std::int32_t>(run.n_points);
  if (read_interleaved(session, file, channels, run) != read_end::whole ||
      !read_cut_point(session, file, channels, run.n_points * point_bytes, run.n_points + 1)) {
    return false;
  }
  log_message(session, "Finished reading .xml/.dat file!");
  return check_sample_count(session, r.n_samples);
}

}  // namespace

bool read_xml_recording(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  log_message(session, "Reading " + request.path);
  xml_values values;
  std::int32_t n_file_channels = 0;
  if (!read_values(request.path, values) || !take_values(session, values, n_file_channels))
    return false;
  input_file dat;
  if (!open_input_file(dat, replace_extension(request.path, ".dat"))) return false;
  const std::int64_t most_samples =
      dat.size / (std::int64_t{2} * n_file_channels) + usual_spare_samples;
  // The file's size and channels alone tell how much there is to read.
  if (!check_sample_count(session, most_samples)) return false;
  r.is_continuous = true;
  r.electrode_type = electrode_polytrode;
  if (!allocate_recording(session, most_samples)) return false;
  interleaved_channels channels = map_interleaved(session, n_file_channels);
  subtract_offset(session, channels, values.offset.value_or(0));
  if (!read_dat_samples(session, dat, channels)) return false;
  // The recording goes by its description, whichever of the two was opened.
  r.xml_path = replace_extension(request.path, ".xml");
  return true;
}

bool export_evt(const session_state& session, const std::string& path) {
  const event_table& e = session.events;
  const double ms_per_sample = 1000.0 / session.recording.sampling_frequency;
  constexpr const char* title = "Save sorted spikes";
  safe_file out;
  if (open_safe_file(out, path)) {
    for (std::int32_t i = 1; i <= e.n_events; ++i) {
      // Index 1 stands at one step, as in the other text exports.
      write_text(out, fmt::format("{:.4f} {} {}\n", e.event_time[i] * ms_per_sample,
                                  e.event_channel[i], e.event_cluster[i]));
    }
  }
  const bool written = finish_safe_file(out);
  if (written) {
    tell(session, "Neuroscope data saved", title, box_icon::information);
  } else {
    tell(session, "Error exporting Neuroscope format data " + why_not_saved(path), title);
  }
  return written;
}

}  // namespace kestrelvane
