#include "signal/site_reading.h"

#include "numerics/portable_math.h"
#include "numerics/small_matrix.h"
#include "signal/spike_places.h"

namespace kestrelvane {

namespace {

constexpr double field_um = 20;      // s.d. of the field's likeness to itself
constexpr double site_noise = 0.01;  // of the square of a voltage, each site's own
constexpr float source_um = 60;      // sites that a place is read from

double likeness_of_sites(double dx, double dy) {
  return portable_exp(-(dx * dx + dy * dy) / (2 * field_um * field_um));
}

}  // namespace

std::vector<site_source> sources_at(const recording_store& r, std::int32_t c, double way,
                                    double& told) {
  std::vector<std::int32_t> sites;
  std::vector<double> likeness;
  for (std::int32_t k = 1; k <= r.n_channels; ++k) {
    const double dx = r.chan_x[k] - r.chan_x[c], dy = r.chan_y[k] - (r.chan_y[c] + way);
    if (!is_in_use(r, k) || dx * dx + dy * dy > double{source_um} * source_um) continue;
    sites.push_back(k);
    likeness.push_back(likeness_of_sites(dx, dy));
  }
  std::vector<double> x = likeness, a(sites.size() * sites.size());
  for (std::size_t i = 0; i < sites.size(); ++i) {
    for (std::size_t k = 0; k < sites.size(); ++k) {
      a[i * sites.size() + k] = likeness_of_sites(r.chan_x[sites[i]] - r.chan_x[sites[k]],
                                                  r.chan_y[sites[i]] - r.chan_y[sites[k]]);
    }
    a[i * sites.size() + i] += site_noise;
  }
  // Each site's own noise keeps the pivots above nothing.
  take_root(a, x.size(), 0);
  solve_by_root(a, x);
  solve_by_transpose(a, x);
  std::vector<site_source> out;
  told = dot(x, likeness);
  for (std::size_t i = 0; i < sites.size(); ++i) {
    out.push_back({sites[i], static_cast<float>(x[i])});
  }
  return out;
}

}  // namespace kestrelvane
