#include "recording/formats/intan/rhd.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "files/header_text.h"
#include "numerics/parallel.h"
#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::uint32_t magic = 0xC6912702;
constexpr float uv_per_bit = 0.195f;
constexpr std::int64_t sample_number_bytes = 4;

// --- the header

// A text of 16-bit characters behind its length in bytes, all bits set for an absent one.
// The low bytes are kept.
std::string take_wide_text(byte_cursor& in) {
  const auto length = take_value<std::uint32_t>(in);
  if (length == 0xFFFFFFFFu) return {};
  const std::string_view wide = take_text(in, length);
  std::string text;
  // Texts have two bytes to a character, and a last odd one is left out.
  for (std::size_t i = 0; i + 1 < wide.size(); i += 2) text += wide[i];
  return text;
}

// The 48 bytes of fixed place.
bool take_fixed_part(byte_cursor& in, rhd_header& header) {
  if (take_value<std::uint32_t>(in) != magic || in.failed) return false;
  const std::int32_t major = take_i16(in);
  const std::int32_t minor = take_i16(in);
  header.version_tenths = 10 * major + minor;
  header.sampling_frequency = take_f32(in);
  skip_bytes(in, 36);  // filters of the amplifiers, impedance test
  return true;
}

void take_rest(byte_cursor& in, rhd_header& header) {
  for (std::string& note : header.notes) note = take_wide_text(in);
  if (header.version_tenths >= 11) header.n_temperature = take_i16(in);
  if (header.version_tenths >= 13) skip_bytes(in, 2);   // mode of the board
  if (header.version_tenths >= 20) take_wide_text(in);  // reference channel
  header.n_groups = take_i16(in);
  for (std::int32_t g = 0; g < header.n_groups && !in.failed; ++g) {
    read_rhd_signal_group(in, header);
  }
  header.first_block = static_cast<std::int64_t>(in.at);
}

void set_block_size(rhd_header& header, std::int64_t n_digital_words) {
  const std::int64_t S = header.samples_per_block;
  const auto& n = header.n_enabled;
  header.n_digital_words = n_digital_words;
  header.block_bytes =
      S * sample_number_bytes +
      // Auxiliary inputs are sampled at a quarter of the rate, supplies once a block.
      2 * (n[rhd_amplifier] * S + n[rhd_auxiliary] * (S / 4) + n[rhd_supply] +
           std::max(header.n_temperature, 0) + n[rhd_board_adc] * S + n_digital_words * S);
}

// The header's length is known only at its end: the front of the file is read, and more of
// it when that was too little.
bool read_header(session_state& session, const input_file& file, rhd_header& header) {
  constexpr std::int64_t most_bytes = 64 << 20;
  for (std::int64_t bytes = 256 << 10;; bytes *= 16) {
    header = {};
    const std::vector<char> block = read_block(file, 0, bytes);
    byte_cursor in{block.data(), block.size()};
    if (!take_fixed_part(in, header)) {
      log_message(session, "The file does not begin as an Intan .rhd file does");
      return false;
    }
    take_rest(in, header);
    if (!in.failed) break;
    // The whole file, or far more than any header, did not do.
    if (bytes >= file.size || bytes >= most_bytes) return refuse_file(session, "Early end to file");
  }
  // Blocks grew with version 2.
  header.samples_per_block = header.version_tenths < 20 ? 60 : 128;
  const bool has_digital = header.n_enabled[rhd_digital_in] + header.n_enabled[rhd_digital_out] > 0;
  set_block_size(header, has_digital ? 1 : 0);
  return true;
}

void log_header(session_state& session, const rhd_header& header) {
  log_message(session, fmt::format("RHD Version={}.{}", header.version_tenths / 10,
                                   header.version_tenths % 10));
  for (std::size_t i = 0; i < header.notes.size(); ++i) {
    log_message(session, fmt::format("User comment {}: {}", i + 1, legible_text(header.notes[i])));
  }
  log_message(session, fmt::format("# of signal groups = {}", header.n_groups));
}

