#include "analysis/unit_quality.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "analysis/amplitude_figures.h"
#include "analysis/correlograms.h"
#include "analysis/isolation_figures.h"
#include "analysis/train_figures.h"
#include "clustering/templates.h"
#include "numerics/parallel.h"
#include "signal/blanking.h"

namespace kestrelvane {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

constexpr const char* hill = "Hill, Mehta and Kleinfeld 2011";
constexpr const char* siegle = "Siegle et al. 2021";
constexpr const char* schmitzer = "Schmitzer-Torbert et al. 2005";
constexpr const char* chung = "Chung et al. 2017";

using q = unit_quality;
// clang-format off
constexpr quality_figure figures[] = {
    {"events", "Events", "", 0, &q::n_events,
     "Events of the unit", "a count", "as many as the question needs"},
    {"rate_hz", "Rate", "Hz", 2, &q::rate,
     "Events per second of the recording", "a count", "any that the cell type has"},
    {"presence_ratio", "Presence", "", 2, &q::presence,
     "Fraction of the recording's stretches in which the unit fires", siegle, "above 0.9"},
    {"refractory_violations", "Violations", "", 0, &q::violations,
     "Intervals within the refractory period", hill, "few beside the events"},
    {"contamination_hill", "Contam. H", "", 3, &q::contamination_intervals,
     "Fraction of foreign spikes, by the intervals within the refractory period", hill,
     "below 0.1"},
    {"contamination_llobet", "Contam. L", "", 3, &q::contamination_pairs,
     "Fraction of foreign spikes, by all pairs within the refractory period", "Llobet et al. 2022",
     "below 0.1"},
    {"amplitude_cutoff", "Cut-off", "", 3, &q::cutoff,
     "Fraction of the unit's spikes that the threshold has missed", hill, "below 0.1"},
    {"amplitude_median_uv", "Height", "µV", 1, &q::height,
     "Median height of the spikes on the centre channel", "a median", "well above the threshold"},
    {"amplitude_cv", "Height CV", "", 2, &q::height_variation,
     "Coefficient of variation of the heights", "s.d. over mean", "below 0.3"},
    {"snr", "SNR", "", 2, &q::snr,
     "Peak-to-peak of the template over the noise of its centre channel", "a ratio", "above 8"},
    {"drift_um", "Drift", "µm", 1, &q::drift,
     "Greatest difference of the place along the probe between two stretches", siegle,
     "less than half the distance of sites"},
    {"nn_hit_rate", "NN hit", "", 3, &q::hit,
     "Nearest neighbours of the unit's spikes that are its own", chung, "near 1"},
    {"nn_miss_rate", "NN miss", "", 3, &q::miss,
     "Nearest neighbours of the neighbours' spikes that are the unit's", chung, "near 0"},
    {"isolation_distance", "Isol. dist.", "", 1, &q::isolation_distance,
     "Squared Mahalanobis distance that holds as many foreign spikes as the unit has",
     schmitzer, "above 20"},
    {"l_ratio", "L-ratio", "", 3, &q::l_ratio,
     "Foreign spikes that look like the unit's, over its own", schmitzer, "below 0.1"},
    {"nearest_unit", "Nearest", "", 0, &q::nearest,
     "The neighbour that is hardest to tell from the unit", "the least d'", ""},
    {"d_prime", "d'", "", 2, &q::d_prime,
     "Distance from the nearest unit in standard deviations", siegle, "above 4"},
    {"overlap", "Overlap", "", 3, &q::overlap,
     "Spikes that would rather be the nearest unit's", hill, "below 0.05"},
    {"near_spikes", "Coinc.", "", 0, &q::near_spikes,
     "Events within the refractory period of an event of the nearest unit", "a count",
     "as many as chance brings"},
};
// clang-format on

// ---------------------------------------------------------------- trains

struct unit_train {
  std::vector<double> times;   // of the unit's events, s, in the order of the list
  std::vector<double> sorted;  // ascending
};

// Of all units the lists alone: an edit asks for the figures of one or two.
struct all_trains {
  cluster_event_lists lists;
  double duration = 0;  // s
};

all_trains gather_trains(const session_state& session) {
  all_trains trains;
  list_all_events(session, trains.lists);
  const recording_store& r = session.recording;
  const tick_clock clock = clock_of_trains(session);
  trains.duration = clock.from_stamps ? 60.0 * static_cast<double>(r.duration_mins)
                                      : static_cast<double>(r.n_samples) / double{clock.rate};
  return trains;
}

unit_train train_of(const session_state& session, const all_trains& trains, std::int32_t unit) {
  const tick_clock clock = clock_of_trains(session);
  const auto rate = static_cast<double>(clock.rate);
  unit_train train;
  for (const std::int32_t e : trains.lists.of(unit)) {
    const std::int32_t t = session.events.event_time[e];
    const std::int64_t ticks =
        clock.from_stamps ? event_record_time_us(session, t, session.events.event_channel[e]) : t;
    train.times.push_back(static_cast<double>(ticks) / rate);
  }
  train.sorted = train.times;
  // Nearly always so: alignment seldom carries a spike past another.
  if (!std::is_sorted(train.sorted.begin(), train.sorted.end())) {
    std::sort(train.sorted.begin(), train.sorted.end());
  }
  return train;
}

// ---------------------------------------------------------------- one unit

refractory_period refractory_of(const session_state& session) {
  return {double{session.quality.quality_refractory_ms} / 1000,
          double{session.quality.quality_censored_ms} / 1000};
}

// Where the unit's channel was blanked, in the seconds of its spikes.
std::vector<time_span> gaps_of(const session_state& session, std::int32_t unit) {
  std::vector<time_span> gaps;
  const double rate = session.recording.sampling_frequency;
  for (const blanked_stretch& s : blanked_on(session, session.templates.centre_channel(unit))) {
    gaps.push_back({s.first / rate, (s.last + 1) / rate});
  }
  return gaps;
}

void judge_train(const session_state& session, const all_trains& trains, const unit_train& train,
                 unit_quality& quality) {
  const std::vector<double>& times = train.sorted;
  const auto n = static_cast<std::int32_t>(times.size());
  const refractory_period refractory = refractory_of(session);
  quality.n_events = n;
  const std::vector<time_span> gaps = gaps_of(session, quality.unit);
  double seen = trains.duration;
  for (const time_span& gap : gaps) seen -= gap.to - gap.from;
  quality.rate = seen > 0 ? n / seen : unknown;
  quality.presence = presence_ratio(times, trains.duration, gaps);
  const refractory_violations_count count = count_violations(times, refractory);
  quality.violations = count.successive;
  quality.contamination_intervals =
      contamination_by_intervals(count.successive, n, seen, refractory);
  quality.contamination_pairs = contamination_by_pairs(count.pairs, n, seen, refractory);
}

void judge_waveforms(const session_state& session, const all_trains& trains,
                     const unit_train& train, unit_quality& quality) {
  const std::span<const std::int32_t> events = trains.lists.of(quality.unit);
  const height_figures heights = judge_heights(measure_heights(session, quality.unit, events));
  quality.cutoff = heights.cutoff;
  quality.height = heights.median;
  quality.height_variation = heights.variation;
  const double snr = template_snr(session, quality.unit);
  // 0 says that noise was not measured.
  quality.snr = snr > 0 ? snr : unknown;
  quality.drift = measure_drift(session, quality.unit, events, train.times, trains.duration);
}

void judge_isolation(const session_state& session, const all_trains& trains,
                     const unit_train& train, unit_quality& quality) {
  const isolation_figures isolation = measure_isolation(session, trains.lists, quality.unit);
  quality.hit = isolation.hit;
  quality.miss = isolation.miss;
  quality.isolation_distance = isolation.distance;
  quality.l_ratio = isolation.l_ratio;
  quality.nearest = isolation.nearest > 0 ? isolation.nearest : unknown;
  quality.d_prime = isolation.d_prime;
  quality.overlap = isolation.overlap;
  quality.near_spikes = unknown;
  if (isolation.nearest == 0) return;
  const unit_train nearest = train_of(session, trains, isolation.nearest);
  quality.near_spikes =
      count_near_spikes(train.sorted, nearest.sorted, refractory_of(session).period);
}

}  // namespace

