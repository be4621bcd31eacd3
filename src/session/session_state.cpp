#include "session/session_state.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

#include "numerics/parallel.h"
#include "session/interpolation_tables.h"
#include "session/settings_table.h"

namespace kestrelvane {

namespace {

// Bytes of one template array per channel, as the memory message counts them.
constexpr double template_bytes_per_channel = 4.0 * template_slot_limit * template_point_limit;

constexpr std::int64_t no_fixed_size = -1;

// The time axis of each format, in samples.
std::int64_t time_axis(recording_store& r, std::int64_t file_bytes) {
  const std::int64_t n_channels = std::max(r.n_channels, 1);
  switch (r.file_type) {
    case file_type_srf:
      return std::int64_t{r.n_samples} + 10000;
    case file_type_ntt:
      r.n_channels = 4;
      return file_bytes / 2 + 10000;
    case file_type_prf:
      return file_bytes / (2 * n_channels) + 5'000'000;
    case file_type_plx:
    case file_type_xml:
      return r.max_vd_samples;
    case file_type_bin: {
      const std::int64_t samples = file_bytes / (2 * n_channels);
      r.n_samples = static_cast<std::int32_t>(
          std::min<std::int64_t>(samples, std::numeric_limits<std::int32_t>::max() - 1000));
      return samples + 1000;
    }
    case file_type_unknown:
    case file_type_tsf:
      return no_fixed_size;
    default:  // .ncs, .mcd, HDF5, .nwb, .nev, .nsX, .rhd, .pl2
      return std::int64_t{r.n_samples} + 1000;
  }
}

// Formats that store records with time stamps of their own.
bool has_timestamp_map(const recording_store& r) {
  switch (r.file_type) {
    case file_type_unknown:
    case file_type_srf:
    case file_type_prf:
    case file_type_rhd:
    case file_type_bin:
      return false;
    default:
      return !r.is_continuous;
  }
}

bool allocate_timestamp_map(session_state& session) {
  recording_store& r = session.recording;
  const std::int64_t units = r.electrode_type == electrode_tetrode ? r.n_tetrodes : r.n_channels;
  r.records_per_unit = r.electrode_type == electrode_utah_array ? 2'000'000 : 5'000'000;
  const std::int64_t elements = units * (std::int64_t{r.records_per_unit} + 1);
  if (r.event_timestamp.reserve(elements) && r.event_record_unit.reserve(elements)) return true;
  r.event_timestamp.release();
  r.event_record_unit.release();
  r.records_per_unit = 0;
  tell(session, "Not enough memory for timestamp map", "Problem");
  return false;
}

void release_timestamp_map(recording_store& r) {
  r.event_timestamp.release();
  r.event_record_unit.release();
  r.records_per_unit = 0;
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
  if (!r.is_continuous && session.preferences.treat_as_continuous) {
    tell(session, "Try turning off 'treat event based recording as continuous' option",
         "Suggestion", box_icon::information);
  }
}

void reset_recording(recording_store& r) {
  r.recording_path = "No data file";
  r.file_type = file_type_unknown;
  r.n_channels = 0;
  r.n_samples = 0;
  r.max_vd_samples = 0;
  r.sampling_frequency = 0;
  r.sampling_frequency_exact = 0.0;
  r.vscale_HP = 1.0f;
  r.duration_mins = 0.0f;
  std::fill(std::begin(r.record_date), std::end(r.record_date), 0);
  std::fill(std::begin(r.record_time), std::end(r.record_time), 0);
  r.recording_filtered = false;
  r.means_zeroed = r.common_mean_removed = r.temporal_smoothed = r.sample_hold_done = false;

  r.is_continuous = true;
  r.samples_per_event = 0;
  r.first_timestamp = 0;
  release_timestamp_map(r);
  r.tetrode_event_count.clear();
  r.channel_event_count.clear();
  r.plx_blocks_end = 0;
  r.ntt_header.clear();
  r.ntt_record_count = 0;
  r.ntt_features.release();

  r.electrode_name.clear();
  r.electrode_type = electrode_polytrode;
  r.no_config_file = true;
  r.show_config_in_title = false;
  r.n_mapped_channels = 0;
  r.n_tetrodes = 0;
  r.tetrode_of_channel.clear();
  r.channel_map.clear();
  r.chan_x.clear();
  r.chan_y.clear();
  r.chan_sort_order.clear();
  r.chan_mask.clear();
  r.chan_noise.clear();
  r.site_pitch = 0;
  r.site_columns = 0;
  r.site_x_min = r.site_x_max = r.site_y_min = r.site_y_max = 0;

  r.n_epochs = 1;
  std::fill(std::begin(r.epoch_start), std::end(r.epoch_start), 0);
  std::fill(std::begin(r.epoch_samples), std::end(r.epoch_samples), 0);
  std::fill(std::begin(r.epoch_first_index), std::end(r.epoch_first_index), 0);
  for (auto& code : r.epoch_code) code[0] = code[1] = ' ';
  for (std::string& name : r.epoch_name) name.clear();

  r.stimulus = {};

  r.tsf_sample_interval = 0;
  std::fill(std::begin(r.tsf_channel_order), std::end(r.tsf_channel_order), std::int16_t{0});
  r.tsf_n_probes = 0;
  r.sleep_start_mins = 0;
  r.clusters_are_planted = false;
  r.n_fake_spikes = 0;
  r.fake_spike_time.clear();
  r.fake_spike_cluster.clear();
  r.fake_spike_channel.clear();
}

}  // namespace

void start_session(session_state& session) {
  flush_denormals();
  session.n_cpus = 1;
  set_thread_count(session,
                   std::max(1, static_cast<std::int32_t>(std::thread::hardware_concurrency())));
  set_default_preferences(session);
  set_default_parameters(session);
  set_default_strategy(session);
  set_display_defaults(session);
  session.multi_threaded_now = session.preferences.multi_threaded;
  build_interp_table(session);
  build_gac_table(session);
}

void set_thread_count(session_state& session, std::int32_t n) {
  // Half of the cluster numbers stay usable, whatever is asked for.
  session.n_threads = std::clamp(n, 1, cluster_limit / 2);
  session.n_cpus = std::max(session.n_cpus, session.n_threads);
  session.max_clusters = cluster_limit - session.n_cpus;
}

bool allocate_templates(session_state& session) {
  template_table& t = session.templates;
  const std::int32_t n_channels = session.recording.n_channels;
  const std::int64_t elements =
      std::int64_t{template_slot_limit} * n_channels * template_point_limit;
  t.template_mean.release();
  t.template_sd.release();
  t.allocated_channels = 0;
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

bool allocate_recording(session_state& session, std::int64_t file_bytes) {
  recording_store& r = session.recording;
  r.vd.release();
  release_timestamp_map(r);
  const std::int64_t max_time = time_axis(r, file_bytes);
  if (max_time != no_fixed_size) {
    const bool countable = max_time >= 0 && max_time <= std::numeric_limits<std::int32_t>::max();
    if (!countable || !r.vd.allocate(max_time, r.n_channels)) {
      report_no_memory_for_samples(session, max_time);
      return false;
    }
    r.max_vd_samples = static_cast<std::int32_t>(max_time);
  }
  if (has_timestamp_map(r) && !allocate_timestamp_map(session)) {
    r.vd.release();
    return false;
  }
  return allocate_templates(session);
}

void compute_duration(session_state& session) {
  recording_store& r = session.recording;
  r.duration_mins = 0.0f;
  std::int64_t ms = 0;
  if (r.is_continuous || session.preferences.treat_as_continuous) {
    if (r.sampling_frequency <= 0) return;
    std::int64_t samples = r.n_samples;
    if (r.n_epochs > 1) {
      const std::int64_t last = r.n_epochs;
      samples =
          (r.epoch_start[last] - r.epoch_start[1]) * r.sampling_frequency + r.epoch_samples[last];
      if (samples < 0) samples = r.n_samples;
    }
    const float ms_per_sample = 1000.0f / static_cast<float>(r.sampling_frequency);
    ms = static_cast<std::int64_t>(static_cast<float>(samples) * ms_per_sample);
  } else if (r.records_per_unit > 0) {
    const bool tetrodes = r.electrode_type == electrode_tetrode;
    const std::int32_t units = tetrodes ? r.n_tetrodes : r.n_channels;
    for (std::int32_t u = 1; u <= units; ++u) {
      const std::int32_t stored = tetrodes ? r.tetrode_event_count[u] : r.channel_event_count[u];
      if (stored >= 1 && stored <= r.records_per_unit) {
        ms = std::max(ms, r.timestamp(stored, u) / 1000);
      }
    }
  }
  r.duration_mins = static_cast<float>(ms) / 60000.0f;
}

std::int64_t event_record_time_ms(const session_state& session, std::int64_t time_index,
                                  std::int32_t channel) {
  const recording_store& r = session.recording;
  if (r.records_per_unit == 0 || r.samples_per_event <= 0) return 0;
  const std::int64_t record = (time_index - 100) / (2 * std::int64_t{r.samples_per_event}) + 1;
  if (record < 0 || record > r.records_per_unit) return 0;
  const bool tetrodes = r.electrode_type == electrode_tetrode;
  return r.timestamp(record, tetrodes ? r.tetrode_of_channel[channel] : channel) / 1000;
}

void reset_session(session_state& session) {
  close_log_file(session);
  reset_recording(session.recording);
  clear_events(session.events);
  clear_cluster_table(session.clusters);
  clear_templates(session.templates);
  session.lists.n_kv_pairs = 0;
  session.lists.n_match = 0;
  session.filter_history.n_entries = 0;
  session.undo.reset();
  session.detector.detection_incomplete = false;
  session.detector.n_proto_marks = 0;
  session.detector.proto_mark_time.clear();
  session.detector.proto_mark_channel.clear();
  session.current_channel = 1;
}

}  // namespace kestrelvane
