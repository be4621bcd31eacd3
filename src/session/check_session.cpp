// The consistency check stands apart: it is for tests and reads everything.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "session/run_log.h"
#include "session/session_state.h"

namespace kestrelvane {

namespace {

bool in_range(std::int64_t value, std::int64_t low, std::int64_t high) {
  return value >= low && value <= high;
}

std::string check_recording(const session_state& session) {
  const recording_store& r = session.recording;
  if (!in_range(r.n_channels, 0, channel_limit)) return fmt::format("n_channels {}", r.n_channels);
  if (!in_range(r.n_epochs, 1, epoch_limit)) return fmt::format("n_epochs {}", r.n_epochs);
  if (!in_range(r.n_fake_spikes, 0, fake_spike_limit)) {
    return fmt::format("n_fake_spikes {}", r.n_fake_spikes);
  }
  if (r.n_samples == 0) return {};
  if (r.n_samples < 0) return fmt::format("n_samples {}", r.n_samples);
  if (r.n_channels == 0) return "samples without channels";
  if (!r.vd.is_allocated()) return "samples without storage";
  if (r.n_samples > r.max_vd_samples || r.max_vd_samples > r.vd.max_time()) {
    return fmt::format("n_samples {} beyond max_vd_samples {} or the storage, {}", r.n_samples,
                       r.max_vd_samples, r.vd.max_time());
  }
  if (r.sampling_frequency <= 0) {
    return fmt::format("sampling_frequency {}", r.sampling_frequency);
  }
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const std::int16_t* v = r.vd.channel(c);
    // Filters and interpolation read ahead of the first sample and count on silence there; what a
    // reader leaves in the margin would come back as a spike at the very beginning.
    for (std::int32_t t = -vd_margin; t <= 0; ++t) {
      if (v[t] != 0) return fmt::format("channel {} is not zero at time index {}", c, t);
    }
  }
  return {};
}

std::string check_events(const session_state& session) {
  const event_table& e = session.events;
  const recording_store& r = session.recording;
  const std::int32_t n_clusters = session.clusters.n_clusters;
  if (!in_range(e.n_events, 0, event_limit)) return fmt::format("n_events {}", e.n_events);
  std::vector<std::int32_t> sizes(n_clusters + 1);
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (!in_range(e.event_channel[i], 1, r.n_channels)) {
      return fmt::format("event {} on channel {}", i, e.event_channel[i]);
    }
    if (!in_range(e.event_time[i], 1, r.n_samples)) {
      return fmt::format("event {} at time index {}", i, e.event_time[i]);
    }
    // Negated, so that a shift that is not a number is found as well.
    if (!(std::fabs(e.event_shift[i]) <= 1.0f)) {
      return fmt::format("event {} with shift {}", i, e.event_shift[i]);
    }
    if (!in_range(e.event_cluster[i], 0, n_clusters)) {
      return fmt::format("event {} in cluster {}", i, e.event_cluster[i]);
    }
    if (!in_range(e.event_subcluster[i], 0, 100)) {
      return fmt::format("event {} with sub-cluster label {}", i, e.event_subcluster[i]);
    }
    ++sizes[e.event_cluster[i]];
  }
  // Without events there may be clusters all the same: a file may bring templates alone.
  for (std::int32_t c = 1; e.n_events > 0 && c <= n_clusters; ++c) {
    if (sizes[c] == 0) return fmt::format("cluster {} has no events", c);
  }
  return {};
}

// True when no channel that takes part carries any of the template.
bool template_is_flat(const session_state& session, std::int32_t cluster) {
  const template_table& t = session.templates;
  for (std::int32_t ch = 1; ch <= session.recording.n_channels; ++ch) {
    if (session.recording.chan_mask[ch]) continue;
    const float* mean = t.mean(cluster, ch);
    for (std::int32_t p = 2; p <= t.template_points; ++p) {
      if (mean[p] != mean[1]) return false;
    }
  }
  return true;
}

