#include "recording/formats/surf/prf.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <iterator>

#include "files/byte_cursor.h"
#include "files/header_text.h"
#include "files/input_file.h"
#include "numerics/parallel.h"
#include "recording/formats/surf/surf.h"
#include "recording/header_checks.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// Widths of the fields in bytes. No description of the format is public beyond the order
// of its fields: a file that differs changes this table and nothing else.
struct prf_widths {
  std::size_t label = 16, comments = 256, polytrode = 16, epoch_name = 64;
};
constexpr prf_widths widths;
constexpr std::string_view label = "Polytrode Data";
constexpr float uv_per_bit = 0.9765625f;  // of the system's usual gains

struct stimulus_name {
  const char* name;
  char code[3];
};
constexpr stimulus_name stimulus_names[] = {
    {"driftbar", "OR"}, {"csd", "CS"}, {"blank", "BL"},     {"spont", "SP"},      {"grating", "GR"},
    {"mseq", "MS"},     {"MVI", "MV"}, {"f-1_noise", "F1"}, {"sparsebars", "SB"}, {"jitter", "JI"},
};

struct prf_walk {
  const input_file& file;
  std::int64_t at = 0;
  std::vector<char> bytes;
  // The next count bytes of the file, to take fields from.
  byte_cursor next(std::int64_t count) {
    bytes = read_block(file, at, count);
    at += count;
    return {bytes.data(), bytes.size()};
  }
};

bool end_early(const session_state& session) { return refuse_file(session, "Early end to file"); }

void set_epoch_code(recording_store& r, std::int32_t epoch, const std::string& name) {
  char* code = r.epoch_code[epoch];
  // Unknown names have a code of their own, which is no one's.
  code[0] = ' ';
  code[1] = '?';
  for (const stimulus_name& known : stimulus_names) {
    if (!name.starts_with(known.name)) continue;
    code[0] = known.code[0];
    code[1] = known.code[1];
    return;
  }
}

bool read_header(session_state& session, prf_walk& walk) {
  recording_store& r = session.recording;
  byte_cursor in = walk.next(
      static_cast<std::int64_t>(widths.label + 4 + widths.comments + widths.polytrode + 4 + 4));
  if (!take_text(in, widths.label).starts_with(label)) {
    return refuse_file(session, "Mistake reading file header");
  }
  log_message(session, fmt::format("format={}", take_i32(in)));
  log_message(session, "Comments " + legible_text(take_text(in, widths.comments)));
  const std::string polytrode = legible_text(take_text(in, widths.polytrode));
  log_message(session, "Polytrode name " + polytrode);
  r.sampling_frequency = take_i32(in);
  const std::int32_t n_channels = take_i32(in);
  if (in.failed) return end_early(session);
  if (!check_sampling_frequency(session, r.sampling_frequency) ||
      !check_channel_count(session, n_channels)) {
    return false;
  }
  r.n_channels = n_channels;
  if (!place_sites_of_polytrode(session, polytrode)) return false;
  in = walk.next(4 * std::int64_t{n_channels} + 4);
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    // Channels that the file has switched off take no part.
    if (take_i32(in) != 0) r.chan_mask[c] = true;
  }
  r.n_epochs = take_i32(in);
  if (in.failed) return end_early(session);
  log_message(session, fmt::format("Epochs={}", r.n_epochs));
  if (r.n_epochs >= 1 && r.n_epochs <= epoch_limit) return true;
  const std::string problem = fmt::format("# of epochs in file is {}", r.n_epochs);
  // One epoch, so that nothing later counts on what is not there.
  r.n_epochs = 1;
  return refuse_file(session, problem);
}

// All samples of one channel after the other, the channels shared out over the threads.
bool read_epoch_samples(session_state& session, const prf_walk& walk, std::int32_t epoch) {
  recording_store& r = session.recording;
  const std::int64_t bytes = 2 * r.epoch_samples[epoch];
  constexpr std::int64_t piece = 1 << 20;
  const std::atomic<bool>& interrupted = session.operation.reading_interrupted;
  std::atomic<bool> failed{false};
  parallel_for_dealt(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t rank) {
    const auto channel = static_cast<std::int32_t>(c);
    char* to = reinterpret_cast<char*>(r.vd.channel(channel) + r.epoch_first_index[epoch]);
    for (std::int64_t done = 0; done < bytes && !failed && !interrupted; done += piece) {
      const std::int64_t from = walk.at + (c - 1) * bytes + done;
      if (!read_at(walk.file, from, to + done, std::min(piece, bytes - done))) failed = true;
      // Only the thread of the operation polls.
      if (rank == 0) reading_interrupted(session);
    }
  });
  return !failed && !interrupted;
}

