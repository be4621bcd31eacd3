#include "recording/formats/open_ephys.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <system_error>

#include "files/input_file.h"
#include "files/npy_file.h"
#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

using json = nlohmann::json;

constexpr const char* structure_name = "structure.oebin";

struct stream_channel {
  std::string name;
  double uv_per_bit = 0;
  bool is_electrode = false;
};

struct recorded_stream {
  std::string name, folder;
  double sampling_frequency = 0;
  std::vector<stream_channel> channels;
  std::int32_t n_electrodes = 0;
};

// --- structure.oebin

bool contains(const std::string& text, std::string_view what) {
  return text.find(what) != std::string::npos;
}

// A value of the wanted kind, or what stands for none.
std::string text_of(const json& object, const char* key) {
  const auto at = object.find(key);
  return at != object.end() && at->is_string() ? at->get<std::string>() : std::string();
}
double number_of(const json& object, const char* key) {
  const auto at = object.find(key);
  return at != object.end() && at->is_number() ? at->get<double>() : 0.0;
}

stream_channel describe_channel(const json& object) {
  stream_channel channel;
  if (!object.is_object()) return channel;
  channel.name = text_of(object, "channel_name");
  channel.uv_per_bit = number_of(object, "bit_volts");
  // The units told are not to be relied on: a scale this fine is in volts.
  constexpr double finest_microvolts = 0.01;
  const std::string description = text_of(object, "description");
  // Inputs of other kinds are known by their names alone.
  channel.is_electrode = channel.uv_per_bit >= finest_microvolts &&
                         !channel.name.starts_with("ADC") && !channel.name.ends_with("_SYNC") &&
                         !contains(description, "ADC") && !contains(description, "Analog Input");
  return channel;
}

// A folder name of the file that stays inside the recording's own folder.
std::string inner_folder(const std::string& name) {
  const std::filesystem::path path = std::filesystem::path(name).lexically_normal();
  const bool inside = !path.empty() && path.is_relative() && *path.begin() != "..";
  return inside ? path.string() : std::string();
}

recorded_stream describe_stream(const json& object) {
  recorded_stream stream;
  if (!object.is_object()) return stream;
  const std::string folder = text_of(object, "folder_name");
  stream.folder = inner_folder(folder);
  stream.name = text_of(object, "stream_name");
  // A stream without a name goes by its folder.
  if (stream.name.empty()) stream.name = folder.substr(0, folder.find('/'));
  stream.sampling_frequency = number_of(object, "sample_rate");
  const auto channels = object.find("channels");
  if (channels == object.end() || !channels->is_array()) return stream;
  for (const json& channel : *channels) {
    stream.channels.push_back(describe_channel(channel));
    stream.n_electrodes += stream.channels.back().is_electrode ? 1 : 0;
  }
  return stream;
}

bool read_structure(const session_state& session, const std::string& path,
                    std::vector<recorded_stream>& streams) {
  // Far more than a structure file needs.
  constexpr std::int64_t most_bytes = 64 << 20;
  input_file file;
  if (!open_input_file(file, path)) return false;
  const std::vector<char> bytes = read_block(file, 0, most_bytes);
  // Refused rather than thrown at: a text nested deeper than any structure file is none.
  const json::parser_callback_t shallow = [](int depth, json::parse_event_t, json&) {
    return depth < 16;
  };
  const json all = json::parse(bytes.begin(), bytes.end(), shallow, false);
  if (!all.is_object() || !all.contains("continuous") || !all["continuous"].is_array()) {
    return refuse_file(session, "Mistake reading structure.oebin");
  }
  const std::string version = text_of(all, "GUI version");
  if (!version.empty()) log_message(session, "Recorded by version " + version);
  for (const json& object : all["continuous"]) streams.push_back(describe_stream(object));
  return true;
}

// --- which stream

std::string describe(const recorded_stream& stream) {
  return fmt::format("{} ({} electrode channels of {}, {} Hz)", stream.name, stream.n_electrodes,
                     stream.channels.size(), stream.sampling_frequency);
}

bool is_named(const recorded_stream& stream, std::size_t number, const std::string& wanted) {
  return wanted == stream.name || wanted + "/" == stream.folder || wanted == stream.folder ||
         wanted == fmt::format("{}", number);
}

