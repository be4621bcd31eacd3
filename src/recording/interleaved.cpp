#include "recording/interleaved.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

#include "numerics/parallel.h"

namespace kestrelvane {

namespace {

// A block is turned while it stands in the second-level cache.
constexpr std::int64_t block_bytes = 1 << 20;
constexpr std::size_t edge = 8;  // of the square that is turned in registers
constexpr std::size_t cache_line = 64, squares_per_line = cache_line / 2 / edge;
constexpr std::int64_t points_per_line = cache_line / 2;

using eight = std::int16_t __attribute__((vector_size(16)));
using square = std::array<eight, edge>;

eight low_pairs(eight a, eight b) {
  return __builtin_shufflevector(a, b, 0, 8, 1, 9, 2, 10, 3, 11);
}
eight high_pairs(eight a, eight b) {
  return __builtin_shufflevector(a, b, 4, 12, 5, 13, 6, 14, 7, 15);
}

// Three rounds of pairing rows that are half a square apart exchange rows and columns.
void turn(square& s) {
  for (int round = 0; round < 3; ++round) {
    square paired;
    for (std::size_t i = 0; i < edge / 2; ++i) {
      paired[2 * i] = low_pairs(s[i], s[i + edge / 2]);
      paired[2 * i + 1] = high_pairs(s[i], s[i + edge / 2]);
    }
    s = paired;
  }
}

// One value of every point to a run.
void spread_value(const std::int16_t* points, std::size_t n_values, std::int64_t n_points,
                  std::int16_t* to) {
  for (std::int64_t p = 0; p < n_points; ++p)
    to[p] = points[static_cast<std::size_t>(p) * n_values];
}

// Past the cache when the address allows it: vd is not read again before it has long left
// the cache, and lines that are written whole need not be fetched first.
void store_line(std::int16_t* to, const std::array<square, squares_per_line>& line,
                std::size_t value) {
#ifdef __SSE2__
  if (reinterpret_cast<std::uintptr_t>(to) % cache_line == 0) {
    for (std::size_t k = 0; k < squares_per_line; ++k) {
      __m128i points;
      std::memcpy(&points, &line[k][value], sizeof points);
      _mm_stream_si128(reinterpret_cast<__m128i*>(to + k * edge), points);
    }
    return;
  }
#endif
  for (std::size_t k = 0; k < squares_per_line; ++k) {
    std::memcpy(to + k * edge, &line[k][value], sizeof line[k][value]);
  }
}

// Eight neighbouring values of a line's points to eight runs.
void spread_eight(const std::int16_t* points, std::size_t n_values,
                  const std::array<std::int16_t*, edge>& to) {
  std::array<square, squares_per_line> line;
  for (square& s : line) {
    for (eight& part : s) {
      std::memcpy(&part, points, sizeof part);
      points += n_values;
    }
    turn(s);
  }
  for (std::size_t i = 0; i < edge; ++i) store_line(to[i], line, i);
}

// Neighbouring values that go the same way: eight that are all kept, or one that is.
struct value_group {
  std::size_t first, n;
};

std::vector<value_group> list_groups(const std::vector<std::int32_t>& target) {
  std::vector<value_group> groups;
  for (std::size_t v = 0; v < target.size();) {
    // The next value that is not kept ends the run of those that are.
    const auto kept = std::find_if(target.begin() + static_cast<std::ptrdiff_t>(v), target.end(),
                                   [](std::int32_t c) { return c <= 0; }) -
                      target.begin();
    if (static_cast<std::size_t>(kept) >= v + edge) {
      groups.push_back({v, edge});
      v += edge;
    } else {
      if (target[v] > 0) groups.push_back({v, 1});
      ++v;
    }
  }
  return groups;
}

struct reading {
  session_state& session;
  const input_file& file;
  const interleaved_channels& channels;
  const interleaved_run& run;
  std::int64_t points_per_block = 0;
  std::atomic<std::int64_t> n_done{0};
  std::atomic<bool> early_end{false};
};

// The b-th block of the run, from 0.
void read_one_block(reading& r, std::int64_t b, std::vector<std::int16_t>& buffer) {
  const std::int64_t first = b * r.points_per_block;
  // The last block may be shorter.
  const std::int64_t n_points = std::min(r.points_per_block, r.run.n_points - first);
  const auto n_values = static_cast<std::int64_t>(r.channels.target.size());
  buffer.resize(static_cast<std::size_t>(r.points_per_block * n_values));
  if (!read_at(r.file, r.run.at + 2 * first * n_values, buffer.data(), 2 * n_points * n_values)) {
    // Other threads have blocks under way; they see it before their next one.
    r.early_end = true;
    return;
  }
  spread_points(r.session, r.channels, buffer.data(), n_points, r.run.first_index + first);
}

}  // namespace

void spread_points(session_state& session, const interleaved_channels& channels,
                   const std::int16_t* points, std::int64_t n_points, std::int64_t first_index) {
  voltage_store& vd = session.recording.vd;
  const std::vector<std::int32_t>& target = channels.target;
  const std::size_t n_values = target.size();
  const auto run_of = [&](std::size_t v) { return vd.channel(target[v]) + first_index; };
  const std::vector<value_group> groups = list_groups(target);
  if (groups.empty()) return;
  const auto spread_plainly = [&](std::int64_t from, std::int64_t to) {
    for (std::size_t v = 0; v < n_values; ++v) {
      if (target[v] <= 0) continue;
      spread_value(points + static_cast<std::size_t>(from) * n_values + v, n_values, to - from,
                   run_of(v) + from);
    }
  };
  // All runs of a recording lie alike to the lines of the cache; the first speaks for them.
  const auto misplaced =
      static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(run_of(groups[0].first)) %
                                cache_line / sizeof(std::int16_t));
  // Points in front of the first whole line, and never more than there are.
  const std::int64_t head = std::min(misplaced == 0 ? 0 : points_per_line - misplaced, n_points);
  const std::int64_t whole = head + (n_points - head) / points_per_line * points_per_line;
  spread_plainly(0, head);
  // A line's worth of points of all values stays in the first-level cache.
  for (std::int64_t p = head; p < whole; p += points_per_line) {
    const std::int16_t* row = points + static_cast<std::size_t>(p) * n_values;
    for (const value_group& group : groups) {
      if (group.n == 1) {
        spread_value(row + group.first, n_values, points_per_line, run_of(group.first) + p);
        continue;
      }
      std::array<std::int16_t*, edge> to;
      for (std::size_t i = 0; i < edge; ++i) to[i] = run_of(group.first + i) + p;
      spread_eight(row + group.first, n_values, to);
    }
  }
  spread_plainly(whole, n_points);
#ifdef __SSE2__
  _mm_sfence();  // before another thread is told that the block is there
#endif
  if (!channels.change) return;
  for (std::size_t v = 0; v < n_values; ++v) {
    // Only the part just stored: blocks of other threads are changed by them.
    if (target[v] > 0) channels.change(v, run_of(v), n_points);
  }
}

