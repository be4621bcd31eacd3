#include "recording/storage.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace kestrelvane {

namespace {

// Bytes of one template array per channel, as the memory message counts them.
constexpr double template_bytes_per_channel = 4.0 * template_slot_limit * template_point_limit;

bool allocate_timestamp_map(session_state& session) {
  recording_store& r = session.recording;
  const std::int64_t units = r.electrode_type == electrode_tetrode ? r.n_tetrodes : r.n_channels;
  // Room is reserved and not taken: what is not touched costs nothing.
  r.records_per_unit = r.electrode_type == electrode_utah_array ? 2'000'000 : 5'000'000;
  const std::int64_t elements = units * (std::int64_t{r.records_per_unit} + 1);
  // One of the two alone would be of no use.
  if (r.event_timestamp.reserve(elements) && r.event_record_unit.reserve(elements)) return true;
  r.event_timestamp.release();
  r.event_record_unit.release();
  r.records_per_unit = 0;
  tell(session, "Not enough memory for timestamp map", "Problem");
  return false;
}

// Gigabytes (10^9 bytes), rounded, as the memory messages print them.
std::string rounded_gigabytes(double bytes) {
  return fmt::format("{:4}", static_cast<std::int64_t>(std::lround(bytes / 1e9)));
}

void report_no_memory_for_samples(const session_state& session, std::int64_t max_time) {
  const recording_store& r = session.recording;
  log_message(session, fmt::format("n_channels={} max_vd_samples={}", r.n_channels, max_time));
  const double bytes = 2.0 * r.n_channels * static_cast<double>(max_time);
  tell(session,
       "Not enough memory: about " + rounded_gigabytes(bytes) + " GB needed for recording data",
       "Problem");
  if (!r.is_continuous && !r.records_stay_apart && session.preferences.treat_as_continuous) {
    tell(session, "Try turning off 'treat event based recording as continuous' option",
         "Suggestion", box_icon::information);
  }
}

}  // namespace

bool allocate_templates(session_state& session) {
  template_table& t = session.templates;
  const std::int32_t n_channels = session.recording.n_channels;
  const std::int64_t elements =
      std::int64_t{template_slot_limit} * n_channels * template_point_limit;
  t.template_mean.release();
  t.template_sd.release();
  // Until both arrays are there nobody may read a template.
  t.allocated_channels = 0;
  t.row = template_point_limit;
  if (n_channels >= 0 && t.template_mean.reserve(elements) && t.template_sd.reserve(elements)) {
    t.allocated_channels = n_channels;
    return true;
  }
  t.template_mean.release();
  log_message(session, fmt::format("n_channels={}", n_channels));
  tell(session,
       "Not enough memory: about " + rounded_gigabytes(n_channels * template_bytes_per_channel) +
           " additional GB needed for templates",
       "Problem");
  return false;
}

bool allocate_recording(session_state& session, std::int64_t max_time) {
  recording_store& r = session.recording;
  // The old samples go first: there may not be room for both recordings.
  r.vd.release();
  release_timestamp_map(r);
  const bool countable = max_time >= 0 && max_time <= std::numeric_limits<std::int32_t>::max();
  if (!countable || !r.vd.allocate(max_time, r.n_channels)) {
    report_no_memory_for_samples(session, max_time);
    return false;
  }
  r.max_vd_samples = static_cast<std::int32_t>(max_time);
  if (!r.is_continuous && !allocate_timestamp_map(session)) {
    // Without its stamps an event-based recording cannot be timed.
    r.vd.release();
    return false;
  }
  return allocate_templates(session);
}

}  // namespace kestrelvane