// Null after the words for why there is none.
const recorded_stream* choose_stream(const session_state& session, const std::string& wanted,
                                     const std::vector<recorded_stream>& streams) {
  std::vector<const recorded_stream*> candidates;
  for (std::size_t i = 0; i < streams.size(); ++i) {
    log_message(session, fmt::format("Stream {}: {}", i + 1, describe(streams[i])));
    if (!wanted.empty() ? is_named(streams[i], i + 1, wanted) : streams[i].n_electrodes > 0) {
      // A stream that was named is taken even if it has no electrodes; that is told afterwards.
      candidates.push_back(&streams[i]);
    }
  }
  if (candidates.empty()) {
    refuse_file(session, wanted.empty() ? "There is no stream of electrode channels"
                                        : fmt::format("There is no stream {}", wanted));
    return nullptr;
  }
  for (const recorded_stream* stream : candidates) {
    // A single one, or one that was named, is not asked about.
    if (candidates.size() == 1 || !wanted.empty() ||
        ask(session, fmt::format("Read stream {}?", describe(*stream)), "Choose a stream")) {
      return stream;
    }
  }
  log_message(session, "No stream was chosen");
  return nullptr;
}

// --- positions

// The text of a file's element, from its name to the next '>'; as much of it as the places
// of all channels can take.
std::string_view element_text(std::string_view text, std::string_view name) {
  constexpr std::size_t most = std::size_t{32} * channel_limit;
  const std::size_t at = text.find(name);
  return at == std::string_view::npos ? std::string_view()
                                      : text.substr(at, std::min(text.find('>', at) - at, most));
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The attribute CHn="value" of channel n, from 0.
std::optional<double> channel_attribute(std::string_view element, std::int32_t n) {
  const std::string name = fmt::format("CH{}=\"", n);
  std::size_t at = element.find(name);
  // Not the end of a longer name.
  while (at != std::string_view::npos && at > 0 && !is_blank(element[at - 1])) {
    at = element.find(name, at + 1);
  }
  if (at == std::string_view::npos) return std::nullopt;
  double value = 0;
  const char* start = element.data() + at + name.size();
  const auto [end, error] = std::from_chars(start, element.data() + element.size(), value);
  if (error != std::errc() || !(std::abs(value) <= 32767)) return std::nullopt;
  return value;
}

// The streams of one probe differ in their last part: "ProbeA-AP" and "ProbeA-LFP".
std::string probe_name(const std::string& stream) {
  for (const std::string_view band : {"-AP", "-LFP"}) {
    if (stream.ends_with(band)) return stream.substr(0, stream.size() - band.size());
  }
  return stream;
}

// Number of the stream's probe, from 0, in the order of the streams.
std::size_t probe_number(const std::vector<recorded_stream>& streams,
                         const recorded_stream& chosen) {
  std::size_t number = 0;
  std::set<std::string> seen;
  for (const recorded_stream& stream : streams) {
    const std::string name = probe_name(stream.name);
    // Streams without electrodes have no probe.
    if (name == probe_name(chosen.name)) return number;
    if (stream.n_electrodes > 0 && seen.insert(name).second) ++number;
  }
  return number;
}

// The settings file stands beside the experiment's folder, or in one above.
std::string find_settings(const std::string& structure_path) {
  std::filesystem::path folder = std::filesystem::path(structure_path).parent_path();
  // As deep as recordings are nested beneath their settings.
  for (int level = 0; level < 4; ++level) {
    const std::string path = (folder / "settings.xml").string();
    if (file_exists(path)) return path;
    folder = folder.empty() ? std::filesystem::path("..") : folder / "..";
  }
  return {};
}

bool place_channels_of_probe(session_state& session, const std::string& structure_path,
                             const std::vector<recorded_stream>& streams,
                             const recorded_stream& chosen) {
  constexpr std::int64_t most_bytes = 16 << 20;
  recording_store& r = session.recording;
  input_file file;
  const std::string path = find_settings(structure_path);
  if (path.empty() || !open_input_file(file, path)) return false;
  const std::vector<char> bytes = read_block(file, 0, most_bytes);
  std::string_view probe(bytes.data(), bytes.size());
  for (std::size_t i = 0; i <= probe_number(streams, chosen); ++i) {
    // The search begins after the probe found last, or it would be found again.
    const std::size_t at = probe.find("<NP_PROBE", 1);
    if (at == std::string_view::npos) return false;
    probe.remove_prefix(at);
  }
  probe = probe.substr(0, probe.find("</NP_PROBE>"));
  const std::string_view xs = element_text(probe, "<ELECTRODE_XPOS");
  const std::string_view ys = element_text(probe, "<ELECTRODE_YPOS");
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const std::optional<double> x = channel_attribute(xs, c - 1), y = channel_attribute(ys, c - 1);
    // Half of the positions would be no electrode.
    if (!x || !y) return false;
    r.chan_x[c] = static_cast<std::int16_t>(*x);
    r.chan_y[c] = static_cast<std::int16_t>(*y);
  }
  log_message(session, "Positions taken from settings.xml");
  return true;
}

