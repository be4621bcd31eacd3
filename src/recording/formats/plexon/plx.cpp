#include "recording/formats/plexon/plx.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "files/header_text.h"
#include "recording/electrode_config.h"
#include "recording/formats/plexon/plx_reading.h"
#include "recording/header_checks.h"
#include "recording/record_start.h"
#include "recording/repeated_line.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t spare_samples = 10000;  // allocated beyond the estimate
// A cluster is known only when all units have been seen: until then an event carries
// its channel or tetrode, and its unit.
constexpr std::int32_t label_factor = 32768;

// --- headers

void describe_file(session_state& session, const plx_headers& headers) {
  const plx_file_header& h = headers.file;
  log_message(session, fmt::format("Reading PLX File Version ({})", h.version));
  note_record_start(session, {h.year, h.month, h.day, h.hour, h.minute, h.second});
  log_message(session, fmt::format(" ADFrequency {}", h.ad_frequency));
  log_message(session, fmt::format(" WaveformFreq {}", h.waveform_freq));
  log_message(session, fmt::format(" NumpointsWave {}", h.n_points_wave));
  log_message(session, fmt::format(" NumpointsPreThr {}", h.n_points_pre_thr));
  log_message(session, fmt::format(" LastTimeStamp {}", h.last_timestamp));
  log_message(session, legible_text({h.comment, sizeof h.comment}));
  log_message(session, fmt::format("{} DSP Channels", h.n_dsp_channels));
  for (const plx_channel_header& c : headers.channels) {
    if (c.n_units < 1) continue;
    log_message(session, fmt::format("{}{}{}", c.n_units,
                                     c.n_units == 1 ? " sorted unit on channel "
                                                    : " sorted units on channel ",
                                     c.channel));
  }
  log_message(session, fmt::format("{} Event Channels", h.n_event_channels));
  log_message(session, fmt::format("{} Slow Channels", h.n_slow_channels));
}

// Non-tetrode files have their sites from a configuration, tetrode files channel for channel.
bool map_channels(session_state& session, const recording_request& request, bool tetrodes) {
  recording_store& r = session.recording;
  if (tetrodes) {
    for (std::int32_t c = 1; c <= r.n_channels; ++c) r.channel_map[c] = c;
    // Room for the last tetrode, whole or not.
    r.n_tetrodes = (r.n_channels + 3) / 4;
    return true;
  }
  if (load_configuration(session, request)) return true;
  tell(session, "Cannot find electrode configuration file, aborting read", "Open a recording file");
  if (!request.configuration.empty()) return false;
  std::vector<std::string> names;
  for (const std::string& path : config_files_looked_for(request.path)) {
    names.push_back(file_name_of(path));
  }
  log_message(session, fmt::format("Looked beside the recording for {}", fmt::join(names, ", ")));
  log_message(session, "The option --config of the batch command names any other");
  return false;
}

// --- events

void drop_events_outside(session_state& session) {
  event_table& e = session.events;
  const std::int32_t dropped = compact_events(e, [&](std::int32_t i) {
    return e.event_time[i] >= 1 && e.event_time[i] <= session.recording.n_samples;
  });
  if (dropped > 0) {
    log_message(session, fmt::format("{} events outside the recording were left out", dropped));
  }
}

// Labels become cluster numbers: a unit, and before it all units of lower channels. Returns
// the largest.
std::int32_t number_clusters(session_state& session, const plx_units& units) {
  std::vector<std::int32_t> before(units.n_units.size());
  // Units of the groups before it, summed.
  for (std::size_t g = 1; g + 1 < before.size(); ++g) before[g + 1] = before[g] + units.n_units[g];
  event_table& e = session.events;
  std::int32_t largest = 0;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    std::int32_t& cluster = e.event_cluster[i];
    if (cluster == 0) continue;
    cluster = cluster % label_factor + before[cluster / label_factor];
    largest = std::max(largest, cluster);
  }
  return largest;
}

