#include "review/pair_values.h"

#include <fmt/format.h>

#include <algorithm>

#include "clustering/membership.h"
#include "sorting/pair_measures.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

bool is_cluster_pair(const session_state& session, cluster_pair pair) {
  const std::int32_t n = session.clusters.n_clusters;
  return pair.a >= 1 && pair.a <= n && pair.b >= 1 && pair.b <= n && pair.a != pair.b;
}

std::int64_t find_pair(const session_state& session, cluster_pair pair) {
  // Without lists a pair has a place that nothing is stored at.
  if (session.lists.n_kv_pairs == 0 || !is_cluster_pair(session, pair)) return 0;
  return pair_index(session.clusters.n_clusters, std::min(pair.a, pair.b),
                    std::max(pair.a, pair.b));
}

namespace {

void read_lists(const session_state& session, pair_values& values) {
  const status_lists_table& lists = session.lists;
  // Nothing has been compared yet; k = 0 tells so to whoever shows the values.
  if (values.k == 0) return;
  values.overlap = lists.kv_cluster_overlap[values.k];
  values.correlation = lists.kv_template_correlation[values.k];
  values.distinct = pair_is_distinct(session, values.k);
  values.user_distinct = lists.kv_user_distinct[values.k];
  values.user_ambiguous = lists.kv_user_ambiguous[values.k];
}

}  // namespace

pair_values make_pair_values(const session_state& session, cluster_pair pair) {
  const recording_store& r = session.recording;
  pair_values values;
  if (!is_cluster_pair(session, pair)) return values;
  values.a = pair.a;
  values.b = pair.b;
  values.k = find_pair(session, pair);
  values.channel_a = session.templates.centre_channel(pair.a);
  values.channel_b = session.templates.centre_channel(pair.b);
  values.n_a = count_cluster_events(session, pair.a);
  values.n_b = count_cluster_events(session, pair.b);
  values.n_common = n_common_channels(session, pair.a, pair.b);
  values.n_union = n_union_channels(session, pair.a, pair.b);
  values.separation = spatial_separation(session, pair.a, pair.b);
  // Channels of one tetrode lie within µm and those of two apart, so that no unit is seen by both.
  values.on_different_tetrodes =
      r.electrode_type == electrode_tetrode &&
      r.tetrode_of_channel[values.channel_a] != r.tetrode_of_channel[values.channel_b];
  read_lists(session, values);
  return values;
}

std::string common_channels_text(const pair_values& values) {
  return fmt::format("{} of {}", values.n_common, values.n_union);
}

void label_pair(session_state& session, cluster_pair pair) {
  for (const std::int32_t e : list_cluster_events(session, pair.a)) {
    // Labels are what the windows take colours from: the first cluster in the first, the second in
    // the second.
    session.events.event_subcluster[e] = 1;
  }
  for (const std::int32_t e : list_cluster_events(session, pair.b)) {
    session.events.event_subcluster[e] = 2;
  }
}

}  // namespace kestrelvane