std::string check_template(const session_state& session, std::int32_t cluster) {
  const template_table& t = session.templates;
  const std::int32_t n_channels = session.recording.n_channels;
  const std::int32_t n = t.template_n_channels[cluster];
  if (!in_range(n, 1, n_channels)) {
    return fmt::format("template {} has {} channels", cluster, n);
  }
  for (std::int32_t k = 1; k <= n; ++k) {
    if (!in_range(t.channels(cluster)[k], 1, n_channels)) {
      return fmt::format("template {} lists channel {}", cluster, t.channels(cluster)[k]);
    }
  }
  // A flat template keeps the list that its slot had, or has channel 1, whether that takes part or
  // not.
  if (session.recording.chan_mask[t.centre_channel(cluster)] &&
      !template_is_flat(session, cluster)) {
    return fmt::format("template {} is centred on masked channel {}", cluster,
                       t.centre_channel(cluster));
  }
  return {};
}

std::string check_clusters(const session_state& session) {
  const cluster_table& c = session.clusters;
  if (!in_range(c.n_clusters, 0, session.max_clusters)) {
    return fmt::format("n_clusters {}", c.n_clusters);
  }
  // A file read leaves 1 even when the file holds no clusters.
  if (!in_range(c.current_cluster, 0, c.n_clusters > 0 ? c.n_clusters : 1)) {
    return fmt::format("current_cluster {} of {}", c.current_cluster, c.n_clusters);
  }
  if (c.n_clusters == 0) return {};
  const template_table& t = session.templates;
  if (!in_range(t.template_points, 3, template_point_limit)) {
    return fmt::format("template_points {}", t.template_points);
  }
  if (t.allocated_channels < session.recording.n_channels) {
    return fmt::format("templates have room for {} channels", t.allocated_channels);
  }
  if (t.row < std::max(t.template_points, t.outdated.points)) {
    return fmt::format("templates have rows of {} points", t.row);
  }
  for (std::int32_t k = 1; k <= c.n_clusters; ++k) {
    if (std::string problem = check_template(session, k); !problem.empty()) return problem;
  }
  return {};
}

std::string check_lists(const session_state& session) {
  const std::int64_t n = session.clusters.n_clusters;
  const status_lists_table& lists = session.lists;
  if (lists.n_kv_pairs == 0) return {};
  // Pairs are found by a formula of the count of clusters: a list of another length would give each
  // pair the values of a stranger.
  if (lists.n_kv_pairs != n * (n - 1) / 2) {
    return fmt::format("n_kv_pairs {} for {} clusters", lists.n_kv_pairs, n);
  }
  std::int64_t k = 0;
  for (std::int32_t a = 1; a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      const std::int32_t shifted = lists.kv_n_shift_template[++k];
      if (shifted != a && shifted != b) {
        return fmt::format("pair {} of clusters {} and {} shifts cluster {}", k, a, b, shifted);
      }
    }
  }
  return {};
}

}  // namespace

std::string check_session(const session_state& session) {
  if (const std::int32_t n = count_log_lines(session); !in_range(n, 0, log_line_limit)) {
    return fmt::format("n_log_lines {}", n);
  }
  if (!in_range(session.filter_history.n_entries, 0, filter_history_limit)) {
    return fmt::format("filter history of {} entries", session.filter_history.n_entries);
  }
  if (session.recording.n_samples > 0 &&
      !in_range(session.current_channel, 1, session.recording.n_channels)) {
    return fmt::format("current_channel {}", session.current_channel);
  }
  // Recording and cluster counts first: the later checks index by them.
  std::string problem = check_recording(session);
  if (problem.empty()) problem = check_clusters(session);
  if (problem.empty()) problem = check_events(session);
  if (problem.empty()) problem = check_lists(session);
  return problem;
}

}  // namespace kestrelvane
