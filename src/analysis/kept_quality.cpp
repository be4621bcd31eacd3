#include "analysis/kept_quality.h"

#include <bit>
#include <cmath>
#include <set>

#include "analysis/isolation_figures.h"
#include "analysis/power_spectrum.h"
#include "session/fingerprint_sum.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

// What figures depend on besides the spikes.
std::uint64_t circumstances_of(const session_state& session) {
  fingerprint_sum sum;
  sum.add(recording_state(session));
  sum.add(static_cast<std::uint64_t>(session.templates.first_sample));
  sum.add(static_cast<std::uint64_t>(session.templates.template_points));
  sum.add(std::bit_cast<std::uint32_t>(session.quality.quality_refractory_ms));
  sum.add(std::bit_cast<std::uint32_t>(session.quality.quality_censored_ms));
  return sum.value;
}

// Of each unit, element c for unit c. Sums over its spikes, in whatever order they stand.
std::vector<std::uint64_t> fingerprints_of(const session_state& session) {
  const event_table& e = session.events;
  const std::int32_t n = session.clusters.n_clusters;
  std::vector<std::uint64_t> sums(static_cast<std::size_t>(n) + 1);
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    const std::int32_t c = e.event_cluster[i];
    if (c < 1 || c > n) continue;
    fingerprint_sum spike;
    spike.add(static_cast<std::uint64_t>(e.event_time[i]));
    spike.add(std::bit_cast<std::uint32_t>(static_cast<float>(e.event_shift[i])));
    sums[static_cast<std::size_t>(c)] += spike.value;
  }
  for (std::int32_t c = 1; c <= n; ++c) {
    fingerprint_sum unit;
    unit.add(sums[static_cast<std::size_t>(c)]);
    unit.add(static_cast<std::uint64_t>(session.templates.centre_channel(c)));
    sums[static_cast<std::size_t>(c)] = unit.value;
  }
  return sums;
}

// By fingerprint of its spikes the number that a unit has now.
using unit_numbers = std::map<std::uint64_t, std::int32_t>;

// Of each unit with its neighbours; the order of these does not count, as it follows their numbers.
std::vector<std::uint64_t> keys_of(const session_state& session,
                                   const std::vector<std::uint64_t>& fingerprints) {
  std::vector<std::uint64_t> keys(fingerprints.size());
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    std::uint64_t around = 0;
    for (const std::int32_t neighbour : list_neighbours(session, c)) {
      around += fingerprints[static_cast<std::size_t>(neighbour)];
    }
    fingerprint_sum key;
    key.add(fingerprints[static_cast<std::size_t>(c)]);
    key.add(around);
    keys[static_cast<std::size_t>(c)] = key.value;
  }
  return keys;
}

bool measure_changed(const session_state& session, const std::vector<std::uint64_t>& fingerprints,
                     const std::vector<std::uint64_t>& keys, kept_quality& kept) {
  std::vector<std::int32_t> changed;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (!kept.of.contains(keys[static_cast<std::size_t>(c)])) changed.push_back(c);
  }
  if (changed.empty()) return true;
  const std::vector<unit_quality> measured = measure_quality(session, changed);
  for (const unit_quality& quality : measured) {
    const bool alone = std::isnan(quality.nearest);
    const std::uint64_t nearest =
        alone ? 0 : fingerprints[static_cast<std::size_t>(quality.nearest)];
    kept.of[keys[static_cast<std::size_t>(quality.unit)]] = {quality, nearest};
  }
  kept.n_measured = static_cast<std::int32_t>(measured.size());
  return !measured.empty();
}

// Those that are no more: an undo may want them, but not without end.
void forget_old(kept_quality& kept, const std::vector<std::uint64_t>& keys) {
  constexpr std::size_t most_old = 1000;
  if (kept.of.size() <= keys.size() + most_old) return;
  const std::set<std::uint64_t> now(keys.begin(), keys.end());
  std::erase_if(kept.of, [&](const auto& entry) { return !now.contains(entry.first); });
}

}  // namespace

std::vector<unit_quality> renew_quality(const session_state& session, kept_quality& kept) {
  kept.n_measured = 0;
  if (session.clusters.n_clusters == 0 || templates_are_outdated(session)) return {};
  const std::uint64_t circumstances = circumstances_of(session);
  if (circumstances != kept.circumstances) kept = {{}, circumstances, 0};
  const std::vector<std::uint64_t> fingerprints = fingerprints_of(session);
  const std::vector<std::uint64_t> keys = keys_of(session, fingerprints);
  if (!measure_changed(session, fingerprints, keys, kept)) return {};
  unit_numbers numbers;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    numbers[fingerprints[static_cast<std::size_t>(c)]] = c;
  }
  std::vector<unit_quality> all;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const kept_figures& found = kept.of.at(keys[static_cast<std::size_t>(c)]);
    all.push_back(found.quality);
    all.back().unit = c;
    if (found.nearest != 0) all.back().nearest = numbers.at(found.nearest);
  }
  forget_old(kept, keys);
  return all;
}

}  // namespace kestrelvane
