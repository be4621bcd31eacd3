#include "recording/formats/neuralynx/neuralynx.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "files/byte_cursor.h"
#include "files/header_text.h"
#include "files/input_file.h"
#include "numerics/parallel.h"
#include "recording/event_records.h"
#include "recording/header_checks.h"
#include "recording/repeated_line.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"

namespace kestrelvane {

namespace {

// --- header

// The next line of the header; a carriage return and line feed are one end. False after
// the last.
bool take_header_line(std::string_view& text, std::string_view& line) {
  constexpr std::size_t longest = 256;
  if (text.empty() || text.front() == '\0') return false;
  // A header ends with its first zero, which pads it to its fixed length.
  const std::size_t end = std::min(text.find_first_of(std::string_view("\r\n\0", 3)), text.size());
  line = text.substr(0, std::min(end, longest));
  text.remove_prefix(line.size());
  // A line longer than that goes on as the next one.
  if (line.size() < end) return true;
  const bool pair = text.starts_with("\r\n");
  if (!text.empty() && text.front() != '\0') text.remove_prefix(pair ? 2 : 1);
  return true;
}

// What stands behind a key, without the blanks and tabs between; nothing when the line
// has another key.
std::optional<std::string_view> value_of(std::string_view line, std::string_view key) {
  constexpr const char* blanks = " \t";
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  if (!line.starts_with(key)) return std::nullopt;
  line.remove_prefix(key.size());
  // A longer key that begins alike is another key.
  if (!line.empty() && line.front() != ' ' && line.front() != '\t') return std::nullopt;
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  return line;
}

bool take_number(std::string_view text, double& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && std::isfinite(value);
}

// The whole-number part, of a number that an i32 holds.
bool take_whole(std::string_view text, std::int32_t& value) {
  double number = 0.0;
  if (!take_number(text, number) || std::fabs(number) > 2e9) return false;
  value = static_cast<std::int32_t>(number);
  return true;
}

void report_undecoded(const session_state& session) {
  log_message(session, "Error decoding header");
}

bool parse_waveform_length(const session_state& session, std::string_view value) {
  std::int32_t length = 0;
  if (!take_whole(value, length)) {
    report_undecoded(session);
    return false;
  }
  if (length == ntt_waveform_length) return true;
  log_message(session, fmt::format("Unsupported waveform length= {}", length));
  return false;
}

void parse_scale(session_state& session, std::string_view value) {
  constexpr float highest = 10.0f, instead = 0.05f;  // µV per bit
  double volts = 0.0;
  if (!take_number(value, volts)) return report_undecoded(session);
  float& scale = session.recording.vscale_HP;
  scale = static_cast<float>(volts * 1e6);
  log_message(session, fmt::format("vscale_HP= {}", scale));
  if (scale <= highest) return;
  scale = instead;
  log_message(session, fmt::format("vscale_HP is set to {}", scale));
}

// Rate and scale of the recording. False for a waveform length that is not read.
bool parse_header(session_state& session, std::string_view text) {
  bool supported = true;
  std::string_view line;
  while (take_header_line(text, line)) {
    if (const auto value = value_of(line, "-WaveformLength")) {
      supported &= parse_waveform_length(session, *value);
    } else if (const auto rate = value_of(line, "-SamplingFrequency")) {
      if (!take_whole(*rate, session.recording.sampling_frequency)) report_undecoded(session);
    } else if (const auto volts = value_of(line, "-ADBitVolts")) {
      parse_scale(session, *volts);
    } else if (const auto inverted = value_of(line, "-InputInverted")) {
      if (!inverted->starts_with("True")) continue;
      log_message(session, "Input was inverted: voltages have the sign of the amplifier");
    }
  }
  return supported;
}

void log_header(session_state& session, std::string_view text) {
  std::string_view line;
  while (take_header_line(text, line)) {
    const std::string legible = legible_text(line);
    if (legible.empty()) return;
    log_message(session, legible);
  }
}

bool open_and_read_header(const session_state& session, input_file& file, const std::string& path,
                          std::string& header) {
  if (!open_input_file(file, path)) {
    log_message(session, file.problem);
    return false;
  }
  expect_sequential_reading(file);
  header.resize(static_cast<std::size_t>(neuralynx_header_bytes));
  if (read_at(file, 0, header.data(), neuralynx_header_bytes)) return true;
  log_message(session, "Early end to file");
  return false;
}

void report_remainder(const session_state& session, const input_file& file,
                      std::int64_t record_bytes) {
  const std::int64_t rest = (file.size - neuralynx_header_bytes) % record_bytes;
  if (rest == 0) return;
  log_message(session, fmt::format("Early end to file: the last record has {} of {} bytes", rest,
                                   record_bytes));
}

// --- .ncs

constexpr std::int32_t ncs_samples = 512;  // of a record, valid or not
constexpr std::int64_t ncs_head_bytes = 20;
constexpr std::int64_t ncs_block_records = 500;
constexpr std::int64_t spare_samples = 10512;

struct ncs_head {
  std::uint64_t time_us;
  std::uint32_t channel;
  std::uint32_t frequency;
  std::uint32_t n_valid;
};

// Where the samples of a record go.
struct ncs_place {
  std::uint32_t channel = 0;  // of the file; later from 1
  std::uint16_t n_valid = 0;
  std::int64_t after = 0;  // samples of the channel in front
};

struct ncs_survey {
  std::vector<ncs_place> records;
  std::vector<std::uint64_t> times;  // µs
  std::uint64_t first_us = std::numeric_limits<std::uint64_t>::max(), last_us = 0;
  std::uint32_t lowest = std::numeric_limits<std::uint32_t>::max(), highest = 0;
  std::int32_t frequency = 0;                // of the first record
  std::atomic<std::int64_t> n_overfull = 0;  // records that tell of more samples than they have
  std::int64_t fullest = 0;                  // valid samples of the fullest channel
};

// Calls use(first record, records, bytes) for the blocks of the file on all threads. False
// when the file cannot be read or the user stops it; the bar goes from bar_from to 100.
template <typename Use>
bool for_each_ncs_block(const session_state& session, const input_file& file,
                        std::int64_t n_records, std::int32_t bar_from, Use&& use) {
  const std::int32_t n_threads = std::max(threads_now(session), 1);
  // Blocks of whole records, so that no record is read in two halves.
  const std::int64_t n_blocks = (n_records + ncs_block_records - 1) / ncs_block_records;
  std::vector<std::vector<char>> buffers(static_cast<std::size_t>(n_threads));
  std::atomic<bool> stopped{false};
  std::atomic<std::int64_t> n_done{0};
  parallel_for(n_threads, 0, n_blocks - 1, [&](std::int64_t block, std::int32_t rank) {
    if (stopped) return;
    std::vector<char>& buffer = buffers[rank];
    const std::int64_t first = block * ncs_block_records;
    const std::int64_t n = std::min(ncs_block_records, n_records - first);
    buffer.resize(static_cast<std::size_t>(ncs_block_records * ncs_record_bytes));
    if (!read_at(file, neuralynx_header_bytes + first * ncs_record_bytes, buffer.data(),
                 n * ncs_record_bytes)) {
      stopped = true;
      return;
    }
    use(first, n, buffer.data());
    const std::int64_t done = ++n_done;
    if (rank != 0) return;
    // A wish of the user stops the other threads at their next block.
    if (reading_interrupted(session)) stopped = true;
    set_progress(session, meter::reading,
                 static_cast<std::int32_t>(bar_from + (100 - bar_from) * done / n_blocks), 115);
  });
  return !stopped;
}

ncs_head take_ncs_head(const char* bytes) {
  byte_cursor in{bytes, static_cast<std::size_t>(ncs_head_bytes)};
  ncs_head head;
  head.time_us = take_value<std::uint64_t>(in);
  head.channel = take_value<std::uint32_t>(in);
  head.frequency = take_value<std::uint32_t>(in);
  head.n_valid = take_value<std::uint32_t>(in);
  return head;
}

std::int64_t count_records(const input_file& file) {
  return (file.size - neuralynx_header_bytes) / ncs_record_bytes;
}

// The head of record i into the survey; any thread, each record once.
void note_head(ncs_survey& survey, std::int64_t i, const ncs_head& head) {
  ncs_place& place = survey.records[i];
  place.channel = head.channel;
  // No record is believed to hold more than there is room for in it.
  place.n_valid = static_cast<std::uint16_t>(std::min<std::uint32_t>(head.n_valid, ncs_samples));
  if (head.n_valid > ncs_samples) ++survey.n_overfull;
  survey.times[i] = head.time_us;
}

void start_survey(ncs_survey& survey, const input_file& file, const ncs_head& first) {
  const auto n = static_cast<std::size_t>(count_records(file));
  survey.records.assign(n, {});
  survey.times.assign(n, 0);
  survey.n_overfull = 0;
  // Above a million it is no rate; the header's may do.
  survey.frequency = first.frequency <= 1'000'000 ? static_cast<std::int32_t>(first.frequency) : 0;
}

// Channels of the recording, the place of every record's samples in them, and the span.
bool place_records(session_state& session, ncs_survey& survey) {
  for (std::size_t i = 0; i < survey.records.size(); ++i) {
    survey.first_us = std::min(survey.first_us, survey.times[i]);
    survey.last_us = std::max(survey.last_us, survey.times[i]);
    survey.lowest = std::min(survey.lowest, survey.records[i].channel);
    survey.highest = std::max(survey.highest, survey.records[i].channel);
  }
  const std::int64_t n_channels = std::int64_t{survey.highest} - survey.lowest + 1;
  if (!check_channel_count(session, n_channels)) return false;
  session.recording.n_channels = static_cast<std::int32_t>(n_channels);
  std::vector<std::int64_t> filled(n_channels + 1);
  for (ncs_place& place : survey.records) {
    // From here on channels count from the lowest in the file, whatever its number.
    place.channel = place.channel - survey.lowest + 1;
    // In the order of the file: the stamps of records are not what places them.
    place.after = filled[place.channel];
    filled[place.channel] += place.n_valid;
  }
  survey.fullest = *std::max_element(filled.begin(), filled.end());
  if (survey.n_overfull > 0) {
    log_message(session, fmt::format("{} records tell of more than {} samples",
                                     survey.n_overfull.load(), ncs_samples));
  }
  return true;
}

// The record's own rate counts; the header's stands in where that is none.
bool choose_ncs_frequency(session_state& session, const ncs_survey& survey) {
  recording_store& r = session.recording;
  if (survey.frequency > 0) {
    r.sampling_frequency = survey.frequency;
  } else {
    log_message(session, "The records have no sampling frequency: the header's is used");
  }
  return check_sampling_frequency(session, r.sampling_frequency) &&
         check_voltage_scale(session, r.vscale_HP);
}

// Samples of the time span and some to spare, unless the file has fewer.
std::int64_t count_ncs_samples(const ncs_survey& survey, std::int32_t frequency) {
  // In 64-bit floats: stamps of a damaged file may lie as far apart as there are.
  const double span = static_cast<double>(survey.last_us - survey.first_us);
  const double stated = std::floor(span * frequency / 1e6);
  return static_cast<std::int64_t>(std::min(stated, static_cast<double>(survey.fullest))) +
         spare_samples;
}

bool allocate_ncs(session_state& session, std::int64_t n) {
  recording_store& r = session.recording;
  if (!check_sample_count(session, n)) return false;
  r.n_samples = static_cast<std::int32_t>(n);
  log_message(session, fmt::format("allocating {} {}", r.n_samples, r.n_channels));
  return allocate_recording(session, r.n_samples + usual_spare_samples);
}

// --- one channel: the file is read once. Records are taken to be full; where some are not,
// the samples after them move up afterwards.

enum class one_pass { done, failed, more_channels };

one_pass read_full_records(session_state& session, const input_file& file, ncs_survey& survey,
                           std::uint32_t channel) {
  std::int16_t* v = session.recording.vd.channel(1) + 1;
  std::atomic<bool> others{false};
  const auto store_block = [&](std::int64_t first, std::int64_t count, const char* bytes) {
    if (others) return;
    for (std::int64_t i = 0; i < count; ++i, bytes += ncs_record_bytes) {
      const ncs_head head = take_ncs_head(bytes);
      if (head.channel != channel) others = true;
      note_head(survey, first + i, head);
      // Whole records at their place as if all were full; the short ones are put right below.
      std::memcpy(v + (first + i) * ncs_samples, bytes + ncs_head_bytes, 2 * ncs_samples);
    }
  };
  if (!for_each_ncs_block(session, file, count_records(file), 0, store_block)) {
    return one_pass::failed;
  }
  return others ? one_pass::more_channels : one_pass::done;
}

// Closes the gaps after short records, and clears what lies after the last sample that
// is kept, up to n_stored.
void close_up_records(session_state& session, const ncs_survey& survey, std::int64_t n_stored) {
  recording_store& r = session.recording;
  std::int16_t* v = r.vd.channel(1) + 1;
  for (std::size_t i = 0; i < survey.records.size(); ++i) {
    const ncs_place& place = survey.records[i];
    const std::int64_t from = static_cast<std::int64_t>(i) * ncs_samples;
    if (place.after != from)
      std::memmove(v + place.after, v + from, 2 * std::size_t{place.n_valid});
  }
  const std::int64_t n_kept = std::min<std::int64_t>(survey.fullest, r.n_samples - 1);
  std::memset(v + n_kept, 0, 2 * static_cast<std::size_t>(n_stored - n_kept));
}

one_pass read_one_channel(session_state& session, const input_file& file, ncs_survey& survey,
                          std::uint32_t channel) {
  recording_store& r = session.recording;
  const std::int64_t n_stored = count_records(file) * ncs_samples;
  r.n_channels = 1;
  if (!allocate_ncs(session, n_stored + spare_samples)) return one_pass::failed;
  const one_pass outcome = read_full_records(session, file, survey, channel);
  if (outcome != one_pass::done) return outcome;
  // Only now are the valid samples of every record known.
  if (!place_records(session, survey)) return one_pass::failed;
  r.n_samples = static_cast<std::int32_t>(count_ncs_samples(survey, r.sampling_frequency));
  // Room was taken for full records; the recording is as long as its samples.
  r.max_vd_samples = r.n_samples + 1000;
  close_up_records(session, survey, n_stored);
  return one_pass::done;
}

// --- several channels: first the heads, then the samples

bool read_channels(session_state& session, const input_file& file, ncs_survey& survey) {
  recording_store& r = session.recording;
  const auto survey_block = [&](std::int64_t first, std::int64_t count, const char* bytes) {
    for (std::int64_t i = 0; i < count; ++i, bytes += ncs_record_bytes) {
      note_head(survey, first + i, take_ncs_head(bytes));
    }
  };
  // Counted anew, since the attempt with one channel has counted, too.
  survey.n_overfull = 0;
  const std::int64_t n_records = count_records(file);
  if (!for_each_ncs_block(session, file, n_records, 0, survey_block) ||
      !place_records(session, survey) ||
      !allocate_ncs(session, count_ncs_samples(survey, r.sampling_frequency))) {
    return false;
  }
  const auto store_block = [&](std::int64_t first, std::int64_t count, const char* bytes) {
    for (std::int64_t i = 0; i < count; ++i, bytes += ncs_record_bytes) {
      const ncs_place& place = survey.records[first + i];
      // The same bound for every channel, whatever its records tell.
      const std::int64_t n = std::min<std::int64_t>(place.n_valid, r.n_samples - 1 - place.after);
      if (n <= 0) continue;
      std::memcpy(r.vd.channel(static_cast<std::int32_t>(place.channel)) + place.after + 1,
                  bytes + ncs_head_bytes, 2 * static_cast<std::size_t>(n));
    }
  };
  return for_each_ncs_block(session, file, n_records, 50, store_block);
}

bool read_ncs_records(session_state& session, const input_file& file, ncs_survey& survey) {
  if (count_records(file) == 0) return refuse_file(session, "There are no records in the file");
  char bytes[ncs_head_bytes];
  if (!read_at(file, neuralynx_header_bytes, bytes, ncs_head_bytes)) return false;
  const ncs_head first = take_ncs_head(bytes);
  start_survey(survey, file, first);
  if (!choose_ncs_frequency(session, survey)) return false;
  // The last record tells at once of most files with several channels.
  if (!read_at(file, neuralynx_header_bytes + (count_records(file) - 1) * ncs_record_bytes, bytes,
               ncs_head_bytes)) {
    return false;
  }
  one_pass outcome = one_pass::more_channels;
  if (take_ncs_head(bytes).channel == first.channel) {
    outcome = read_one_channel(session, file, survey, first.channel);
  }
  if (outcome == one_pass::more_channels) return read_channels(session, file, survey);
  return outcome == one_pass::done;
}

// Time between the end of a record and the stamp of the channel's next, s; 0 for what rounding
// of stamps and of the records' whole-number rate can make up. A clock that goes back is none.
double pause_between(const ncs_survey& survey, std::size_t earlier, std::size_t later,
                     std::int32_t frequency) {
  if (survey.times[later] <= survey.times[earlier]) return 0.0;
  const double apart = static_cast<double>(survey.times[later] - survey.times[earlier]) / 1e6;
  const double pause = apart - static_cast<double>(survey.records[earlier].n_valid) / frequency;
  return pause > std::max(0.001, 1.5 / frequency) ? pause : 0.0;
}

// Samples stand end to end, so that a pause makes all later times early: the user must know
// of each. All channels pause together; the one with the longest speaks for them.
void report_pauses(const session_state& session, const ncs_survey& survey) {
  const recording_store& r = session.recording;
  struct channel_pauses {
    std::int64_t last = -1;  // record
    double seconds = 0.0;
    repeated_line lines{.most = 100};
  };
  std::vector<channel_pauses> channels(static_cast<std::size_t>(r.n_channels) + 1);
  for (std::size_t i = 0; i < survey.records.size(); ++i) {
    const ncs_place& place = survey.records[i];
    channel_pauses& of = channels[place.channel];
    const std::int64_t last = std::exchange(of.last, static_cast<std::int64_t>(i));
    const double pause =
        last < 0 ? 0.0
                 : pause_between(survey, static_cast<std::size_t>(last), i, r.sampling_frequency);
    if (pause == 0.0) continue;
    of.seconds += pause;
    if (!is_worth_a_line(of.lines)) continue;
    log_message(session, fmt::format("Pause of {:.6g} s after {:.6g} s on channel {}", pause,
                                     static_cast<double>(place.after) / r.sampling_frequency,
                                     place.channel));
  }
  for (const channel_pauses& of : channels) log_rest(session, of.lines, "pauses");
  const auto most = std::max_element(
      channels.begin(), channels.end(),
      [](const channel_pauses& a, const channel_pauses& b) { return a.seconds < b.seconds; });
  if (most->lines.n == 0) return;
  log_message(
      session,
      fmt::format("Warning: {}, {:.6g} s in all, closed up: later times are early by as much",
                  most->lines.n == 1 ? "a pause" : fmt::format("{} pauses", most->lines.n),
                  most->seconds));
}

// --- .ntt

constexpr std::int64_t ntt_block_records = 4096;

struct ntt_record {
  std::uint64_t time_us;
  std::uint32_t acquisition;
  std::uint32_t cell;
  std::int32_t features[ntt_feature_count];
  std::int16_t samples[ntt_waveform_length][ntt_channels];
};
static_assert(sizeof(ntt_record) == ntt_record_bytes);

void store_ntt_samples(recording_store& r, const ntt_record& record, std::int64_t index) {
  for (std::int32_t c = 0; c < ntt_channels; ++c) {
    std::int16_t* v = r.vd.channel(c + 1) + index;
    for (std::int32_t k = 0; k < ntt_waveform_length; ++k) v[k] = record.samples[k][c];
  }
}

// Largest peak-to-peak, the lowest on ties; from 1.
std::int32_t largest_channel(const ntt_record& record) {
  std::int32_t best = 0, best_range = -1;
  for (std::int32_t c = 0; c < ntt_channels; ++c) {
    std::int16_t low = record.samples[0][c], high = low;
    for (const auto& sample : record.samples) {
      low = std::min(low, sample[c]);
      high = std::max(high, sample[c]);
    }
    if (high - low <= best_range) continue;
    best_range = high - low;
    best = c + 1;
  }
  return best;
}

void store_ntt_record(session_state& session, const ntt_record& record) {
  recording_store& r = session.recording;
  event_table& e = session.events;
  const std::int64_t n = ++r.ntt_record_count;
  const auto time = static_cast<std::int64_t>(record.time_us);
  // Times count from the first record, whatever comes later.
  if (n == 1) r.first_timestamp = time;
  // Unsigned: a stamp may be anything, and wraps back when it is written.
  r.timestamp(n, 1) =
      static_cast<std::int64_t>(record.time_us - static_cast<std::uint64_t>(r.first_timestamp));
  // A unit beyond 16 bits is kept as the largest; it is not sorted anyway.
  r.record_unit(n, 1) = static_cast<std::int16_t>(std::min<std::uint32_t>(record.cell, 32767));
  std::copy_n(record.features, ntt_feature_count,
              r.ntt_features.first() + (n - 1) * ntt_feature_count);
  const std::int64_t index = record_index(n, ntt_waveform_length);
  store_ntt_samples(r, record, index);
  r.n_samples = static_cast<std::int32_t>(index + ntt_waveform_length - 1);

  const std::int32_t i = ++e.n_events;
  e.event_time[i] = static_cast<std::int32_t>(index + ntt_waveform_length / 2);
  e.event_channel[i] = largest_channel(record);
  const bool sorted =
      record.cell >= 1 && record.cell <= static_cast<std::uint32_t>(session.max_clusters);
  // Cells beyond the limit of clusters are unclustered.
  e.event_cluster[i] = sorted ? static_cast<std::int32_t>(record.cell) : 0;
  session.clusters.n_clusters = std::max(session.clusters.n_clusters, e.event_cluster[i]);
}

// Room for the records that the file has, as far as the session holds them.
bool allocate_ntt(session_state& session, const input_file& file, std::int64_t n_records) {
  recording_store& r = session.recording;
  r.n_tetrodes = 1;
  r.n_channels = ntt_channels;
  // A record takes twice the length of its waveform, which is less than half of its bytes.
  constexpr std::int64_t ntt_spare_samples = 10'000;
  if (!allocate_recording(session, file.size / 2 + ntt_spare_samples)) return false;
  log_message(session, fmt::format("max_vd_samples= {}", r.max_vd_samples));
  const std::int64_t n = std::min<std::int64_t>(n_records, r.records_per_unit);
  return r.ntt_features.reserve(n * ntt_feature_count) ||
         refuse_file(session, "Not enough memory for features");
}

void report_max_events(const session_state& session) {
  log_message(session, "MAX EVENTS REACHED, ABORTING READ");
  tell(session, "Max events reached, Aborting read", "Neuralynx", box_icon::warning);
}

// False when the file fails or the user stops it. More records than the session holds
// end the read with what there is.
bool read_ntt_records(session_state& session, const input_file& file, std::int64_t n_records) {
  recording_store& r = session.recording;
  const std::int64_t n_kept =
      std::min<std::int64_t>({n_records, r.records_per_unit, event_limit - 1});
  std::vector<ntt_record> block(static_cast<std::size_t>(ntt_block_records));
  for (std::int64_t first = 0; first < n_kept; first += ntt_block_records) {
    const std::int64_t n = std::min(ntt_block_records, n_kept - first);
    if (!read_at(file, neuralynx_header_bytes + first * ntt_record_bytes, block.data(),
                 n * ntt_record_bytes)) {
      log_message(session, "Early end to file");
      return false;
    }
    for (std::int64_t i = 0; i < n; ++i) {
      store_ntt_record(session, block[i]);
    }
    if (reading_interrupted(session)) return false;
    set_progress(session, meter::reading, static_cast<std::int32_t>(100 * (first + n) / n_kept),
                 115);
  }
  r.tetrode_event_count[1] = r.ntt_record_count;
  if (n_kept < n_records) report_max_events(session);
  return true;
}

void finish_ntt(session_state& session) {
  recording_store& r = session.recording;
  log_message(session,
              fmt::format("There are {} clusters in the file", session.clusters.n_clusters));
  set_tetrode_map(session);
  r.chan_mask.clear();
  // The length of a record.
  r.file_window_start_ms = -0.64f;
  r.file_window_end_ms = 0.64f;
  session.clusters.current_cluster = session.clusters.previous_cluster = 1;
}

}  // namespace

bool read_ncs(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  input_file file;
  std::string header;
  if (!open_and_read_header(session, file, request.path, header)) return false;
  log_header(session, header);
  parse_header(session, header);
  report_remainder(session, file, ncs_record_bytes);
  ncs_survey survey;
  if (!read_ncs_records(session, file, survey)) return false;
  report_pauses(session, survey);
  r.is_continuous = true;
  r.first_timestamp = static_cast<std::int64_t>(survey.first_us);
  if (r.n_channels > 1) set_tetrode_map(session);
  return true;
}

bool read_ntt(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  log_message(session, "Opening tetrode (.ntt) data file " + request.path);
  input_file file;
  if (!open_and_read_header(session, file, request.path, r.ntt_header)) return false;
  log_header(session, r.ntt_header);
  if (!parse_header(session, r.ntt_header)) {
    tell(session, "This record length currently unsupported", "Unsupported file format");
    return false;
  }
  if (!check_sampling_frequency(session, r.sampling_frequency) ||
      !check_voltage_scale(session, r.vscale_HP)) {
    return false;
  }
  report_remainder(session, file, ntt_record_bytes);
  const std::int64_t n_records = (file.size - neuralynx_header_bytes) / ntt_record_bytes;
  if (n_records == 0) return refuse_file(session, "There are no records in the file");
  r.is_continuous = false;
  r.electrode_type = electrode_tetrode;
  r.samples_per_event = ntt_waveform_length;
  r.records_stay_apart = true;
  if (!allocate_ntt(session, file, n_records) || !read_ntt_records(session, file, n_records)) {
    return false;
  }
  finish_ntt(session);
  return true;
}

}  // namespace kestrelvane
