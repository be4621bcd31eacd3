// What a review adds to a sort: a scripted user who follows the program's own advice.
//
// For each seed a recording with known units is made, sorted as kestrelvane-batch sort does by
// default, and reviewed by the routines that the dialogs call. The user looks at what a dialog or
// window shows, templates, overlaps, correlograms, rates, sizes, and never at the truth; after each
// step the sort is scored against it. Prints tables in Markdown: the seeds, the steps, and what
// Reclaim restores at each selectivity, of the reviewed sort and with every third cluster deleted
// before, so that strangers lie about.
//
//   kestrelvane-review-user [FIRST_SEED LAST_SEED [DRIFT_UM [AMPLITUDE_MIN_UV [NOISE_UV]]]]
//
// Seeds 1 to 10, 10 µm, 60 µV and 5.5 µV unless told otherwise.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "analysis/correlograms.h"
#include "clustering/splitting.h"
#include "numerics/parallel.h"
#include "operations/autosort.h"
#include "operations/open_recording.h"
#include "results/exports.h"
#include "results/spike_times.h"
#include "review/cluster_marks.h"
#include "review/guided_merge.h"
#include "review/pair_comparison.h"
#include "review/post_processing.h"
#include "review/reclaim.h"
#include "sorting/cluster_edits.h"
#include "sorting/pair_measures.h"
#include "support/small_session.h"
#include "synthesis/score.h"
#include "synthesis/test_recording.h"

