#include "recording/formats/neuroshare.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <limits>
#include <system_error>
#include <vector>

#include "files/header_text.h"
#include "files/input_file.h"
#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

using ns_result = std::int32_t;  // 0 is good
using ns_open_file = ns_result (*)(const char* path, std::uint32_t* handle);
using ns_close_file = ns_result (*)(std::uint32_t handle);
using ns_file_info = ns_result (*)(std::uint32_t handle, void* info, std::uint32_t size);
using ns_info = ns_result (*)(std::uint32_t handle, std::uint32_t entity, void* info,
                              std::uint32_t size);
using ns_analog_data = ns_result (*)(std::uint32_t handle, std::uint32_t entity,
                                     std::uint32_t first, std::uint32_t count,
                                     std::uint32_t* contiguous, double* values);

struct ns_library {
  void* loaded = nullptr;
  ns_open_file open_file = nullptr;
  ns_close_file close_file = nullptr;
  ns_file_info file_info = nullptr;
  ns_info entity_info = nullptr, event_info = nullptr, analog_info = nullptr;
  ns_analog_data analog_data = nullptr;
  std::uint32_t handle = 0;
  bool file_is_open = false;

  ns_library() = default;
  ns_library(const ns_library&) = delete;
  ns_library& operator=(const ns_library&) = delete;
  ~ns_library() {
    // The file goes before the code that closes it.
    if (file_is_open) close_file(handle);
    if (loaded != nullptr) dlclose(loaded);
  }
};

// Room for any structure of the library, whatever it takes its size to be.
using ns_record = std::array<char, 1024>;

constexpr std::uint32_t entity_bytes = 40;
constexpr std::uint32_t kind_analog = 2;
constexpr std::size_t label_characters = 32;

struct ns_channel {
  std::uint32_t entity = 0;
  std::uint32_t n_items = 0;
  double rate = 0;  // Hz
  double step = 0;  // volts per bit
  std::string name;
};

struct value_counts {
  std::int64_t n_pauses = 0;     // of one channel
  std::int64_t first_pause = 0;  // items before it
  std::int64_t n_limited = 0;
  std::int64_t n_no_numbers = 0;
};

template <typename T>
T field(const ns_record& record, std::size_t offset) {
  T value;
  std::memcpy(&value, record.data() + offset, sizeof value);
  return value;
}

bool report_code(const session_state& session, const std::string& text, ns_result code) {
  log_message(session, text);
  log_message(session, fmt::format("mcs_error_code={}", code));
  tell(session, text, "Open a recording file");
  return false;
}

bool report_bad_read(const session_state& session, ns_result code) {
  return report_code(session, "Error reading file", code);
}

// --- the library

std::vector<std::string> library_candidates(const std::string& recording_path) {
  std::error_code ignored;
  const std::string program = std::filesystem::read_symlink("/proc/self/exe", ignored).string();
  std::vector<std::string> candidates;
  // Beside the recording, beside the program, then where the loader looks.
  for (std::string folder : {folder_of(recording_path), folder_of(program), std::string()}) {
    // Without a slash in the name the loader would look along its own path.
    if (candidates.empty() && folder.empty()) folder = "./";
    for (const char* name : {"nsMCDLibrary.so", "nsMCDLibrary64.dll"}) {
      candidates.push_back(folder + name);
    }
  }
  return candidates;
}

bool load_library(const session_state& session, const std::string& recording_path,
                  ns_library& library) {
  for (const std::string& candidate : library_candidates(recording_path)) {
    const bool has_folder = candidate.find('/') != std::string::npos;
    // The loader's own path cannot be tested beforehand.
    if (has_folder && !file_exists(candidate)) continue;
    library.loaded = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library.loaded != nullptr) {
      log_message(session, "Reading through the library " + candidate);
      return true;
    }
    // Why one that is there does not load: it may be that of another system.
    const char* why = dlerror();
    if (has_folder && why != nullptr) log_message(session, why);
  }
  constexpr const char* text = "Can't find nsMCDLibrary64.dll";
  log_message(session, text);
  tell(session, text, "Missing dll");
  return false;
}

template <typename routine>
bool find_routine(const ns_library& library, const char* name, routine& found) {
  found = reinterpret_cast<routine>(dlsym(library.loaded, name));
  return found != nullptr;
}

bool find_routines(const session_state& session, ns_library& library) {
  if (find_routine(library, "ns_OpenFile", library.open_file) &&
      find_routine(library, "ns_CloseFile", library.close_file) &&
      find_routine(library, "ns_GetFileInfo", library.file_info) &&
      find_routine(library, "ns_GetEntityInfo", library.entity_info) &&
      find_routine(library, "ns_GetEventInfo", library.event_info) &&
      find_routine(library, "ns_GetAnalogInfo", library.analog_info) &&
      find_routine(library, "ns_GetAnalogData", library.analog_data)) {
    return true;
  }
  constexpr const char* text = "Library functions missing in nsMCDLibrary64.dll";
  log_message(session, text);
  tell(session, text, "Access error");
  return false;
}

// --- what the file holds

