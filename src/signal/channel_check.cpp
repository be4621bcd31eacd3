#include "signal/channel_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "numerics/curve_fit.h"
#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "numerics/sort.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int16_t no_sample = -32768;  // what acquisition systems write for lost data
constexpr std::int32_t few_samples = 20000;

std::int32_t count_unmasked(const recording_store& r) {
  std::int32_t n = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) n += r.chan_mask[c] ? 0 : 1;
  return n;
}

// Pairs closer than the cut-off; stops counting where there are too many in any case.
std::int32_t count_close_pairs(const recording_store& r, float cutoff) {
  std::int32_t n = 0;
  for (std::int32_t a = 1; a <= r.n_channels; ++a) {
    for (std::int32_t b = a + 1; b <= r.n_channels; ++b) {
      if (r.distance(a, b) < cutoff && ++n >= channel_pair_limit) return n;
    }
  }
  return n;
}

void choose_cutoff(const session_state& session, channel_check& check) {
  const recording_store& r = session.recording;
  // Sites that are all in one place stay too many at any distance; the first pairs count then.
  constexpr float least_um = 1;
  check.check_cutoff_um = first_check_cutoff_um;
  const std::int64_t n = r.n_channels;
  if (n * (n - 1) / 2 < channel_pair_limit) return;
  while (check.check_cutoff_um > least_um &&
         count_close_pairs(r, check.check_cutoff_um) >= channel_pair_limit) {
    check.check_cutoff_um = std::max(0.9f * check.check_cutoff_um, least_um);
  }
  if (check.check_cutoff_um < first_check_cutoff_um) {
    log_message(session, fmt::format("Channel check cutoff distance ={:8.1f}",
                                     double{check.check_cutoff_um}));
  }
}

// ---------------------------------------------------------------- times

// Times at which both channels hold a sample and are not both 0, which stretches that were blanked
// are. A short recording gives them all in their order; a long one at random, with a fixed start,
// so that the same recording always gives the same list.
std::vector<std::int32_t> list_times(const recording_store& r, std::int32_t a, std::int32_t b) {
  const std::int16_t *va = r.vd.channel(a), *vb = r.vd.channel(b);
  const auto serves = [&](std::int32_t t) {
    return va[t] != no_sample && vb[t] != no_sample && (va[t] != 0 || vb[t] != 0);
  };
  std::vector<std::int32_t> times;
  if (r.n_samples < few_samples) {
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      if (static_cast<std::int32_t>(times.size()) < check_time_limit && serves(t)) {
        times.push_back(t);
      }
    }
    return times;
  }
  std::mt19937_64 random(static_cast<std::uint64_t>(-1));
  constexpr std::int32_t tries = 100 * check_time_limit;  // a hundred for each time wanted
  for (std::int32_t i = 0; i < tries; ++i) {
    const double u = static_cast<double>(random() >> 11) * 0x1p-53;
    const auto t = static_cast<std::int32_t>(static_cast<double>(r.n_samples - 1) * u + 1);
    if (serves(t)) times.push_back(t);
    if (static_cast<std::int32_t>(times.size()) == check_time_limit) break;
  }
  return times;
}

// One sample in a hundred is enough for the tries of list_times.
bool is_live(const recording_store& r, std::int32_t channel) {
  const std::int16_t* v = r.vd.channel(channel);
  const std::int32_t step = r.n_samples / check_time_limit + 1;
  std::int32_t n = 0, n_live = 0;
  for (std::int32_t t = 1; t <= r.n_samples; t += step, ++n) {
    n_live += v[t] != 0 && v[t] != no_sample ? 1 : 0;
  }
  return 100 * n_live >= n && n_live > 0;
}

void choose_times(const session_state& session, channel_check& check) {
  const recording_store& r = session.recording;
  check.times = list_times(r, 1, 2);
  const std::int32_t wanted = std::min(check_time_limit, r.n_samples);
  // A short recording holds what it holds; that of a long one is short only where both are silent.
  const bool silent =
      check.times.empty() ||
      (r.n_samples >= few_samples && static_cast<std::int32_t>(check.times.size()) < wanted);
  if (!silent) return;
  std::vector<std::int32_t> live;
  for (std::int32_t c = 1; c <= r.n_channels && live.size() < 2; ++c) {
    if (is_live(r, c)) live.push_back(c);
  }
  if (live.size() < 2 || live[1] == 2) return;
  log_message(session, fmt::format("Channels 1 and 2 are silent; times of the channel check are "
                                   "taken from channels {} and {}",
                                   live[0], live[1]));
  check.times = list_times(r, live[0], live[1]);
}

