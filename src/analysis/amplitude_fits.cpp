#include "analysis/amplitude_fits.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "analysis/amplitude_figures.h"
#include "analysis/interval_heights.h"
#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "numerics/levene.h"
#include "numerics/line_fit.h"
#include "numerics/special_functions.h"

namespace kestrelvane {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();
constexpr std::int32_t most_iterations = 500;
constexpr std::size_t fewest_points = 10;  // of a line along a flank

fit_points points_of(const ea_histogram& h, std::int32_t model) {
  fit_points points;
  points.fit_model = model;
  for (std::int32_t bin = -ea_bin_limit; bin <= ea_bin_limit; ++bin) {
    if (h.count(bin) <= 0) continue;
    points.fit_x.push_back(h.position(bin));
    points.fit_y.push_back(static_cast<float>(h.count(bin)));
  }
  return points;
}

void log_fit(const session_state& session, const char* words, const curve_fit& fit) {
  // Its last values stand, and would pass for a fit if they were told.
  if (fit.status != 0) return log_message(session, "LM error");
  std::string line = words;
  for (std::int32_t i = 1; i <= fit.n_parameters; ++i) line += fmt::format(" {:.5g}", fit.p[i]);
  log_message(session, line + fmt::format("; iterations {}, mean error {:.5g}", fit.iterations,
                                          fit.p[fit_residual]));
}

void free_all(curve_fit& fit, std::int32_t n) {
  fit.n_parameters = n;
  std::fill_n(fit.is_free + 1, n, true);
}

// What the Gaussian accounts for at a bin.
double gaussian_at(const amplitude_fits& fits, const ea_histogram& h, std::int32_t bin) {
  return double{fits.core.at(h.position(bin))};
}

bool is_accounted_for(const amplitude_fits& fits, const ea_histogram& h, std::int32_t bin) {
  const auto count = static_cast<double>(h.count(bin));
  return count > 0 && 100 * (count - gaussian_at(fits, h, bin)) / count < 10;
}

// The first bin of few counts on the way out.
std::int32_t find_flank_end(const ea_histogram& h, std::int32_t from, std::int32_t step) {
  std::int32_t bin = from;
  while (std::abs(bin) < ea_bin_limit && h.count(bin) >= 11) bin += step;
  return std::clamp(bin, -ea_bin_limit, ea_bin_limit);
}

// ---------------------------------------------------------------- flanks

struct flank_points {
  std::vector<float> x, y;   // bits, counts
  std::vector<double> over;  // the Gaussian there
};
flank_points points_of_flank(const ea_histogram& h, const amplitude_fits& fits,
                             const flank_fit& flank) {
  flank_points points;
  const std::int32_t from = std::min(flank.end, flank.shoulder);
  const std::int32_t to = std::max(flank.end, flank.shoulder);
  for (std::int32_t bin = from; bin <= to; ++bin) {
    if (h.count(bin) <= 0) continue;
    points.x.push_back(h.position(bin));
    points.y.push_back(static_cast<float>(h.count(bin)));
    points.over.push_back(gaussian_at(fits, h, bin));
  }
  return points;
}

// Regression of y on x.
struct regression {
  double n = 0, x = 0, y = 0, xx = 0, xy = 0, yy = 0;
  void add(double px, double py) {
    ++n;
    x += px;
    y += py;
    xx += px * px;
    xy += px * py;
    yy += py * py;
  }
  double spread_x() const { return n * xx - x * x; }
  double spread_y() const { return std::max(0.0, n * yy - y * y); }
  double slope() const { return (n * xy - x * y) / spread_x(); }
  double intercept() const { return (y - slope() * x) / n; }
  double correlation() const {
    return spread_x() > 0 && spread_y() > 0 ? (n * xy - x * y) / std::sqrt(spread_x() * spread_y())
                                            : unknown;
  }
};

// Beside the plain line the one that knows of both errors: a bin's place is known to its width, its
// count as Poisson has it.
void log_line_of_both_errors(const session_state& session, const ea_histogram& h,
                             const flank_points& points) {
  std::vector<float> logs, sx, sy;
  for (const float count : points.y) {
    logs.push_back(std::log(count));
    sx.push_back(static_cast<float>(h.width) / std::sqrt(12.0f));
    sy.push_back(1 / std::sqrt(count));
  }
  line_fit line;
  if (fitexy(static_cast<std::int32_t>(logs.size()), points.x.data(), logs.data(), sx.data(),
             sy.data(), line, session_failure_log(session))) {
    log_message(session, fmt::format(" fitexy: slope, intercept= {:.6g} {:.6g}", line.slope,
                                     line.intercept));
  }
}

void fit_line(const session_state& session, const ea_histogram& h, const flank_points& points,
              flank_fit& flank) {
  const char* side = flank.is_right ? "right" : "left";
  if (points.x.size() < fewest_points) {
    log_message(session, fmt::format("Too few points for {} flank fit", side));
    return;
  }
  regression line;
  for (std::size_t i = 0; i < points.x.size(); ++i) {
    line.add(double{points.x[i]}, std::log(double{points.y[i]}));
  }
  flank.slope = line.slope();
  flank.intercept = line.intercept();
  flank.correlation = line.correlation();
  double squares = 0;
  for (std::size_t i = 0; i < points.x.size(); ++i) {
    const double away =
        std::log(double{points.y[i]}) - flank.intercept - flank.slope * double{points.x[i]};
    squares += away * away;
  }
  flank.residual = std::sqrt(squares / line.n);
  log_message(session, fmt::format("{} shoulder slope, correlation= {:.6g} {:.4f}", side,
                                   flank.slope, flank.correlation));
  log_message(session, fmt::format("Linear fit to {} flank = {:.5g}", side, flank.residual));
  log_line_of_both_errors(session, h, points);
}

// Of what lies over the Gaussian: a second, wider one round 0 is a parabola in the logarithm.
void fit_parabola(const session_state& session, const flank_points& points, flank_fit& flank) {
  const char* side = flank.is_right ? "R" : "L";
  regression parabola;
  for (std::size_t i = 0; i < points.x.size(); ++i) {
    const double excess = double{points.y[i]} - points.over[i];
    const double x = double{points.x[i]};
    if (excess > 0) parabola.add(x * x, std::log(excess));
  }
  // A line through two points leaves nothing to judge it by.
  if (parabola.n < 3 || !(parabola.spread_x() > 0)) {
    log_message(session, fmt::format("Not enough points for {} flank fit", side));
    return;
  }
  flank.parabola_a = parabola.intercept();
  flank.parabola_b = parabola.slope();
  // One that opens upwards is no Gaussian.
  if (flank.parabola_b < 0) flank.sigma = std::sqrt(-0.5 / flank.parabola_b);
  log_message(session,
              fmt::format("{} flank parabolic fit, {} flank fit= {:.6g} {:.6g}",
                          flank.is_right ? "R" : "left", side, flank.parabola_a, flank.parabola_b));
}

void fit_decay_of(const session_state& session, const ea_histogram& h, const flank_points& points,
                  flank_fit& flank) {
  if (points.x.size() < fewest_points) return;
  log_message(session, fmt::format("bin limits are {} {}", flank.end, flank.shoulder));
  fit_points distances;
  distances.fit_model = fit_decay;
  distances.fit_y = points.y;
  for (const float x : points.x) {
    distances.fit_x.push_back(std::fabs(x - h.position(flank.shoulder)));
  }
  curve_fit fit;
  free_all(fit, 2);
  fit.p[1] = *std::max_element(points.y.begin(), points.y.end());
  fit.p[2] = static_cast<float>(std::fabs(flank.slope));
  lm_fit(distances, fit, most_iterations);
  log_fit(session, "Fit values =", fit);
  flank.decay_height = double{fit.p[1]};
  flank.decay_rate = double{fit.p[2]};
}

void fit_flank(const session_state& session, const ea_histogram& h, const amplitude_fits& fits,
               flank_fit& flank) {
  const flank_points points = points_of_flank(h, fits, flank);
  fit_line(session, h, points, flank);
  fit_parabola(session, points, flank);
  fit_decay_of(session, h, points, flank);
}

void fit_second(const session_state& session, const ea_histogram& h, amplitude_fits& fits) {
  curve_fit fit;
  free_all(fit, 6);
  // The flanks as a low and wide one.
  const float start[] = {fits.core.a,      fits.core.m, fits.core.s,
                         fits.core.a / 20, fits.core.m, 3 * fits.core.s};
  std::copy(std::begin(start), std::end(start), fit.p + 1);
  lm_fit(points_of(h, fit_two_gaussians), fit, most_iterations);
  log_fit(session, "Fit values for DG =", fit);
  fits.has_second = true;
  fits.first = {fit.p[1], fit.p[2], std::fabs(fit.p[3])};
  fits.second = {fit.p[4], fit.p[5], std::fabs(fit.p[6])};
}

// ---------------------------------------------------------------- figures

// Sums over the bins, within the shoulders and outside them.
void measure_excess(const ea_histogram& h, const amplitude_fits& fits, amplitude_figures& figures) {
  double excess = 0, all = 0, misfit = 0, n = 0, sum = 0, squares = 0, weight = 0;
  for (std::int32_t bin = -ea_bin_limit; bin <= ea_bin_limit; ++bin) {
    const auto count = static_cast<double>(h.count(bin));
    if (count <= 0) continue;
    all += count;
    const double over = count - gaussian_at(fits, h, bin);
    if (bin <= fits.left.shoulder || bin >= fits.right.shoulder) {
      excess += over;
      continue;
    }
    misfit += std::fabs(100 * over / count);
    ++n;
    const double x = double{h.microvolts(bin)};
    weight += count;
    sum += count * x;
    squares += count * x * x;
  }
  if (all > 0) figures.non_gaussian = std::round(100 * (100 * excess / all)) / 100;
  if (n > 0) figures.goodness = misfit / n;
  if (weight > 1) {
    figures.between_uv = std::sqrt(std::max(0.0, squares / weight - sum * sum / weight / weight));
  }
}

void measure_unit(const session_state& session, const amplitude_request& request,
                  amplitude_figures& figures) {
  if (!amplitude_sources()[request.ea_source - 1].of_unit || !is_cluster(session, request.unit)) {
    return;
  }
  // Beyond a tenth of a second a neuron has forgotten its last spike.
  constexpr float longest_ms = 100;
  const interval_heights after =
      measure_interval_heights(session, request.unit, request.unit, longest_ms, longest_ms);
  regression line;
  for (std::size_t i = 0; i < after.ms.size(); ++i) {
    line.add(double{after.ms[i]}, double{after.uv[i]});
  }
  if (line.n > 2) figures.isi_r = line.correlation();
  figures.q_variability = judge_heights(measure_heights(session, request.unit,
                                                        list_cluster_events(session, request.unit)))
                              .variation;
}

using value_groups = std::vector<std::vector<float>>;

value_groups group_values(const session_state& session, const amplitude_request& request,
                          const amplitude_values& values) {
  constexpr std::int32_t n_quarters = 4;
  const bool by_label = request.ea_source == ea_sub_events;
  value_groups groups(by_label ? values.split_labels.size() : n_quarters);
  const double minutes =
      session.recording.n_samples / (60.0 * session.recording.sampling_frequency);
  for (std::size_t i = 0; i < values.event_uv.size(); ++i) {
    auto group = static_cast<std::size_t>(
        std::clamp(static_cast<std::int32_t>(double{values.minutes[i]} / minutes * n_quarters), 0,
                   n_quarters - 1));
    if (by_label) {
      const auto& labels = values.split_labels;
      group = static_cast<std::size_t>(std::find(labels.begin(), labels.end(), values.labels[i]) -
                                       labels.begin());
    }
    if (group < groups.size()) groups[group].push_back(values.event_uv[i]);
  }
  std::erase_if(groups, [](const std::vector<float>& g) { return g.empty(); });
  return groups;
}

// One-way analysis of variance (Fisher 1925).
void compare_means(const session_state& session, const value_groups& groups,
                   amplitude_figures& figures) {
  double n = 0, sum = 0, between = 0, within = 0;
  for (const std::vector<float>& group : groups) {
    n += static_cast<double>(group.size());
    for (const float v : group) sum += double{v};
  }
  for (const std::vector<float>& group : groups) {
    double own = 0;
    for (const float v : group) own += double{v};
    const double size = static_cast<double>(group.size()), mean = own / size;
    for (const float v : group) within += (double{v} - mean) * (double{v} - mean);
    between += size * (mean - sum / n) * (mean - sum / n);
  }
  const double k = static_cast<double>(groups.size());
  if (k < 2 || n <= k || !(within > 0)) return;
  figures.anova_f = (between / (k - 1)) / (within / (n - k));
  const double x = (n - k) / (n - k + (k - 1) * figures.anova_f);
  figures.anova_p = double{betai(static_cast<float>((n - k) / 2), static_cast<float>((k - 1) / 2),
                                 static_cast<float>(x), session_failure_log(session))};
  log_message(session, fmt::format("ANOVA, F, p= {:.6g} {:.6g}", figures.anova_f, figures.anova_p));
}

void compare_groups(const session_state& session, const amplitude_request& request,
                    const amplitude_values& values, amplitude_figures& figures) {
  if (values.event_uv.empty()) return;
  const value_groups groups = group_values(session, request, values);
  const std::vector<std::span<const float>> spans(groups.begin(), groups.end());
  levene_result levene;
  if (levene_test(spans, levene, session_failure_log(session))) {
    figures.levene_w = double{levene.w};
    figures.levene_p = double{levene.probability};
  }
  compare_means(session, groups, figures);
}

}  // namespace

