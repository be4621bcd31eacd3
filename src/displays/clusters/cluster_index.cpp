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
  list_all_events(session, index.events);
  // Pictures that were made with an earlier index know by the stamp that they are old.
  ++index.stamp;
  index.valid = true;
}

std::span<const std::int32_t> events_of_cluster(const cluster_index& index, std::int32_t cluster) {
  return index.valid ? index.events.of(cluster) : std::span<const std::int32_t>{};
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
