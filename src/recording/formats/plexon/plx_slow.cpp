// The continuous channels of a ".plx" file, and the spikes as its events.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "numerics/parallel.h"
#include "recording/formats/plexon/plx.h"
#include "recording/formats/plexon/plx_reading.h"
#include "recording/header_checks.h"
#include "recording/repeated_line.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// µV per bit of a slow channel; 0 where the header's gains or bits give none.
double slow_scale(const plx_file_header& h, const plx_slow_header& slow) {
  const double gain = slow.gain, preamp_gain = slow.preamp_gain;
  double millivolts = 0.0, steps = 0.0;
  if (h.version < 102) {
    millivolts = 5000.0;
    steps = gain * 2'048'000.0;
  } else if (h.version == 102) {
    millivolts = 5000.0;
    steps = gain * 2048.0 * preamp_gain;
  } else {
    millivolts = h.slow_max_magnitude_mv;
    // A shift by 32 or more has no defined value.
    if (h.bits_per_slow_sample < 32) {
      steps = gain * 0.5 * preamp_gain * std::ldexp(1.0, h.bits_per_slow_sample);
    }
  }
  return steps == 0.0 ? 0.0 : 1000.0 * millivolts / steps;
}

// Rate and scale of the slow channels that are read, of which the last gives the scale.
bool take_slow_channels(session_state& session, const plx_headers& headers, std::int32_t hz) {
  recording_store& r = session.recording;
  const std::int32_t offset = plx_slow_offset(headers);
  if (offset == 0) log_message(session, "Slow channels are numbered from 1 in this file");
  r.sampling_frequency = hz;
  for (const plx_slow_header& slow : headers.slow) {
    if (slow.ad_freq != hz ||
        plx_program_channel(session, std::int64_t{slow.channel} + offset) == 0) {
      continue;
    }
    const auto scale = static_cast<float>(slow_scale(headers.file, slow));
    // Headers of some systems leave the gains 0.
    r.vscale_HP = scale == 0.0f ? missing_plx_scale : scale;
  }
  if (r.sampling_frequency == 0) {
    log_message(session, "Using A/D Frequency as Waveform Frequency");
    r.sampling_frequency = headers.file.ad_frequency;
  }
  log_message(session,
              fmt::format("Version#= {}; vscale_HP = {}", headers.file.version, r.vscale_HP));
  return check_sampling_frequency(session, r.sampling_frequency) &&
         check_voltage_scale(session, r.vscale_HP);
}

std::int64_t slow_extent(const session_state& session, const input_file& file,
                         const plx_plan& plan) {
  std::int64_t extent = 0;
  plx_block_stream in = plx_stream(file, plan);
  plx_block block;
  while (next_scanned_block(session, in, block)) {
    if (block.header.type != plx_slow_block) continue;
    const std::int64_t from = convert_ticks(block.time, plan.headers.file.ad_frequency,
                                            session.recording.sampling_frequency);
    // Far above what memory holds, and far below where the sum would overflow.
    constexpr std::int64_t most = std::int64_t{1} << 48;
    extent = std::max(extent, std::min(from, most) + block.n_there);
  }
  return extent;
}

// The header's last time stamp, unless it is none or promises far more samples than the
// file has: then the blocks tell.
std::int64_t estimate_slow(const session_state& session, const input_file& file,
                           const plx_plan& plan) {
  const plx_file_header& h = plan.headers.file;
  const double ratio = static_cast<double>(session.recording.sampling_frequency) / h.ad_frequency;
  const double stated = h.last_timestamp * ratio;
  const auto in_file = static_cast<double>(file.size / 2 / session.recording.n_channels);
  // Twice what the file could hold leaves room for pauses.
  if (stated > 0.0 && stated <= 2.0 * in_file + 100000.0) return static_cast<std::int64_t>(stated);
  const std::int64_t extent = slow_extent(session, file, plan);
  log_message(session, fmt::format("Last time stamp {} of the header; the samples end at {}",
                                   h.last_timestamp, extent));
  return stated > 0.0 && stated < static_cast<double>(extent) ? static_cast<std::int64_t>(stated)
                                                              : extent;
}

