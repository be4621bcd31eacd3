#include "numerics/sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "support/small_session.h"

namespace kestrelvane {
namespace {

std::vector<std::int32_t> sorted(const std::vector<float>& keys) {
  std::vector<std::int32_t> order(keys.size());
  EXPECT_TRUE(index_sort(static_cast<std::int32_t>(keys.size()), keys.data(), order.data()));
  return order;
}

// Where ties fall decides which waveform points are chosen.
TEST(IndexSort, PlacesOfEqualKeys) {
  using order = std::vector<std::int32_t>;
  EXPECT_EQ(sorted({}), order{});
  EXPECT_EQ(sorted({4}), order{1});
  EXPECT_EQ(sorted({3, 1, 2}), (order{2, 3, 1}));
  EXPECT_EQ(sorted({2, 2, 1, 1, 2, 1, 2}), (order{3, 4, 6, 1, 2, 5, 7}));
  EXPECT_EQ(sorted(std::vector<float>(12, 1.0f)), (order{1, 8, 11, 10, 9, 6, 7, 2, 5, 4, 3, 12}));
  EXPECT_EQ(sorted({2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1}),
            (order{16, 2, 14, 12, 10, 8, 4, 6, 7, 15, 3, 11, 13, 5, 9, 1}));
  EXPECT_EQ(sorted({5, 3, 5, 1, 3, 3, 5, 1, 1, 3, 5, 3, 1, 5, 3, 1, 5, 3, 1, 3}),
            (order{13, 8, 19, 4, 9, 16, 18, 15, 12, 20, 10, 6, 2, 5, 3, 11, 17, 7, 14, 1}));
}

TEST(IndexSort, LongListsAndKeysThatAreNotNumbers) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  test::vector_random random(7);
  for (const int n : {8, 9, 50, 5000, 200000}) {
    for (const bool with_nan : {false, true}) {
      std::vector<float> keys(n);
      for (float& k : keys) {
        k = static_cast<float>((random.next() >> 16) % 1000);
        if (with_nan && k < 30) k = nan;
      }
      std::vector<std::int32_t> order = sorted(keys);
      if (!with_nan) {
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end(),
                                   [&](int a, int b) { return keys[a - 1] < keys[b - 1]; }));
      }
      std::sort(order.begin(), order.end());
      for (int i = 0; i < n; ++i) ASSERT_EQ(order[i], i + 1);
    }
  }
}

TEST(SelectMedian, LowerOfTheMiddlePair) {
  const auto median = [](std::vector<float> v) {
    return select_median(static_cast<std::int32_t>(v.size()), v.data());
  };
  EXPECT_EQ(median({5, 1, 4, 2}), 2);
  EXPECT_EQ(median({5, 1, 4}), 4);
  EXPECT_EQ(median({7}), 7);
  EXPECT_EQ(median({9, 9, 1, 1, 5, 3}), 3);
  EXPECT_EQ(median({}), 0);
}

}  // namespace
}  // namespace kestrelvane