void describe_epoch(const session_state& session, std::int32_t epoch) {
  const recording_store& r = session.recording;
  const double minutes = static_cast<double>(r.epoch_samples[epoch]) / r.sampling_frequency / 60;
  log_message(session, "Reading data from recording epoch ");
  log_message(session, fmt::format("Epoch={}", epoch));
  log_message(session, fmt::format("Begins (mins) at {:.2f}",
                                   static_cast<double>(r.epoch_start[epoch]) / 60));
  log_message(session, fmt::format("Duration (mins) = {:.2f}", minutes));
  log_message(session, fmt::format("Recording duration was {:.2f} minutes", minutes));
  log_message(session, "Please wait ...");
}

// total: the samples, and blank seconds, of the epochs so far.
bool read_epoch(session_state& session, prf_walk& walk, std::int32_t epoch, std::int64_t& total) {
  recording_store& r = session.recording;
  byte_cursor in = walk.next(static_cast<std::int64_t>(widths.epoch_name + 16));
  const std::string name = legible_text(take_text(in, widths.epoch_name));
  // Seconds; a start that no clock tells is kept within what later differences hold.
  constexpr std::int64_t latest = std::int64_t{1} << 40;
  r.epoch_start[epoch] = std::clamp(take_value<std::int64_t>(in), -latest, latest);
  const auto n = take_value<std::int64_t>(in);
  if (in.failed) return end_early(session);
  log_message(session, "Name of epoch is " + name);
  // Divided and not multiplied: a count of a damaged file must not overflow.
  if (n < 0 || n > (walk.file.size - walk.at) / (2 * std::int64_t{r.n_channels})) {
    log_message(session, fmt::format("# of samples in epoch is {}", n));
    return end_early(session);
  }
  r.epoch_samples[epoch] = n;
  r.epoch_first_index[epoch] = total + 1;
  r.epoch_name[epoch] = name;
  set_epoch_code(r, epoch, name);
  describe_epoch(session, epoch);
  // Asked before the epoch is stored: room was made for the whole file and its blanks.
  if (total + n > r.max_vd_samples) {
    return refuse_file(session,
                       fmt::format("The epochs hold more than {} samples", r.max_vd_samples));
  }
  if (!read_epoch_samples(session, walk, epoch)) {
    return session.operation.reading_interrupted ? false : end_early(session);
  }
  walk.at += 2 * n * r.n_channels;
  // A second of zeros stands between two epochs.
  total += r.sampling_frequency + n;
  set_progress(session, meter::reading,
               static_cast<std::int32_t>(100 * walk.at / std::max<std::int64_t>(walk.file.size, 1)),
               115);
  return !reading_interrupted(session);
}

void check_time_stamps(const session_state& session) {
  const recording_store& r = session.recording;
  log_message(session, "Checking time stamps");
  for (std::int32_t e = 1; e < r.n_epochs; ++e) {
    const double difference = 1000.0 * (static_cast<double>(r.epoch_start[e + 1]) -
                                        static_cast<double>(r.epoch_start[e]));
    const double length = 1000.0 * static_cast<double>(r.epoch_samples[e]) / r.sampling_frequency;
    log_message(session, fmt::format("{:.0f} {:.0f}", difference, length));
  }
}

}  // namespace

bool read_prf(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  input_file file;
  if (!open_input_file(file, request.path)) {
    return refuse_file(session, "Can't open file " + request.path);
  }
  prf_walk walk{file, 0, {}};
  r.electrode_type = electrode_polytrode;
  r.is_continuous = true;
  r.vscale_HP = uv_per_bit;
  if (!read_header(session, walk)) return false;
  log_message(session, "Allocating memory for prf file");
  // Blank seconds stand between the epochs, however short these are.
  constexpr std::int64_t room_for_blanks = 5'000'000;
  const std::int64_t stored = file.size / (2 * std::int64_t{r.n_channels});
  // The epochs themselves are not known yet.
  if (!allocate_recording(session, stored + room_for_blanks)) return false;
  std::int64_t total = 0;
  for (std::int32_t e = 1; e <= r.n_epochs; ++e) {
    if (!read_epoch(session, walk, e, total)) return false;
  }
  // The blank second after the last epoch counts, as far as it was allocated.
  if (!check_sample_count(session, std::min<std::int64_t>(total, r.max_vd_samples))) return false;
  r.n_samples = static_cast<std::int32_t>(std::min<std::int64_t>(total, r.max_vd_samples));
  check_time_stamps(session);
  r.srf_path = request.path;
  log_message(session, "Finished reading combined surf file!");
  return true;
}

}  // namespace kestrelvane
