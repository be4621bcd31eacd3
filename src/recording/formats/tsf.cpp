#include "recording/formats/tsf.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <limits>
#include <numeric>

#include "files/byte_cursor.h"
#include "files/input_file.h"
#include "files/safe_file.h"
#include "recording/channel_runs.h"
#include "recording/header_checks.h"
#include "recording/site_tables.h"
#include "recording/storage.h"

namespace kestrelvane {

namespace {

constexpr std::string_view label = "Test spike file ";
constexpr std::int64_t block_samples = 25000;  // unit of a channel's samples in format 1000
constexpr std::int32_t table_channels_1001 = 56;
constexpr std::int32_t table_channels_1000 = 54;
constexpr float vscale_1000 = std::bit_cast<float>(0x3E79FFFEu);  // µV per bit
constexpr float table_scan_angle = 1.0f;  // degrees, for a channel table without an order
constexpr float old_file_scan_angle = 15.0f;

// What is known of the file beyond the session's own records.
struct tsf_layout {
  std::int32_t format = 0;
  std::int64_t samples_at = 0;     // offset of the first sample
  std::int64_t channel_bytes = 0;  // from one channel's samples to the next
  std::int64_t tail_at = 0;        // offset of what follows the samples
  std::int64_t spare_samples = 0;  // allocated beyond n_samples
  std::int32_t usable_spare = 0;   // of these, usable time indices
  bool needs_order = false;        // the channel table does not give a display order
};

bool fail_early_end(const session_state& session) {
  tell(session, "Early end to file", "Error");
  return false;
}

bool read_label(const session_state& session, byte_cursor& in, tsf_layout& layout) {
  if (take_text(in, label.size()) != label) {
    log_message(session, "Error reading tsf file");
    return false;
  }
  layout.format = take_i32(in);
  if (in.failed) return fail_early_end(session);
  if (layout.format >= 1000 && layout.format <= 1003) return true;
  log_message(session, "Unrecognised .tsf format");
  return false;
}

void take_rates(recording_store& r, byte_cursor& in) {
  r.sampling_frequency = take_i32(in);
  r.n_channels = take_i32(in);
  r.n_samples = take_i32(in);
  r.vscale_HP = take_f32(in);
}

void take_positions(recording_store& r, byte_cursor& in, std::int32_t count, std::int32_t kept) {
  for (std::int32_t c = 1; c <= count; ++c) {
    const std::int16_t x = take_i16(in);
    const std::int16_t y = take_i16(in);
    // Channels beyond the recording have entries in the table, which mean nothing.
    r.chan_x[c] = c <= kept ? x : std::int16_t{0};
    r.chan_y[c] = c <= kept ? y : std::int16_t{0};
  }
}

// The header's counts and rates; false after the words for the first that cannot be.
bool validate_header(session_state& session, std::int32_t most_channels, bool has_samples) {
  recording_store& r = session.recording;
  const bool sound = check_channel_count(session, r.n_channels, most_channels) &&
                     (!has_samples || check_sample_count(session, r.n_samples)) &&
                     check_sampling_frequency(session, r.sampling_frequency) &&
                     check_voltage_scale(session, static_cast<double>(r.vscale_HP));
  // What was read cannot be trusted, so nobody must loop over it.
  if (!sound) r.n_channels = r.n_samples = 0;
  return sound;
}

// Format 1002: position and display order of every channel.
bool take_channel_table(session_state& session, const input_file& file, tsf_layout& layout) {
  recording_store& r = session.recording;
  constexpr std::int64_t header_bytes = 36;
  constexpr std::int64_t entry_bytes = 8;
  const std::vector<char> block = read_block(file, header_bytes, entry_bytes * r.n_channels);
  byte_cursor in{block.data(), block.size()};
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    r.chan_x[c] = take_i16(in);
    r.chan_y[c] = take_i16(in);
    r.chan_sort_order[c] = take_i32(in);
    // A single bad entry makes the order one of our own.
    if (r.chan_sort_order[c] < 1 || r.chan_sort_order[c] > r.n_channels) layout.needs_order = true;
  }
  if (in.failed) return fail_early_end(session);
  log_message(session, "using .tsf format 1002");
  layout.samples_at = header_bytes + entry_bytes * r.n_channels;
  layout.channel_bytes = 2 * std::int64_t{r.n_samples};
  layout.spare_samples = 50000;
  layout.usable_spare = 20000;
  return true;
}

void lay_out_old_file(const recording_store& r, tsf_layout& layout, std::int64_t samples_at,
                      std::int64_t samples_per_channel) {
  layout.samples_at = samples_at;
  layout.channel_bytes = 2 * samples_per_channel;
  layout.spare_samples = 2'000'000;
  layout.usable_spare = static_cast<std::int32_t>(layout.spare_samples);
  // What follows the samples is at the end of all channels, whole blocks included.
  layout.tail_at = samples_at + layout.channel_bytes * r.n_channels;
}

// Everything in front of the samples.
bool read_header(session_state& session, const input_file& file, tsf_layout& layout) {
  recording_store& r = session.recording;
  constexpr std::int64_t longest_header = 382;
  const std::vector<char> block = read_block(file, 0, longest_header);
  byte_cursor in{block.data(), block.size()};
  if (!read_label(session, in, layout)) return false;
  if (layout.format == 1000) {
    take_positions(r, in, table_channels_1000, table_channels_1000);
    r.sampling_frequency = take_i32(in);
    r.tsf_sample_interval = take_i32(in);
    for (std::int16_t& order : r.tsf_channel_order) order = take_i16(in);
    r.tsf_n_probes = take_i16(in);
    r.n_channels = take_i32(in);
    r.n_samples = take_i32(in);
    r.vscale_HP = vscale_1000;
    if (in.failed) return fail_early_end(session);
    if (!validate_header(session, table_channels_1000, true)) return false;
    // In whole blocks: the last one of each channel is filled up.
    const std::int64_t blocks = (r.n_samples + block_samples - 1) / block_samples;
    lay_out_old_file(r, layout, static_cast<std::int64_t>(in.at), blocks * block_samples);
    return true;
  }
  take_rates(r, in);
  if (in.failed) return fail_early_end(session);
  const bool is_1001 = layout.format == 1001;
  if (!validate_header(session, is_1001 ? table_channels_1001 : channel_limit,
                       layout.format != 1003))
    return false;
  if (is_1001) {
    take_positions(r, in, table_channels_1001, r.n_channels);
    lay_out_old_file(r, layout, static_cast<std::int64_t>(in.at), r.n_samples);
    return !in.failed || fail_early_end(session);
  }
  r.electrode_type = electrode_polytrode;
  if (layout.format == 1003) {
    skip_bytes(in, 4 * sizeof(std::int16_t));
    if (in.failed) return fail_early_end(session);
    // No samples follow: nothing that reads n_samples may believe there were any.
    r.n_samples = 0;
    layout.spare_samples = 20000;
    layout.usable_spare = 20000;
    return true;
  }
  if (!take_channel_table(session, file, layout)) return false;
  layout.tail_at = layout.samples_at + layout.channel_bytes * r.n_channels;
  return true;
}

bool allocate_samples(session_state& session, const tsf_layout& layout) {
  recording_store& r = session.recording;
  r.vd.release();
  const bool countable =
      // The spare samples must be countable, too.
      r.n_samples <= std::numeric_limits<std::int32_t>::max() - layout.spare_samples;
  if (!countable || !r.vd.allocate(r.n_samples + layout.spare_samples, r.n_channels)) {
    log_message(session, "Memory allocation error");
    log_message(session, fmt::format("Requested samples={}", r.n_samples));
    log_message(session, fmt::format("# channels={}", r.n_channels));
    return false;
  }
  // Time indices beyond these exist, but are left to windows that reach over the end.
  r.max_vd_samples = r.n_samples + layout.usable_spare;
  r.is_continuous = true;
  return allocate_templates(session);
}

bool read_samples(session_state& session, const input_file& file, const tsf_layout& layout) {
  const recording_store& r = session.recording;
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::int32_t> channels(static_cast<std::size_t>(r.n_channels));
  std::iota(channels.begin(), channels.end(), 1);
  expect_sequential_reading(file);
  const read_end end = read_channel_runs(
      session, channels, r.n_samples,
      [&](std::size_t run, std::int64_t first, std::int64_t n, std::int16_t* to) {
        const std::int64_t at =
            layout.samples_at + static_cast<std::int64_t>(run) * layout.channel_bytes;
        return read_at(file, at + 2 * first, to, 2 * n);
      });
  if (end == read_end::early_end) return fail_early_end(session);
  if (end == read_end::interrupted) return false;
  set_progress(session, meter::reading, 100, 115);
  if (layout.format == tsf_current_format) {
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;
    const double bytes = 2.0 * r.n_samples * r.n_channels;
    log_message(session,
                fmt::format("reading rate = {:.0f} MBytes/s", bytes / (elapsed.count() * 1000.0)));
  }
  return true;
}

// Keeps the events that lie inside the recording, all arrays in step.
void drop_bad_events(session_state& session) {
  event_table& e = session.events;
  const recording_store& r = session.recording;
  std::int32_t n_kept = 0;
  std::int32_t n_unclustered = 0;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    const bool inside = e.event_time[i] >= 1 && e.event_time[i] <= r.n_samples &&
                        e.event_channel[i] >= 1 && e.event_channel[i] <= r.n_channels;
    if (!inside) continue;
    std::int32_t cluster = e.event_cluster[i];
    // The event stays; a number that no cluster has is as good as none.
    if (cluster < 0 || cluster > session.max_clusters) {
      cluster = 0;
      ++n_unclustered;
    }
    ++n_kept;
    e.event_time[n_kept] = e.event_time[i];
    e.event_channel[n_kept] = e.event_channel[i];
    e.event_cluster[n_kept] = cluster;
  }
  if (n_kept < e.n_events) {
    log_message(session,
                fmt::format("{} events outside the recording were left out", e.n_events - n_kept));
  }
  if (n_unclustered > 0) {
    log_message(session, fmt::format("{} events have a bad cluster number and are unclustered",
                                     n_unclustered));
  }
  e.n_events = n_kept;
}

