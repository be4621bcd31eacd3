#include "recording/electrode_config.h"
#include "session/run_log.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "files/text_lines.h"
#include "recording/probe_files.h"

namespace kestrelvane {

namespace {

constexpr std::size_t name_characters = 10;
constexpr std::size_t line_characters = 80;

struct config_entry {
  std::int32_t file_channel, channel;
  std::int16_t x, y;
};

enum class config_line { none, good, bad };

// -0.5 and 4096.9 become numbers that are inside.
bool fits(double value, double low, double high) { return value > low - 1 && value < high + 1; }

// Numbers are truncated, so the tests run on what is left of them then.
config_line take_entry(std::string_view line, config_entry& entry) {
  const std::vector<double> n = leading_numbers(line.substr(0, line_characters), 4);
  if (n.empty()) return config_line::none;
  constexpr double low = std::numeric_limits<std::int16_t>::min();
  constexpr double high = std::numeric_limits<std::int16_t>::max();
  // 1 itself is tested again: between 0 and 1 a program channel would become 0.
  if (n.size() < 4 || !fits(n[0], 0, channel_limit) || !fits(n[1], 1, channel_limit) || n[1] < 1 ||
      !fits(n[2], low, high) || !fits(n[3], low, high)) {
    return config_line::bad;
  }
  entry = {static_cast<std::int32_t>(n[0]), static_cast<std::int32_t>(n[1]),
           static_cast<std::int16_t>(n[2]), static_cast<std::int16_t>(n[3])};
  return config_line::good;
}

// Each program channel up to the largest once; logs the others.
bool check_map(const session_state& session, const std::vector<std::int32_t>& uses,
               std::int32_t n_mapped) {
  // The largest number that is used tells how many channels there must be.
  std::int32_t largest = channel_limit;
  while (largest > 0 && uses[largest] == 0) --largest;
  bool good = largest > 0;
  for (std::int32_t c = 1; c <= largest; ++c) {
    if (uses[c] == 1) continue;
    good = false;
    log_message(session, fmt::format("   mapping error for channel {}; there are {} mapped "
                                     "channels in file",
                                     c, n_mapped));
  }
  return good;
}

bool read_entries(session_state& session, text_lines& lines, std::int32_t& n_mapped) {
  recording_store& r = session.recording;
  std::vector<std::int32_t> uses(std::size_t{channel_limit} + 1);
  bool good = true;
  std::string_view line;
  while (next_line(lines, line)) {
    config_entry entry{};
    const config_line what = take_entry(line, entry);
    if (what == config_line::none) continue;
    if (what == config_line::bad) {
      log_message(session, fmt::format("   bad line in config file: {}", line));
      good = false;
      continue;
    }
    ++n_mapped;
    // A file channel that is named again goes to the later place.
    r.channel_map[entry.file_channel] = entry.channel;
    r.chan_x[entry.channel] = entry.x;
    r.chan_y[entry.channel] = entry.y;
    ++uses[entry.channel];
  }
  return check_map(session, uses, n_mapped) && good;
}

// Channels of the program in the order of those of the file.
bool take_contacts(session_state& session, const std::string& path, std::int32_t& n_mapped) {
  recording_store& r = session.recording;
  std::vector<wired_contact> contacts;
  std::string problem;
  if (!read_probe_file(path, contacts, problem)) {
    log_message(session, fmt::format("   {}", problem));
    return false;
  }
  for (const wired_contact& contact : contacts) {
    ++n_mapped;
    r.channel_map[contact.file_channel] = n_mapped;
    // Positions are whole and were checked when the file was read.
    r.chan_x[n_mapped] = static_cast<std::int16_t>(contact.x);
    r.chan_y[n_mapped] = static_cast<std::int16_t>(contact.y);
  }
  return true;
}

std::string trimmed(std::string_view text, std::size_t limit) {
  text = text.substr(0, limit);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return std::string(text);
}

}  // namespace

std::vector<std::string> config_files_looked_for(const std::string& recording_path) {
  const std::string beside = folder_of(recording_path) + "electrode";
  std::vector<std::string> files;
  // The file of the recording's name goes before one of the folder, for each kind.
  for (const char* extension : {".cfg", ".prb", ".json"}) {
    files.push_back(replace_extension(recording_path, extension));
    files.push_back(beside + extension);
  }
  return files;
}

std::string config_file_beside(const std::string& recording_path) {
  for (const std::string& candidate : config_files_looked_for(recording_path)) {
    if (!file_exists(candidate)) continue;
    // Other tools leave ".json" files beside a recording, too.
    if (!candidate.ends_with(".json") || describes_probes(candidate)) return candidate;
  }
  return "";
}

bool find_config_file(const session_state& session, const recording_request& request,
                      std::string& path) {
  path = request.configuration;
  if (path.empty()) path = config_file_beside(request.path);
  if (!path.empty()) return true;
  return ask(session, "Cannot find a default electrode configuration file: choose a specific one?",
             "Looking for file") &&
         choose_config_file(session, path);
}

bool choose_config_file(const session_state& session, std::string& path) {
  return choose_file_to_open(session, "Choose channel configuration file",
                             "Channel config files(*.CFG *.JSON *.PRB)", path);
}

bool read_config_file(session_state& session, const std::string& path, std::int32_t& n_mapped,
                      bool show_in_title) {
  recording_store& r = session.recording;
  n_mapped = 0;
  r.config_path = path;
  // Until it has been read without a fault.
  r.no_config_file = true;
  text_lines lines;
  if (!load_text(lines, path)) {
    log_message(session, "Error opening config file " + path);
    return false;
  }
  // A map of an earlier recording must not show through.
  r.channel_map.clear();
  bool good = false;
  if (is_probe_file(path)) {
    r.electrode_name = file_name_of(replace_extension(path, "")).substr(0, name_characters);
    good = take_contacts(session, path, n_mapped);
  } else {
    std::string_view name;
    next_line(lines, name);
    r.electrode_name = trimmed(name, name_characters);
    good = read_entries(session, lines, n_mapped);
  }
  if (!good) {
    log_message(session, "Channel map error in config file");
    return false;
  }
  if (r.channel_map[0] != 0) {
    log_message(session,
                "Warning: file channels count from 1; file channel 0 of the "
                "configuration is not read");
  }
  r.no_config_file = false;
  // Only a map without a fault comes into use.
  r.n_mapped_channels = n_mapped;
  r.show_config_in_title = show_in_title;
  log_message(session, "Reading channel configuration file " + file_name_of(path));
  return true;
}

bool load_configuration(session_state& session, const recording_request& request) {
  std::string path;
  std::int32_t n_mapped = 0;
  return find_config_file(session, request, path) &&
         read_config_file(session, path, n_mapped, true);
}

bool write_config_file(const session_state& session) {
  const recording_store& r = session.recording;
  log_message(session, "Saving configuration file");
  safe_file out;
  const std::string path = replace_extension(r.recording_path, ".cfg");
  open_safe_file(out, path);
  write_text(out, r.electrode_name + "\n");
  const auto write_entry = [&](std::int32_t file_channel, std::int32_t c) {
    write_text(out,
               fmt::format("{:5} {:5} {:6} {:6}\n", file_channel, c, r.chan_x[c], r.chan_y[c]));
  };
  bool mapped = false;
  // File channel 0 as well, so that a map that was read comes back whole.
  for (std::int32_t f = 0; f <= channel_limit; ++f) {
    const std::int32_t c = r.channel_map[f];
    if (c < 1 || c > r.n_channels) continue;
    write_entry(f, c);
    mapped = true;
  }
  // Without a map channel for channel.
  for (std::int32_t c = 1; !mapped && c <= r.n_channels; ++c) write_entry(c, c);
  if (finish_safe_file(out)) return true;
  log_failed_save(session, path);
  return false;
}

}  // namespace kestrelvane
