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

// Copies the points inside the box of a scout, in order, column by column;
// returns how many there are.
template <int dimensions>
std::int32_t keep_inside(const gac_columns& sources, const float* scout, float* inside,
                         std::int32_t inside_stride) {
  const hn::ScalableTag<float> d;
  const auto lanes = static_cast<std::int32_t>(hn::Lanes(d));
  const float* columns[dimensions];
  for (int c = 0; c < dimensions; ++c) columns[c] = sources.column(c);
  const auto limit = hn::Set(d, box_limit);
  const auto s0 = hn::Set(d, scout[0]);
  const auto s1 = hn::Set(d, scout[dimensions > 1 ? 1 : 0]);
  std::int32_t count = 0;
  for (std::int32_t i = 0; i < sources.n; i += lanes) {
    const auto p0 = hn::LoadU(d, columns[0] + i);
    auto in_box = hn::Le(hn::Abs(hn::Sub(p0, s0)), limit);
    if constexpr (dimensions > 1) {
      const auto p1 = hn::LoadU(d, columns[1] + i);
      in_box = hn::And(in_box, hn::Le(hn::Abs(hn::Sub(p1, s1)), limit));
    }
    if (hn::AllFalse(d, in_box)) continue;
    // Compressed in the register and stored whole: a compressing store is many
    // times slower on some processors.
    // What a store leaves beyond count is overwritten by the next one; the padding of the column
    // takes the last.
    for (int c = 0; c < dimensions; ++c) {
      hn::StoreU(hn::Compress(hn::LoadU(d, columns[c] + i), in_box), d,
                 inside + std::int64_t{c} * inside_stride + count);
    }
    count += static_cast<std::int32_t>(hn::CountTrue(d, in_box));
  }
  return count;
}

// Weight and moments of the points inside, as groups of four floats to a point:
// (weight, moment 1, moment 2, moment 3), and for more than three components a
// second group.
template <int dimensions>
void form_terms(const float* kernel, const float* scout, const float* inside,
                std::int32_t inside_stride, std::int32_t count, float* terms,
                std::int64_t group_stride) {
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  const auto lanes = static_cast<std::int32_t>(hn::Lanes(d));
  const auto zero = hn::Zero(d);
  // Up to a whole vector: terms beyond count are made of leftovers, and never added.
  for (std::int32_t i = 0; i < count; i += lanes) {
    decltype(hn::Zero(d)) difference[8] = {zero, zero, zero, zero, zero, zero, zero, zero};
    auto squared = zero;
    for (int c = 0; c < dimensions; ++c) {
      difference[c] =
          hn::Sub(hn::LoadU(d, inside + std::int64_t{c} * inside_stride + i), hn::Set(d, scout[c]));
      const auto square = hn::Mul(difference[c], difference[c]);
      squared = c == 0 ? square : hn::Add(squared, square);
    }
    // Beyond the table the weight is its last entry, 0.
    const auto scaled = hn::Min(hn::Mul(squared, hn::Set(d, table_scale)), hn::Set(d, 10001.0f));
    // The conversion drops the fraction: the table is read at its entries, not between them.
    const auto weight = hn::GatherIndex(d, kernel, hn::ConvertTo(di, scaled));
    for (int c = 0; c < dimensions; ++c) difference[c] = hn::Mul(difference[c], weight);
    hn::StoreInterleaved4(weight, difference[0], difference[1], difference[2], d, terms + 4 * i);
    if constexpr (dimensions > 3) {
      hn::StoreInterleaved4(difference[3], difference[4], difference[5], difference[6], d,
                            terms + group_stride + 4 * i);
    }
  }
}

typedef float four_floats __attribute__((vector_size(16), aligned(4), may_alias));
typedef double four_doubles __attribute__((vector_size(32)));

// Adds terms first..last - 1 of n_chains scouts, each in its own order.
template <int n_chains>
HWY_INLINE void add_terms(const float* const* terms, std::int32_t first, std::int32_t last,
                          four_doubles* sums) {
  four_doubles local[n_chains];
  for (int k = 0; k < n_chains; ++k) local[k] = sums[k];
  // Each scout adds its own terms in their order; only scouts run side by side.
  for (std::int32_t i = first; i < last; ++i) {
    for (int k = 0; k < n_chains; ++k) {
      const auto term = *reinterpret_cast<const four_floats*>(terms[k] + 4 * std::int64_t{i});
      local[k] += __builtin_convertvector(term, four_doubles);
    }
  }
  for (int k = 0; k < n_chains; ++k) sums[k] = local[k];
}

// Chains in falling order of length: four run until the shortest ends, and so on.
void add_chains(const float* const* terms, const std::int32_t* counts, std::int32_t n,
                four_doubles* sums) {
  std::int32_t done = 0;
  for (std::int32_t running = n; running >= 1; --running) {
    const std::int32_t end = counts[running - 1];
    switch (running) {
      case 4:
        add_terms<4>(terms, done, end, sums);
        break;
      case 3:
        add_terms<3>(terms, done, end, sums);
        break;
      case 2:
        add_terms<2>(terms, done, end, sums);
        break;
      default:
        add_terms<1>(terms, done, end, sums);
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
  const std::int32_t room = sources.stride;
  const std::int64_t group_stride = std::int64_t{4} * room;
  const std::int64_t scout_stride = n_groups * group_stride;
  scratch.inside.resize(static_cast<std::size_t>(room) * dimensions);
  scratch.terms.resize(static_cast<std::size_t>(4 * scout_stride));
  std::int32_t counts[4];
  for (std::int32_t k = 0; k < n_scouts; ++k) {
    const float* scout = scouts + k * dimensions;
    counts[k] = keep_inside<dimensions>(sources, scout, scratch.inside.data(), room);
    form_terms<dimensions>(kernel, scout, scratch.inside.data(), room, counts[k],
                           scratch.terms.data() + k * scout_stride, group_stride);
  }
  std::int32_t order[4];
  order_by_length(counts, n_scouts, order);
  for (int group = 0; group < n_groups; ++group) {
    const float* terms[4];
    std::int32_t lengths[4];
    four_doubles totals[4] = {};
    for (std::int32_t k = 0; k < n_scouts; ++k) {
      terms[k] = scratch.terms.data() + order[k] * scout_stride + group * group_stride;
      lengths[k] = counts[order[k]];
    }
    add_chains(terms, lengths, n_scouts, totals);
    for (std::int32_t k = 0; k < n_scouts; ++k) {
      gac_sums& out = sums[order[k]];
      if (group == 0) {
        out.weight = totals[k][0];
        for (int c = 0; c < 3; ++c) out.moment[c] = totals[k][c + 1];
      } else {
        for (int c = 0; c < 4; ++c) out.moment[c + 3] = totals[k][c];
      }
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
