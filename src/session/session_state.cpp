#include "session/session_state.h"

#include <algorithm>

#include "numerics/parallel.h"
#include "numerics/processors.h"
#include "session/interpolation_tables.h"
#include "session/settings_table.h"

namespace kestrelvane {

namespace {

void reset_samples(recording_store& r) {
  r.recording_path = "No data file";
  r.file_type = file_type_unknown;
  r.n_channels = 0;
  r.n_samples = 0;
  r.max_vd_samples = 0;
  r.sampling_frequency = 0;
  r.sampling_frequency_exact = 0.0;
  // Never 0: it is divided by where µV become bits.
  r.vscale_HP = 1.0f;
  r.duration_mins = 0.0f;
  std::fill(std::begin(r.record_date), std::end(r.record_date), 0);
  std::fill(std::begin(r.record_time), std::end(r.record_time), 0);
  r.recording_filtered = r.high_pass_offered = false;
  r.blanked.clear();
  r.motion = {};
  r.means_zeroed = r.common_mean_removed = r.temporal_smoothed = r.sample_hold_done = false;
}

void reset_stored_records(recording_store& r) {
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
  r.file_window_start_ms = r.file_window_end_ms = 0;
  r.suits_lockout = r.records_stay_apart = false;
}

void reset_electrode(recording_store& r) {
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
  r.masked_by_sort.clear();
  r.chan_noise.clear();
  r.site_pitch = 0;
  r.site_columns = 0;
  r.site_x_min = r.site_x_max = r.site_y_min = r.site_y_max = 0;
}

void reset_epochs(recording_store& r) {
  r.n_epochs = 1;
  std::fill(std::begin(r.epoch_start), std::end(r.epoch_start), 0);
  std::fill(std::begin(r.epoch_samples), std::end(r.epoch_samples), 0);
  std::fill(std::begin(r.epoch_first_index), std::end(r.epoch_first_index), 0);
  for (auto& code : r.epoch_code) code[0] = code[1] = ' ';
  for (std::string& name : r.epoch_name) name.clear();
  r.stimulus = {};
}

// What the old test formats carry, and the truth that was planted in them.
void reset_test_facts(recording_store& r) {
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
  // Before anything is computed: the filters' decaying tails would otherwise be slow, and the main
  // thread differ from the workers, which have it set as they start.
  flush_denormals();
  session.n_cpus = 1;
  set_thread_count(session, usable_processors());
  set_default_preferences(session);
  set_default_parameters(session);
  set_default_strategy(session);
  set_display_defaults(session);
  session.multi_threaded_now = session.preferences.multi_threaded;
  // It follows from no setting, so that once is enough.
  build_gac_table(session);
}

void set_thread_count(session_state& session, std::int32_t n) {
  // Half of the cluster numbers stay usable, whatever is asked for.
  session.n_threads = std::clamp(n, 1, cluster_limit / 2);
  session.n_cpus = std::max(session.n_cpus, session.n_threads);
  // The first slots above the clusters are scratch templates, one for each thread.
  session.max_clusters = cluster_limit - session.n_cpus;
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
      // Epochs that do not stand in the order of their starts, as after a clock was set back: the
      // samples are what is left to go by.
      if (samples < 0) samples = r.n_samples;
    }
    // In 32 bits and then cut to whole ms: durations stand in files and titles with these digits.
    const float ms_per_sample = 1000.0f / static_cast<float>(r.sampling_frequency);
    ms = static_cast<std::int64_t>(static_cast<float>(samples) * ms_per_sample);
  } else if (r.records_per_unit > 0) {
    const bool tetrodes = r.electrode_type == electrode_tetrode;
    const std::int32_t units = tetrodes ? r.n_tetrodes : r.n_channels;
    for (std::int32_t u = 1; u <= units; ++u) {
      const std::int32_t stored = tetrodes ? r.tetrode_event_count[u] : r.channel_event_count[u];
      // The last record of each unit; the units need not have ended together.
      if (stored >= 1 && stored <= r.records_per_unit) {
        ms = std::max(ms, r.timestamp(stored, u) / 1000);
      }
    }
  }
  r.duration_mins = static_cast<float>(ms) / 60000.0f;
}

std::int64_t event_record_time_us(const session_state& session, std::int64_t time_index,
                                  std::int32_t channel) {
  const recording_store& r = session.recording;
  if (r.records_per_unit == 0 || r.samples_per_event <= 0) return 0;
  // Records stand twice their length apart, from time index 100 on, so that no window reads two.
  const std::int64_t record = (time_index - 100) / (2 * std::int64_t{r.samples_per_event}) + 1;
  if (record < 0 || record > r.records_per_unit) return 0;
  const bool tetrodes = r.electrode_type == electrode_tetrode;
  return r.timestamp(record, tetrodes ? r.tetrode_of_channel[channel] : channel);
}

std::int64_t event_record_time_ms(const session_state& session, std::int64_t time_index,
                                  std::int32_t channel) {
  return event_record_time_us(session, time_index, channel) / 1000;
}

void release_timestamp_map(recording_store& r) {
  r.event_timestamp.release();
  r.event_record_unit.release();
  r.records_per_unit = 0;
}

void forget_history(session_state& session) {
  edit_history& history = session.history;
  edit_history empty;
  // Who listens stays.
  empty.written = history.written;
  empty.work_file = history.work_file;
  empty.depth = history.depth;
  empty.replaying = history.replaying;
  history = std::move(empty);
}

void reset_session(session_state& session) {
  // First, as its name and its lines are those of the recording that goes.
  close_log_file(session);
  recording_store& recording = session.recording;
  reset_samples(recording);
  reset_stored_records(recording);
  reset_electrode(recording);
  reset_epochs(recording);
  reset_test_facts(recording);
  clear_events(session.events);
  clear_cluster_table(session.clusters);
  clear_templates(session.templates);
  session.lists.n_kv_pairs = 0;
  session.lists.n_match = 0;
  session.filter_history.n_entries = 0;
  // A copy of clusters of another recording, which would be restored over events that are not
  // theirs.
  session.undo.reset();
  session.history.work_file.clear();
  forget_history(session);
  session.reviewed = {};
  session.detector.detection_incomplete = false;
  session.detector.n_proto_marks = 0;
  session.detector.proto_mark_time.clear();
  session.detector.proto_mark_channel.clear();
  session.current_channel = 1;
}

}  // namespace kestrelvane