// --- the samples

// Program channels and scale of the stream's values.
interleaved_channels assign_channels(session_state& session, const recorded_stream& stream) {
  recording_store& r = session.recording;
  const auto n = static_cast<std::int32_t>(stream.channels.size());
  // A configuration of more sites than the stream has channels is another's.
  const bool mapped = !r.no_config_file && r.n_mapped_channels <= n;
  if (!r.no_config_file && !mapped) {
    log_message(session, "More channels in config file than in data file");
    r.no_config_file = true;
  }
  r.n_channels = mapped ? r.n_mapped_channels : stream.n_electrodes;
  interleaved_channels channels = map_interleaved(session, n);
  std::int32_t next = 0;
  std::vector<double> ratios(stream.channels.size(), 1.0);
  r.vscale_HP = 0;
  for (std::size_t v = 0; v < stream.channels.size(); ++v) {
    const stream_channel& channel = stream.channels[v];
    if (!mapped) channels.target[v] = channel.is_electrode ? ++next : 0;
    if (channels.target[v] == 0) continue;
    // The first channel that is read gives the scale of all.
    if (r.vscale_HP == 0) r.vscale_HP = static_cast<float>(channel.uv_per_bit);
    ratios[v] = channel.uv_per_bit / static_cast<double>(r.vscale_HP);
  }
  // Scales are told with few digits: what differs by rounding is the same.
  const auto same = [](double ratio) { return std::abs(ratio - 1) < 1e-6; };
  if (std::all_of(ratios.begin(), ratios.end(), same)) return channels;
  log_message(session, "Channels of another scale are brought to that of the first");
  channels.change = [ratios, same](std::size_t v, std::int16_t* samples, std::int64_t count) {
    if (same(ratios[v])) return;
    for (std::int64_t i = 0; i < count; ++i) {
      samples[i] = static_cast<std::int16_t>(
          std::clamp(std::round(samples[i] * ratios[v]), -32768.0, 32767.0));
    }
  };
  return channels;
}

std::optional<std::int64_t> number_at(const input_file& file, std::int64_t at) {
  std::int64_t value = 0;
  if (!read_at(file, at, &value, sizeof value)) return std::nullopt;
  return value;
}

// Sample numbers that jump tell of pauses, which the time axis does not show.
void report_gaps(const session_state& session, const std::string& folder, std::int64_t n_samples) {
  input_file file;
  npy_header header;
  const bool is_new = file_exists(folder + "sample_numbers.npy");
  const std::string name = is_new ? "sample_numbers.npy" : "timestamps.npy";
  if (!open_input_file(file, folder + name) || !read_npy_header(file, header) ||
      // A list shorter than the samples tells nothing of them.
      header.type != "<i8" || header.shape.size() != 1 || header.shape[0] < n_samples) {
    return;
  }
  const auto first = number_at(file, header.data_at);
  const auto last = number_at(file, header.data_at + 8 * (n_samples - 1));
  if (!first || !last) return;
  log_message(session, fmt::format("First sample number = {}", *first));
  // Compared as unsigned numbers: hostile ones may lie as far apart as there are.
  const std::uint64_t span = static_cast<std::uint64_t>(*last) - static_cast<std::uint64_t>(*first);
  if (span == static_cast<std::uint64_t>(n_samples) - 1) return;
  log_message(session, "Warning: the sample numbers have gaps; samples are laid end to end");
}