// How structures are packed is the library's affair: it refuses the size it does not
// expect, and the fields used here lie alike under both.
template <typename call>
ns_result try_sizes(std::initializer_list<std::uint32_t> sizes, ns_record& record, call&& get) {
  ns_result code = 0;
  for (const std::uint32_t size : sizes) {
    record.fill(0);
    code = get(record.data(), size);
    if (code == 0) break;
  }
  return code;
}

bool count_entities(const session_state& session, const ns_library& library, const input_file& file,
                    std::uint32_t& n_entities) {
  ns_record record;
  const ns_result code = try_sizes({404, 408}, record, [&](void* info, std::uint32_t size) {
    return library.file_info(library.handle, info, size);
  });
  if (code != 0) return report_bad_read(session, code);
  n_entities = field<std::uint32_t>(record, 32);
  // No entity takes less than a byte of the file.
  return (n_entities >= 1 && n_entities <= file.size) ||
         refuse_file(session, fmt::format("# of entities in file is {}", n_entities));
}

bool describe_channel(const session_state& session, const ns_library& library,
                      ns_channel& channel) {
  ns_record record;
  const ns_result code = try_sizes({264, 272}, record, [&](void* info, std::uint32_t size) {
    return library.analog_info(library.handle, channel.entity, info, size);
  });
  if (code != 0) return report_bad_read(session, code);
  channel.rate = field<double>(record, 0);
  channel.step = field<double>(record, 40);
  return true;
}

// The analog entities of the raw electrode streams, of the filtered ones if there are none.
bool list_channels(const session_state& session, const ns_library& library,
                   std::uint32_t n_entities, std::vector<ns_channel>& channels) {
  std::vector<ns_channel> filtered;
  for (std::uint32_t e = 0; e < n_entities; ++e) {
    if (e % 256 == 0 && reading_interrupted(session)) return false;
    ns_record record{};
    const ns_result code = library.entity_info(library.handle, e, record.data(), entity_bytes);
    if (code != 0) return report_bad_read(session, code);
    const std::string label = legible_text({record.data(), label_characters});
    const bool is_raw = label.starts_with("elec");
    if (field<std::uint32_t>(record, 32) != kind_analog) continue;
    if (!is_raw && !label.starts_with("filt")) continue;
    ns_channel channel;
    channel.entity = e;
    channel.n_items = field<std::uint32_t>(record, 36);
    channel.name = label.substr(label.rfind(' ') + 1);
    (is_raw ? channels : filtered).push_back(channel);
  }
  // Filtered streams are taken where nothing else was recorded.
  if (channels.empty()) channels = filtered;
  if (!check_channel_count(session, std::ssize(channels))) return false;
  for (ns_channel& channel : channels) {
    if (!describe_channel(session, library, channel)) return false;
  }
  return true;
}

void keep_one_rate(const session_state& session, std::vector<ns_channel>& channels) {
  const double rate = channels[0].rate;
  const auto n_other = std::erase_if(channels, [&](const ns_channel& c) { return c.rate != rate; });
  if (n_other == 0) return;
  log_message(session, fmt::format("{} channels of another sampling frequency than that of the "
                                   "first are left out",
                                   n_other));
}

void log_channels(const session_state& session, const std::vector<ns_channel>& channels) {
  const recording_store& r = session.recording;
  log_message(session, fmt::format("There are {} electrode channels", channels.size()));
  std::string names;
  for (const ns_channel& channel : channels) names += " " + channel.name;
  log_message(session, "Channel names:" + names);
  log_message(session, fmt::format("Sample Frequency = {} Hz", r.sampling_frequency));
  log_message(session, fmt::format("Voltage scaling (uV/bit) = {}", r.vscale_HP));
}

bool take_channels(session_state& session, const input_file& file,
                   std::vector<ns_channel>& channels) {
  recording_store& r = session.recording;
  const double rate = channels[0].rate;
  if (!check_sampling_frequency(session, rate)) return false;
  if (!check_voltage_scale(session, channels[0].step * 1e6)) return false;
  keep_one_rate(session, channels);
  r.sampling_frequency = static_cast<std::int32_t>(std::lround(rate));
  if (rate != r.sampling_frequency) {
    log_message(session, fmt::format("The sampling frequency of {:.3f} Hz is taken as {} Hz", rate,
                                     r.sampling_frequency));
  }
  r.vscale_HP = static_cast<float>(channels[0].step * 1e6);
  const auto [fewest, most] = std::ranges::minmax(channels, {}, &ns_channel::n_items);
  if (!check_sample_count(session, most.n_items)) return false;
  // A value takes two bytes of a file; half of that leaves room for doubt.
  if (most.n_items > file.size / std::ssize(channels)) {
    return refuse_file(session, fmt::format("# of samples in file is {}, for which the file is "
                                            "too short",
                                            most.n_items));
  }
  if (fewest.n_items != most.n_items) {
    log_message(session, fmt::format("Channels hold from {} to {} samples: the shorter ones end "
                                     "in zeros",
                                     fewest.n_items, most.n_items));
  }
  r.n_samples = static_cast<std::int32_t>(most.n_items);
  r.n_channels =
      r.no_config_file ? static_cast<std::int32_t>(channels.size()) : r.n_mapped_channels;
  r.is_continuous = true;
  log_channels(session, channels);
  return true;
}

