// The spike waveforms of a ".plx" file as an event-based recording.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "recording/event_records.h"
#include "recording/formats/plexon/plx_reading.h"
#include "recording/header_checks.h"
#include "recording/repeated_line.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t most_tetrode_units = 500;
constexpr std::int32_t us_per_second = 1'000'000;

// µV per bit of spike waveforms.
double spike_scale(const session_state& session, const plx_plan& plan) {
  const plx_file_header& h = plan.headers.file;
  const std::int64_t gain = plan.headers.channels.back().gain;
  // Whole numbers: a gain above 1 gives 0, for the user to put right.
  if (h.version < 103) return gain > 0 ? static_cast<double>(3'000'000 / (gain * 2'048'000)) : 0.0;
  const double steps = static_cast<double>(gain) * std::ldexp(1.0, h.bits_per_spike_sample);
  const double microvolts = 1000.0 * h.spike_max_magnitude_mv;
  if (h.version < 105) return microvolts / (steps * 500.0);
  const double scale = microvolts / (h.spike_preamp_gain * 0.5 * steps);
  if (!plan.tetrodes) return scale;
  log_message(session,
              fmt::format("Spike max. magnitude, preamplifier gain, bits = {} {} {}",
                          h.spike_max_magnitude_mv, h.spike_preamp_gain, h.bits_per_spike_sample));
  // Headers of some systems leave the magnitude 0.
  return scale == 0.0 ? missing_plx_scale : scale;
}

bool set_spike_scale(session_state& session, const plx_plan& plan) {
  const double scale = spike_scale(session, plan);
  session.recording.vscale_HP = static_cast<float>(scale);
  // Only the oldest versions may have no scale at all.
  if (plan.headers.file.version >= 103 || scale != 0.0) {
    return check_voltage_scale(session, scale);
  }
  log_message(session, "Voltage scaling is 0: it can be changed in Acquisition properties");
  return true;
}

// Counts for the log.
struct block_counts {
  std::int64_t n_blocks = 0, n_spikes = 0, n_events = 0, n_slow = 0, n_waveforms = 0;
  repeated_line unparsed;
};

void count_block(block_counts& counts, const plx_block& block) {
  ++counts.n_blocks;
  counts.n_spikes += block.header.type == plx_spike_block;
  counts.n_events += block.header.type == plx_event_block;
  counts.n_slow += block.header.type == plx_slow_block;
}

// Stores a record, its stamp and its event. False when there is no more room.
bool store_record(session_state& session, const plx_block& block, const plx_record& record,
                  std::int32_t ad_frequency, plx_units& units) {
  recording_store& r = session.recording;
  const std::int64_t time_us = convert_ticks(block.time, ad_frequency, us_per_second);
  // The first record tells where the recording begins.
  if (r.first_timestamp < 0) r.first_timestamp = time_us;
  const std::int64_t stamp = time_us - r.first_timestamp;
  const std::int64_t position = plx_record_position(session, record, stamp);
  store_plx_words(r, record.channel, position, block.words,
                  std::min(block.n_there, r.samples_per_event));
  // Records that stand at their time may overlap the end of the one before.
  // A record that stands alone has a gap of the usual length after it.
  const std::int64_t end = position + r.samples_per_event;
  const bool is_new = position > r.n_samples || r.n_samples == 0;
  r.n_samples = static_cast<std::int32_t>(
      std::clamp<std::int64_t>(is_new ? end + first_record_index : end, r.n_samples,
                               std::max(r.n_samples, r.max_vd_samples)));
  if (!record.is_first) return true;
  r.timestamp(record.record, record.unit_group) = stamp;
  r.record_unit(record.record, record.unit_group) = block.header.unit;
  table<std::int32_t>& stored =
      r.electrode_type == electrode_tetrode ? r.tetrode_event_count : r.channel_event_count;
  stored[record.unit_group] = static_cast<std::int32_t>(record.record);
  std::int32_t unit = block.header.unit;
  // Unit 0 is what nobody has sorted: it is no event.
  if (unit < 1) return true;
  // A tetrode of so many units is a damaged block.
  if (r.electrode_type == electrode_tetrode && unit > most_tetrode_units) {
    ++units.n_bad_units;
    unit = 0;
  }
  return add_plx_event(session, position + r.samples_per_event / 2, record.channel,
                       record.unit_group, unit, units);
}

