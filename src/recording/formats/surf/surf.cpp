#include "recording/formats/surf/surf.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "recording/formats/surf/surf_records.h"
#include "recording/header_checks.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t spare_samples = 10'000;  // allocated after the last record
constexpr std::int32_t mid_scale = 2048;        // the value of 0 V
constexpr std::int32_t bar_of_records = 20, bar_of_spikes = 90, bar_of_lfp = 100;

// µV per bit of a layout.
float scale_of(const surf_layout& layout) {
  const float gain = static_cast<float>(layout.internal_gain);
  return 1.0e7f / (gain * static_cast<float>(mid_scale) * static_cast<float>(layout.external_gain));
}

// The layout of spikes: the first of its kind. Null when there is none.
const surf_layout* find_spike_layout(const surf_file& surf) {
  for (const surf_layout& layout : surf.layouts) {
    // A recording has one set of spike channels.
    if (layout.kind == 'S') return &layout;
  }
  return nullptr;
}

bool is_spike_block(const surf_file& surf, const surf_block& block, const surf_layout& layout) {
  return block.probe >= 0 && static_cast<std::size_t>(block.probe) < surf.layouts.size() &&
         &surf.layouts[block.probe] == &layout;
}

bool take_layout(session_state& session, const surf_layout& layout) {
  recording_store& r = session.recording;
  log_message(session, "Probe description: " + layout.description);
  log_message(session, "Electrode name: " + layout.electrode);
  log_message(session, fmt::format("Internal gain={}", layout.internal_gain));
  if (!check_channel_count(session, layout.n_channels) ||
      !check_sampling_frequency(session, layout.sampling_frequency) ||
      !check_voltage_scale(session, static_cast<double>(scale_of(layout)))) {
    return false;
  }
  r.n_channels = layout.n_channels;
  r.sampling_frequency = layout.sampling_frequency;
  r.vscale_HP = scale_of(layout);
  log_message(session, fmt::format("Spike voltage scale={}", r.vscale_HP));
  return place_sites_of_polytrode(session, layout.electrode);
}

// --- spikes

// Samples from the recording's start to a stamp; for a stamp beyond any recording a count
// beyond any recording.
std::int64_t samples_to(const recording_store& r, std::int64_t timestamp) {
  // Above it the product with the rate would leave 64 bits.
  constexpr std::int64_t far = std::int64_t{1} << 40;
  return std::clamp(timestamp, -far, far) * r.sampling_frequency / 1'000'000;
}

// n_samples as the record with the largest stamp tells it. A span of which the file holds
// next to nothing is refused: no memory is asked for on the word of a stamp alone.
bool count_samples(session_state& session, const surf_file& surf, const surf_layout& layout) {
  recording_store& r = session.recording;
  const surf_block* last = nullptr;
  std::int64_t stored = 0;
  for (const surf_block& block : surf.spike_blocks) {
    if (!is_spike_block(surf, block, layout)) continue;
    stored += block.n_values / r.n_channels;
    if (last == nullptr || block.timestamp > last->timestamp) last = &block;
  }
  // Without a block of the layout there is nothing to read.
  if (last == nullptr || last->timestamp < 0) return check_sample_count(session, 0);
  const std::int64_t n_samples = samples_to(r, last->timestamp - 1) + 1 + last->n_values;
  const std::int64_t minute = std::int64_t{60} * r.sampling_frequency;
  // A minute and a hundredfold: pauses may be long, but not without end.
  if (n_samples > 100 * stored + last->n_values + minute) {
    return refuse_file(session,
                       fmt::format("The time stamps of the file span {} samples, of which it "
                                   "holds {}",
                                   n_samples, stored));
  }
  if (!check_sample_count(session, n_samples)) return false;
  r.n_samples = static_cast<std::int32_t>(n_samples);
  return true;
}

// One run of each channel after the other, from the value of 0 V to 0.
void store_block(recording_store& r, const std::vector<std::int16_t>& values, std::int64_t index) {
  const std::size_t n = values.size() / static_cast<std::size_t>(r.n_channels);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const std::int16_t* from = values.data() + n * static_cast<std::size_t>(c - 1);
    std::int16_t* to = r.vd.channel(c) + index;
    // Twelve bits, unsigned, with 0 V in the middle.
    for (std::size_t i = 0; i < n; ++i) to[i] = static_cast<std::int16_t>(from[i] - mid_scale);
  }
}