// A count of 4-byte entries in three arrays, tested against limit and file.
bool take_array_count(const session_state& session, const input_file& file, std::int64_t& at,
                      std::int32_t limit, const char* what, std::int32_t& count) {
  count = 0;
  std::int32_t stored = 0;
  if (!read_at(file, at, &stored, 4)) return fail_early_end(session);
  at += 4;
  if (stored <= 0) return true;
  // Before any array is touched.
  if (stored > limit) {
    return refuse_file(session,
                       fmt::format("# of {} in file exceeds upper limit of {:8}", what, limit));
  }
  // In 64 bits: twelve bytes to each would leave 32.
  if (std::int64_t{stored} * 12 > file.size - at) return fail_early_end(session);
  count = stored;
  return true;
}

bool take_three_arrays(const session_state& session, const input_file& file, std::int64_t at,
                       std::int32_t count, table<std::int32_t>& a, table<std::int32_t>& b,
                       table<std::int32_t>& c) {
  const std::int64_t bytes = 4 * std::int64_t{count};
  return (read_at(file, at, a.first(), bytes) && read_at(file, at + bytes, b.first(), bytes) &&
          read_at(file, at + 2 * bytes, c.first(), bytes)) ||
         fail_early_end(session);
}

bool read_events(session_state& session, const input_file& file, const tsf_layout& layout) {
  recording_store& r = session.recording;
  event_table& e = session.events;
  std::int64_t at = layout.tail_at;
  std::int32_t n_events = 0;
  if (!take_array_count(session, file, at, event_limit, "events", n_events)) return false;
  if (n_events > 0) {
    if (!take_three_arrays(session, file, at, n_events, e.event_time, e.event_cluster,
                           e.event_channel)) {
      return false;
    }
    e.n_events = n_events;
    drop_bad_events(session);
  } else if (read_at(file, at, &r.sleep_start_mins, 4)) {
    // A file without events may have the start of a sleep recording there.
    log_message(session, fmt::format("sleep recording started at {} mins", r.sleep_start_mins));
  }
  set_progress(session, meter::reading, 100, 115);
  r.site_pitch = 0;
  std::int32_t& n_clusters = session.clusters.n_clusters;
  n_clusters = 0;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    n_clusters = std::max(n_clusters, e.event_cluster[i]);
  }
  if (n_clusters == 0) log_message(session, "No clusters present in file");
  if (layout.needs_order) sort_channels(session, table_scan_angle);
  return true;
}