flank_fit::flank_fit()
    : slope(unknown),
      intercept(unknown),
      correlation(unknown),
      residual(unknown),
      parabola_a(unknown),
      parabola_b(unknown),
      sigma(unknown),
      decay_height(unknown),
      decay_rate(unknown) {}

float gaussian_core::at(float x) const {
  const float p[] = {0, a, m, s};
  return fit_value(fit_gaussian, p, x);
}

gaussian_core fit_gaussian_core(const session_state& session, const ea_histogram& histogram,
                                curve_fit& fit) {
  fit_points points = points_of(histogram, fit_core_gaussian);
  fit = {};
  free_all(fit, 3);
  const auto top = std::max_element(points.fit_y.begin(), points.fit_y.end());
  fit.p[1] = *top;
  fit.p[2] = points.fit_x[static_cast<std::size_t>(top - points.fit_y.begin())];
  for (std::size_t i = 0; i < points.fit_x.size(); ++i) {
    // A Gaussian has fallen to 0.61 of its height at one sigma.
    if (points.fit_x[i] > fit.p[2] && points.fit_y[i] / fit.p[1] > 0.61f) {
      fit.p[3] = points.fit_x[i] - fit.p[2];
    }
  }
  if (fit.p[2] == 0) fit.p[2] = 0.01f;
  if (fit.p[3] == 0) fit.p[3] = 15;
  // The core model looks at what lies round 0. Where nothing does, as among the peaks of a unit, it
  // would leave the start values as they are.
  const bool has_core = std::any_of(points.fit_x.begin(), points.fit_x.end(),
                                    [&](float x) { return std::fabs(x) <= 1.5f * fit.p[3]; });
  if (!has_core) points.fit_model = fit_gaussian;
  lm_fit(points, fit, most_iterations);
  log_fit(session, "Fit values =", fit);
  fit.p[3] = std::fabs(fit.p[3]);
  return {fit.p[1], fit.p[2], fit.p[3]};
}

