#include "sorting/pair_decisions.h"

#include <fmt/format.h>

#include <algorithm>

#include "session/pair_index.h"
#include "sorting/merge_split.h"
#include "sorting/pair_measures.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

namespace {

// The score of pair_is_safe, which says whether it is enough.
void explain_merge(const session_state& session, pair_decision& decision) {
  const std::int32_t differing = n_union_channels(session, decision.a, decision.b) -
                                 n_common_channels(session, decision.a, decision.b);
  decision.measure = "correlation + 1.25 overlap - 1.75";
  decision.value = decision.correlation + 1.25f * decision.overlap - 1.75f;
  const bool far_reaching = differing >= 6;
  decision.limit = far_reaching ? 0.25f : 0.0f;
  decision.relation = far_reaching ? "≥" : ">";
}

// In the order of pair_is_distinct: the first clause that holds.
void explain_distinct(const session_state& session, std::int64_t k, pair_decision& decision) {
  const sorting_strategy_settings& strategy = session.strategy;
  if (decision.overlap <= strategy.overlap_threshold) {
    decision.measure = "cluster overlap";
    decision.value = decision.overlap;
    decision.limit = strategy.overlap_threshold;
    decision.relation = "≤";
  } else if (decision.correlation < strategy.correlation_threshold) {
    decision.measure = "template correlation";
    decision.value = decision.correlation;
    decision.limit = strategy.correlation_threshold;
    decision.relation = "<";
  } else if (session.lists.kv_templates_dont_overlap[k]) {
    decision.measure = "no common channel";
  } else {
    decision.measure = "marked distinct by the user";
  }
}

pair_decision decide(const session_state& session, std::int64_t k, cluster_pair pair) {
  pair_decision decision;
  decision.a = pair.a;
  decision.b = pair.b;
  decision.overlap = session.lists.kv_cluster_overlap[k];
  decision.correlation = session.lists.kv_template_correlation[k];
  // Safe merges come first, whether or not a pair counts as distinct.
  if (session.strategy.merge_safe_pairs && pair_is_safe(session, k)) {
    decision.verdict = pair_verdict::merge;
    explain_merge(session, decision);
  } else if (pair_is_distinct(session, k)) {
    decision.verdict = pair_verdict::distinct;
    explain_distinct(session, k, decision);
  } else {
    decision.verdict =
        session.strategy.merge_split_pairs ? pair_verdict::merge_and_split : pair_verdict::left;
    decision.measure = "cluster overlap";
    decision.value = decision.overlap;
    decision.limit = session.strategy.overlap_threshold;
    decision.relation = ">";
  }
  return decision;
}

}  // namespace

const char* pair_verdict_text(pair_verdict verdict) {
  static constexpr const char* texts[] = {"merge", "merge and split", "left to you", "distinct"};
  return texts[static_cast<std::size_t>(verdict)];
}

pair_decisions list_pair_decisions(const session_state& session) {
  pair_decisions all;
  const std::int32_t n = session.clusters.n_clusters;
  if (session.lists.n_kv_pairs == 0) return all;
  // Follows the numbering of pairs, which is the order of these two loops.
  std::int64_t k = 0;
  for (std::int32_t a = 1; a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      const pair_decision decision = decide(session, ++k, {a, b});
      const bool far_apart =
          decision.verdict == pair_verdict::distinct && session.lists.kv_templates_dont_overlap[k];
      if (far_apart) {
        ++all.n_far_apart;
      } else {
        all.rows.push_back(decision);
      }
    }
  }
  std::stable_sort(
      all.rows.begin(), all.rows.end(),
      [](const pair_decision& x, const pair_decision& y) { return x.verdict < y.verdict; });
  return all;
}

std::string reason_text(const pair_decision& decision) {
  if (*decision.relation == 0) return decision.measure;
  return fmt::format("{} {:.3f} {} {:.3f}", decision.measure, decision.value, decision.relation,
                     decision.limit);
}

}  // namespace kestrelvane