bool take_header(session_state& session, const rhd_header& header) {
  recording_store& r = session.recording;
  if (!check_channel_count(session, header.n_enabled[rhd_amplifier]) ||
      !check_sampling_frequency(session, double{header.sampling_frequency})) {
    return false;
  }
  r.is_continuous = true;
  r.n_channels = static_cast<std::int32_t>(header.n_enabled[rhd_amplifier]);
  r.vscale_HP = uv_per_bit;
  r.sampling_frequency = static_cast<std::int32_t>(header.sampling_frequency);
  return true;
}

// --- the blocks

// Whether the second block begins with the sample number that follows the first block's.
bool numbers_run_on(const input_file& file, const rhd_header& header) {
  std::int32_t first = 0, second = 0;
  return read_at(file, header.first_block, &first, sizeof first) &&
         read_at(file, header.first_block + header.block_bytes, &second, sizeof second) &&
         // In 64 bits: the numbers may be at either end of 32.
         std::int64_t{second} - first == header.samples_per_block;
}

// Digital words stand once in a block. Systems that record inputs and outputs write them
// twice; the numbers of the samples tell.
void settle_digital_words(const session_state& session, const input_file& file,
                          rhd_header& header) {
  const bool both = header.n_enabled[rhd_digital_in] > 0 && header.n_enabled[rhd_digital_out] > 0;
  if (!both || numbers_run_on(file, header)) return;
  set_block_size(header, 2);
  if (numbers_run_on(file, header)) {
    log_message(session, "Digital inputs and outputs stand in stretches of their own");
  } else {
    // Neither fits: the usual layout stands.
    set_block_size(header, 1);
  }
}

// Groups of about a megabyte of blocks, shared out over the threads.
bool read_blocks(session_state& session, const input_file& file, const rhd_header& header,
                 std::int64_t n_blocks) {
  constexpr std::int64_t group_bytes = 1 << 20;
  const std::vector<std::int32_t> targets =
      map_interleaved(session, session.recording.n_channels).target;
  const std::int64_t in_group = std::max<std::int64_t>(group_bytes / header.block_bytes, 1);
  const std::int64_t n_groups = (n_blocks - 1) / in_group + 1;
  const std::int32_t n_threads = threads_now(session);
  std::vector<std::vector<char>> buffers(static_cast<std::size_t>(n_threads));
  std::atomic<bool> failed{false};
  std::atomic<std::int64_t> n_read{0};
  const std::atomic<bool>& interrupted = session.operation.reading_interrupted;
  expect_sequential_reading(file);
  parallel_for_dealt(n_threads, 0, n_groups - 1, [&](std::int64_t g, std::int32_t rank) {
    if (failed || interrupted) return;
    const std::int64_t first = g * in_group;
    const std::int64_t n = std::min(in_group, n_blocks - first);
    std::vector<char>& buffer = buffers[rank];
    // Whole blocks, so that no channel's stretch is cut.
    buffer.resize(static_cast<std::size_t>(n * header.block_bytes));
    const std::int64_t at = header.first_block + first * header.block_bytes;
    if (!read_at(file, at, buffer.data(), std::ssize(buffer))) {
      failed = true;
      return;
    }
    read_rhd_block(session, header, targets, buffer.data(), n,
                   1 + first * header.samples_per_block);
    const std::int64_t done = ++n_read;
    if (rank != 0) return;
    // The bar and the polls belong to the thread that runs the operation.
    set_progress(session, meter::reading, static_cast<std::int32_t>(100 * done / n_groups), 115);
    reading_interrupted(session);
  });
  if (failed) log_message(session, "Error or end of file");
  return !failed && !interrupted;
}

// How the file ends: after a block, or inside one.
void log_end(const session_state& session, const input_file& file, const rhd_header& header) {
  const std::int64_t rest = (file.size - header.first_block) % header.block_bytes;
  // A few spare bytes are nothing; samples that lack their block are told.
  const bool inside_samples = rest >= sample_number_bytes * header.samples_per_block;
  log_message(session, inside_samples ? "Error or end of file" : "Expected end of file");
}