void find_shoulders(const session_state& session, const ea_histogram& histogram,
                    amplitude_fits& fits) {
  fits.left = fits.right = {};
  fits.right.is_right = true;
  for (std::int32_t bin = -ea_bin_limit; bin < 0 && fits.left.shoulder == 0; ++bin) {
    if (is_accounted_for(fits, histogram, bin)) fits.left.shoulder = bin - 1;
  }
  for (std::int32_t bin = ea_bin_limit; bin > 0 && fits.right.shoulder == 0; --bin) {
    if (is_accounted_for(fits, histogram, bin)) fits.right.shoulder = bin + 1;
  }
  log_message(session,
              fmt::format("shoulder points= {} {}", fits.left.shoulder, fits.right.shoulder));
  fits.left.end = find_flank_end(histogram, fits.left.shoulder, -1);
  fits.right.end = find_flank_end(histogram, fits.right.shoulder, 1);
}

void fit_flanks(const session_state& session, const ea_histogram& histogram, amplitude_fits& fits) {
  fit_flank(session, histogram, fits, fits.left);
  fit_flank(session, histogram, fits, fits.right);
}

amplitude_fits fit_amplitudes(const session_state& session, const ea_histogram& histogram,
                              bool double_gaussian) {
  amplitude_fits fits;
  // Nothing to fit a curve of three parameters to.
  if (points_of(histogram, fit_gaussian).fit_x.size() < 3) return fits;
  fits.has_core = true;
  fits.core = fit_gaussian_core(session, histogram, fits.fit);
  find_shoulders(session, histogram, fits);
  fit_flanks(session, histogram, fits);
  if (double_gaussian) fit_second(session, histogram, fits);
  return fits;
}