// Cluster numbers without events go and the rest close up. No cluster has any record yet,
// so that one pass does for all of them. Numbers beyond the limit leave their events
// unclustered.
void close_up_clusters(session_state& session, std::int32_t largest) {
  event_table& e = session.events;
  std::vector<bool> used(largest + 1);
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    used[e.event_cluster[i]] = true;
  }
  // Unit numbers may be far apart: only those that occur are kept, in ascending order.
  std::vector<std::int32_t> kept;
  std::int32_t n = 0;
  repeated_line deleted;
  for (std::int32_t c = 1; c <= largest; ++c) {
    if (used[c]) {
      kept.push_back(c);
      ++n;
    } else {
      if (is_worth_a_line(deleted)) log_message(session, fmt::format("deleting cluster {}", n + 1));
    }
  }
  log_rest(session, deleted, "clusters without events");
  std::int32_t n_unclustered = 0;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    std::int32_t& cluster = e.event_cluster[i];
    if (cluster == 0) continue;
    const auto at = std::lower_bound(kept.begin(), kept.end(), cluster);
    cluster = static_cast<std::int32_t>(at - kept.begin()) + 1;
    if (cluster <= session.max_clusters) continue;
    cluster = 0;
    ++n_unclustered;
  }
  if (n_unclustered > 0) {
    log_message(session, fmt::format("{} events are unclustered: there are {} clusters in the file",
                                     n_unclustered, n));
  }
  session.clusters.n_clusters = std::min(n, session.max_clusters);
}

void make_clusters(session_state& session, const plx_plan& plan, const plx_units& units) {
  drop_events_outside(session);
  const std::int32_t largest = number_clusters(session, units);
  if (!plan.continuous) {
    log_message(session, fmt::format("{} clusters in file", largest));
    log_message(session, "Calculating templates ...");
  }
  close_up_clusters(session, largest);
}

// --- what follows, for every kind of file

void finish_read(session_state& session, const plx_plan& plan) {
  if (plan.tetrodes) set_tetrode_map(session);
  const std::int32_t n = session.clusters.n_clusters;
  session.clusters.current_cluster = 1;
  log_message(session, n == 0   ? "There are no clusters in the file"
                       : n == 1 ? "There is one cluster in the file"
                                : fmt::format("{} clusters in the file", n));
  log_message(session, fmt::format("Allocating memory for {} voltage samples",
                                   session.recording.max_vd_samples));
  set_progress(session, meter::reading, 100, 115);
}

}  // namespace

bool allocate_plx_samples(session_state& session, std::int64_t estimate) {
  const std::int64_t needed = estimate + spare_samples;
  if (check_sample_count(session, needed) && allocate_recording(session, needed)) return true;
  log_message(session, fmt::format("Not enough memory for data {}", needed));
  return false;
}

void store_plx_words(recording_store& r, std::int32_t channel, std::int64_t index,
                     const char* words, std::int64_t n) {
  const std::int64_t skipped = std::max<std::int64_t>(1 - index, 0);
  n = std::min(n, r.max_vd_samples - index + 1) - skipped;
  if (n <= 0) return;
  std::memcpy(r.vd.channel(channel) + index + skipped, words + 2 * skipped,
              2 * static_cast<std::size_t>(n));
}

bool add_plx_event(session_state& session, std::int64_t time, std::int32_t channel,
                   std::int32_t group, std::int32_t unit, plx_units& units) {
  event_table& e = session.events;
  if (e.n_events >= event_limit) return false;
  const std::int32_t i = ++e.n_events;
  // Times that no recording has are sorted out when its length is known.
  constexpr std::int64_t latest = std::numeric_limits<std::int32_t>::max();
  e.event_time[i] = static_cast<std::int32_t>(std::clamp<std::int64_t>(time, 0, latest));
  e.event_channel[i] = channel;
  e.event_cluster[i] = unit > 0 ? group * label_factor + unit : 0;
  if (unit > 0) {
    std::int32_t& largest = units.n_units[group];
    largest = std::max(largest, unit);
  }
  return true;
}

bool read_plx(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  input_file file;
  if (!open_input_file(file, request.path)) {
    log_message(session, "Error reading Plexon data file");
    log_message(session, file.problem);
    return false;
  }
  expect_sequential_reading(file);
  plx_plan plan;
  if (!scan_plx(session, file, plan) || session.operation.reading_interrupted) return false;
  if (!map_channels(session, request, plan.tetrodes)) return false;
  r.plx_path = request.path;
  r.plx_blocks_end = plan.blocks_end;
  describe_file(session, plan.headers);
  plx_units units;
  if (!(plan.continuous ? read_plx_slow(session, file, plan, request.stream, units)
                        : read_plx_records(session, file, plan, units))) {
    return false;
  }
  make_clusters(session, plan, units);
  finish_read(session, plan);
  return true;
}

}  // namespace kestrelvane