// What is said while the blocks of a continuous file are read.
struct slow_report {
  std::int32_t spike_words = -1;
  repeated_line length_changes, bad_types;
};

void take_spike(session_state& session, const plx_block& block, std::int64_t time, plx_units& units,
                slow_report& report) {
  // Channels above are no spike channels, though they come in such blocks.
  if (block.header.channel > highest_plx_spike_channel) return;
  const std::int32_t channel = plx_program_channel(session, block.header.channel);
  if (channel == 0) return;
  if (report.spike_words >= 0 && report.spike_words != block.n_words &&
      is_worth_a_line(report.length_changes)) {
    log_message(session, "Spike block length change");
  }
  report.spike_words = block.n_words;
  add_plx_event(session, time, channel, channel, block.header.unit, units);
}

// Samples on their way into vd.
struct slow_move {
  std::int32_t channel;
  std::int32_t n;
  std::int64_t index;
  const char* words;
};

// The moves of every n-th channel, in the order of the file: blocks that overlap end up the
// same on any number of threads.
void make_moves(recording_store& r, const std::vector<slow_move>& moves, std::int64_t share,
                std::int64_t n_shares) {
  for (const slow_move& m : moves) {
    if (m.channel % n_shares == share) store_plx_words(r, m.channel, m.index, m.words, m.n);
  }
}

void take_samples(session_state& session, const plx_block& block, std::int64_t time,
                  std::int32_t offset, std::vector<slow_move>& moves) {
  recording_store& r = session.recording;
  const std::int32_t channel =
      plx_program_channel(session, std::int64_t{block.header.channel} + offset);
  // A block that begins beyond the store has no sample in it.
  if (channel == 0 || time >= r.max_vd_samples) return;
  moves.push_back({channel, block.n_there, time + 1, block.words});
  r.n_samples = static_cast<std::int32_t>(std::max<std::int64_t>(
      r.n_samples, std::min<std::int64_t>(time + block.n_there, r.max_vd_samples)));
}

std::string describe_block(const plx_block_header& h) {
  return fmt::format("type={} time={} channel={} unit={} waveforms={} words={}", h.type,
                     plx_time(h), h.channel, h.unit, h.n_waveforms, h.n_words);
}

void report_block(const session_state& session, const plx_block& block, slow_report& report) {
  const bool known = block.header.type == plx_spike_block || block.header.type == plx_event_block ||
                     block.header.type == plx_slow_block;
  if (!known && is_worth_a_line(report.bad_types)) {
    log_message(session, fmt::format("Bad data, datatype= {}", block.header.type));
    log_message(session, describe_block(block.header));
  }
  if (block.n_there < block.n_words) {
    log_message(session, "Early end to file");
    log_message(session, fmt::format("type={} words={} word index={} time={} n_samples={}",
                                     block.header.type, block.n_words, block.n_there, block.time,
                                     session.recording.n_samples));
  }
}

// A walk through a continuous file, stretch by stretch.
struct slow_walk {
  plx_block_stream in;
  std::int32_t ad_frequency = 0;
  std::int32_t offset = 1;  // of slow channel numbers
  plx_units* units = nullptr;
  std::vector<slow_move> moves;  // of the latest stretch
  slow_report report;
  bool stopped = false;  // by the user
};

// The blocks of one stretch; false after the last one.
bool walk_stretch(session_state& session, slow_walk& walk) {
  recording_store& r = session.recording;
  plx_block block;
  do {
    // A full store ends the read, as the end of the file does.
    if (r.n_samples >= r.max_vd_samples || !next_block(walk.in, block)) return false;
    if (block.new_stretch) {
      walk.stopped = reading_interrupted(session);
      if (walk.stopped) return false;
      set_progress(session, meter::reading,
                   static_cast<std::int32_t>(75 * block.offset / walk.in.file->size), 115);
    }
    const std::int64_t time = convert_ticks(block.time, walk.ad_frequency, r.sampling_frequency);
    if (block.header.type == plx_slow_block) {
      take_samples(session, block, time, walk.offset, walk.moves);
    } else if (block.header.type == plx_spike_block) {
      take_spike(session, block, time, *walk.units, walk.report);
    }
    report_block(session, block, walk.report);
  } while (next_is_buffered(walk.in));
  return true;
}