bool read_fake_spikes(session_state& session, const input_file& file, std::int64_t at) {
  recording_store& r = session.recording;
  std::int32_t count = 0;
  if (!take_array_count(session, file, at, fake_spike_limit, "test spikes", count) ||
      !take_three_arrays(session, file, at, count, r.fake_spike_time, r.fake_spike_cluster,
                         r.fake_spike_channel)) {
    return false;
  }
  r.n_fake_spikes = count;
  return true;
}

// The planted spikes of a test file become its events.
void make_events_of_fake_spikes(session_state& session) {
  const recording_store& r = session.recording;
  event_table& e = session.events;
  e.n_events = 0;
  session.clusters.n_clusters = 0;
  for (std::int32_t i = 1; i <= r.n_fake_spikes; ++i) {
    // Clusters of the truth beyond the limit are left out with their spikes.
    if (r.fake_spike_cluster[i] > session.max_clusters) continue;
    ++e.n_events;
    e.event_cluster[e.n_events] = r.fake_spike_cluster[i];
    e.event_time[e.n_events] = r.fake_spike_time[i];
    e.event_channel[e.n_events] = r.fake_spike_channel[i];
  }
  // The truth is tested like any other list of a file.
  drop_bad_events(session);
  std::int32_t& n_clusters = session.clusters.n_clusters;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] <= n_clusters) continue;
    n_clusters = e.event_cluster[i];
    log_message(session, fmt::format("Cl, ch= {} {}", n_clusters, e.event_channel[i]));
  }
  log_message(session, fmt::format("n_clusters, n_events= {} {}", n_clusters, e.n_events));
}