// ---------------------------------------------------------------- correlations

// What the pairs of a channel share: its samples at the times, and the running mean after each.
struct sampled_channel {
  const std::int16_t* v = nullptr;
  std::vector<float> mean_after;
  float mean = 0, sum_of_squares = 0;
};

// Samples of all channels at the times, channel after channel. They are fetched in the order in
// which they lie, since the times of a long recording are far apart.
std::vector<std::int16_t> gather_samples(const session_state& session,
                                         const std::vector<std::int32_t>& times) {
  const recording_store& r = session.recording;
  const std::size_t n = times.size();
  std::vector<std::int32_t> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(),
            [&](std::int32_t i, std::int32_t j) { return times[i] < times[j]; });
  std::vector<std::int16_t> samples(n * static_cast<std::size_t>(r.n_channels));
  parallel_for(threads_now(session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
    const std::int16_t* v = r.vd.channel(static_cast<std::int32_t>(c));
    std::int16_t* to = samples.data() + (c - 1) * static_cast<std::int64_t>(n);
    for (const std::int32_t i : order) to[i] = v[times[i]];
  });
  return samples;
}

// The same without spikes, or most of what is one: cut to 2.5 times the noise about the median.
std::vector<std::int16_t> cut_to_background(const session_state& session,
                                            const std::vector<std::int16_t>& samples,
                                            std::int32_t n) {
  constexpr float times_noise = 2.5f, median_of_normal = 0.6745f;
  std::vector<std::int16_t> cut(samples.size());
  parallel_for(threads_now(session), 1, session.recording.n_channels,
               [&](std::int64_t c, std::int32_t) {
                 const std::int16_t* v = samples.data() + (c - 1) * n;
                 std::vector<float> values(v, v + n);
                 const float middle = select_median(n, values.data());
                 for (float& value : values) value = std::fabs(value - middle);
                 const float noise = select_median(n, values.data()) / median_of_normal;
                 // One that hardly ever moves has no noise to tell spikes by.
                 const float limit = noise > 0 ? std::round(times_noise * noise) : 65535.0f;
                 for (std::int32_t k = 0; k < n; ++k) {
                   cut[(c - 1) * n + k] = static_cast<std::int16_t>(
                       std::clamp(static_cast<float>(v[k]), middle - limit, middle + limit));
                 }
               });
  return cut;
}

sampled_channel sample_channel(const std::int16_t* v, std::int32_t n) {
  sampled_channel s;
  s.v = v;
  s.mean_after.resize(n);
  for (std::int32_t k = 0; k < n; ++k) {
    s.mean += (static_cast<float>(v[k]) - s.mean) / static_cast<float>(k + 1);
    s.mean_after[k] = s.mean;
  }
  for (std::int32_t k = 0; k < n; ++k) {
    const float deviation = static_cast<float>(v[k]) - s.mean;
    s.sum_of_squares += deviation * deviation;
  }
  return s;
}

// Sixteen partners of one channel at a time, a lane each, every lane adding in the order of the
// times. The partner's running mean starts from that of the channel: that is the measure in use,
// and tells on channels with an offset alone.
KESTRELVANE_CLONES
void correlate_lanes(const std::int16_t* a, const float* mean_after, float mean, float squares,
                     const std::int16_t* const* b, std::int32_t n, float* r) {
  float mean_b[n_lanes] = {}, products[n_lanes] = {}, squares_b[n_lanes] = {};
  float v[n_lanes];
  for (std::int32_t k = 0; k < n; ++k) {
    const float ma = mean_after[k], count = static_cast<float>(k + 1);
    for (int lane = 0; lane < n_lanes; ++lane) v[lane] = static_cast<float>(b[lane][k]);
    for (int lane = 0; lane < n_lanes; ++lane) {
      mean_b[lane] = ma + (v[lane] - mean_b[lane]) / count;
    }
  }
  for (std::int32_t k = 0; k < n; ++k) {
    const float from_mean = static_cast<float>(a[k]) - mean;
    for (int lane = 0; lane < n_lanes; ++lane) v[lane] = static_cast<float>(b[lane][k]);
    for (int lane = 0; lane < n_lanes; ++lane) {
      const float deviation = v[lane] - mean_b[lane];
      products[lane] += from_mean * deviation;
      squares_b[lane] += deviation * deviation;
    }
  }
  for (int lane = 0; lane < n_lanes; ++lane) {
    const bool constant = squares == 0 || squares_b[lane] == 0;
    r[lane] = constant ? 1 : products[lane] / std::sqrt(squares * squares_b[lane]);
  }
}

