// An opened ".plx" file written again with the units of the session.
#include <fmt/format.h>
#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "files/file_place.h"
#include "files/safe_file.h"
#include "recording/formats/plexon/plx.h"
#include "recording/repeated_line.h"
#include "session/run_log.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t most_spike_words = 128;

// Clusters of stored records: by channel or tetrode, then by record from 1; 0 for none.
using record_clusters = std::vector<std::vector<std::int16_t>>;

struct plx_rewriter {
  input_file source;
  plx_headers headers;
  safe_file out;
  std::vector<std::int16_t> unit_of_cluster;
  record_clusters clusters;  // event-based files
  std::vector<bool> sorted;  // by program channel, 0 being none: it took part in the sort
  bool overwrite_samples = false;
};

bool has_tetrodes(const session_state& session) {
  return session.recording.electrode_type == electrode_tetrode;
}

// --- which channels were sorted

// Tetrodes are sorted as one, by the channels of theirs that are not masked. Masked channels
// that have events all the same, since they were masked afterwards, were sorted, too.
std::vector<bool> list_sorted_channels(const session_state& session) {
  const recording_store& r = session.recording;
  const auto group = [&](std::int32_t c) {
    return static_cast<std::size_t>(has_tetrodes(session) ? r.tetrode_of_channel[c] : c);
  };
  std::vector<bool> groups(std::size_t{channel_limit} + 1);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) groups[group(c)] = true;
  }
  for (std::int32_t i = 1; i <= session.events.n_events; ++i) {
    groups[group(session.events.event_channel[i])] = true;
  }
  std::vector<bool> sorted(static_cast<std::size_t>(r.n_channels) + 1);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) sorted[c] = groups[group(c)];
  return sorted;
}

// Whether a spike block stays as it is, its channel having had no part in the sort.
bool stays_as_it_is(const session_state& session, const plx_rewriter& w,
                    const plx_block_header& h) {
  if (h.channel < 1) return false;  // no channel at all
  if (session.recording.is_continuous && h.channel > highest_plx_spike_channel) return true;
  return !w.sorted[plx_program_channel(session, h.channel)];
}

// --- which record has which cluster

// All records, without clusters.
record_clusters list_records(const session_state& session) {
  const recording_store& r = session.recording;
  const bool tetrodes = has_tetrodes(session);
  record_clusters records(static_cast<std::size_t>(r.n_channels) + 1);
  for (std::int32_t u = 1; u <= r.n_channels; ++u) {
    const std::int32_t n = tetrodes ? r.tetrode_event_count[u] : r.channel_event_count[u];
    // Room for record 0, which stands for none.
    records[u].resize(static_cast<std::size_t>(n) + 1);
  }
  return records;
}

std::size_t group_of_event(const session_state& session, std::int32_t event) {
  const std::int32_t channel = session.events.event_channel[event];
  return static_cast<std::size_t>(
      has_tetrodes(session) ? session.recording.tetrode_of_channel[channel] : channel);
}

// Records in slots of their own.
void map_slots(const session_state& session, record_clusters& records) {
  const event_table& e = session.events;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] <= 0) continue;
    std::vector<std::int16_t>& of = records[group_of_event(session, i)];
    const std::int32_t record =
        // Slots are twice as long as records, so that the time alone tells the record.
        (e.event_time[i] - 100) / (2 * session.recording.samples_per_event) + 1;
    if (record < 1 || record >= static_cast<std::int64_t>(of.size())) continue;
    of[record] = static_cast<std::int16_t>(e.event_cluster[i]);
  }
}

// Start of a record on the time axis.
struct record_at {
  std::int64_t start;
  std::size_t record;
  bool operator<(const record_at& b) const {
    // Of records at one time the first in the file.
    return start != b.start ? start < b.start : record < b.record;
  }
};

std::vector<record_at> list_starts(const session_state& session, std::int32_t group, std::size_t n,
                                   repeated_line& zeros) {
  std::vector<record_at> starts;
  plx_record record;
  for (std::size_t m = 1; m < n; ++m) {
    record.record = static_cast<std::int64_t>(m);
    const std::int64_t stamp = session.recording.timestamp(record.record, group);
    if (stamp == 0 && is_worth_a_line(zeros)) {
      log_message(session, fmt::format("Unexpected zero in timestamp_map, m= {}", m));
    }
    starts.push_back({plx_record_position(session, record, stamp), m});
  }
  std::sort(starts.begin(), starts.end());
  return starts;
}