read_end read_interleaved(session_state& session, const input_file& file,
                          const interleaved_channels& channels, const interleaved_run& run,
                          std::int32_t bar_from, std::int32_t bar_to) {
  if (run.n_points <= 0 || channels.target.empty()) return read_end::whole;
  const auto point_bytes = static_cast<std::int64_t>(2 * channels.target.size());
  reading r{session, file, channels, run};
  // In eights, so that squares are whole; 8 at least, however many the channels.
  r.points_per_block = std::max<std::int64_t>(block_bytes / point_bytes / 8 * 8, 8);
  const std::int64_t n_blocks = (run.n_points - 1) / r.points_per_block + 1;
  const std::int32_t n_threads = threads_now(session);
  std::vector<std::vector<std::int16_t>> buffers(static_cast<std::size_t>(n_threads));
  const std::atomic<bool>& interrupted = session.operation.reading_interrupted;
  expect_sequential_reading(file);
  parallel_for_dealt(n_threads, 0, n_blocks - 1, [&](std::int64_t b, std::int32_t rank) {
    if (r.early_end || interrupted) return;
    read_one_block(r, b, buffers[rank]);
    // Counted by all, shown by one.
    const std::int64_t done = ++r.n_done;
    if (rank != 0) return;
    // The bar and the polls belong to the thread that runs the operation.
    const auto share = static_cast<std::int32_t>((bar_to - bar_from) * done / n_blocks);
    set_progress(session, meter::reading, bar_from + share, 115);
    reading_interrupted(session);
  });
  // The user's wish goes first, as it may be the reason for the rest.
  if (interrupted) return read_end::interrupted;
  return r.early_end ? read_end::early_end : read_end::whole;
}

interleaved_channels map_interleaved(const session_state& session, std::int32_t n) {
  const recording_store& r = session.recording;
  interleaved_channels channels;
  channels.target.resize(static_cast<std::size_t>(std::max(n, 0)));
  for (std::int32_t i = 1; i <= n; ++i) {
    std::int32_t channel = i;
    // With a configuration nothing goes by its own number, not even beyond the map.
    if (!r.no_config_file) channel = i <= channel_limit ? r.channel_map[i] : 0;
    if (channel < 1 || channel > r.n_channels) channel = 0;
    channels.target[i - 1] = channel;
  }
  return channels;
}

}  // namespace kestrelvane
