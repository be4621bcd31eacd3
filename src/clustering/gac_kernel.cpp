#include "clustering/gac_kernel.h"

// The routines below are compiled once per vector width by including this file
// again; the widest that the processor has is chosen when first called.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "clustering/gac_kernel.cpp"
#include "hwy/foreach_target.h"
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace kestrelvane {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// At a distance of 3 the kernel has fallen to exp(-9), about a ten-thousandth.
constexpr float box_limit = 3.0f;
// Entries of the kernel table to a unit of squared distance.
constexpr float table_scale = 500.0f;

#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_SSE4 || HWY_TARGET == HWY_SSSE3
// Which lane comes to each place when some are chosen, for processors without an instruction for
// it. The library has such a table too, which the compiler copies to the stack for every use.
constexpr int table_lanes = HWY_MAX_BYTES / 4;
struct lane_orders {
  alignas(64) std::int32_t at[1 << table_lanes][table_lanes];
  constexpr lane_orders() : at() {
    for (int choice = 0; choice < 1 << table_lanes; ++choice) {
      for (int lane = 0, place = 0; lane < table_lanes; ++lane) {
        if ((choice >> lane & 1) != 0) at[choice][place++] = lane;
      }
    }
  }
};
constexpr lane_orders orders;
#endif

// Stores the chosen lanes of both, in order, and returns how many there are. Compressed in the
// register and stored whole: a compressing store is many times slower on some processors. What a
// store leaves beyond the chosen is overwritten by the next one; the padding takes the last.
template <class Mask, class Places>
HWY_INLINE std::int32_t store_chosen(Mask chosen, Places a, std::int32_t* to_a, Places b,
                                     std::int32_t* to_b) {
  const hn::ScalableTag<std::int32_t> di;
#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_SSE4 || HWY_TARGET == HWY_SSSE3
  std::uint8_t bits[8];
  hn::StoreMaskBits(di, chosen, bits);
  const auto order = hn::SetTableIndices(di, orders.at[bits[0]]);
  hn::StoreU(hn::TableLookupLanes(a, order), di, to_a);
  hn::StoreU(hn::TableLookupLanes(b, order), di, to_b);
  return __builtin_popcount(bits[0]);
#else
  hn::StoreU(hn::Compress(a, chosen), di, to_a);
  hn::StoreU(hn::Compress(b, chosen), di, to_b);
  return static_cast<std::int32_t>(hn::CountTrue(di, chosen));
#endif
}

// The sources inside the box of a scout, in order: where they are laid out, and where in the
// kernel's table their weights stand. Returns how many there are.
template <int dimensions>
std::int32_t keep_inside(const gac_columns& sources, const float* scout, std::int32_t* inside,
                         std::int32_t* entries) {
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  const auto lanes = static_cast<std::int32_t>(hn::Lanes(d));
  const float* columns[dimensions];
  for (int c = 0; c < dimensions; ++c) columns[c] = sources.column(c);
  const auto limit = hn::Set(d, box_limit);
  const auto s0 = hn::Set(d, scout[0]);
  const auto s1 = hn::Set(d, scout[dimensions > 1 ? 1 : 0]);
  const std::int32_t n = sources.n;
  std::int32_t count = 0;
  // In floats: four to a point, or eight.
  constexpr int shift = dimensions > 3 ? 3 : 2;
  auto places = hn::ShiftLeft<shift>(hn::Iota(di, 0));
  for (std::int32_t i = 0; i < n;
       i += lanes, places = hn::Add(places, hn::Set(di, lanes << shift))) {
    const auto d0 = hn::Sub(hn::LoadU(d, columns[0] + i), s0);
    auto in_box = hn::Le(hn::Abs(d0), limit);
    auto squared = hn::Mul(d0, d0);
    if constexpr (dimensions > 1) {
      const auto d1 = hn::Sub(hn::LoadU(d, columns[1] + i), s1);
      in_box = hn::And(in_box, hn::Le(hn::Abs(d1), limit));
      squared = hn::Add(squared, hn::Mul(d1, d1));
    }
    if (hn::AllFalse(d, in_box)) continue;
    for (int c = 2; c < dimensions; ++c) {
      const auto dc = hn::Sub(hn::LoadU(d, columns[c] + i), hn::Set(d, scout[c]));
      squared = hn::Add(squared, hn::Mul(dc, dc));
    }
    // Beyond the table the weight is its last entry, 0. The conversion drops the fraction: the
    // table is read at its entries, not between them.
    const auto scaled = hn::Min(hn::Mul(squared, hn::Set(d, table_scale)), hn::Set(d, 10001.0f));
    count += store_chosen(hn::RebindMask(di, in_box), places, inside + count,
                          hn::ConvertTo(di, scaled), entries + count);
  }
  return count;
}

#if HWY_TARGET != HWY_SCALAR
typedef hn::FixedTag<float, 4> four;
HWY_INLINE hn::VFromD<four> form_term(const float* point, const float* scout, float weight) {
  return hn::Mul(hn::Sub(hn::LoadU(four(), point), hn::LoadU(four(), scout)),
                 hn::Set(four(), weight));
}
#endif

// Four sums of 64 bits, in registers as wide as there are, of a weight times what a point is from a
// scout.
struct four_sums {
#if HWY_TARGET == HWY_SCALAR
  double all[4];
  HWY_INLINE void clear() {
    for (double& sum : all) sum = 0.0;
  }
  HWY_INLINE void add(const float* point, const float* scout, float weight) {
    for (int c = 0; c < 4; ++c) all[c] += static_cast<double>((point[c] - scout[c]) * weight);
  }
  HWY_INLINE void take(double* out) const {
    for (int c = 0; c < 4; ++c) out[c] = all[c];
  }
#elif HWY_MAX_BYTES >= 32
  typedef hn::FixedTag<double, 4> wide;
  hn::VFromD<wide> all;
  HWY_INLINE void clear() { all = hn::Zero(wide()); }
  HWY_INLINE void add(const float* point, const float* scout, float weight) {
    all = hn::Add(all, hn::PromoteTo(wide(), form_term(point, scout, weight)));
  }
  HWY_INLINE void take(double* out) const { hn::StoreU(all, wide(), out); }
#else
  typedef hn::FixedTag<double, 2> wide;
  hn::VFromD<wide> low, high;
  HWY_INLINE void clear() { low = high = hn::Zero(wide()); }
  HWY_INLINE void add(const float* point, const float* scout, float weight) {
    const hn::FixedTag<float, 2> two;
    const auto term = form_term(point, scout, weight);
    low = hn::Add(low, hn::PromoteTo(wide(), hn::LowerHalf(two, term)));
    high = hn::Add(high, hn::PromoteTo(wide(), hn::UpperHalf(two, term)));
  }
  HWY_INLINE void take(double* out) const {
    hn::StoreU(low, wide(), out);
    hn::StoreU(high, wide(), out + 2);
  }
#endif
};

// What a scout adds up: weight times (1, difference 1, 2, 3) of the sources in its box, or the
// components from the fourth on.
struct chain {
  const std::int32_t* inside;
  const std::int32_t* entries;
  std::int32_t count = 0;
  float scout[4] = {};  // 0 where a source has its 1
};

// Terms first..last - 1 of n_chains scouts, each in its own order: only scouts run side by side.
template <int n_chains>
HWY_INLINE void add_terms(const chain* chains, const float* points, const float* kernel,
                          std::int32_t first, std::int32_t last, four_sums* sums) {
  four_sums local[n_chains];
  for (int k = 0; k < n_chains; ++k) local[k] = sums[k];
  for (std::int32_t i = first; i < last; ++i) {
    for (int k = 0; k < n_chains; ++k) {
      local[k].add(points + chains[k].inside[i], chains[k].scout, kernel[chains[k].entries[i]]);
    }
  }
  for (int k = 0; k < n_chains; ++k) sums[k] = local[k];
}

// Chains in falling order of length: four run until the shortest ends, and so on.
void add_chains(const chain* chains, std::int32_t n, const float* points, const float* kernel,
                four_sums* sums) {
  std::int32_t done = 0;
  for (std::int32_t running = n; running >= 1; --running) {
    const std::int32_t end = chains[running - 1].count;
    switch (running) {
      case 4:
        add_terms<4>(chains, points, kernel, done, end, sums);
        break;
      case 3:
        add_terms<3>(chains, points, kernel, done, end, sums);
        break;
      case 2:
        add_terms<2>(chains, points, kernel, done, end, sums);
        break;
      default:
        add_terms<1>(chains, points, kernel, done, end, sums);
        break;
    }
    done = end;
  }
}

// Longest chain first; at most four, by insertion.
inline void order_by_length(const std::int32_t* counts, std::int32_t n, std::int32_t* order) {
  for (std::int32_t k = 0; k < n; ++k) {
    std::int32_t at = k;
    for (; at > 0 && counts[order[at - 1]] < counts[k]; --at) order[at] = order[at - 1];
    order[at] = k;
  }
}

template <int dimensions>
void gather(const gac_columns& sources, const float* kernel, const float* scouts,
            std::int32_t n_scouts, gac_scratch& scratch, gac_sums* sums) {
  constexpr int n_groups = dimensions > 3 ? 2 : 1;
  const auto room = static_cast<std::size_t>(sources.stride);
  scratch.inside.resize(4 * room);
  scratch.entries.resize(4 * room);
  std::int32_t counts[4];
  for (std::int32_t k = 0; k < n_scouts; ++k) {
    const std::size_t at = static_cast<std::size_t>(k) * room;
    counts[k] = keep_inside<dimensions>(sources, scouts + k * dimensions,
                                        scratch.inside.data() + at, scratch.entries.data() + at);
  }
  std::int32_t order[4];
  order_by_length(counts, n_scouts, order);
  for (int group = 0; group < n_groups; ++group) {
    chain chains[4];
    four_sums totals[4];
    for (four_sums& total : totals) total.clear();
    for (std::int32_t k = 0; k < n_scouts; ++k) {
      const std::size_t at = static_cast<std::size_t>(order[k]) * room;
      chains[k].inside = scratch.inside.data() + at;
      chains[k].entries = scratch.entries.data() + at;
      chains[k].count = counts[order[k]];
      for (int c = 0; c < 4; ++c) {
        const int component = 4 * group + c - 1;
        if (component >= 0 && component < dimensions) {
          chains[k].scout[c] = scouts[order[k] * dimensions + component];
        }
      }
    }
    add_chains(chains, n_scouts, sources.points.data() + 4 * group, kernel, totals);
    for (std::int32_t k = 0; k < n_scouts; ++k) {
      double of_group[4];
      totals[k].take(of_group);
      gac_sums& out = sums[order[k]];
      if (group == 0) out.weight = of_group[0];
      for (int c = group == 0 ? 1 : 0; c < 4; ++c) out.moment[4 * group + c - 1] = of_group[c];
    }
  }
}

void gather_any(const gac_columns& sources, const float* kernel, const float* scouts,
                std::int32_t n_scouts, gac_scratch& scratch, gac_sums* sums) {
  switch (sources.dimensions) {
    case 1:
      return gather<1>(sources, kernel, scouts, n_scouts, scratch, sums);
    case 2:
      return gather<2>(sources, kernel, scouts, n_scouts, scratch, sums);
    case 3:
      return gather<3>(sources, kernel, scouts, n_scouts, scratch, sums);
    case 4:
      return gather<4>(sources, kernel, scouts, n_scouts, scratch, sums);
    case 5:
      return gather<5>(sources, kernel, scouts, n_scouts, scratch, sums);
    case 6:
      return gather<6>(sources, kernel, scouts, n_scouts, scratch, sums);
    default:
      return gather<7>(sources, kernel, scouts, n_scouts, scratch, sums);
  }
}

std::int32_t find_near(const gac_columns& scouts, std::int32_t first, std::int32_t last,
                       const float* position, float h) {
  const hn::ScalableTag<float> d;
  const auto lanes = static_cast<std::int32_t>(hn::Lanes(d));
  const std::int32_t dimensions = scouts.dimensions;
  const auto reach = hn::Set(d, h);
  const auto reach_squared = hn::Set(d, h * h);
  for (std::int32_t j = first; j <= last; j += lanes) {
    const auto d0 = hn::Sub(hn::Set(d, position[0]), hn::LoadU(d, scouts.column(0) + j));
    auto near = hn::Lt(hn::Abs(d0), reach);
    auto squared = hn::Mul(d0, d0);
    if (dimensions > 1) {
      const auto d1 = hn::Sub(hn::Set(d, position[1]), hn::LoadU(d, scouts.column(1) + j));
      near = hn::And(near, hn::Le(hn::Abs(d1), reach));
      squared = hn::Add(squared, hn::Mul(d1, d1));
    }
    if (hn::AllFalse(d, near)) continue;
    for (std::int32_t c = 2; c < dimensions; ++c) {
      const auto dc = hn::Sub(hn::Set(d, position[c]), hn::LoadU(d, scouts.column(c) + j));
      squared = hn::Add(squared, hn::Mul(dc, dc));
    }
    near = hn::And(near, hn::Lt(squared, reach_squared));
    // The vector may reach beyond last, where what it finds does not count.
    const auto found = hn::FindFirstTrue(d, near);
    if (found >= 0) {
      const auto at = j + static_cast<std::int32_t>(found);
      return at <= last ? at : last + 1;
    }
  }
  return last + 1;
}

}  // namespace HWY_NAMESPACE
}  // namespace kestrelvane
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kestrelvane {

HWY_EXPORT(gather_any);
HWY_EXPORT(find_near);

void gac_columns::resize(std::int32_t n_points, std::int32_t n_dimensions) {
  constexpr std::int32_t widest = 64;  // floats of the widest vector known
  n = n_points;
  dimensions = n_dimensions;
  // A whole vector of padding at least: loads begin at any point and run on beyond the last.
  stride = (n_points + 2 * widest) / widest * widest;
  // Far from everything, so that padding is in no box and near no scout.
  values.assign(static_cast<std::size_t>(stride) * n_dimensions, 3.0e18f);
}

void gac_columns::lay_out_points() {
  const std::int64_t width = dimensions > 3 ? 8 : 4;
  points.assign(static_cast<std::size_t>(width * n), 0.0f);
  for (std::int32_t i = 0; i < n; ++i) {
    float* const point = points.data() + i * width;
    point[0] = 1.0f;
    for (std::int32_t c = 0; c < dimensions; ++c) point[c + 1] = column(c)[i];
  }
}

void gac_gather(const gac_columns& sources, const float* kernel, const float* scouts,
                std::int32_t n_scouts, gac_scratch& scratch, gac_sums* sums) {
  HWY_DYNAMIC_DISPATCH(gather_any)(sources, kernel, scouts, n_scouts, scratch, sums);
}

std::int32_t gac_find_near(const gac_columns& scouts, std::int32_t first, std::int32_t last,
                           const float* position, float h) {
  return HWY_DYNAMIC_DISPATCH(find_near)(scouts, first, last, position, h);
}

}  // namespace kestrelvane
#endif
