#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "recording/event_records.h"
#include "recording/formats/plexon/plx_reading.h"
#include "recording/header_checks.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// Some systems list slow channels that they did not record. The counts of the header tell;
// where they are all zero the blocks are looked at.
bool has_slow_blocks(const session_state& session, const input_file& file, const plx_plan& plan) {
  const plx_file_header& h = plan.headers.file;
  // Without slow channels every recording is event based.
  if (h.n_slow_channels == 0) return false;
  if (std::any_of(h.ev_counts + plx_first_slow_count, std::end(h.ev_counts),
                  [](std::int32_t n) { return n > 0; })) {
    return true;
  }
  plx_block_stream in = plx_stream(file, plan);
  plx_block block;
  while (next_scanned_block(session, in, block)) {
    if (block.header.type == plx_slow_block) return true;
  }
  log_message(session, "Slow channels are listed but none was recorded");
  return false;
}

// What spike blocks ask of the time axis.
struct record_extent {
  std::int64_t most_records = 0;  // of one channel or tetrode
  std::int64_t latest = 0;        // time stamp, ticks
  std::int32_t longest = 0;       // words of one waveform
};

void include_block(record_extent& extent, const plx_block& block) {
  // Every block counts, also one whose words are cut off.
  extent.latest = std::max(extent.latest, block.time);
  extent.longest = std::max(extent.longest, block.n_words);
}

record_extent scan_channels(const session_state& session, const input_file& file,
                            const plx_plan& plan) {
  record_extent extent;
  std::vector<std::int64_t> counts(std::size_t{channel_limit} + 1);
  plx_block_stream in = plx_stream(file, plan);
  plx_block block;
  while (next_scanned_block(session, in, block)) {
    const std::int16_t channel = block.header.channel;
    if (block.header.type != plx_spike_block || channel < 1 || channel > channel_limit) continue;
    include_block(extent, block);
    extent.most_records = std::max(extent.most_records, ++counts[channel]);
  }
  return extent;
}

// The spike blocks of one tetrode record, as they come.
struct tetrode_group {
  std::int32_t n = 0;
  std::int64_t offset = 0;  // of the first in the file
  plx_block blocks[4];
};

std::string list_fields(const tetrode_group& group, bool with_units) {
  std::string text;
  for (const plx_block& b : group.blocks) {
    if (with_units) text += fmt::format(" {}", b.header.unit);
    text += fmt::format(" {}", b.header.channel);
  }
  return text;
}

enum class group_state { record, unused, bad };

// The tetrode of four blocks; logs what is wrong with them.
group_state check_group(const session_state& session, const tetrode_group& group,
                        std::int32_t& tetrode) {
  const auto is_valid = [&](const plx_block& b) {
    return b.header.channel >= 1 && b.header.channel <= session.recording.n_channels;
  };
  const auto tetrode_of = [](const plx_block& b) { return (b.header.channel - 1) / 4 + 1; };
  const plx_block& first = group.blocks[0];
  bool one_state = true, one_tetrode = true, too_high = false;
  for (const plx_block& b : group.blocks) {
    // Either all four are channels of the recording, or none is.
    one_state &= is_valid(b) == is_valid(first);
    one_tetrode &= tetrode_of(b) == tetrode_of(first);
    too_high |= b.header.channel > channel_limit;
  }
  if (!one_state) {
    log_message(session, "Error, records not grouped in blocks of 4" + list_fields(group, false));
    return group_state::bad;
  }
  if (too_high) {
    log_message(session, "? bad records with these unit and channel #s" + list_fields(group, true));
    return group_state::bad;
  }
  // Four blocks of channels that the recording does not have are passed over together.
  if (!is_valid(first)) return group_state::unused;
  if (!one_tetrode) {
    log_message(session, "Different tetrode values in same block");
    return group_state::bad;
  }
  tetrode = tetrode_of(first);
  return group_state::record;
}

