// Whatever is set, a sort and its review come to an end and leave the session in order.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>

#include "support/child_process.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// "FIRST:COUNT" of the seeds for a night of it.
struct seed_range {
  unsigned first = 1, count = 20;
};

seed_range wanted_seeds() {
  seed_range range;
  const char* text = std::getenv("KESTRELVANE_ENDING_SEEDS");
  if (text != nullptr) std::sscanf(text, "%u:%u", &range.first, &range.count);
  return range;
}

TEST(endings, any_settings_come_to_an_end) {
  const seed_range range = wanted_seeds();
  const temporary_directory folder;
  std::atomic<unsigned> next = range.first;
  std::atomic<int> n_with_clusters = 0;
  const auto run = [&] {
    for (unsigned seed = next++; seed < range.first + range.count; seed = next++) {
      const process_result result =
          run_process(KESTRELVANE_SESSION_VICTIM, {"settings", std::to_string(seed), folder.path});
      // A run over its CPU time is killed.
      EXPECT_EQ(result.status, 0) << "seed " << seed << '\n' << result.err;
      if (result.out.find(" 0 clusters") == std::string::npos) ++n_with_clusters;
    }
  };
  std::vector<std::future<void>> workers;
  for (int i = 0; i < 3; ++i) workers.push_back(std::async(std::launch::async, run));
  for (std::future<void>& worker : workers) worker.get();
  std::printf("%u sets, %d of them with clusters at the end\n", range.count,
              n_with_clusters.load());
  // Not all sets may be such that nothing is found.
  EXPECT_GE(4 * n_with_clusters, static_cast<int>(range.count));
}

}  // namespace
}  // namespace kestrelvane::test
