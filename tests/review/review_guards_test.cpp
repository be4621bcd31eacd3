// What is missing is said before a review begins.
#include "review/review_guards.h"

#include <gtest/gtest.h>

#include <utility>

#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(review_guards, say_what_is_missing_and_make_lists) {
  small_session session;
  EXPECT_FALSE(can_review(*session, "Compare"));
  EXPECT_TRUE(session.user.told("No recording data in memory", "Error "));
  make_busy_recording(*session, 4, 100000, 7);
  const std::int32_t n = std::exchange(session->clusters.n_clusters, 0);
  EXPECT_FALSE(can_review(*session, "Compare"));
  EXPECT_TRUE(session.user.told("There are no clusters", "Compare"));
  session->clusters.n_clusters = n;

  ASSERT_GE(n, 2);
  session->lists.n_kv_pairs = 0;
  EXPECT_FALSE(can_review_pairs(*session, "Compare"));
  EXPECT_EQ(session->lists.n_kv_pairs, 0) << "he would rather not";
  session.user.default_answer = true;
  EXPECT_TRUE(can_review_pairs(*session, "Compare"));
  EXPECT_EQ(session->lists.n_kv_pairs, n * (n - 1) / 2);
}

}  // namespace
}  // namespace kestrelvane::test