bool read_tail(session_state& session, const input_file& file, const tsf_layout& layout) {
  if (layout.format == 1003) return true;
  if (layout.format == tsf_current_format) return read_events(session, file, layout);
  if (layout.format == 1001) {
    constexpr std::int64_t discarded_bytes = 8;
    if (!read_fake_spikes(session, file, layout.tail_at + discarded_bytes)) return false;
    make_events_of_fake_spikes(session);
    return true;
  }
  std::int32_t pitch = 0;
  if (!read_at(file, layout.tail_at, &pitch, 4)) return fail_early_end(session);
  session.recording.site_pitch = std::max(pitch, 0);
  return read_fake_spikes(session, file, layout.tail_at + 4);
}

// What follows the reading, in every format.
void close_read(session_state& session, const std::string& path, const tsf_layout& layout) {
  recording_store& r = session.recording;
  if (r.n_fake_spikes > 0) {
    log_message(session, fmt::format("{:8} test spikes present", r.n_fake_spikes));
  }
  log_message(session, fmt::format("Sampling frequency = {:8}", r.sampling_frequency));
  r.site_columns = 2;
  // The newest format brings its order, or has been given one above.
  if (layout.format != tsf_current_format) sort_channels(session, old_file_scan_angle);
  r.tsf_path = path;
  // Planted clusters are compared with; they get no templates.
  r.clusters_are_planted = layout.format == 1001;
  session.clusters.current_cluster = 1;
}

void write_channel_table(safe_file& out, const recording_store& r) {
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    write_value(out, r.chan_x[c]);
    write_value(out, r.chan_y[c]);
    write_value(out, r.chan_sort_order[c]);
  }
}

void write_events(const session_state& session, safe_file& out) {
  const event_table& e = session.events;
  const std::size_t bytes = 4 * static_cast<std::size_t>(e.n_events);
  write_value(out, e.n_events);
  // No arrays follow a count of 0.
  if (e.n_events == 0) return;
  write_bytes(out, e.event_time.first(), bytes);
  set_progress(session, meter::saving, 94, 100);
  write_bytes(out, e.event_cluster.first(), bytes);
  set_progress(session, meter::saving, 97, 100);
  write_bytes(out, e.event_channel.first(), bytes);
}

}  // namespace

bool read_tsf(session_state& session, const recording_request& request) {
  input_file file;
  if (!open_input_file(file, request.path)) {
    log_message(session, "Error opening tsf file");
    log_message(session, file.problem);
    return false;
  }
  log_message(session, "Opening .tsf recording data file " + request.path);
  recording_store& r = session.recording;
  tsf_layout layout;
  if (!read_header(session, file, layout)) return false;
  // Tested before memory is asked for on the header's word.
  if (layout.tail_at > file.size) return fail_early_end(session);
  if (!allocate_samples(session, layout)) return false;
  log_message(session, fmt::format("There are {:4} channels in the file", r.n_channels));
  if (r.n_samples > 0 && !read_samples(session, file, layout)) return false;
  if (!read_tail(session, file, layout)) return false;
  close_read(session, request.path, layout);
  return true;
}

bool write_tsf(const session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  safe_file out;
  if (open_safe_file(out, path)) {
    log_message(session, "Saving .tsf file iformat=1002");
    write_text(out, label);
    write_value(out, tsf_current_format);
    write_value(out, r.sampling_frequency);
    write_value(out, r.n_channels);
    write_value(out, r.n_samples);
    write_value(out, r.vscale_HP);
    write_channel_table(out, r);
    for (std::int32_t c = 1; c <= r.n_channels && !out.failed; ++c) {
      write_bytes(out, r.vd.channel(c) + 1, 2 * static_cast<std::size_t>(r.n_samples));
      set_progress(session, meter::saving, 90 * c / r.n_channels, 100);
    }
    write_events(session, out);
  }
  if (!finish_safe_file(out)) {
    tell(session, "Error saving .tsf data " + why_not_saved(path), "Export TSF data");
    return false;
  }
  set_progress(session, meter::saving, 100, 100);
  return true;
}