amplitude_figures measure_amplitudes(const session_state& session, const amplitude_request& request,
                                     const amplitude_values& values, const amplitude_fits& fits) {
  amplitude_figures f{unknown, unknown, unknown, unknown, unknown, unknown, unknown,
                      unknown, unknown, unknown, unknown, unknown, unknown, unknown,
                      unknown, unknown, unknown, unknown, unknown, unknown};
  const ea_histogram& h = values.histogram;
  if (fits.has_core) {
    const double scale = double{h.uv_per_bit};
    f.sigma_uv = double{fits.core.s} * scale;
    f.left_uv = double{h.microvolts(fits.left.shoulder)};
    f.right_uv = double{h.microvolts(fits.right.shoulder)};
    f.temperature_left = f.left_uv / f.sigma_uv;
    f.temperature_right = f.right_uv / f.sigma_uv;
    f.left_count = static_cast<double>(h.count(fits.left.shoulder));
    f.right_count = static_cast<double>(h.count(fits.right.shoulder));
    f.slope_left = fits.left.slope / scale;
    f.slope_right = fits.right.slope / scale;
    f.flank_left_uv = fits.left.sigma * scale;
    f.flank_right_uv = fits.right.sigma * scale;
    measure_excess(h, fits, f);
  }
  measure_unit(session, request, f);
  compare_groups(session, request, values, f);
  return f;
}

bool analyse_amplitudes(const session_state& session, const amplitude_request& request,
                        amplitude_analysis& result) {
  result.request = request;
  if (!analyse_dataset(session, request, result.values)) return false;
  result.fits = fit_amplitudes(session, result.values.histogram, request.double_gaussian);
  result.figures = measure_amplitudes(session, request, result.values, result.fits);
  return true;
}

}  // namespace kestrelvane
