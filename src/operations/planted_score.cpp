#include "operations/planted_score.h"

#include <fmt/format.h>

#include <algorithm>

#include "files/input_file.h"
#include "results/exports.h"
#include "session/run_log.h"
#include "synthesis/planted_files.h"

namespace kestrelvane {

namespace {

spike_list list_sorted_spikes(const session_state& session) {
  const event_table& e = session.events;
  spike_list sorted;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    // As an export has it: unclustered events are no unit's.
    if (e.event_cluster[i] < 1) continue;
    sorted.spikes.push_back({event_seconds(session, i), e.event_cluster[i], e.event_channel[i]});
  }
  // Alignment may carry an event past another.
  std::stable_sort(sorted.spikes.begin(), sorted.spikes.end(),
                   [](const auto& a, const auto& b) { return a.time < b.time; });
  return sorted;
}

}  // namespace

std::string find_truth(const session_state& session) {
  if (session.recording.n_samples == 0) return {};
  const std::string path = path_stem(session.recording.recording_path) + ".truth.csv";
  return file_exists(path) ? path : std::string();
}

bool score_session(const session_state& session, sort_score& score, std::string& problem) {
  const std::string truth = find_truth(session);
  if (truth.empty()) {
    problem = "The recording in memory has no planted units";
  } else if (session.clusters.n_clusters == 0) {
    problem = "The recording in memory has planted units: sort it to see the score";
  } else if (score_with_truth(list_sorted_spikes(session), truth, score, problem)) {
    score.noise_uv = median_noise_uv(session);
    return true;
  }
  return false;
}

void log_planted_score(const session_state& session) {
  sort_score score;
  std::string problem;
  if (!score_session(session, score, problem)) return;
  log_message(session,
              fmt::format("Score: {} of {} planted units with accuracy 0.8 or better, {} "
                          "false units",
                          score.n_above_four_fifths, score.units.size(), score.n_false_units));
}

}  // namespace kestrelvane