// The first record in file order that an event lies in; 0 for none.
std::size_t record_of_time(const std::vector<record_at>& starts, std::int64_t time,
                           std::int32_t samples) {
  std::size_t found = 0;
  // Only records that begin within a record's length before the time can hold it.
  for (auto at = std::lower_bound(starts.begin(), starts.end(), record_at{time - samples, 0});
       at != starts.end() && at->start <= time; ++at) {
    if (found == 0 || at->record < found) found = at->record;
  }
  return found;
}

// Records at their times.
void map_times(const session_state& session, record_clusters& records) {
  const event_table& e = session.events;
  log_message(session, "Making timestamp_cluster_map2");
  log_message(session, "Records per channel");
  std::vector<std::vector<record_at>> starts(records.size());
  repeated_line zeros;
  for (std::size_t u = 1; u < records.size(); ++u) {
    if (records[u].size() < 2) continue;
    log_message(session, fmt::format("{} {}", u, records[u].size() - 1));
    starts[u] = list_starts(session, static_cast<std::int32_t>(u), records[u].size(), zeros);
  }
  log_rest(session, zeros, "zeros");
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] <= 0) continue;
    const std::size_t u = group_of_event(session, i);
    const std::size_t record =
        record_of_time(starts[u], e.event_time[i], session.recording.samples_per_event);
    if (record > 0) records[u][record] = static_cast<std::int16_t>(e.event_cluster[i]);
  }
}

record_clusters map_records(const session_state& session) {
  log_message(session, "Making cluster map for event based recording");
  record_clusters records = list_records(session);
  if (session.preferences.treat_as_continuous) {
    map_times(session, records);
  } else {
    map_slots(session, records);
  }
  log_message(session, "Finished Making map");
  return records;
}

// --- headers

// Units of every program channel; in tetrodes all channels of one have its units.
std::vector<std::int32_t> count_units(const session_state& session) {
  const recording_store& r = session.recording;
  std::vector<std::int32_t> by_group(std::size_t{channel_limit} + 1);
  const bool tetrodes = has_tetrodes(session);
  const auto group = [&](std::int32_t c) {
    return static_cast<std::size_t>(tetrodes ? r.tetrode_of_channel[c] : c);
  };
  // A cluster counts where its template is largest.
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    ++by_group[group(session.templates.centre_channel(c))];
  }
  std::vector<std::int32_t> by_channel(r.n_channels + 1);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    by_channel[c] = by_group[group(c)];
  }
  return by_channel;
}

bool copy_bytes(plx_rewriter& w, std::int64_t from, std::int64_t to) {
  constexpr std::int64_t piece = 1 << 20;
  for (; from < to && !w.out.failed; from += piece) {
    const std::vector<char> bytes = read_block(w.source, from, std::min(piece, to - from));
    if (bytes.empty()) return false;
    write_bytes(w.out, bytes.data(), bytes.size());
  }
  return !w.out.failed;
}

// Event and slow channel headers stay as they are, in the order of the file.
bool write_headers(const session_state& session, plx_rewriter& w) {
  const std::vector<std::int32_t> n_units = count_units(session);
  write_value(w.out, w.headers.file);
  for (plx_channel_header& h : w.headers.channels) {
    const std::int32_t channel = plx_program_channel(session, h.channel);
    // Spikes that stay keep their units.
    if (w.sorted[channel]) h.n_units = n_units[channel];
    write_value(w.out, h);
  }
  const auto at = static_cast<std::int64_t>(sizeof(plx_file_header) +
                                            w.headers.channels.size() * sizeof(plx_channel_header));
  return copy_bytes(w, at, w.headers.blocks_at);
}

void log_units(const session_state& session, const plx_rewriter& w) {
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    log_message(session, fmt::format("Cluster to unit number {} {} {}",
                                     session.templates.centre_channel(c), c, w.unit_of_cluster[c]));
  }
}

// --- blocks

// Samples of the recording in place of those in the file, where it has them.
void replace_words(const recording_store& r, std::int32_t channel, std::int64_t index,
                   std::vector<char>& words, std::int64_t n) {
  const std::int16_t* v = r.vd.channel(channel);
  for (std::int64_t k = std::max<std::int64_t>(1 - index, 0); k < n && index + k <= r.n_samples;
       ++k) {
    std::memcpy(words.data() + 2 * k, v + index + k, 2);
  }
}

// A block as it goes into the new file. One that the end of the file has cut tells of the
// samples that are there, so that another block may follow.
bool write_block(plx_rewriter& w, const plx_block& block, const plx_block_header& changed,
                 const std::vector<char>& words) {
  plx_block_header h = changed;
  const std::int64_t first_end = block.offset + 16 + 2 * std::int64_t{block.n_words};
  const std::int64_t end = block.offset + block.bytes;
  if (end > w.source.size) {
    h.n_waveforms = std::min<std::int16_t>(h.n_waveforms, 1);
    h.n_words = static_cast<std::int16_t>(block.n_there);
  }
  write_value(w.out, h);
  write_bytes(w.out, words.data(), words.size());
  // Further waveforms of the block are passed on as they are.
  return end <= w.source.size ? copy_bytes(w, first_end, end) : !w.out.failed;
}

