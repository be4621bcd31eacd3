// What the automatic rules say of pairs, by values that are put into the lists.
#include "sorting/pair_decisions.h"

#include <gtest/gtest.h>

#include "clustering/realignment.h"
#include "session/pair_index.h"
#include "sorting/merge_split.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct decisions_test : ::testing::Test {
  small_session session;

  // Six clusters, all of whose pairs lie far apart on common channels.
  decisions_test() {
    make_busy_recording(*session, 4, 60'000, 17);
    realign_all_clusters(*session);
    build_status_lists(*session);
    status_lists_table& lists = session->lists;
    for (std::int64_t k = 1; k <= lists.n_kv_pairs; ++k) {
      lists.kv_templates_dont_overlap[k] = false;
      put(k, 0.0f, 0.5f);
    }
  }
  void put(std::int64_t k, float overlap, float correlation) {
    session->lists.kv_cluster_overlap[k] = overlap;
    session->lists.kv_template_correlation[k] = correlation;
  }
  const pair_decision& first() {
    all = list_pair_decisions(*session);
    return all.rows.front();
  }
  pair_decisions all;
};

TEST_F(decisions_test, each_verdict_has_the_clause_that_decided) {
  EXPECT_EQ(first().verdict, pair_verdict::distinct);
  EXPECT_EQ(all.rows.size(), 15u);
  EXPECT_EQ(reason_text(first()), "cluster overlap 0.000 ≤ 0.150");
  put(3, 0.4f, 0.9f);  // clusters 1 and 4
  EXPECT_EQ(first().verdict, pair_verdict::merge_and_split);
  EXPECT_EQ(first().a, 1);
  EXPECT_EQ(first().b, 4);
  EXPECT_EQ(reason_text(first()), "cluster overlap 0.400 > 0.150");
  put(3, 0.4f, 0.05f);
  EXPECT_EQ(reason_text(first()), "cluster overlap 0.000 ≤ 0.150") << "no longer in front";
  EXPECT_EQ(reason_text(all.rows[2]), "template correlation 0.050 < 0.100");
  put(3, 1.0f, 0.98f);
  EXPECT_EQ(first().verdict, pair_verdict::merge);
  EXPECT_EQ(reason_text(first()).substr(0, 39), "correlation + 1.25 overlap - 1.75 0.480");
  session->strategy.merge_safe_pairs = false;
  EXPECT_EQ(first().verdict, pair_verdict::merge_and_split);
  session->strategy.merge_split_pairs = false;
  EXPECT_EQ(first().verdict, pair_verdict::left);
  session->lists.kv_user_distinct[3] = true;
  EXPECT_EQ(reason_text(list_pair_decisions(*session).rows[2]), "marked distinct by the user");
  session->lists.kv_templates_dont_overlap[5] = true;
  EXPECT_EQ(list_pair_decisions(*session).n_far_apart, 1);
}

TEST_F(decisions_test, verdicts_are_those_of_the_rules_and_nothing_changes) {
  vector_random random(9);
  const auto share = [&] { return static_cast<float>((random.next() >> 16) % 1000) / 800; };
  for (int round = 0; round < 50; ++round) {
    for (std::int64_t k = 1; k <= session->lists.n_kv_pairs; ++k) put(k, share(), share());
    for (const pair_decision& d : list_pair_decisions(*session).rows) {
      const std::int64_t k = pair_index(6, d.a, d.b);
      const pair_verdict wanted = pair_is_safe(*session, k)       ? pair_verdict::merge
                                  : pair_is_distinct(*session, k) ? pair_verdict::distinct
                                                                  : pair_verdict::merge_and_split;
      ASSERT_EQ(d.verdict, wanted);
    }
  }
  EXPECT_EQ(check_session(*session), "");
  session->lists.n_kv_pairs = 0;
  EXPECT_TRUE(list_pair_decisions(*session).rows.empty());
}

}  // namespace
}  // namespace kestrelvane::test
