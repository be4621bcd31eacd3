#include "recording/formats/blackrock/nev.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "files/header_text.h"
#include "recording/event_records.h"
#include "recording/formats/blackrock/nev_layout.h"
#include "recording/header_checks.h"
#include "recording/site_layouts.h"
#include "recording/site_tables.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// What the reader carries from pass to pass.
struct nev_reading {
  nev_layout layout;
  std::vector<std::int32_t> slots;        // program channel of each electrode id
  std::vector<std::int32_t> n_waveforms;  // stored so far, by slot
  std::vector<std::int64_t> counts;       // waveforms in the file, by electrode id
  std::uint64_t last_ticks = 0;           // of any packet, since first_stamp
  std::uint64_t last_waveform_ticks = 0;
  std::map<std::int32_t, std::int64_t> unknown_ids;  // packets of each
  std::int64_t n_beyond_map = 0;  // waveforms that the time stamp map has no room for
  std::int64_t n_without_id = 0;  // unclassified ones whose id is no channel
  bool too_many_events = false;
  std::int64_t n_walked = 0;  // packets, for the bar
};

// --- headers

void log_header(session_state& session, const nev_layout& layout) {
  note_record_start(session, layout.start);
  if (!layout.application.empty()) log_message(session, legible_text(layout.application));
  if (!layout.comment.empty()) log_message(session, legible_text(layout.comment));
}

bool take_electrodes(session_state& session, const input_file& file, nev_layout& layout) {
  recording_store& r = session.recording;
  double scale = 0;
  bool differs = false;
  const auto on_electrode = [&](const nev_electrode& electrode) {
    // The first scale that says anything is that of the recording.
    if (scale == 0) scale = electrode.scale;
    differs |= electrode.scale != 0 && electrode.scale != scale;
  };
  const auto on_unknown = [&](std::int64_t header) {
    log_message(session, fmt::format("Unrecognised extended header {}", header));
  };
  if (!scan_nev_electrodes(file, layout, on_electrode, on_unknown)) {
    return refuse_file(session, "Early end to file");
  }
  if (scale != 0) r.vscale_HP = static_cast<float>(scale);
  if (differs) {
    log_message(session, fmt::format("Warning: channels have different voltage scaling; {} uV/bit "
                                     "is used for all",
                                     r.vscale_HP));
  }
  // With a configuration only its channels are read.
  r.n_channels = r.no_config_file ? layout.n_file_channels : r.n_mapped_channels;
  return check_channel_count(session, r.n_channels) && check_voltage_scale(session, r.vscale_HP);
}

// --- the size of the store

bool report_broken_walk(const session_state& session) {
  if (!session.operation.reading_interrupted) log_message(session, "Error or end of file");
  return false;
}

// One pass over ids and time stamps.
bool count_waveforms(const session_state& session, const input_file& file, nev_reading& reading) {
  const nev_layout& layout = reading.layout;
  reading.counts.assign(static_cast<std::size_t>(layout.n_file_channels) + 1, 0);
  const bool walked = walk_nev_packets(file, layout, [&](const char* bytes, std::int64_t n) {
    for (std::int64_t p = 0; p < n; ++p, bytes += layout.packet_bytes) {
      const nev_packet packet = nev_packet_at(layout, bytes);
      const std::uint64_t ticks = ticks_of(layout, packet.stamp);
      // Digital inputs and comments count as well: they may come after the last waveform.
      reading.last_ticks = std::max(reading.last_ticks, ticks);
      if (packet.id < 1 || packet.id > layout.n_file_channels) continue;
      reading.last_waveform_ticks = std::max(reading.last_waveform_ticks, ticks);
      ++reading.counts[packet.id];
    }
    return !reading_interrupted(session);
  });
  return walked || report_broken_walk(session);
}

// Room for the fullest channel's records.
std::int64_t count_record_samples(const nev_reading& reading) {
  // As many records as the map of stamps has room for, each with a gap of its length.
  const std::int64_t most = *std::max_element(reading.counts.begin(), reading.counts.end());
  return 2 * reading.layout.n_samples * std::min<std::int64_t>(most, nev_records_per_channel) +
         1000;
}

// Up to the last time stamp, and to the end of a waveform that begins there: its event would
// lie after the recording otherwise.
std::int64_t count_time_samples(const session_state& session, const nev_reading& reading) {
  const nev_layout& layout = reading.layout;
  const std::int64_t by_stamp = ticks_to(reading.last_ticks, layout.sample_rate, layout.resolution);
  const std::int64_t last_waveform =
      ticks_to(reading.last_waveform_ticks, layout.sample_rate, layout.resolution);
  // Far above what 32 bits hold, and far below where the sum below would overflow.
  constexpr std::int64_t far = std::int64_t{1} << 40;  // not a count that a session holds
  const std::int64_t by_waveform = std::min(last_waveform, far) + layout.n_samples - 1;
  if (by_waveform <= by_stamp) return by_stamp;
  log_message(session, fmt::format("The last waveform ends {} samples behind the last time stamp",
                                   by_waveform - by_stamp));
  return by_waveform;
}