namespace kestrelvane::test {
namespace {

// Thirty units that are all large enough to be detected, on a probe that drifts by 10 µm: Autosort
// cuts a quarter of them to pieces. Chosen by that, before any review of it was tried; where
// Autosort loses units since their spikes lie below the threshold there is nothing to review.
test_recording_options usual_recording() {
  test_recording_options options;
  options.electrode = test_electrode::polytrode;
  options.n_channels = 32;
  options.n_units = 30;
  options.minutes = 2;
  options.amplitude_min_uv = 60;
  options.drift_um = 10;
  return options;
}

// ---------------------------------------------------------------- what the user sees

// The gap of a cross-correlogram, as the eye takes it: the bins on both sides that one neuron
// leaves empty, beside as many bins of its shoulders.
struct gap_view {
  double in_gap = 0, expected = 0;  // counts
  // Too few counts leave the correlogram silent.
  bool speaks() const { return expected >= 5; }
  bool is_empty() const { return in_gap < 0.25 * expected && chance_of_so_few() < 0.005; }
  // By Poisson's law, without a gap.
  double chance_of_so_few() const {
    double term = std::exp(-expected), sum = term;
    for (int i = 1; i <= static_cast<int>(in_gap); ++i) sum += term *= expected / i;
    return sum;
  }
};

gap_view look_at_gap(const session_state& session, cluster_pair pair) {
  const correlogram cc = correlogram_counts(session, pair.a, pair.b);
  gap_view view;
  std::int32_t n_gap = 0, n_shoulder = 0;
  double shoulder = 0;
  for (std::int32_t bin = -correlogram_reach; bin <= correlogram_reach; ++bin) {
    const double ms = std::abs(bin) * double{cc.bin_ms};
    // Nearer to 0 two units have a gap as well: on the same channels a spike hides another.
    if (ms >= 0.5 && ms <= 1.2) {
      view.in_gap += cc.count(bin);
      ++n_gap;
    } else if (ms >= 4) {
      shoulder += cc.count(bin);
      ++n_shoulder;
    }
  }
  if (n_shoulder > 0) view.expected = shoulder * n_gap / n_shoulder;
  return view;
}

// Template correlations of one unit. On seeds 101 to 110 pairs of pieces of one unit lie above 0.99
// where both fire all the time and above 0.979 where they take turns; pairs of two units below
// 0.983, all but a few below 0.97.
constexpr float same_waveform = 0.985f, drifted_waveform = 0.97f;
// Rate complementarity of two that take turns.
constexpr float takes_turns = 0.25f;

enum class pair_verdict { one_unit, mixed, two_units };

// "Two clusters are one unit when their waveforms are the same but for their size, their clouds
// of points lie in each other, and the cross-correlogram has the same gap round 0." Where few
// spikes leave the correlogram silent, two that look alike and take turns are one that drifts.
pair_verdict judge_pair(const session_state& session, cluster_pair pair) {
  const pair_values values = make_pair_values(session, pair);
  const gap_view gap = look_at_gap(session, pair);
  const bool intermingled = values.overlap > 0.4f;
  const bool same = values.correlation > same_waveform;
  const bool one_by_turns = values.correlation > drifted_waveform &&
                            rate_complementarity(session, pair.a, pair.b) > takes_turns;
  if (gap.speaks() && !gap.is_empty()) {
    return intermingled ? pair_verdict::mixed : pair_verdict::two_units;
  }
  const bool one_by_gap = gap.speaks() ? same || intermingled : same && intermingled;
  return one_by_gap || one_by_turns ? pair_verdict::one_unit : pair_verdict::two_units;
}

// ---------------------------------------------------------------- the steps

struct step_counts {
  std::int32_t n_seen = 0;  // pairs or clusters that the user was shown
  std::int32_t n_done = 0;  // of these merged or split; otherwise what the tool counts
};

// Several units are split as shown; what "could not be split" is left.
ugm_message answer_split(const pair_split& split) {
  const bool several = split.message == ugm_three_clusters || split.message == ugm_two_and_spurious;
  return several ? ugm_split_as_shown : ugm_none;
}

guided_step split_guided(session_state& session, guided_walk& walk, step_counts& counts) {
  guided_step step = decide_pair(session, walk, guided_merge_and_split);
  if (step != guided_step::ask) {
    ++counts.n_done;
    return step;
  }
  const ugm_message answer = answer_split(walk.split);
  counts.n_done += answer == ugm_none ? 0 : 1;
  const cluster_pair asked = walk.pair;
  step = end_guided_split(session, walk, answer);
  const bool again =
      step == guided_step::decide && walk.pair.a == asked.a && walk.pair.b == asked.b;
  // A pair that stays as it was comes again, and would for ever.
  return again ? decide_pair(session, walk, guided_distinct) : step;
}

step_counts merge_guided(session_state& session) {
  step_counts counts;
  guided_walk walk;
  guided_step step = begin_guided_merge(session, walk);
  while (step == guided_step::decide) {
    ++counts.n_seen;
    switch (judge_pair(session, walk.pair)) {
      case pair_verdict::one_unit:
        ++counts.n_done;
        step = decide_pair(session, walk, guided_merge);
        break;
      case pair_verdict::two_units:
        step = decide_pair(session, walk, guided_distinct);
        break;
      case pair_verdict::mixed:
        step = split_guided(session, walk, counts);
    }
  }
  return counts;
}

// Pieces of a unit that drifts lie side by side and hardly overlap.
step_counts merge_guided_at_low_overlap(session_state& session) {
  const float threshold = session.strategy.overlap_threshold;
  session.strategy.overlap_threshold = 0.005f;
  const step_counts counts = merge_guided(session);
  session.strategy.overlap_threshold = threshold;
  return counts;
}

// A split is kept when the two fire into each other's refractory periods. That they look different
// is not enough: pieces of a unit that drifts do.
bool speaks_for_two(const session_state& session, cluster_pair pair) {
  const gap_view gap = look_at_gap(session, pair);
  return gap.speaks() && gap.in_gap > 0.5 * gap.expected;
}

// Splits off a sub-cluster, looks at the two, and takes it back unless they are two.
bool try_split(session_state& session, std::int32_t cluster, std::int32_t label) {
  session.clusters.current_cluster = cluster;
  if (count_labels(session).size[label] < session.strategy.min_cluster_size) return false;
  if (!split_label(session, label)) return false;
  const cluster_pair pair{cluster, session.clusters.n_clusters};
  if (speaks_for_two(session, pair)) return true;
  undo_cluster_review(session);
  return false;
}

step_counts split_singles(session_state& session) {
  step_counts counts;
  if (!begin_cluster_review(session)) return counts;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    session.clusters.current_cluster = c;
    autosplit_current_cluster(session);
    counts.n_seen += count_labels(session).size[2] > 0 ? 1 : 0;
    for (std::int32_t label = 2; label <= 4; ++label) {
      counts.n_done += try_split(session, c, label) ? 1 : 0;
    }
    session.clusters.current_cluster = c;
    unmark_events(session);
  }
  return counts;
}

// Through the list of pairs by likeness of templates, from the top again after each merge, down
// to where the waveforms stop being the same.
step_counts merge_compared(session_state& session) {
  step_counts counts;
  pair_comparison comparison;
  session.review.match_method = match_correlation;
  if (!open_pair_comparison(session, comparison)) return counts;
  fill_pair_comparison(session);
  cluster_pair last{0, 0};
  while (true) {
    const comparison_values shown = make_comparison_values(session);
    const cluster_pair pair{shown.pair.a, shown.pair.b};
    // At the end of the list the pair stays.
    const bool at_end = pair.a == last.a && pair.b == last.b;
    if (at_end || shown.n_match == 0 || shown.pair.correlation <= drifted_waveform) break;
    ++counts.n_seen;
    last = pair;
    if (judge_pair(session, pair) == pair_verdict::one_unit) {
      ++counts.n_done;
      last = {0, 0};
      if (compare_merge(session, comparison, false) == comparison_step::close) break;
    } else {
      compare_step(session, 1);
    }
  }
  return counts;
}

step_counts drop_duplicates(session_state& session) {
  return {0, remove_duplicates_after_sort(session)};
}
step_counts clean_by_alignment(session_state& session) {
  return {0, alignment_clean(session, false)};
}
step_counts reclaim_medium(session_state& session) {
  return {0, reclaim_lost_events(session, reclaim_selectivity::medium)};
}
step_counts delete_weak(session_state& session) { return {0, delete_weak_clusters(session)}; }

struct step_row {
  const char* name;
  step_counts (*take)(session_state& session);
};
constexpr step_row steps[] = {
    {"guided", merge_guided},        {"guided-low", merge_guided_at_low_overlap},
    {"compare", merge_compared},     {"autosplit", split_singles},
    {"duplicates", drop_duplicates}, {"alignment", clean_by_alignment},
    {"reclaim", reclaim_medium},     {"weak", delete_weak},
};

// ---------------------------------------------------------------- scores

// One recording, its sort and its truth.
struct seed_run {
  temporary_directory folder;
  small_session session;
  std::vector<std::vector<double>> trains;  // planted spikes by unit, s, ascending
};

[[noreturn]] void give_up(const std::string& problem) {
  fmt::print(stderr, "{}\n", problem);
  std::exit(1);
}

sort_score score_now(const seed_run& run) {
  sort_score score;
  std::string problem = check_session(*run.session.state);
  if (!problem.empty()) give_up(problem);
  const std::string path = run.folder.file("sorted.csv");
  if (!write_csv(*run.session.state, path) ||
      !score_files(path, run.folder.file("made.truth.csv"), score, problem)) {
    give_up(problem);
  }
  return score;
}

// The planted unit of each cluster; -1 for none.
std::vector<std::int32_t> units_of_clusters(const session_state& session, const sort_score& score) {
  std::vector<std::int32_t> unit(static_cast<std::size_t>(session.clusters.n_clusters) + 1, -1);
  for (const unit_score& u : score.units) {
    if (u.sorted_unit > 0) unit[static_cast<std::size_t>(u.sorted_unit)] = u.unit;
  }
  return unit;
}

// Events that joined clusters and events that left them, and those that are spikes of the unit
// which the cluster stands for: right to have joined, wrong to have gone.
struct event_flow {
  std::int32_t n_joined = 0, n_joined_own = 0, n_left = 0, n_left_own = 0;
  void add(const event_flow& other) {
    n_joined += other.n_joined;
    n_joined_own += other.n_joined_own;
    n_left += other.n_left;
    n_left_own += other.n_left_own;
  }
};

bool is_spike_of(const seed_run& run, std::int32_t unit, double time) {
  if (unit < 0) return false;
  const std::vector<double>& train = run.trains[static_cast<std::size_t>(unit)];
  const auto next = std::lower_bound(train.begin(), train.end(), time - match_window_s);
  return next != train.end() && *next <= time + match_window_s;
}

struct sort_view {
  std::vector<std::int32_t> cluster;  // of each event, from element 1
  std::vector<double> time;           // s
  sort_score score;
  std::vector<std::int32_t> unit;  // of each cluster
};

sort_view view_sort(const seed_run& run) {
  const session_state& session = *run.session.state;
  sort_view view;
  const auto n = static_cast<std::size_t>(session.events.n_events) + 1;
  view.cluster.resize(n);
  view.time.resize(n);
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    view.cluster[static_cast<std::size_t>(e)] = session.events.event_cluster[e];
    view.time[static_cast<std::size_t>(e)] = clock_seconds(session, e);
  }
  view.score = score_now(run);
  view.unit = units_of_clusters(session, view.score);
  return view;
}

