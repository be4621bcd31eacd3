#include "numerics/parallel.h"

#include <xmmintrin.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrelvane {

namespace {

// The workers of the process. The only state outside the session: threads belong
// to the process as its allocator does.
class worker_pool {
 public:
  ~worker_pool() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      ++generation_;
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
  }

  // False when another loop has the workers.
  bool run(std::int32_t n_threads, void (*body)(void*, std::int32_t), void* context) {
    // Rather on one thread at once than on many later: the other loop may be a long one.
    std::unique_lock busy(one_loop_, std::try_to_lock);
    if (!busy.owns_lock()) return false;
    {
      std::lock_guard lock(mutex_);
      while (static_cast<std::int32_t>(threads_.size()) < n_threads - 1) {
        const auto rank = static_cast<std::int32_t>(threads_.size()) + 1;
        // A new worker has seen all loops so far, so that this one is its first.
        threads_.emplace_back([this, rank, seen = generation_] { work(rank, seen); });
      }
      body_ = body;
      context_ = context;
      n_threads_ = n_threads;
      unfinished_ = n_threads - 1;
      ++generation_;
    }
    wake_.notify_all();
    body(context, 0);
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return unfinished_ == 0; });
    return true;
  }

 private:
  void work(std::int32_t rank, std::uint64_t seen) {
    flush_denormals();
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return generation_ != seen; });
      seen = generation_;
      if (stopping_) return;
      // Not in this loop: it sleeps on.
      if (rank >= n_threads_) continue;
      const auto body = body_;
      void* const context = context_;
      lock.unlock();
      body(context, rank);
      lock.lock();
      if (--unfinished_ == 0) done_.notify_one();
    }
  }

  std::mutex one_loop_;
  std::mutex mutex_;
  std::condition_variable wake_, done_;
  std::vector<std::thread> threads_;
  void (*body_)(void*, std::int32_t) = nullptr;
  void* context_ = nullptr;
  std::int32_t n_threads_ = 0;
  std::int32_t unfinished_ = 0;
  std::uint64_t generation_ = 0;
  bool stopping_ = false;
};

worker_pool& workers() {
  static worker_pool pool;
  return pool;
}

// A loop inside a loop body stays on its thread.
thread_local bool inside_loop = false;

}  // namespace

// Results too small for a normal number become 0, and such operands count as 0: they would slow the
// loops down many times over.
void flush_denormals() { _mm_setcsr(_mm_getcsr() | 0x8040u); }

void run_on_threads(std::int32_t n_threads, void (*body)(void*, std::int32_t), void* context) {
  struct marked {
    void (*body)(void*, std::int32_t);
    void* context;
  } inner{body, context};
  const auto marked_body = [](void* m, std::int32_t rank) {
    const marked& call = *static_cast<marked*>(m);
    inside_loop = true;
    call.body(call.context, rank);
    inside_loop = false;
  };
  if (!inside_loop && n_threads > 1 && workers().run(n_threads, marked_body, &inner)) return;
  // In turn, since a body may keep something by its rank.
  for (std::int32_t rank = 0; rank < n_threads; ++rank) body(context, rank);
}

}  // namespace kestrelvane