// The unit and, if wanted, the samples of a stored record.
void change_record(const session_state& session, const plx_rewriter& w, const plx_record& record,
                   plx_block_header& h, std::vector<char>& words) {
  const recording_store& r = session.recording;
  const auto group = static_cast<std::size_t>(record.unit_group);
  const auto m = static_cast<std::size_t>(record.record);
  // Records that were not read keep what the file says.
  if (m >= w.clusters[group].size()) return;
  h.unit = w.unit_of_cluster[w.clusters[group][m]];
  if (!w.overwrite_samples) return;
  const std::int64_t position =
      plx_record_position(session, record, r.timestamp(record.record, record.unit_group));
  replace_words(
      r, record.channel, position, words,
      std::min<std::int64_t>(static_cast<std::int64_t>(words.size() / 2), r.samples_per_event));
}

void change_samples(const session_state& session, const plx_rewriter& w, const plx_block& block,
                    std::int32_t offset, std::vector<char>& words) {
  const recording_store& r = session.recording;
  const std::int32_t channel =
      plx_program_channel(session, std::int64_t{block.header.channel} + offset);
  if (channel == 0) return;
  const std::int64_t time =
      convert_ticks(block.time, w.headers.file.ad_frequency, r.sampling_frequency);
  // Samples beyond the recording in memory keep those of the file.
  if (time >= r.n_samples) return;
  replace_words(r, channel, time + 1, words, static_cast<std::int64_t>(words.size() / 2));
}

bool write_blocks(const session_state& session, plx_rewriter& w) {
  const recording_store& r = session.recording;
  const std::int32_t offset = plx_slow_offset(w.headers);
  plx_record_counter counter = begin_records(session);
  plx_block_stream in;
  begin_blocks(in, w.source, w.headers.blocks_at, w.source.size);
  plx_block block;
  plx_record record;
  std::vector<char> words;
  while (next_block(in, block)) {
    if (block.new_stretch) {
      set_progress(session, meter::saving,
                   static_cast<std::int32_t>(75 * block.offset / w.source.size), 100);
    }
    plx_block_header h = block.header;
    words.assign(block.words, block.words + 2 * block.n_there);
    const bool is_spike = h.type == plx_spike_block;
    const bool stays = is_spike && stays_as_it_is(session, w, h);
    if (r.is_continuous) {
      if (is_spike && !stays) continue;  // the session's spikes are written after the samples
      if (h.type == plx_slow_block && w.overwrite_samples) {
        change_samples(session, w, block, offset, words);
      }
    } else if (is_spike) {
      // Sorted anew: a unit that no cluster claims is gone.
      if (!stays) h.unit = 0;
      // Beyond the end of the read no record of the session tells of the block.
      if (block.offset < r.plx_blocks_end &&
          count_record(session, counter, block, record) == plx_block_use::record) {
        change_record(session, w, record, h, words);
      }
    }
    if (!write_block(w, block, h, words)) return false;
  }
  return !w.out.failed;
}

// --- spikes of a continuous file

// File channel of every program channel.
std::vector<std::int16_t> list_slots(const recording_store& r) {
  std::vector<std::int16_t> slots(r.n_channels + 1);
  // From the top down, so that the lowest file channel of a program channel stays.
  for (std::int32_t f = channel_limit; f >= 1; --f) {
    const std::int32_t c = r.channel_map[f];
    if (c >= 1 && c <= r.n_channels) slots[c] = static_cast<std::int16_t>(f);
  }
  return slots;
}