bool read_stream(session_state& session, const std::string& folder, const recorded_stream& stream,
                 const interleaved_channels& channels, const input_file& dat) {
  recording_store& r = session.recording;
  interleaved_run run;
  run.n_points = r.n_samples;
  report_gaps(session, folder, run.n_points);
  const auto point_bytes = static_cast<std::int64_t>(2 * stream.channels.size());
  if (dat.size % point_bytes != 0) log_message(session, "Early end to file");
  log_message(session, "Reading waveforms, please wait ...");
  return read_interleaved(session, dat, channels, run) == read_end::whole;
}

// Numbers inside names count as numbers: experiment2 comes before experiment10.
bool comes_before(const std::string& a, const std::string& b) {
  std::size_t i = 0, j = 0;
  const auto digit = [](char c) { return c >= '0' && c <= '9'; };
  while (i < a.size() && j < b.size()) {
    if (digit(a[i]) && digit(b[j])) {
      const std::size_t i_end = std::min(a.find_first_not_of("0123456789", i), a.size());
      const std::size_t j_end = std::min(b.find_first_not_of("0123456789", j), b.size());
      // Of two numbers without leading zeros the longer one is larger.
      if (i_end - i != j_end - j) return i_end - i < j_end - j;
    }
    if (a[i] != b[j]) return a[i] < b[j];
    ++i;
    ++j;
  }
  return a.size() - i < b.size() - j;
}

}  // namespace

std::string find_structure_file(const session_state& session, const std::string& folder) {
  namespace fs = std::filesystem;
  // A folder may be the root of a large disk: both bounds keep the search short.
  constexpr int deepest = 6;
  constexpr std::size_t most_entries = 100000;
  std::vector<std::string> found;
  std::error_code failed;
  std::size_t n = 0;
  fs::recursive_directory_iterator entry(folder, fs::directory_options::skip_permission_denied,
                                         failed);
  for (; !failed && entry != fs::recursive_directory_iterator() && n < most_entries;
       entry.increment(failed), ++n) {
    if (entry.depth() >= deepest) entry.disable_recursion_pending();
    if (entry->path().filename() == structure_name) found.push_back(entry->path().string());
  }
  if (found.empty()) return {};
  std::sort(found.begin(), found.end(), comes_before);
  if (found.size() > 1) {
    log_message(session,
                fmt::format("The folder holds {} recordings; the first is opened:", found.size()));
    for (const std::string& path : found) log_message(session, path);
  }
  return found[0];
}

bool read_open_ephys(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  std::vector<recorded_stream> streams;
  if (!read_structure(session, request.path, streams)) return false;
  const recorded_stream* stream = choose_stream(session, request.stream, streams);
  if (stream == nullptr) return false;
  if (stream->n_electrodes == 0) {
    return refuse_file(session, fmt::format("Stream {} has no electrode channels", stream->name));
  }
  log_message(session, "Reading stream " + describe(*stream));
  const std::string folder = folder_of(request.path) + "continuous/" + stream->folder + "/";
  input_file dat;
  // An empty folder name is one that would have led out of the recording.
  if (stream->folder.empty() || !open_input_file(dat, folder + "continuous.dat")) {
    return refuse_file(session, "Can't find file " + folder + "continuous.dat");
  }
  const double rate = std::round(stream->sampling_frequency);
  const std::int64_t n_samples = dat.size / static_cast<std::int64_t>(2 * stream->channels.size());
  if (!check_channel_count(session, static_cast<std::int64_t>(stream->channels.size())) ||
      !check_sampling_frequency(session, rate) || !check_sample_count(session, n_samples)) {
    return false;
  }
  r.sampling_frequency = static_cast<std::int32_t>(rate);
  r.n_samples = static_cast<std::int32_t>(n_samples);
  r.is_continuous = true;
  r.electrode_type = electrode_polytrode;
  const interleaved_channels channels = assign_channels(session, *stream);
  if (!check_channel_count(session, r.n_channels) ||
      !check_voltage_scale(session, static_cast<double>(r.vscale_HP))) {
    return false;
  }
  log_message(session, fmt::format("Voltage scaling (uV/bit) = {}", r.vscale_HP));
  if (r.no_config_file && !place_channels_of_probe(session, request.path, streams, *stream)) {
    place_channels_in_line(session);
  }
  return allocate_recording(session, r.n_samples + usual_spare_samples) &&
         read_stream(session, folder, *stream, channels, dat);
}

}  // namespace kestrelvane