event_flow count_flow(const seed_run& run, const sort_view& before, const sort_view& after) {
  event_flow flow;
  for (std::size_t e = 1; e < after.cluster.size(); ++e) {
    const auto from = static_cast<std::size_t>(before.cluster[e]);
    const auto to = static_cast<std::size_t>(after.cluster[e]);
    if (from == 0 && to > 0) {
      ++flow.n_joined;
      flow.n_joined_own += is_spike_of(run, after.unit[to], after.time[e]) ? 1 : 0;
    } else if (from > 0 && to == 0) {
      ++flow.n_left;
      flow.n_left_own += is_spike_of(run, before.unit[from], before.time[e]) ? 1 : 0;
    }
  }
  return flow;
}

struct step_score {
  std::string step;
  step_counts counts;
  event_flow flow;
  std::int32_t n_units = 0;  // planted units at accuracy 0.8 or better
  std::int32_t n_false = 0;  // clusters that agree with no planted unit by half
  double mean_accuracy = 0;
};

step_score make_step_score(const std::string& step, const sort_score& score) {
  step_score result{step, {}, {}, score.n_above_four_fifths};
  result.n_false = score.n_sorted_units - score.n_above_half;
  for (const unit_score& unit : score.units) result.mean_accuracy += unit.accuracy;
  result.mean_accuracy /= static_cast<double>(std::max<std::size_t>(score.units.size(), 1));
  return result;
}