void write_spikes(const session_state& session, plx_rewriter& w) {
  const recording_store& r = session.recording;
  const event_table& e = session.events;
  log_message(session, "Writing spike data records for continuous data");
  const std::vector<std::int16_t> slots = list_slots(r);
  const std::int32_t first = window_first_sample(session);
  // No waveform of the format is longer.
  const std::int32_t n = std::clamp(window_last_sample(session) - first + 1, 0, most_spike_words);
  std::vector<char> words(2 * static_cast<std::size_t>(n));
  plx_block_header h{};
  h.type = plx_spike_block;
  h.n_waveforms = 1;
  h.n_words = static_cast<std::int16_t>(n);
  for (std::int32_t i = 1; i <= e.n_events && !w.out.failed; ++i) {
    const std::int32_t cluster = e.event_cluster[i];
    const std::int32_t channel =
        cluster > 0 ? session.templates.centre_channel(cluster) : e.event_channel[i];
    h.channel = slots[channel];
    h.unit = w.unit_of_cluster[std::max(cluster, 0)];
    set_plx_time(h,
                 convert_ticks(e.event_time[i], r.sampling_frequency, w.headers.file.ad_frequency));
    std::fill(words.begin(), words.end(), 0);
    replace_words(r, channel, std::int64_t{e.event_time[i]} + first, words, n);
    write_value(w.out, h);
    write_bytes(w.out, words.data(), words.size());
    if (i % 4096 == 0) {
      set_progress(session, meter::saving,
                   static_cast<std::int32_t>(75 + 25 * std::int64_t{i} / e.n_events), 100);
    }
  }
}

// --- files

bool open_source(plx_rewriter& w, const std::string& source) {
  return open_input_file(w.source, source) && read_plx_headers(w.source, w.headers);
}

// Where a source stands while it is written anew.
std::string aside_path(const std::string& source) { return replace_extension(source, ".___tmp"); }

bool write_copy(const session_state& session, const std::string& source, const std::string& target,
                bool overwrite_samples) {
  plx_rewriter w;
  errno = 0;  // a file that is refused for what it holds has no words of the system
  if (!open_source(w, source) || w.headers.file.ad_frequency < 1) {
    log_message(session, "Error reading Plexon data file");
    return false;
  }
  w.overwrite_samples = overwrite_samples;
  w.sorted = list_sorted_channels(session);
  w.unit_of_cluster = number_plx_units(session, has_tetrodes(session));
  log_units(session, w);
  if (!session.recording.is_continuous) w.clusters = map_records(session);
  if (!open_safe_file(w.out, target)) return false;
  // Over itself, where nothing stands under its name for now.
  if (source == aside_path(target)) take_permissions(w.out, source);
  // A failure must keep the target as it was.
  if (!write_headers(session, w) || !write_blocks(session, w)) w.out.failed = true;
  if (session.recording.is_continuous) write_spikes(session, w);
  set_progress(session, meter::saving, 100, 100);
  return finish_safe_file(w.out);
}

bool is_same_file(const std::string& a, const std::string& b) {
  std::error_code failed;
  if (a == b) return true;
  // By name: of two names that the file system has for one file, each may be replaced alone.
  const std::filesystem::path of_a = std::filesystem::canonical(a, failed);
  return !failed && of_a == std::filesystem::canonical(b, failed) && !failed;
}

bool rename_file(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace

bool rewrite_plx(const session_state& session, const std::string& source, const std::string& target,
                 bool overwrite_samples) {
  if (!is_same_file(source, target)) return write_copy(session, source, target, overwrite_samples);
  // A file of that name may be all that is left of an earlier source: it is not replaced.
  const std::string real = follow_links(source);
  const std::string aside = aside_path(real);
  if (file_exists(aside) || !rename_file(real, aside)) {
    log_message(session, "Can't rename file");
    log_message(session, aside);
    return false;
  }
  if (write_copy(session, aside, real, overwrite_samples)) {
    std::remove(aside.c_str());
    return true;
  }
  // The source goes back to where it was, whatever happened to the copy.
  rename_file(aside, real);
  return false;
}

bool count_plx_stored_spikes(const session_state& session, const std::string& source,
                             plx_stored_spikes& counts) {
  counts = {};
  plx_rewriter w;
  if (!open_source(w, source)) return false;
  if (!session.recording.is_continuous) return true;
  w.sorted = list_sorted_channels(session);
  plx_block_stream in;
  begin_blocks(in, w.source, w.headers.blocks_at, w.source.size);
  plx_block block;
  while (next_block(in, block)) {
    if (block.header.type != plx_spike_block) continue;
    ++(stays_as_it_is(session, w, block.header) ? counts.n_kept : counts.n_replaced);
  }
  return true;
}

std::vector<std::int16_t> number_plx_units(const session_state& session, bool by_tetrode) {
  const std::int32_t n = session.clusters.n_clusters;
  std::vector<std::int16_t> units(n + 1);
  std::vector<std::int16_t> used(std::size_t{channel_limit} + 1);
  for (std::int32_t c = 1; c <= n; ++c) {
    const std::int32_t centre = session.templates.centre_channel(c);
    const std::int32_t group = by_tetrode ? session.recording.tetrode_of_channel[centre] : centre;
    // Units of a channel count from 1, in the order of the clusters.
    units[c] = ++used[group];
  }
  return units;
}

}  // namespace kestrelvane