// Pairs from first to last, which have the same a.
void correlate_run(const std::vector<std::int16_t>& samples, std::int32_t n,
                   float channel_pair::*value, channel_pair* first, channel_pair* last) {
  const sampled_channel a =
      sample_channel(samples.data() + static_cast<std::size_t>(first->a - 1) * n, n);
  for (channel_pair* at = first; at < last; at += n_lanes) {
    const auto n_pairs = static_cast<int>(std::min<std::ptrdiff_t>(n_lanes, last - at));
    const std::int16_t* b[n_lanes];
    float r[n_lanes];
    for (int lane = 0; lane < n_lanes; ++lane) {
      // Lanes to spare do the last pair once more.
      const channel_pair& pair = at[std::min(lane, n_pairs - 1)];
      b[lane] = samples.data() + static_cast<std::size_t>(pair.b - 1) * n;
    }
    correlate_lanes(a.v, a.mean_after.data(), a.mean, a.sum_of_squares, b, n, r);
    for (int lane = 0; lane < n_pairs; ++lane) at[lane].*value = r[lane];
  }
}

std::vector<channel_pair> list_pairs(const recording_store& r, float cutoff) {
  std::vector<channel_pair> pairs;
  for (std::int32_t a = 1; a <= r.n_channels; ++a) {
    for (std::int32_t b = a + 1; b <= r.n_channels; ++b) {
      if (!(r.distance(a, b) < cutoff)) continue;
      if (static_cast<std::int32_t>(pairs.size()) == channel_pair_limit) return pairs;
      pairs.push_back({.a = a, .b = b});
    }
  }
  return pairs;
}

// Where the pairs of each channel begin, and their end.
std::vector<std::size_t> runs_of(const std::vector<channel_pair>& pairs) {
  std::vector<std::size_t> begin;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (i == 0 || pairs[i].a != pairs[i - 1].a) begin.push_back(i);
  }
  begin.push_back(pairs.size());
  return begin;
}

// Channels that say nothing have nothing in common with others, and yet no distance tells them
// apart: their correlations are 1. The running mean of a partner hides that it is constant.
void settle_silent_pairs(channel_check& check) {
  const auto is_silent = [&](std::int32_t c) {
    return std::binary_search(check.silent.begin(), check.silent.end(), c);
  };
  for (channel_pair& pair : check.channel_pairs) {
    if (is_silent(pair.a) || is_silent(pair.b)) pair.r = pair.background_r = 1;
  }
}

void find_silent(const recording_store& r, const std::vector<std::int16_t>& samples,
                 channel_check& check) {
  const std::size_t n = check.times.size();
  for (std::int32_t c = 1; n > 0 && c <= r.n_channels; ++c) {
    const std::int16_t* v = samples.data() + static_cast<std::size_t>(c - 1) * n;
    if (std::all_of(v, v + n, [v](std::int16_t sample) { return sample == *v; })) {
      check.silent.push_back(c);
    }
  }
}

}  // namespace

bool can_check_channels(const session_state& session) {
  const recording_store& r = session.recording;
  const char* problem = nullptr;
  if (r.n_samples == 0) {
    problem = "No recording data in memory";
  } else if (!r.is_continuous && !session.preferences.treat_as_continuous) {
    problem = "Channel check not valid for non-continuous data";
  } else if (count_unmasked(r) < fewest_checked_channels) {
    problem = "Not enough unmasked channels to support cross-correlation analysis";
  }
  if (problem != nullptr) tell(session, problem, "Error ");
  return problem == nullptr;
}

bool compute_pair_correlations(const session_state& session, channel_check& check) {
  const recording_store& r = session.recording;
  check = {};
  if (r.n_channels < 2 || r.n_samples == 0) return true;
  choose_cutoff(session, check);
  choose_times(session, check);
  check.channel_pairs = list_pairs(r, check.check_cutoff_um);
  const std::vector<std::int16_t> samples = gather_samples(session, check.times);
  const auto n = static_cast<std::int32_t>(check.times.size());
  const std::vector<std::int16_t> background = cut_to_background(session, samples, n);
  find_silent(r, samples, check);
  const std::vector<std::size_t> runs = runs_of(check.channel_pairs);
  const auto n_runs = static_cast<std::int64_t>(runs.size()) - 1;
  constexpr std::int64_t batch = 16;  // channels between two looks at whether to stop
  for (std::int64_t from = 0; from < n_runs; from += batch) {
    if (autosort_interrupted(session)) return false;
    const std::int64_t end = std::min(n_runs, from + batch);
    parallel_for_dealt(threads_now(session), from, end - 1, [&](std::int64_t i, std::int32_t) {
      channel_pair *first = check.channel_pairs.data() + runs[i],
                   *last = check.channel_pairs.data() + runs[i + 1];
      correlate_run(samples, n, &channel_pair::r, first, last);
      correlate_run(background, n, &channel_pair::background_r, first, last);
    });
    set_progress(session, meter::filtering, static_cast<std::int32_t>(end),
                 static_cast<std::int32_t>(n_runs));
  }
  settle_silent_pairs(check);
  return true;
}