// ---------------------------------------------------------------- one seed

void read_truth(seed_run& run) {
  spike_list truth;
  std::string problem;
  if (!read_spike_list(run.folder.file("made.truth.csv"), truth, problem)) give_up(problem);
  for (const spike_list::spike& s : truth.spikes) {
    const auto unit = static_cast<std::size_t>(s.unit);
    if (unit >= run.trains.size()) run.trains.resize(unit + 1);
    run.trains[unit].push_back(s.time);
  }
  for (std::vector<double>& train : run.trains) std::sort(train.begin(), train.end());
}

void sort_seed(seed_run& run, const test_recording_options& options) {
  session_state& session = *run.session;
  run.session.user.default_answer = true;
  use_threads(session, static_cast<std::int32_t>(std::thread::hardware_concurrency()));
  std::string problem;
  const std::string path = run.folder.file("made.tsf");
  if (!make_test_recording(options, path, {}, problem)) give_up(problem);
  if (!open_recording(session, path)) give_up("The recording could not be opened");
  read_truth(run);
  // No filter by default, and nobody is there to take the offer of one.
  session.recording.high_pass_offered = true;
  if (!autosort(session)) give_up("Autosort did not come to its end");
}

// What Reclaim does at each selectivity, each time with the same sort to begin with.
struct reclaim_flows {
  event_flow reviewed[3], thinned[3];
};

void delete_every_third(session_state& session) {
  std::vector<std::int32_t> doomed;
  for (std::int32_t c = 3; c <= session.clusters.n_clusters; c += 3) doomed.push_back(c);
  delete_clusters(session, doomed);
}

void try_reclaim(seed_run& run, reclaim_flows& flows) {
  session_state& session = *run.session;
  for (std::int32_t s = 0; s < 6; ++s) {
    begin_post_processing(session);
    if (s >= 3) delete_every_third(session);
    const sort_view before = view_sort(run);
    reclaim_lost_events(session, static_cast<reclaim_selectivity>(s % 3 + 1));
    event_flow& flow = s < 3 ? flows.reviewed[s] : flows.thinned[s - 3];
    flow.add(count_flow(run, before, view_sort(run)));
    undo_post_processing(session);
  }
}

std::vector<step_score> review_recording(const test_recording_options& options,
                                         reclaim_flows& flows) {
  seed_run run;
  sort_seed(run, options);
  sort_view view = view_sort(run);
  std::vector<step_score> scores{make_step_score("Autosort", view.score)};
  for (const step_row& row : steps) {
    if (row.take == reclaim_medium) try_reclaim(run, flows);
    const step_counts counts = row.take(*run.session);
    const sort_view after = view_sort(run);
    scores.push_back(make_step_score(row.name, after.score));
    scores.back().counts = counts;
    scores.back().flow = count_flow(run, view, after);
    view = after;
  }
  return scores;
}

// ---------------------------------------------------------------- tables

using seed_scores = std::vector<std::vector<step_score>>;  // by seed, then by step