namespace {

constexpr const char* lfp_title = "Export LFP values";

struct lfp_channels {
  std::vector<std::size_t> channels;  // numbers in the store, from 0
  std::size_t n_samples = 0;          // that all of them have
};

lfp_channels list_lfp(const session_state& session) {
  const lfp_store& lfp = session.recording.stimulus.lfp;
  lfp_channels list;
  for (std::size_t i = 0; i < lfp.samples.size(); ++i) {
    if (lfp.samples[i].empty()) continue;
    if (i < lfp.rates.size() && lfp.rates[i] != lfp.sampling_frequency_LFP) {
      log_message(session, fmt::format("LFP channel {} has another rate and is left out", i + 1));
      continue;
    }
    const std::size_t n = lfp.samples[i].size();
    list.n_samples = list.channels.empty() ? n : std::min(list.n_samples, n);
    list.channels.push_back(i);
  }
  return list;
}

// Sites count from 0; one that the file does not tell stands below the others, as in a list.
void write_lfp_table(const session_state& session, const lfp_channels& list, safe_file& out) {
  const recording_store& r = session.recording;
  std::int32_t order = 0;
  for (const std::size_t i : list.channels) {
    constexpr std::int32_t step = 50;  // µm
    const std::int32_t site = i < r.stimulus.lfp.sites.size() ? r.stimulus.lfp.sites[i] + 1 : 0;
    const bool known = site >= 1 && site <= r.n_channels;
    const auto below = static_cast<std::int16_t>(r.site_y_max + step * (order + 1));
    write_value(out, known ? r.chan_x[site] : std::int16_t{0});
    write_value(out, known ? r.chan_y[site] : below);
    write_value(out, ++order);
  }
}

void write_lfp_samples(const lfp_store& lfp, const lfp_channels& list, safe_file& out) {
  for (const std::size_t i : list.channels) {
    std::vector<std::int16_t> samples(
        lfp.samples[i].begin(),
        lfp.samples[i].begin() + static_cast<std::ptrdiff_t>(list.n_samples));
    const float scale = i < lfp.vscales.size() ? lfp.vscales[i] : lfp.vscale_LFP;
    // The file has one scale for all.
    if (scale > 0 && scale != lfp.vscale_LFP) {
      for (std::int16_t& v : samples) {
        const float bits = std::round(static_cast<float>(v) * scale / lfp.vscale_LFP);
        v = static_cast<std::int16_t>(std::clamp(bits, -32'768.0f, 32'767.0f));
      }
    }
    write_bytes(out, samples.data(), 2 * samples.size());
  }
}

}  // namespace

bool has_lfp(const session_state& session) {
  const lfp_store& lfp = session.recording.stimulus.lfp;
  if (lfp.n_lfp_samples > 0 && lfp.sampling_frequency_LFP > 0) return true;
  tell(session, "There are no LFP values in memory", lfp_title, box_icon::warning);
  return false;
}

bool write_lfp_tsf(const session_state& session, const std::string& path) {
  if (!has_lfp(session)) return false;
  const lfp_store& lfp = session.recording.stimulus.lfp;
  const lfp_channels list = list_lfp(session);
  safe_file out;
  if (open_safe_file(out, path)) {
    log_message(session, "Saving .tsf file iformat=1002");
    write_text(out, label);
    write_value(out, tsf_current_format);
    write_value(out, lfp.sampling_frequency_LFP);
    write_value(out, static_cast<std::int32_t>(list.channels.size()));
    write_value(out, static_cast<std::int32_t>(list.n_samples));
    write_value(out, lfp.vscale_LFP);
    write_lfp_table(session, list, out);
    write_lfp_samples(lfp, list, out);
    write_value(out, std::int32_t{0});  // events
  }
  if (!finish_safe_file(out)) {
    tell(session, "Error saving .tsf data " + why_not_saved(path), lfp_title);
    return false;
  }
  tell(session, fmt::format("{} LFP channels saved", list.channels.size()), lfp_title,
       box_icon::information);
  return true;
}

}  // namespace kestrelvane
