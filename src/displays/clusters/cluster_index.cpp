#include "displays/clusters/cluster_index.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace kestrelvane {

void forget_cluster_index(cluster_index& index) { index.valid = false; }

void update_cluster_index(const session_state& session, cluster_index& index) {
  // Two passes over all events, up to 50 million of them: once for all windows, until somebody says
  // that clusters have changed.
  if (index.valid) return;
  const event_table& events = session.events;
  const std::int32_t n_clusters = session.clusters.n_clusters;
  const auto known = [n_clusters](std::int32_t c) { return c >= 0 && c <= n_clusters; };
  // Counts stand two places up, so that the second pass leaves each start where it belongs.
  index.first.assign(static_cast<std::size_t>(n_clusters) + 3, 0);
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    // Events under removal belong nowhere.
    if (known(events.event_cluster[e])) ++index.first[events.event_cluster[e] + 2];
  }
  std::partial_sum(index.first.begin(), index.first.end(), index.first.begin());
  index.list.resize(static_cast<std::size_t>(index.first.back()));
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t c = events.event_cluster[e];
    if (known(c)) index.list[index.first[c + 1]++] = e;
  }
  // Pictures that were made with an earlier index know by the stamp that they are old.
  ++index.stamp;
  index.valid = true;
}

std::span<const std::int32_t> events_of_cluster(const cluster_index& index, std::int32_t cluster) {
  const auto n = static_cast<std::int32_t>(index.first.size()) - 2;
  if (!index.valid || cluster < 0 || cluster >= n) return {};
  const std::int64_t from = index.first[cluster], to = index.first[cluster + 1];
  return {index.list.data() + from, static_cast<std::size_t>(to - from)};
}

std::vector<std::int32_t> clusters_on_show(const session_state& session,
                                           const std::vector<std::int32_t>& wanted) {
  std::vector<std::int32_t> shown;
  for (const std::int32_t c : wanted) {
    if (c < 1 || c > session.clusters.n_clusters) continue;
    // In the order that was wanted, since places have colours; one that is named twice is shown
    // once.
    if (std::find(shown.begin(), shown.end(), c) == shown.end()) shown.push_back(c);
  }
  return shown;
}

spread_order::spread_order(std::int64_t count) : n(std::max<std::int64_t>(count, 1)) {
  // Steps of the golden section leave the most even gaps at any length (Weyl's sequence); the
  // next number without a common divisor makes it a permutation.
  step = std::max<std::int64_t>(1, std::llround(static_cast<double>(n) * 0.6180339887498949));
  while (std::gcd(step, n) != 1) ++step;
}

}  // namespace kestrelvane