std::string score_cells(const step_score& s) {
  return fmt::format("{} | {} | {:.3f}", s.n_units, s.n_false, s.mean_accuracy);
}

void print_seeds(const seed_scores& all, std::int64_t first) {
  fmt::print(
      "| Seed | Units at 0.8, Autosort | False | Mean accuracy | Units at 0.8, reviewed | False | "
      "Mean accuracy |\n|---|---|---|---|---|---|---|\n");
  std::int32_t n_more = 0, n_fewer = 0;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const step_score &before = all[i].front(), &after = all[i].back();
    n_more += after.n_units > before.n_units ? 1 : 0;
    n_fewer += after.n_units < before.n_units ? 1 : 0;
    fmt::print("| {} | {} | {} |\n", first + static_cast<std::int64_t>(i), score_cells(before),
               score_cells(after));
  }
  fmt::print("\nMore units on {} of {} seeds, fewer on {}.\n\n", n_more, all.size(), n_fewer);
}

// One step over all seeds.
void print_step(const seed_scores& all, std::size_t step) {
  step_score sum;
  std::int32_t n_more = 0, n_fewer = 0;
  for (const std::vector<step_score>& scores : all) {
    const step_score& s = scores[step];
    sum.n_units += s.n_units;
    sum.n_false += s.n_false;
    sum.mean_accuracy += s.mean_accuracy / static_cast<double>(all.size());
    sum.counts.n_seen += s.counts.n_seen;
    sum.counts.n_done += s.counts.n_done;
    sum.flow.add(s.flow);
    if (step == 0) continue;
    n_more += s.n_units > scores[step - 1].n_units ? 1 : 0;
    n_fewer += s.n_units < scores[step - 1].n_units ? 1 : 0;
  }
  const event_flow& flow = sum.flow;
  fmt::print("| {} | {} | {} | {} | {} | {} | {} of {} | {} of {} |\n", all[0][step].step,
             sum.counts.n_seen, sum.counts.n_done, score_cells(sum), n_more, n_fewer,
             flow.n_joined_own, flow.n_joined, flow.n_left_own, flow.n_left);
}

void print_steps(const seed_scores& all) {
  fmt::print(
      "| Step | Shown | Done | Units at 0.8 | False | Mean accuracy | Seeds with more | With fewer "
      "| Joined, right | Left, wrongly |\n|---|---|---|---|---|---|---|---|---|---|\n");
  for (std::size_t step = 0; step < all[0].size(); ++step) print_step(all, step);
}

void print_reclaim(const reclaim_flows& flows) {
  fmt::print(
      "\n| Reclaim | Restored | Right | With every third cluster deleted | Right |\n"
      "|---|---|---|---|---|\n");
  const char* names[] = {"Low", "Medium", "High"};
  for (std::size_t s = 0; s < 3; ++s) {
    fmt::print("| {} | {} | {} | {} | {} |\n", names[s], flows.reviewed[s].n_joined,
               flows.reviewed[s].n_joined_own, flows.thinned[s].n_joined,
               flows.thinned[s].n_joined_own);
  }
}

}  // namespace

void review_all(int argc, char** argv) {
  const auto number = [&](int i, double usual) { return argc > i ? std::atof(argv[i]) : usual; };
  test_recording_options options = usual_recording();
  const auto first = static_cast<std::int64_t>(number(1, 1));
  const auto last = static_cast<std::int64_t>(number(2, 10));
  options.drift_um = number(3, options.drift_um);
  options.amplitude_min_uv = number(4, options.amplitude_min_uv);
  options.noise_uv = number(5, options.noise_uv);
  seed_scores all;
  reclaim_flows flows;
  for (options.seed = first; options.seed <= last; ++options.seed) {
    all.push_back(review_recording(options, flows));
    for (const step_score& s : all.back()) {
      fmt::print(stderr, "seed {} {:<10} units {:>2} false {:>2} mean {:.3f}, {} of {} done\n",
                 options.seed, s.step, s.n_units, s.n_false, s.mean_accuracy, s.counts.n_done,
                 s.counts.n_seen);
    }
  }
  if (all.empty()) return;
  print_seeds(all, first);
  print_steps(all);
  print_reclaim(flows);
}

}  // namespace kestrelvane::test

int main(int argc, char** argv) {
  kestrelvane::flush_denormals();
  kestrelvane::test::review_all(argc, argv);
}