bool read_spike_blocks(session_state& session, const input_file& file, const surf_file& surf,
                       const surf_layout& layout) {
  recording_store& r = session.recording;
  std::vector<std::int16_t> values;
  std::int64_t next = 1;  // time index that the next block is to begin at
  bool exceeded = false;
  const std::size_t n_blocks = surf.spike_blocks.size();
  for (std::size_t b = 0; b < n_blocks; ++b) {
    const surf_block& block = surf.spike_blocks[b];
    if (!is_spike_block(surf, block, layout)) continue;
    const std::int64_t index = samples_to(r, block.timestamp) + 1;
    const std::int64_t n = block.n_values / r.n_channels;
    // Gaps stay zero, as they were allocated.
    if (index > next) log_message(session, "Error: Missing short record in file");
    next = std::max(next, index + n);
    // A block that does not fit whole is left out whole.
    if (block.timestamp < 0 || index + n - 1 > r.max_vd_samples) {
      if (!exceeded) log_message(session, "HP Data in file exceeded max possible");
      exceeded = true;
      continue;
    }
    values.resize(static_cast<std::size_t>(block.n_values));
    if (!read_at(file, block.at, values.data(), 2 * std::int64_t{block.n_values})) return false;
    store_block(r, values, index);
    const auto share =
        static_cast<std::int32_t>((bar_of_spikes - bar_of_records) * (b + 1) / n_blocks);
    set_progress(session, meter::reading, bar_of_records + share, 115);
    if (reading_interrupted(session)) return false;
  }
  return true;
}

// --- local field potentials

// The site that an LFP channel taps: the number after "ch" in its description.
std::int32_t decode_lfp_site(const session_state& session, const std::string& description) {
  std::int32_t site = -1;
  const std::size_t at = description.find("ch");
  if (at != std::string::npos) {
    const char* digits = description.data() + at + 2;
    std::from_chars(digits, description.data() + description.size(), site);
  }
  if (site < 0) log_message(session, "Error decoding LFP site number");
  return site;
}

struct lfp_channel {
  const surf_layout* layout = nullptr;
  std::int64_t last_timestamp = -1;
};

std::vector<lfp_channel> list_lfp_channels(session_state& session, const surf_file& surf) {
  lfp_store& lfp = session.recording.stimulus.lfp;
  std::vector<lfp_channel> channels(surf.layouts.size());
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const surf_layout& layout = surf.layouts[i];
    // Others have a place in the list, so that numbers of probes stay those of the file.
    if (layout.kind == 'C') channels[i].layout = &layout;
    lfp.sites.push_back(layout.kind == 'C' ? decode_lfp_site(session, layout.description) : -1);
    lfp.vscales.push_back(layout.kind == 'C' ? scale_of(layout) : 0.0f);
    lfp.rates.push_back(layout.kind == 'C' ? layout.sampling_frequency : 0);
    if (layout.kind != 'C' || lfp.vscale_LFP != 0) continue;
    lfp.vscale_LFP = scale_of(layout);
    lfp.sampling_frequency_LFP = layout.sampling_frequency;
    log_message(session, fmt::format("LFP voltage scale {}", lfp.vscale_LFP));
  }
  lfp.samples.resize(channels.size());
  return channels;
}

// A pause shows as a step from block to block of one channel, longer than the block.
void check_pause(const session_state& session, lfp_channel& channel, const surf_block& block) {
  constexpr std::int64_t longest_step = 100'000;  // µs
  const std::int64_t rate = std::max(channel.layout->sampling_frequency, 1);
  const std::int64_t duration = std::int64_t{block.n_values} * 1'000'000 / rate;
  const std::int64_t since = channel.last_timestamp;
  channel.last_timestamp = block.timestamp;
  // The first block has none before it, and a stamp that runs back tells nothing.
  if (since < 0 || block.timestamp < since) return;
  // Long blocks are no pauses.
  if (block.timestamp - since <= std::max(longest_step, duration)) return;
  log_message(session, fmt::format("Warning: pause in file at t={:.3f} secs",
                                   static_cast<double>(since) / 1e6));
}