bool read_one_file(session_state& session, const input_file& file, const rhd_header& header,
                   std::int64_t n_blocks) {
  recording_store& r = session.recording;
  const std::int64_t n_samples = n_blocks * header.samples_per_block;
  if (!check_sample_count(session, n_samples)) return false;
  r.n_samples = static_cast<std::int32_t>(n_samples);
  if (!allocate_recording(session, r.n_samples + usual_spare_samples)) return false;
  log_message(session, "Reading waveforms, please wait ...");
  if (!read_blocks(session, file, header, n_blocks)) return false;
  log_end(session, file, header);
  return true;
}

}  // namespace

void read_rhd_signal_group(byte_cursor& in, rhd_header& header) {
  take_wide_text(in);  // name
  take_wide_text(in);  // prefix
  const bool is_enabled = take_i16(in) != 0;
  const std::int32_t n_channels = take_i16(in);
  skip_bytes(in, 2);  // amplifier channels
  for (std::int32_t c = 0; is_enabled && c < n_channels && !in.failed; ++c) {
    std::string name = take_wide_text(in);  // as the board has it
    take_wide_text(in);                     // as the user has named it
    skip_bytes(in, 4);                      // orders of the two
    const std::int32_t signal = take_i16(in);
    const bool channel_is_enabled = take_i16(in) == 1;
    skip_bytes(in, 20);
    const bool known = signal >= 0 && signal < rhd_n_signals;
    // Signals of unknown kinds have no room in a block.
    if (!known || !channel_is_enabled) continue;
    ++header.n_enabled[signal];
    if (signal == rhd_amplifier) header.amplifier_names.push_back(std::move(name));
  }
}

void read_rhd_block(session_state& session, const rhd_header& header,
                    const std::vector<std::int32_t>& targets, const char* blocks, std::int64_t n,
                    std::int64_t first_index) {
  // Values are unsigned with zero in the middle; four of them are turned at a time, which
  // 60 and 128 allow.
  constexpr std::uint64_t middles = 0x8000'8000'8000'8000u;
  const auto run_bytes = static_cast<std::size_t>(2 * header.samples_per_block);
  for (std::size_t c = 0; c < targets.size(); ++c) {
    if (targets[c] == 0) continue;
    std::int16_t* to = session.recording.vd.channel(targets[c]) + first_index;
    const char* from = blocks + sample_number_bytes * header.samples_per_block + c * run_bytes;
    for (std::int64_t b = 0; b < n; ++b) {
      for (std::size_t i = 0; i < run_bytes; i += sizeof middles) {
        std::uint64_t four = 0;
        std::memcpy(&four, from + i, sizeof four);
        // The top bit turned: the middle of the unsigned range becomes 0.
        four ^= middles;
        std::memcpy(reinterpret_cast<char*>(to) + i, &four, sizeof four);
      }
      to += header.samples_per_block;
      from += header.block_bytes;
    }
  }
}

bool read_rhd(session_state& session, const recording_request& request) {
  input_file file;
  if (!open_input_file(file, request.path)) {
    log_message(session, "Failed to Open RHD file");
    log_message(session, file.problem);
    return false;
  }
  recording_store& r = session.recording;
  rhd_header header;
  set_progress(session, meter::reading, 0, 115);
  if (!read_header(session, file, header)) return false;
  log_header(session, header);
  if (!take_header(session, header)) return false;
  settle_digital_words(session, file, header);
  const std::int64_t n_blocks = (file.size - header.first_block) / header.block_bytes;
  const bool is_read = n_blocks > 0 ? read_one_file(session, file, header, n_blocks)
                                    : read_rhd_companions(session, request.path, header);
  if (!is_read) return false;
  log_message(session, fmt::format("Voltage scaling (uV/bit) = {}", r.vscale_HP));
  log_message(session, fmt::format("Number of channels in file = {}", r.n_channels));
  log_message(session, fmt::format("Number of channels read = {}", r.n_channels));
  if (r.no_config_file) place_channels_in_line(session);
  set_progress(session, meter::reading, 100, 115);
  log_message(session, fmt::format("Allocating memory for {} voltage samples", r.n_samples));
  return true;
}

}  // namespace kestrelvane
