// The many-file forms of an Intan recording: the ".rhd" is the header alone, and the samples
// stand beside it, those of all amplifier channels together or a file for each.
#include <fmt/format.h>

#include <algorithm>

#include "files/header_text.h"
#include "recording/channel_runs.h"
#include "recording/formats/intan/rhd.h"
#include "recording/header_checks.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr const char* signal_file_name = "amplifier.dat";

std::string channel_file_name(const std::string& channel) { return "amp-" + channel + ".dat"; }

bool make_room(session_state& session, std::int64_t n_samples) {
  recording_store& r = session.recording;
  if (!check_sample_count(session, n_samples)) return false;
  r.n_samples = static_cast<std::int32_t>(n_samples);
  if (!allocate_recording(session, n_samples + usual_spare_samples)) return false;
  log_message(session, "Reading waveforms, please wait ...");
  return true;
}

bool open_companion(const session_state& session, input_file& file, const std::string& path) {
  return open_input_file(file, path) ||
         refuse_file(session, fmt::format("Can't open file {}: {}", path, file.problem));
}

bool is_read(const session_state& session, read_end end, bool cut) {
  if (end == read_end::interrupted) return false;
  const bool whole = end == read_end::whole;
  log_message(session, whole && !cut ? "Expected end of file" : "Error or end of file");
  return whole;
}

// All channels side by side, in the order of the header.
bool read_signal_file(session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  input_file file;
  if (!open_companion(session, file, path)) return false;
  const std::int64_t point_bytes = 2 * std::int64_t{r.n_channels};
  const std::int64_t n_points = file.size / point_bytes;
  log_message(session, "Samples of all channels are in " + std::string(signal_file_name));
  if (!make_room(session, n_points)) return false;
  const read_end end = read_interleaved(session, file, map_interleaved(session, r.n_channels),
                                        {.at = 0, .n_points = n_points});
  return is_read(session, end, file.size % point_bytes != 0);
}

// Samples that every file has; 0, after the words, when one cannot be read.
std::int64_t count_common_samples(const session_state& session,
                                  const std::vector<std::string>& paths) {
  std::int64_t least = 0, most = 0;
  for (const std::string& path : paths) {
    input_file file;
    if (!open_companion(session, file, path)) return 0;
    const std::int64_t n = file.size / 2;
    least = &path == paths.data() ? n : std::min(least, n);
    most = std::max(most, n);
  }
  if (least < most) {
    log_message(session, fmt::format("Files of channels have {} to {} samples: {} are read of "
                                     "each",
                                     least, most, least));
  }
  if (least == 0) refuse_file(session, "A file of a channel has no samples");
  return least;
}

bool read_channel_files(session_state& session, const std::string& folder,
                        const rhd_header& header) {
  std::vector<std::string> paths;
  for (const std::string& name : header.amplifier_names) {
    paths.push_back(folder + channel_file_name(name));
  }
  log_message(session, "Samples are in a file for each channel");
  const std::int64_t n_samples = count_common_samples(session, paths);
  if (n_samples == 0 || !make_room(session, n_samples)) return false;
  // Opened for each piece: there may be more files than a process may hold open.
  const run_reader read = [&](std::size_t run, std::int64_t first, std::int64_t n,
                              std::int16_t* to) {
    input_file file;
    return open_input_file(file, paths[run]) && read_at(file, 2 * first, to, 2 * n);
  };
  const std::vector<std::int32_t> targets =
      map_interleaved(session, session.recording.n_channels).target;
  return is_read(session, read_channel_runs(session, targets, n_samples, read), false);
}

}  // namespace

bool read_rhd_companions(session_state& session, const std::string& path,
                         const rhd_header& header) {
  const std::string folder = folder_of(path);
  if (file_exists(folder + signal_file_name)) {
    return read_signal_file(session, folder + signal_file_name);
  }
  const std::string first = channel_file_name(header.amplifier_names.front());
  if (file_exists(folder + first)) return read_channel_files(session, folder, header);
  return refuse_file(session, fmt::format("The file has a header but no samples, and there is "
                                          "no {} or {} beside it",
                                          signal_file_name, legible_text(first)));
}

}  // namespace kestrelvane