// ---------------------------------------------------------------- curve and deviations

namespace {

bool in_use(const recording_store& r, const channel_pair& pair, bool use_masked) {
  return use_masked || (!r.chan_mask[pair.a] && !r.chan_mask[pair.b]);
}

void add_problem(channel_check& check, channel_problem problem) {
  ++check.n_found;
  check.n_borne_out += problem.borne_out ? 1 : 0;
  if (check.problem_list.size() < channel_problem_limit) {
    check.problem_list.push_back(std::move(problem));
  }
}

// Correlated more than neighbours ever are: two sites on one wire.
void list_shorted_pairs(const recording_store& r, channel_check& check, bool use_masked) {
  constexpr float shorted_above = 0.8f;
  for (const channel_pair& pair : check.channel_pairs) {
    if (!in_use(r, pair, use_masked) || !(pair.r > shorted_above)) continue;
    add_problem(check, {fmt::format("Channels {} {} may be shorted; r={:.2f}", pair.a, pair.b,
                                    double{pair.r}),
                        pair.a, channel_fault::shorted, pair.background_r > shorted_above});
  }
}

// What the pairs of a channel deviate by from a curve.
struct deviation_sums {
  float e = 0, e2 = 0;
  std::int32_t n = 0;
  float rms() const { return std::sqrt(e2 / static_cast<float>(n)); }
  float mean() const { return e / static_cast<float>(n); }
};

// By channel.
std::vector<deviation_sums> sum_deviations(const recording_store& r, const channel_check& check,
                                           bool use_masked, float channel_pair::*value,
                                           const float* p) {
  std::vector<deviation_sums> of(static_cast<std::size_t>(r.n_channels) + 1);
  for (const channel_pair& pair : check.channel_pairs) {
    if (!in_use(r, pair, use_masked)) continue;
    const float e = pair.*value - fit_value(fit_saturation, p, r.distance(pair.a, pair.b));
    for (const std::int32_t c : {pair.a, pair.b}) {
      of[c].e += e;
      of[c].e2 += e * e;
      ++of[c].n;
    }
  }
  return of;
}

void measure_deviations(const session_state& session, channel_check& check, bool use_masked) {
  const recording_store& r = session.recording;
  const std::vector<deviation_sums> all = sum_deviations(r, check, use_masked, &channel_pair::r,
                                                         check.p),
                                    background = sum_deviations(r, check, use_masked,
                                                                &channel_pair::background_r,
                                                                check.background_p);
  std::vector<float> sizes;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.chan_mask[c] && !use_masked) continue;
    if (all[c].n == 0) {
      // Too far from all others to be compared: it is not among those checked.
      log_message(session, fmt::format("npts=0 when nchan={}", c));
      continue;
    }
    check.channels.push_back({c, all[c].rms(), all[c].mean(), background[c].rms()});
    sizes.push_back(background[c].rms());
  }
  const float median = select_median(static_cast<std::int32_t>(sizes.size()), sizes.data());
  for (checked_channel& c : check.channels) {
    if (median > 0) c.background_rms /= median;
  }
}

struct spread {
  float mean = 0, sd = 0;
};
spread spread_of(const std::vector<checked_channel>& channels, float checked_channel::*value) {
  spread s;
  const auto n = static_cast<float>(channels.size());
  for (const checked_channel& c : channels) s.mean += c.*value;
  s.mean /= n;
  float squares = 0;
  for (const checked_channel& c : channels) squares += (c.*value - s.mean) * (c.*value - s.mean);
  s.sd = std::sqrt(squares / n);
  return s;
}

void turn_into_z_scores(std::vector<checked_channel>& channels) {
  if (channels.empty()) return;
  const spread rms = spread_of(channels, &checked_channel::rms_deviation);
  const spread net = spread_of(channels, &checked_channel::signed_deviation);
  // All alike: none stands out.
  if (rms.sd == 0 || net.sd == 0) return;
  for (checked_channel& c : channels) {
    c.rms_deviation = (c.rms_deviation - rms.mean) / rms.sd;
    c.signed_deviation = (c.signed_deviation - net.mean) / net.sd;
  }
}