// --- the values

void store_values(const double* volts, std::int64_t n, double step, std::int16_t* to,
                  value_counts& counts) {
  constexpr double low = std::numeric_limits<std::int16_t>::min();
  constexpr double high = std::numeric_limits<std::int16_t>::max();
  for (std::int64_t i = 0; i < n; ++i) {
    // By the step of the first channel, which is that of the recording.
    double bits = std::round(volts[i] / step);
    if (std::isnan(bits)) {
      ++counts.n_no_numbers;
      bits = 0;
    }
    counts.n_limited += bits < low || bits > high;
    to[i] = static_cast<std::int16_t>(std::clamp(bits, low, high));
  }
}

// All items of a channel to time index 1 and on. Each piece begins with the last value of
// the one before, so that a pause between the two shows as well.
bool read_channel(session_state& session, const ns_library& library, const ns_channel& channel,
                  double step, std::int32_t target, double bar_from, double bar_to,
                  value_counts& counts) {
  constexpr std::int64_t piece = 16384;
  std::vector<double> values(piece);
  std::int16_t* to = session.recording.vd.channel(target) + 1;
  std::int64_t again = 0;  // values at the start of the piece that are there already
  for (std::int64_t at = 0; at < channel.n_items;) {
    if (reading_interrupted(session)) return false;
    const std::int64_t first = at - again;
    const std::int64_t asked = std::min(piece, channel.n_items - first);
    std::uint32_t contiguous = 0;
    const ns_result code =
        library.analog_data(library.handle, channel.entity, static_cast<std::uint32_t>(first),
                            static_cast<std::uint32_t>(asked), &contiguous, values.data());
    if (code != 0 || contiguous == 0) return report_bad_read(session, code);
    // A library that tells of more than it was asked for is not followed.
    const std::int64_t n = std::min<std::int64_t>(contiguous, asked);
    store_values(values.data() + again, n - again, step, to + at, counts);
    at += n - again;
    // A piece that is cut short ends at a pause: the next begins afresh.
    again = n == asked ? 1 : 0;
    if (n < asked && counts.n_pauses++ == 0) counts.first_pause = at;
    const double done = static_cast<double>(at) / channel.n_items;
    set_progress(session, meter::reading,
                 static_cast<std::int32_t>(bar_from + (bar_to - bar_from) * done), 115);
  }
  return true;
}

void log_counts(const session_state& session, const value_counts& counts) {
  const recording_store& r = session.recording;
  if (counts.n_pauses > 0) {
    log_message(session,
                fmt::format("The recording pauses {} times, first after {:.3f} s: its parts are "
                            "laid end to end",
                            counts.n_pauses,
                            static_cast<double>(counts.first_pause) / r.sampling_frequency));
  }
  if (counts.n_limited > 0) {
    log_message(session,
                fmt::format("Warning: {} samples were limited to 16 bits", counts.n_limited));
  }
  if (counts.n_no_numbers > 0) {
    log_message(session, fmt::format("Warning: {} samples are not numbers and read as zero",
                                     counts.n_no_numbers));
  }
}

bool read_values(session_state& session, const ns_library& library,
                 const std::vector<ns_channel>& channels) {
  const auto n = static_cast<std::int32_t>(channels.size());
  const std::vector<std::int32_t> targets = map_interleaved(session, n).target;
  value_counts counts;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    // A channel that the configuration leaves out is not even asked for.
    if (targets[c] == 0) continue;
    // Channels pause together: those of the last one that is read stand for all.
    counts.n_pauses = 0;
    if (!read_channel(session, library, channels[c], channels[0].step, targets[c],
                      100.0 * static_cast<double>(c) / n, 100.0 * static_cast<double>(c + 1) / n,
                      counts)) {
      return false;
    }
  }
  log_counts(session, counts);
  return true;
}

}  // namespace

bool read_mcd(session_state& session, const recording_request& request) {
  const recording_store& r = session.recording;
  input_file file;
  if (!open_input_file(file, request.path)) {
    log_message(session, file.problem);
    return report_bad_read(session, 0);
  }
  ns_library library;
  if (!load_library(session, request.path, library) || !find_routines(session, library)) {
    return false;
  }
  const ns_result code = library.open_file(request.path.c_str(), &library.handle);
  if (code != 0) return report_code(session, "Error accessing MCD format file", code);
  // From here on the file is closed with the library, whatever happens.
  library.file_is_open = true;
  std::uint32_t n_entities = 0;
  std::vector<ns_channel> channels;
  if (!count_entities(session, library, file, n_entities) ||
      !list_channels(session, library, n_entities, channels) ||
      !take_channels(session, file, channels) ||
      !allocate_recording(session, r.n_samples + usual_spare_samples) ||
      !read_values(session, library, channels)) {
    return false;
  }
  if (r.no_config_file) place_channels_in_columns(session);
  set_progress(session, meter::reading, 100, 115);
  return true;
}

}  // namespace kestrelvane