// Stops at the first group that is none: the read will end there.
record_extent scan_tetrodes(const session_state& session, const input_file& file, plx_plan& plan) {
  record_extent extent;
  std::vector<std::int64_t> counts(std::size_t{channel_limit} + 1);
  tetrode_group group;
  plx_block_stream in = plx_stream(file, plan);
  plx_block block;
  while (next_scanned_block(session, in, block)) {
    if (block.header.type != plx_spike_block) continue;
    // Where the group begins is where the read ends if it turns out bad.
    if (group.n == 0) group.offset = block.offset;
    group.blocks[group.n++] = block;
    if (group.n < 4) continue;
    group.n = 0;
    std::int32_t tetrode = 0;
    const group_state state = check_group(session, group, tetrode);
    if (state == group_state::bad) {
      plan.blocks_end = group.offset;
      return extent;
    }
    if (state == group_state::unused) continue;
    for (const plx_block& b : group.blocks) include_block(extent, b);
    extent.most_records = std::max(extent.most_records, ++counts[tetrode]);
  }
  // A tetrode that the end of the file has cut is none.
  if (group.n > 0) plan.blocks_end = group.offset;
  return extent;
}

void estimate_events(const session_state& session, const input_file& file, plx_plan& plan) {
  const plx_file_header& h = plan.headers.file;
  const record_extent extent =
      plan.tetrodes ? scan_tetrodes(session, file, plan) : scan_channels(session, file, plan);
  plan.record_samples = std::max(h.n_points_wave, 0);
  // The header is believed as long as the blocks do not say more.
  if (extent.longest > plan.record_samples || plan.record_samples > 32767) {
    log_message(session, fmt::format("Waveforms have up to {} samples, not {}", extent.longest,
                                     h.n_points_wave));
    plan.record_samples = extent.longest;
  }
  // A record of no samples would have no slot.
  plan.record_samples = std::max(plan.record_samples, 1);
  if (session.preferences.treat_as_continuous) {
    plan.estimate = convert_ticks(extent.latest, h.ad_frequency, plx_waveform_rate(h));
  } else {
    plan.estimate =
        record_index(std::max<std::int64_t>(extent.most_records, 1), plan.record_samples) +
        plan.record_samples;
  }
  log_message(session, plan.tetrodes ? "Finished scanning event-based recording file"
                                     : "Finished scanning event file");
  log_message(session, fmt::format("{}", plan.estimate));
}

}  // namespace

std::int32_t plx_waveform_rate(const plx_file_header& h) {
  return h.waveform_freq != 0 ? h.waveform_freq : h.ad_frequency;
}

plx_block_stream plx_stream(const input_file& file, const plx_plan& plan) {
  plx_block_stream in;
  begin_blocks(in, file, plan.headers.blocks_at, plan.blocks_end);
  return in;
}

bool next_scanned_block(const session_state& session, plx_block_stream& in, plx_block& block) {
  // The flag is asked once for a stretch: blocks are too short for it.
  return next_block(in, block) && !(block.new_stretch && reading_interrupted(session));
}

bool scan_plx(session_state& session, const input_file& file, plx_plan& plan) {
  recording_store& r = session.recording;
  log_message(session, "Estimating recording duration ...");
  const plx_file_header& h = plan.headers.file;
  if (!read_plx_headers(file, plan.headers)) {
    log_message(session, "Error reading Plexon data file");
    return false;
  }
  log_message(session, fmt::format("Data trodalness 1= {}", h.trodalness));
  log_message(session, fmt::format("Data trodalness 2= {}", h.data_trodalness));
  // Four wires to a bundle; 2 and 1 are taken channel by channel.
  plan.tetrodes = h.trodalness == 4;
  plan.blocks_end = file.size;
  r.electrode_type = plan.tetrodes ? electrode_tetrode : electrode_polytrode;
  log_message(session, fmt::format("Electrode type = {}", r.electrode_type));
  if (!check_sampling_frequency(session, h.ad_frequency)) return false;
  plan.continuous = has_slow_blocks(session, file, plan);
  r.is_continuous = plan.continuous;
  r.n_channels = plan.continuous ? h.n_slow_channels : h.n_dsp_channels;
  if (!check_channel_count(session, r.n_channels)) return false;
  // Slow channels need no estimate by records.
  if (plan.continuous) return true;
  if (!check_sampling_frequency(session, plx_waveform_rate(h))) return false;
  estimate_events(session, file, plan);
  return true;
}

}  // namespace kestrelvane
