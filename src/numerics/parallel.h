// The parallel loop.
//
// Items are independent and each writes only its own slot, so the result is the
// same at any thread count. Workers are started once, sleep between loops (they
// burn no processor time while the calling thread works alone), flush denormals
// like every thread of the program, and are visible to the thread sanitizer.
// One loop runs at a time; a loop started inside another runs on its caller.
#pragma once

#include <cstdint>
#include <type_traits>

namespace kestrelvane {

// Flush-to-zero and denormals-are-zero for the calling thread.
void flush_denormals();

// Starts the loop body on n_threads threads, ranks 0 .. n_threads - 1, and
// returns when all are done. Rank 0 is the caller.
void run_on_threads(std::int32_t n_threads, void (*body)(void* context, std::int32_t rank),
                    void* context);

// body(item, rank) for item = first..last: equal contiguous blocks, rank r taking
// the r-th. Fewer than two threads, or items: a plain loop.
template <typename Body>
void parallel_for(std::int32_t n_threads, std::int64_t first, std::int64_t last, Body&& body) {
  const std::int64_t count = last - first + 1;
  if (count <= 0) return;
  if (n_threads > count) n_threads = static_cast<std::int32_t>(count);
  if (n_threads < 2) {
    for (std::int64_t i = first; i <= last; ++i) body(i, 0);
    return;
  }
  struct job {
    std::int64_t first, count;
    std::int32_t n_threads;
    std::remove_reference_t<Body>* body;
  } work{first, count, n_threads, &body};
  run_on_threads(
      n_threads,
      [](void* context, std::int32_t rank) {
        const job& w = *static_cast<job*>(context);
        const std::int64_t begin = w.first + w.count * rank / w.n_threads;
        const std::int64_t end = w.first + w.count * (rank + 1) / w.n_threads;
        for (std::int64_t i = begin; i < end; ++i) (*w.body)(i, rank);
      },
      &work);
}

// The same, items dealt round robin one at a time: for items of uneven cost.
template <typename Body>
void parallel_for_dealt(std::int32_t n_threads, std::int64_t first, std::int64_t last,
                        Body&& body) {
  if (n_threads > last - first + 1) n_threads = static_cast<std::int32_t>(last - first + 1);
  if (n_threads < 2) {
    for (std::int64_t i = first; i <= last; ++i) body(i, 0);
    return;
  }
  struct job {
    std::int64_t first, last;
    std::int32_t n_threads;
    std::remove_reference_t<Body>* body;
  } work{first, last, n_threads, &body};
  run_on_threads(
      n_threads,
      [](void* context, std::int32_t rank) {
        const job& w = *static_cast<job*>(context);
        for (std::int64_t i = w.first + rank; i <= w.last; i += w.n_threads) (*w.body)(i, rank);
      },
      &work);
}

}  // namespace kestrelvane