bool read_lfp_blocks(session_state& session, const input_file& file, const surf_file& surf) {
  constexpr std::size_t most_samples = 8'000'000;
  lfp_store& lfp = session.recording.stimulus.lfp;
  std::vector<lfp_channel> channels = list_lfp_channels(session, surf);
  bool exceeded = false;
  for (const surf_block& block : surf.lfp_blocks) {
    const auto probe = static_cast<std::size_t>(std::max(block.probe, 0));
    if (block.probe < 0 || probe >= channels.size() || channels[probe].layout == nullptr) continue;
    check_pause(session, channels[probe], block);
    std::vector<std::int16_t>& samples = lfp.samples[probe];
    const std::size_t before = samples.size();
    // A bound for channels of files that never end.
    if (before + static_cast<std::size_t>(block.n_values) > most_samples) {
      if (!exceeded) log_message(session, "LFP Data in file exceeded max possible");
      exceeded = true;
      continue;
    }
    samples.resize(before + static_cast<std::size_t>(block.n_values));
    if (!read_at(file, block.at, samples.data() + before, 2 * std::int64_t{block.n_values}))
      return false;
    for (std::size_t i = before; i < samples.size(); ++i) {
      samples[i] = static_cast<std::int16_t>(samples[i] - mid_scale);
    }
    lfp.n_lfp_samples = std::max(lfp.n_lfp_samples, static_cast<std::int32_t>(samples.size()));
    if (reading_interrupted(session)) return false;
  }
  set_progress(session, meter::reading, bar_of_lfp, 115);
  return true;
}

}  // namespace

bool place_sites_of_polytrode(session_state& session, const std::string& name) {
  recording_store& r = session.recording;
  const polytrode_map* map = find_polytrode_map(name);
  if (map == nullptr) {
    log_message(session, "Unidentified Electrode type: " + name);
    return refuse_file(session, "Error: unrecognised electrode type");
  }
  constexpr std::size_t name_characters = 10;
  r.electrode_name = std::string(map->name).substr(0, name_characters);
  const auto n = std::min(r.n_channels, static_cast<std::int32_t>(map->sites.size()));
  if (n < r.n_channels) {
    log_message(session,
                fmt::format("{} channels have no site on a {}", r.n_channels - n, map->name));
  }
  for (std::int32_t c = 1; c <= n; ++c) {
    r.chan_x[c] = map->sites[c - 1].x;
    r.chan_y[c] = map->sites[c - 1].y;
  }
  // Channels without a site of their own take no part.
  for (const std::int32_t c : map->grounded) {
    if (c <= r.n_channels) r.chan_mask[c] = true;
  }
  return true;
}

bool read_srf(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  input_file file;
  if (!open_input_file(file, request.path)) {
    return refuse_file(session, "Can't open file " + request.path);
  }
  log_message(session, "Please wait, parsing records ...");
  surf_file surf;
  if (!parse_surf_file(session, file, surf, bar_of_records)) return false;
  log_message(session, "Finished parsing.");
  log_message(session, fmt::format("{} HP records were read", surf.spike_blocks.size()));
  log_message(session, fmt::format("{} LP records were read", surf.lfp_blocks.size()));
  note_record_start(session, surf.created);
  const surf_layout* layout = find_spike_layout(surf);
  if (layout == nullptr)
    return refuse_file(session, "There is no layout of spike channels in file");
  r.is_continuous = true;
  if (!take_layout(session, *layout) || !count_samples(session, surf, *layout) ||
      !allocate_recording(session, r.n_samples + spare_samples) ||
      !read_spike_blocks(session, file, surf, *layout) || !read_lfp_blocks(session, file, surf)) {
    return false;
  }
  log_message(session, fmt::format("{} voltage values read", r.n_samples));
  r.electrode_type = electrode_polytrode;
  r.srf_path = request.path;
  return true;
}

}  // namespace kestrelvane
