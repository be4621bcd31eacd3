#include "clustering/membership.h"

#include <algorithm>
#include <numeric>

#include "numerics/simd.h"

namespace kestrelvane {

// ---------------------------------------------------------------- counting

namespace {

KESTRELVANE_CLONES std::int32_t count_equal(const std::int32_t* values, std::int64_t n,
                                            std::int32_t wanted) {
  std::int32_t count = 0;
  for (std::int64_t i = 0; i < n; ++i) count += values[i] == wanted;
  return count;
}

constexpr std::int64_t scan_block = 64;

KESTRELVANE_CLONES bool block_holds(const std::int32_t* values, std::int32_t wanted) {
  std::int32_t any = 0;
  for (std::int64_t i = 0; i < scan_block; ++i) any |= values[i] == wanted;
  return any != 0;
}

}  // namespace

bool is_cluster(const session_state& session, std::int32_t cluster) {
  return cluster >= 1 && cluster <= session.clusters.n_clusters;
}

std::int32_t count_cluster_events(const session_state& session, std::int32_t cluster) {
  if (session.event_lists != nullptr) {
    return static_cast<std::int32_t>(session.event_lists->of(cluster).size());
  }
  return count_equal(session.events.event_cluster.first(), session.events.n_events, cluster);
}

std::vector<std::int32_t> list_cluster_events(const session_state& session, std::int32_t cluster) {
  if (session.event_lists != nullptr) {
    const std::span<const std::int32_t> listed = session.event_lists->of(cluster);
    return {listed.begin(), listed.end()};
  }
  const std::int32_t* of = session.events.event_cluster.first();
  const std::int64_t n = session.events.n_events;
  std::vector<std::int32_t> list;
  std::int64_t i = 0;
  // In blocks: most hold no event of the cluster, and the test alone runs in whole lanes.
  for (; i + scan_block <= n; i += scan_block) {
    if (!block_holds(of + i, cluster)) continue;
    for (std::int64_t k = i; k < i + scan_block; ++k) {
      if (of[k] == cluster) list.push_back(static_cast<std::int32_t>(k + 1));
    }
  }
  for (; i < n; ++i) {
    if (of[i] == cluster) list.push_back(static_cast<std::int32_t>(i + 1));
  }
  return list;
}

std::vector<std::int32_t> count_events_by_cluster(const session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  std::vector<std::int32_t> sizes(n + 1);
  const std::int32_t* of = session.events.event_cluster.base();
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    // Events of clusters about to be added carry their numbers already.
    if (of[e] >= 0 && of[e] <= n) ++sizes[of[e]];
  }
  return sizes;
}

void list_all_events(const session_state& session, cluster_event_lists& lists) {
  const event_table& events = session.events;
  const std::int32_t n_clusters = session.clusters.n_clusters;
  const auto known = [n_clusters](std::int32_t c) { return c >= 0 && c <= n_clusters; };
  // Counts stand two places up, so that the second pass leaves each start where it belongs.
  lists.first.assign(static_cast<std::size_t>(n_clusters) + 3, 0);
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (known(events.event_cluster[e])) ++lists.first[events.event_cluster[e] + 2];
  }
  std::partial_sum(lists.first.begin(), lists.first.end(), lists.first.begin());
  lists.list.resize(static_cast<std::size_t>(lists.first.back()));
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t c = events.event_cluster[e];
    if (known(c)) lists.list[lists.first[c + 1]++] = e;
  }
}

std::span<const std::int32_t> cluster_event_lists::of(std::int32_t cluster) const {
  const auto n = static_cast<std::int32_t>(first.size()) - 2;
  if (cluster < 0 || cluster >= n) return {};
  const std::int64_t from = first[cluster], to = first[cluster + 1];
  return {list.data() + from, static_cast<std::size_t>(to - from)};
}

standing_events::standing_events(session_state& session) : session_(session) {
  if (session.event_lists != nullptr) return;
  list_all_events(session, lists_);
  session.event_lists = &lists_;
}

standing_events::~standing_events() {
  if (session_.event_lists == &lists_) session_.event_lists = nullptr;
}

std::int32_t least_cluster_size(const session_state& session) {
  return std::max(1, session.strategy.min_cluster_size);
}

// ---------------------------------------------------------------- limits

void check_cluster_limit(session_state& session) {
  if (session.clusters.n_clusters <= session.max_clusters) return;
  tell(session, "Number of clusters has reached upper limit", "Warning!", box_icon::warning);
  session.clusters.n_clusters = cluster_limit;
}

bool cluster_can_grow(const session_state& session) {
  if (session.clusters.n_clusters < session.max_clusters) return true;
  tell(session, "Cannot add new cluster as maximum number has been reached", "Create new cluster",
       box_icon::warning);
  return false;
}

// ---------------------------------------------------------------- records

void clear_cluster_record(session_state& session, std::int32_t cluster) {
  cluster_table& clusters = session.clusters;
  template_table& templates = session.templates;
  clusters.cluster_ellipse[cluster] = {};
  clusters.cluster_signed_off[cluster] = false;
  clusters.cluster_tag[cluster] = 0;
  clusters.cluster_label[cluster] = unit_label::unsorted;
  clusters.cluster_source[cluster] = clusters.cluster_proposal[cluster] = 0;
  clusters.cluster_comment[cluster].blank();
  // cluster_sigma is left alone: it belongs to the number and not to the cluster.
  clusters.cluster_reserved[cluster] = 0.0f;
  templates.template_n_channels[cluster] = 0;
}

void blank_cluster_comments(session_state& session) {
  session.clusters.cluster_comment.clear();
  session.clusters.cluster_label.clear();
}

float distance_from_centre_squared(const session_state& session, std::int32_t event,
                                   std::int32_t cluster) {
  const recording_store& r = session.recording;
  const std::int32_t channel = session.events.event_channel[event];
  const float dx = static_cast<float>(r.chan_x[channel]) - session.templates.template_x[cluster];
  const float dy = static_cast<float>(r.chan_y[channel]) - session.templates.template_y[cluster];
  return dx * dx + dy * dy;
}

void compact_subcluster_labels(std::int32_t* labels, std::int64_t n, const std::int32_t* sizes) {
  std::int32_t map[101];
  for (std::int32_t k = 0; k <= 100; ++k) map[k] = k;
  for (std::int32_t k = 1; k <= 100; ++k) {
    if (sizes[k] != 0) continue;
    // Each empty label lets those above it close up by one.
    for (std::int32_t above = k + 1; above <= 100; ++above) --map[above];
  }
  for (std::int64_t i = 0; i < n; ++i) {
    if (labels[i] != 0) labels[i] = map[labels[i]];
  }
}

}  // namespace kestrelvane