bool allocate_store(session_state& session, const nev_reading& reading) {
  recording_store& r = session.recording;
  const std::int64_t n_samples = session.preferences.treat_as_continuous
                                     ? count_time_samples(session, reading)
                                     : count_record_samples(reading);
  if (!check_sample_count(session, n_samples)) return false;
  r.n_samples = static_cast<std::int32_t>(n_samples);
  r.samples_per_event = static_cast<std::int32_t>(reading.layout.n_samples);
  r.is_continuous = false;
  r.electrode_type = electrode_utah_array;
  r.suits_lockout = true;  // as data do that are cut into events
  return allocate_recording(session, r.n_samples + usual_spare_samples);
}

// --- packets

// Samples from a time index on, as far as the store reaches.
void store_waveform(recording_store& r, std::int32_t slot, std::int64_t index,
                    const char* samples) {
  // What lies before index 1 or beyond the store is left out.
  const std::int64_t from = std::max<std::int64_t>(1 - index, 0);
  const std::int64_t to = std::min<std::int64_t>(r.samples_per_event, r.max_vd_samples - index + 1);
  if (to <= from) return;
  std::memcpy(r.vd.channel(slot) + index + from, samples + 2 * from,
              2 * static_cast<std::size_t>(to - from));
}

// The event of a waveform; its cluster is still the unit of its channel.
void add_event(session_state& session, nev_reading& reading, const nev_packet& packet,
               std::int32_t slot, std::int64_t index) {
  event_table& e = session.events;
  const recording_store& r = session.recording;
  if (packet.unit < 0) return;
  const std::int64_t time = std::max<std::int64_t>(index + r.samples_per_event / 2, 1);
  if (e.n_events == event_limit) {
    reading.too_many_events = true;
    return;
  }
  // Unclassified waveforms are registered to the electrode's own number.
  std::int32_t channel = packet.unit > 0 ? slot : packet.id;
  // An id of the file need not be a channel of the program.
  if (channel > r.n_channels) {
    channel = slot;
    ++reading.n_without_id;
  }
  ++e.n_events;
  e.event_time[e.n_events] = e.event_detected_time[e.n_events] = static_cast<std::int32_t>(time);
  e.event_channel[e.n_events] = channel;
  e.event_cluster[e.n_events] = packet.unit;
}

void take_waveform(session_state& session, nev_reading& reading, const nev_packet& packet,
                   const char* samples) {
  recording_store& r = session.recording;
  const nev_layout& layout = reading.layout;
  const std::int32_t slot = reading.slots[packet.id];
  if (slot == 0) return;
  const std::uint64_t ticks = ticks_of(layout, packet.stamp);
  std::int64_t index = 0;
  if (session.preferences.treat_as_continuous) {
    index = ticks_to(ticks, layout.sample_rate, layout.resolution);
  } else {
    std::int32_t& record = reading.n_waveforms[slot];
    // The map is full: waveforms beyond it have no time.
    if (record == r.records_per_unit) {
      ++reading.n_beyond_map;
      return;
    }
    ++record;
    r.timestamp(record, slot) = ticks_to(ticks, 1'000'000, layout.resolution);
    r.record_unit(record, slot) = static_cast<std::int16_t>(packet.unit);
    r.channel_event_count[slot] = record;
    index = record_index(record, r.samples_per_event);
  }
  store_waveform(r, slot, index, samples);
  add_event(session, reading, packet, slot, index);
}

void take_packet(session_state& session, nev_reading& reading, const char* bytes) {
  const nev_packet packet = nev_packet_at(reading.layout, bytes);
  // Its bytes are no waveform.
  if (packet.id == 0) return;  // digital input
  if (packet.id > reading.layout.n_file_channels) {
    // Named once each; the rest are counted.
    if (++reading.unknown_ids[packet.id] == 1) {
      log_message(session, fmt::format("Unrecognised packet id = {}", packet.id));
    }
    return;
  }
  take_waveform(session, reading, packet, bytes + reading.layout.packet_head);
}

bool read_packets(session_state& session, const input_file& file, nev_reading& reading) {
  const nev_layout& layout = reading.layout;
  const bool walked = walk_nev_packets(file, layout, [&](const char* bytes, std::int64_t n) {
    for (std::int64_t p = 0; p < n; ++p) {
      take_packet(session, reading, bytes + p * layout.packet_bytes);
    }
    reading.n_walked += n;
    const auto bar = static_cast<std::int32_t>(90 * reading.n_walked / layout.n_packets);
    set_progress(session, meter::reading, bar, 115);
    return !reading_interrupted(session);
  });
  return walked || report_broken_walk(session);
}

void log_count(const session_state& session, std::int64_t n, const char* words) {
  if (n > 0) log_message(session, fmt::format("{} {}", n, words));
}