// While one thread walks a stretch, the samples of the one before it go to their places.
bool read_slow_blocks(session_state& session, const input_file& file, const plx_plan& plan,
                      plx_units& units) {
  slow_walk walk;
  walk.in = plx_stream(file, plan);
  walk.ad_frequency = plan.headers.file.ad_frequency;
  walk.offset = plx_slow_offset(plan.headers);
  walk.units = &units;
  std::vector<slow_move> moves;
  const std::int32_t n_threads = threads_now(session);
  // Two shares to a thread, but for the one that walks.
  const std::int32_t n_shares = n_threads < 2 ? 1 : 2 * n_threads - 1;
  // One round more than there are stretches, for the samples of the last.
  for (bool more = true; more || !moves.empty();) {
    bool more_then = false;
    parallel_for_dealt(n_threads, 0, n_shares, [&](std::int64_t item, std::int32_t) {
      if (item > 0) {
        make_moves(session.recording, moves, item - 1, n_shares);
      } else if (more) {
        more_then = walk_stretch(session, walk);
      }
    });
    if (walk.stopped) return false;
    more = more_then;
    moves.swap(walk.moves);
    walk.moves.clear();
  }
  log_rest(session, walk.report.length_changes, "changes");
  log_rest(session, walk.report.bad_types, "bad blocks");
  return true;
}

// Units that the headers tell of, by program channel.
plx_units count_listed_units(const session_state& session, const plx_headers& headers) {
  plx_units units{
      std::vector<std::int32_t>(static_cast<std::size_t>(session.recording.n_channels) + 1)};
  for (const plx_channel_header& h : headers.channels) {
    const std::int32_t channel = plx_program_channel(session, h.channel);
    if (channel > 0) {
      // No unit number that a block can have is larger.
      units.n_units[channel] = std::clamp(h.n_units, 0, 32767);
    }
  }
  return units;
}

}  // namespace

std::int32_t plx_slow_offset(const plx_headers& headers) {
  constexpr std::int32_t first_version = 100, last_version = 106;
  if (headers.slow.empty()) return 1;
  if (headers.file.version >= first_version && headers.file.version <= last_version) return 1;
  const auto by_channel = [](const plx_slow_header& a, const plx_slow_header& b) {
    return a.channel < b.channel;
  };
  const auto [low, high] =
      std::minmax_element(headers.slow.begin(), headers.slow.end(), by_channel);
  const auto n = static_cast<std::int32_t>(headers.slow.size());
  return low->channel == 1 && high->channel == n ? 0 : 1;
}

bool read_plx_slow(session_state& session, const input_file& file, const plx_plan& plan,
                   const std::string& stream, plx_units& units) {
  recording_store& r = session.recording;
  log_message(session, "Reading continuous A/D records");
  std::int32_t hz = 0;
  if (!choose_plx_rate(session, file, plan, stream, hz) ||
      !take_slow_channels(session, plan.headers, hz) ||
      !allocate_plx_samples(session, estimate_slow(session, file, plan))) {
    return false;
  }
  const plx_units listed = count_listed_units(session, plan.headers);
  // What the blocks tell is added to what the headers say.
  units = listed;
  if (!read_slow_blocks(session, file, plan, units)) return false;
  if (r.n_samples == 0) {
    return refuse_file(session, "No samples were found for the channels of the configuration");
  }
  if (units.n_units != listed.n_units) {
    log_message(session, "Some channels have more units than their headers tell of");
  }
  return true;
}

}  // namespace kestrelvane