std::span<const quality_figure> quality_figures() { return figures; }

std::vector<quality_figure> further_quality_figures() {
  std::vector<quality_figure> further;
  for (const quality_figure& figure : figures) {
    const bool known = figure.value == &unit_quality::n_events ||
                       figure.value == &unit_quality::rate || figure.value == &unit_quality::snr;
    if (!known) further.push_back(figure);
  }
  return further;
}

std::string quality_text(const quality_figure& figure, const unit_quality& quality) {
  const double value = quality.*figure.value;
  return std::isfinite(value) ? fmt::format("{:.{}f}", value, figure.decimals) : std::string();
}

std::vector<unit_quality> measure_quality(const session_state& session,
                                          std::vector<std::int32_t> units) {
  if (units.empty()) {
    for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) units.push_back(c);
  }
  std::erase_if(units, [&](std::int32_t c) { return !is_cluster(session, c); });
  const all_trains trains = gather_trains(session);
  std::vector<unit_quality> all(units.size());
  const auto n = static_cast<std::int64_t>(units.size());
  // Between them the user may stop it; a batch of units takes well under a second.
  constexpr std::int64_t batch = 16;
  for (std::int64_t from = 0; from < n; from += batch) {
    if (autosort_interrupted(session)) return {};
    parallel_for_dealt(threads_now(session), from, std::min(n, from + batch) - 1,
                       [&](std::int64_t i, std::int32_t) {
                         all[i].unit = units[i];
                         const unit_train train = train_of(session, trains, units[i]);
                         judge_train(session, trains, train, all[i]);
                         judge_waveforms(session, trains, train, all[i]);
                         judge_isolation(session, trains, train, all[i]);
                       });
    set_progress(session, meter::clusters, static_cast<std::int32_t>(std::min(n, from + batch)),
                 static_cast<std::int32_t>(n));
  }
  return all;
}

unit_label suggest_label(const session_state& session, const unit_quality& quality) {
  const quality_settings& limits = session.quality;
  const bool noise_known = std::isfinite(quality.snr);
  if (quality.n_events < limits.noise_events ||
      (noise_known && quality.snr < double{limits.noise_snr})) {
    return unit_label::noise;
  }
  // What is no number is not good: comparisons with it are false.
  const bool good = quality.contamination_pairs <= double{limits.good_contamination} &&
                    quality.cutoff <= double{limits.good_cutoff} &&
                    quality.presence >= double{limits.good_presence} &&
                    (!noise_known || quality.snr >= double{limits.good_snr});
  return good ? unit_label::good : unit_label::multi_unit;
}

}  // namespace kestrelvane