void log_packets(const session_state& session, const nev_reading& reading) {
  std::int64_t n_unknown = 0;
  for (const auto& [id, n] : reading.unknown_ids) n_unknown += n;
  log_count(session, n_unknown, "packets have an unrecognised id");
  log_count(session, reading.n_beyond_map,
            "waveforms are more than a channel can hold and were left out");
  log_count(session, reading.n_without_id,
            "unclassified events are registered to the channel of the configuration");
  if (reading.too_many_events) {
    log_message(session, fmt::format("# of events in file exceeds upper limit of {}", event_limit));
  }
  log_message(session,
              fmt::format("max_timestamp={}", reading.layout.first_stamp + reading.last_ticks));
  log_message(session, fmt::format("{} events", session.events.n_events));
}

// --- units to clusters

// Units of a channel follow those of the channels before it: element c is the number of the
// last cluster in front of channel c's.
std::vector<std::int32_t> number_clusters(session_state& session) {
  event_table& e = session.events;
  std::vector<std::int32_t> base(static_cast<std::size_t>(session.recording.n_channels) + 2);
  const auto next_base = [&](std::int32_t event) -> std::int32_t& {
    return base[static_cast<std::size_t>(e.event_channel[event]) + 1];
  };
  // Until numbers are settled, an event's cluster is the unit of its channel.
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    next_base(i) = std::max(next_base(i), e.event_cluster[i]);
  }
  for (std::size_t c = 1; c < base.size(); ++c) base[c] += base[c - 1];
  std::int32_t& n_clusters = session.clusters.n_clusters;
  std::int64_t n_unclustered = 0;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] == 0) continue;
    e.event_cluster[i] += base[e.event_channel[i]];
    // Events keep their place; only the unit is lost.
    if (e.event_cluster[i] > session.max_clusters) {
      e.event_cluster[i] = 0;
      ++n_unclustered;
    }
    n_clusters = std::max(n_clusters, e.event_cluster[i]);
  }
  log_count(session, n_unclustered, "events of units beyond the limit of clusters are unclustered");
  return base;
}

// Unit numbers may have gaps: such a cluster has no events and gets no template. None is
// without a channel, which is its electrode's.
void give_clusters_a_channel(session_state& session, const std::vector<std::int32_t>& base) {
  const event_table& e = session.events;
  std::int32_t channel = 1;
  std::vector<bool> has_events(session.clusters.n_clusters + 1);
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    has_events[e.event_cluster[i]] = true;
  }
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    session.templates.template_n_channels[c] = 1;
    // A cluster beyond the base of a channel belongs to the one after it.
    while (c > base[static_cast<std::size_t>(channel) + 1]) ++channel;
    session.templates.channels(c)[1] = channel;
    if (has_events[c]) continue;
    log_message(session, fmt::format("Warning: No events in cluster {}", c));
  }
}

// The template window is to be that of the waveforms.
void demand_window(session_state& session) {
  recording_store& r = session.recording;
  const std::int32_t n_clusters = session.clusters.n_clusters;
  log_message(session, n_clusters == 1 ? std::string("There is one cluster")
                                       : fmt::format("There are {} clusters", n_clusters));
  const float half_ms = static_cast<float>(r.samples_per_event) * 1000.0f /
                        (2.0f * static_cast<float>(r.sampling_frequency));
  r.file_window_start_ms = -half_ms;
  r.file_window_end_ms = half_ms;
}

bool read_file(session_state& session, const std::string& path) {
  input_file file;
  if (!open_input_file(file, path)) {
    log_message(session, "Failed to Open NEV file");
    log_message(session, file.problem);
    return false;
  }
  recording_store& r = session.recording;
  nev_reading reading;
  nev_layout& layout = reading.layout;
  if (!read_nev_layout(session, file, layout)) return false;
  r.sampling_frequency = static_cast<std::int32_t>(layout.sample_rate);
  log_header(session, layout);
  if (!take_electrodes(session, file, layout)) return false;
  log_message(session, fmt::format("There are {} channels", r.n_channels));
  log_message(session, fmt::format("Sample Frequency = {} Hz", r.sampling_frequency));
  log_message(session, "Reading waveforms, please wait ...");
  if (!count_waveforms(session, file, reading) || !allocate_store(session, reading)) {
    return false;
  }
  reading.slots = list_nev_slots(session, layout.n_file_channels);
  reading.n_waveforms.assign(static_cast<std::size_t>(r.n_channels) + 1, 0);
  if (!read_packets(session, file, reading)) return false;
  log_packets(session, reading);
  if (r.no_config_file) place_channels_in_line(session);
  const std::vector<std::int32_t> base = number_clusters(session);
  demand_window(session);
  give_clusters_a_channel(session, base);
  log_message(session, fmt::format("Allocating memory for {} voltage samples", r.n_samples));
  // The first unit is what the user looks at, if there is one.
  session.clusters.current_cluster = 1;
  set_progress(session, meter::reading, 100, 115);
  return true;
}

}  // namespace

bool read_nev(session_state& session, const recording_request& request) {
  if (read_file(session, request.path)) return true;
  // The user who stopped it needs no words.
  if (!session.operation.reading_interrupted) {
    log_message(session, "Error opening Blackrock Microsystems NEV file (Utah array)");
  }
  return false;
}

}  // namespace kestrelvane