void fit_curve(const recording_store& r, const channel_check& check, bool use_masked,
               float channel_pair::*value, float* p) {
  fit_points points;
  points.fit_model = fit_saturation;
  for (const channel_pair& pair : check.channel_pairs) {
    if (!in_use(r, pair, use_masked)) continue;
    points.fit_x.push_back(r.distance(pair.a, pair.b));
    points.fit_y.push_back(pair.*value);
  }
  curve_fit fit;
  fit.n_parameters = 3;
  const float start[] = {0, 0.1f, 0.1f, 1};
  for (int i = 1; i <= 3; ++i) {
    fit.p[i] = start[i];
    fit.is_free[i] = true;
  }
  // A fit that fails leaves the best curve it has met, which is as good as any.
  if (!points.fit_x.empty()) lm_fit(points, fit, 500);
  std::copy_n(fit.p, 4, p);
}

// In standard deviations.
constexpr float far_out = 2.5f;

bool deviates(const checked_channel& c) {
  return std::fabs(c.rms_deviation) > far_out || c.signed_deviation < -far_out;
}

channel_problem problem_of(const checked_channel& c) {
  constexpr float far_in_background = 2.5f;  // in medians
  const bool borne_out = c.background_rms > far_in_background;
  if (c.signed_deviation < -far_out) {
    return {fmt::format("Channel {} may need masking; abs dev={:.2f}", c.channel,
                        double{c.signed_deviation}),
            c.channel, channel_fault::needs_masking, borne_out};
  }
  return {fmt::format("Channel {} may be mislocalised; deviation={:.2f}", c.channel,
                      double{c.rms_deviation}),
          c.channel, channel_fault::mislocalised, borne_out};
}

}  // namespace

void fit_correlation_curve(const session_state& session, channel_check& check, bool use_masked) {
  fit_curve(session.recording, check, use_masked, &channel_pair::r, check.p);
  fit_curve(session.recording, check, use_masked, &channel_pair::background_r, check.background_p);
}

void evaluate_channels(const session_state& session, channel_check& check, bool use_masked) {
  check.problem_list.clear();
  check.channels.clear();
  check.n_found = check.n_borne_out = 0;
  list_shorted_pairs(session.recording, check, use_masked);
  measure_deviations(session, check, use_masked);
  turn_into_z_scores(check.channels);
  std::stable_sort(check.channels.begin(), check.channels.end(),
                   [](const checked_channel& a, const checked_channel& b) {
                     return a.rms_deviation > b.rms_deviation;
                   });
  for (const checked_channel& c : check.channels) {
    if (deviates(c)) add_problem(check, problem_of(c));
  }
}

void judge_channels(const session_state& session, channel_check& check, bool use_masked) {
  fit_correlation_curve(session, check, use_masked);
  evaluate_channels(session, check, use_masked);
}

float expected_correlation(const channel_check& check, float distance_um) {
  return fit_value(fit_saturation, check.p, distance_um);
}

const checked_channel* find_checked_channel(const channel_check& check, std::int32_t channel) {
  const auto found = std::find_if(check.channels.begin(), check.channels.end(),
                                  [=](const checked_channel& c) { return c.channel == channel; });
  return found == check.channels.end() ? nullptr : &*found;
}

const char* judgement_of(const channel_problem& problem) {
  if (problem.borne_out) return "The background alone says the same";
  return problem.fault == channel_fault::shorted
             ? "Only the spikes say so: a large unit makes its neighbours alike"
             : "Only the spikes say so: a large unit or the end of the probe does that";
}

std::string count_problems(const channel_check& check) {
  const std::string counts = fmt::format("{} borne out by the background, {} by the spikes alone",
                                         check.n_borne_out, check.n_found - check.n_borne_out);
  const std::size_t n_listed = check.problem_list.size();
  if (static_cast<std::size_t>(check.n_found) == n_listed) return counts;
  return counts + fmt::format("; the first {} are listed", n_listed);
}

std::vector<std::int32_t> channels_to_mask(const channel_check& check) {
  std::vector<std::int32_t> channels = check.silent;
  for (const checked_channel& c : check.channels) {
    if (!deviates(c)) continue;
    const channel_problem problem = problem_of(c);
    if (problem.fault == channel_fault::needs_masking && problem.borne_out) {
      channels.push_back(c.channel);
    }
  }
  std::sort(channels.begin(), channels.end());
  channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
  return channels;
}

}  // namespace kestrelvane
