#include "recording/channel_runs.h"

#include <algorithm>
#include <atomic>

#include "numerics/parallel.h"

namespace kestrelvane {

read_end read_channel_runs(session_state& session, const std::vector<std::int32_t>& targets,
                           std::int64_t n_samples, const run_reader& read) {
  // 4 MB: a channel of hours would keep the user who wants to stop it waiting.
  constexpr std::int64_t piece_samples = 1 << 21;
  const std::int64_t n_pieces = (n_samples + piece_samples - 1) / piece_samples;
  const std::int64_t n_items = n_pieces * std::ssize(targets);
  std::atomic<std::int64_t> n_read{0};
  std::atomic<bool> early_end{false};
  const std::atomic<bool>& interrupted = session.operation.reading_interrupted;
  parallel_for_dealt(threads_now(session), 0, n_items - 1, [&](std::int64_t i, std::int32_t rank) {
    // One piece that is not there ends the read of all.
    if (early_end || interrupted) return;
    const auto run = static_cast<std::size_t>(i / n_pieces);
    const std::int64_t first = i % n_pieces * piece_samples;
    const std::int32_t channel = targets[run];
    if (channel > 0 && !read(run, first, std::min(piece_samples, n_samples - first),
                             session.recording.vd.channel(channel) + 1 + first)) {
      early_end = true;
      return;
    }
    const std::int64_t done = ++n_read;
    if (rank != 0) return;
    // The bar and the polls belong to the thread that runs the operation.
    set_progress(session, meter::reading, static_cast<std::int32_t>(100 * done / n_items), 115);
    reading_interrupted(session);
  });
  // The user's wish goes first, as it may be the reason for the rest.
  if (interrupted) return read_end::interrupted;
  return early_end ? read_end::early_end : read_end::whole;
}

}  // namespace kestrelvane