void report_full(const session_state& session) {
  const recording_store& r = session.recording;
  log_message(session, fmt::format("{} {}", event_limit, r.max_vd_samples));
  log_message(session, "max exceeded");
  log_message(session, fmt::format("{} {}", session.events.n_events, r.n_samples));
}

void report_unparsed(const session_state& session, repeated_line& line, const plx_block& block,
                     bool tetrodes) {
  if (!is_worth_a_line(line)) return;
  const plx_block_header& h = block.header;
  log_message(
      session,
      tetrodes
          ? fmt::format("Unparsed data record with unit and channel #s = {} {}", h.unit, h.channel)
          : fmt::format("Unparsed records with channel and unit #s = {} {}", h.channel, h.unit));
}

// All blocks; false when the user has stopped it.
bool read_records(session_state& session, const input_file& file, const plx_plan& plan,
                  plx_units& units, block_counts& counts) {
  recording_store& r = session.recording;
  plx_record_counter counter = begin_records(session);
  plx_block_stream in = plx_stream(file, plan);
  plx_block block;
  plx_record record;
  while (next_block(in, block)) {
    if (block.new_stretch) {
      if (reading_interrupted(session)) return false;
      set_progress(session, meter::reading,
                   static_cast<std::int32_t>(2 + 95 * block.offset / file.size), 115);
    }
    count_block(counts, block);
    const plx_block_use use = count_record(session, counter, block, record);
    if (use == plx_block_use::unparsed) {
      report_unparsed(session, counts.unparsed, block, plan.tetrodes);
    }
    if (use == plx_block_use::ends_read) {
      // A save writes anew up to here, and copies what follows.
      r.plx_blocks_end = block.offset;
      log_message(session, fmt::format("Reading ends at channel {}, unit {}", block.header.channel,
                                       block.header.unit));
      break;
    }
    if (use != plx_block_use::record) continue;
    ++counts.n_waveforms;
    if (!store_record(session, block, record, plan.headers.file.ad_frequency, units) ||
        r.n_samples >= r.max_vd_samples) {
      r.plx_blocks_end = in.next;
      report_full(session);
      break;
    }
  }
  log_rest(session, counts.unparsed, "unparsed records");
  return true;
}

void report_blocks(const session_state& session, const block_counts& counts,
                   const plx_units& units) {
  log_message(session, fmt::format("n_blocks in file = {}", counts.n_blocks));
  log_message(session, fmt::format("Types of block= {} {} {}", counts.n_spikes, counts.n_events,
                                   counts.n_slow));
  log_message(session, fmt::format("{} spike waveforms read", counts.n_waveforms));
  if (units.n_bad_units > 0) {
    log_message(session, fmt::format("{} events have a bad unit number and are unclustered",
                                     units.n_bad_units));
  }
}

}  // namespace

bool read_plx_records(session_state& session, const input_file& file, const plx_plan& plan,
                      plx_units& units) {
  recording_store& r = session.recording;
  const plx_file_header& h = plan.headers.file;
  log_message(session, "Reading event based A/D records");
  r.samples_per_event = plan.record_samples;
  r.sampling_frequency = plx_waveform_rate(h);
  if (h.waveform_freq == 0) log_message(session, "Using A/D Frequency as Waveform Frequency");
  if (!set_spike_scale(session, plan) || !allocate_plx_samples(session, plan.estimate)) {
    return false;
  }
  const std::string kind = plan.tetrodes ? "tetrode data" : "recording data";
  log_message(session, !session.preferences.treat_as_continuous ? "Reading Event based " + kind
                       : plan.tetrodes ? "Reading Event based tetrode data as continuous record"
                                       : "Reading Event based data as continuous record");
  units.n_units.resize(static_cast<std::size_t>(r.n_channels) + 1);
  block_counts counts;
  r.first_timestamp = -1;  // none yet
  if (!read_records(session, file, plan, units, counts)) return false;
  r.first_timestamp = std::max<std::int64_t>(r.first_timestamp, 0);
  report_blocks(session, counts, units);
  if (r.n_samples >= r.max_vd_samples) r.n_samples = r.max_vd_samples - 100;
  return true;
}

}  // namespace kestrelvane
