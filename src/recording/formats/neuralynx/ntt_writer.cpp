#include <algorithm>
#include <vector>

#include "files/safe_file.h"
#include "recording/event_records.h"
#include "recording/formats/neuralynx/neuralynx.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr const char* title = "Export sorted data";

// Events by the record they lie in, in event order: those of record r (from 0) stand at
// first[r] .. first[r + 1] - 1. An event on the edge of a record is in none.
struct events_by_record {
  std::vector<std::int32_t> first;
  std::vector<std::int32_t> events;
};

// Record of an event, from 0; -1 for none.
std::int64_t record_of_event(const session_state& session, std::int32_t event) {
  constexpr std::int64_t slot = 2 * ntt_waveform_length;
  const std::int64_t offset = session.events.event_time[event] - first_record_index;
  if (offset < 0 || offset / slot >= session.recording.ntt_record_count) return -1;
  const std::int64_t within = offset % slot;
  // Its first sample and the gap after it belong to no record.
  return within > 0 && within < ntt_waveform_length ? offset / slot : -1;
}

events_by_record list_by_record(const session_state& session) {
  events_by_record list;
  list.first.resize(static_cast<std::size_t>(session.recording.ntt_record_count) + 2);
  for (std::int32_t i = 1; i <= session.events.n_events; ++i) {
    const std::int64_t record = record_of_event(session, i);
    // Two places up, one for the sum and one for the filling below.
    if (record >= 0) ++list.first[static_cast<std::size_t>(record) + 2];
  }
  for (std::size_t r = 1; r < list.first.size(); ++r) list.first[r] += list.first[r - 1];
  list.events.resize(static_cast<std::size_t>(list.first.back()));
  // Filled from first[r + 1] on, which thereby moves to where it belongs.
  for (std::int32_t i = 1; i <= session.events.n_events; ++i) {
    const std::int64_t record = record_of_event(session, i);
    if (record < 0) continue;
    std::int32_t& next = list.first[static_cast<std::size_t>(record) + 1];
    list.events[next++] = i;
  }
  return list;
}

// The record's first event that is not in front of the one matched before; 0 for none.
std::int32_t match_event(const events_by_record& list, std::size_t record, std::int32_t from) {
  const auto begin = list.events.begin() + list.first[record];
  const auto end = list.events.begin() + list.first[record + 1];
  // Never back to an event before the last one matched, so that order is kept.
  const auto at = std::lower_bound(begin, end, from);
  return at == end ? 0 : *at;
}

void write_record(const session_state& session, safe_file& out, std::int64_t record,
                  std::int32_t event) {
  const recording_store& r = session.recording;
  // The stamps of records count from the first, whose own is 0.
  const std::int64_t stamp = record == 0 ? 0 : r.timestamp(record + 1, 1);
  write_value(out,
              static_cast<std::uint64_t>(r.first_timestamp) + static_cast<std::uint64_t>(stamp));
  // A record without an event is on channel 1 and in no cell.
  write_value(out, event > 0 ? session.events.event_channel[event] : 1);
  write_value(out, event > 0 ? session.events.event_cluster[event] : 0);
  write_bytes(out, r.ntt_features.first() + record * ntt_feature_count,
              ntt_feature_count * sizeof(std::int32_t));
  std::int16_t samples[ntt_waveform_length][ntt_channels];
  const std::int64_t index = record_index(record + 1, ntt_waveform_length);
  for (std::int32_t c = 0; c < ntt_channels; ++c) {
    const std::int16_t* v = r.vd.channel(c + 1) + index;
    for (std::int32_t k = 0; k < ntt_waveform_length; ++k) samples[k][c] = v[k];
  }
  write_value(out, samples);
}

void write_records(const session_state& session, safe_file& out) {
  const std::int64_t n = session.recording.ntt_record_count;
  const events_by_record list = list_by_record(session);
  std::int32_t from = 1;
  for (std::int64_t record = 0; record < n && !out.failed; ++record) {
    const std::int32_t event = match_event(list, static_cast<std::size_t>(record), from);
    if (event > 0) from = event;
    write_record(session, out, record, event);
    if (record % 4096 == 0) {
      set_progress(session, meter::saving, static_cast<std::int32_t>(100 * record / n), 100);
    }
  }
}

}  // namespace

bool write_ntt(const session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  safe_file out;
  if (open_safe_file(out, path)) {
    write_bytes(out, r.ntt_header.data(), r.ntt_header.size());
    write_records(session, out);
  }
  if (!finish_safe_file(out)) {
    tell(session, "Error saving Neuralynx .ntt data " + why_not_saved(path), title);
    return false;
  }
  set_progress(session, meter::saving, 100, 100);
  tell(session, "Neuralynx .NTT recording data saved", title, box_icon::information);
  return true;
}

}  // namespace kestrelvane
