#include "clustering/deferred_templates.h"

#include <algorithm>
#include <cstdlib>

#include "numerics/parallel.h"
#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t block_samples = voltage_summary::block_samples;
// Below it the near channels are most of them.
constexpr std::int32_t least_channels = 64;

// Of whole blocks; the last may be shorter.
KESTRELVANE_CLONES void largest_of_blocks(const std::int16_t* v, std::int32_t n, std::uint16_t* out,
                                          std::ptrdiff_t out_stride) {
  for (std::int32_t first = 0; first < n; first += block_samples) {
    const std::int32_t end = n - first < block_samples ? n - first : block_samples;
    std::int32_t largest = 0;
    for (std::int32_t i = 0; i < end; ++i) {
      const std::int32_t size = v[first + i] < 0 ? -v[first + i] : v[first + i];
      largest = size > largest ? size : largest;
    }
    *out = static_cast<std::uint16_t>(largest);
    out += out_stride;
  }
}

}  // namespace

void summarise_voltage(const session_state& session, voltage_summary& summary) {
  const recording_store& r = session.recording;
  const std::int64_t n_blocks = (std::int64_t{r.n_samples} + block_samples - 1) / block_samples;
  summary.n_channels = r.n_channels;
  summary.largest.resize(static_cast<std::size_t>(n_blocks * r.n_channels));
  // As many at a time as stay in the cache for all channels.
  constexpr std::int64_t at_once = 512;
  parallel_for(threads_now(session), 0, (n_blocks - 1) / at_once,
               [&](std::int64_t part, std::int32_t) {
                 const std::int64_t block = part * at_once;
                 const auto first = static_cast<std::int32_t>(block * block_samples);
                 const auto n = static_cast<std::int32_t>(
                     std::min<std::int64_t>(at_once * block_samples, r.n_samples - first));
                 for (std::int32_t channel = 1; channel <= r.n_channels; ++channel) {
                   largest_of_blocks(r.vd.channel(channel) + 1 + first, n,
                                     summary.largest.data() + block * r.n_channels + channel - 1,
                                     r.n_channels);
                 }
               });
  summary.peak = summary.largest.empty()
                     ? std::uint16_t{0}
                     : *std::max_element(summary.largest.begin(), summary.largest.end());
}

template_deferral::template_deferral(session_state& session) : session_(session) {
  if (session.deferred != nullptr || session.recording.n_channels < least_channels) return;
  summarise_voltage(session, deferred_.summary);
  deferred_.owed.resize(static_cast<std::size_t>(template_slot_limit) + 1);
  session.deferred = &deferred_;
  session.before_sharing = {
      [](void* context) { settle_templates(*static_cast<session_state*>(context)); }, &session};
}

template_deferral::~template_deferral() {
  if (session_.deferred != &deferred_) return;
  settle_templates(session_);
  session_.before_sharing = {};
  session_.deferred = nullptr;
}

void settle_templates(session_state& session) {
  if (session.deferred == nullptr) return;
  std::vector<partial_template>& owed = session.deferred->owed;
  // The slots beyond the clusters are nobody's.
  std::vector<wanted_waveforms> wanted;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (!owed[c].list.empty()) wanted.push_back({c, &owed[c].list, &owed[c].made});
  }
  make_by_channel(session, wanted);
  for (const wanted_waveforms& w : wanted) owed[w.cluster] = {};
}

void copy_template_debt(session_state& session, std::int32_t from, std::int32_t to) {
  if (session.deferred == nullptr) return;
  session.deferred->owed[to] = session.deferred->owed[from];
}

}  // namespace kestrelvane
