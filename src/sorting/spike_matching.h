// Spike matching: which spikes of known units a stretch of the recording holds.
//
// Each unit has a matched filter for the noise of its channels; its output, the score, is
// scanned for spikes of that unit. The best ones are subtracted, which takes them out of the
// scores of their neighbours, and the stretch is searched again until nothing stands out: greedy
// peeling (Franke, Natora, Boucsein, Munk & Obermayer, J. Comput. Neurosci. 29, 2010; Pachitariu,
// Steinmetz, Kadir, Carandini & Harris, NIPS 2016; Yger et al., eLife 7:e34518, 2018).
//
// Nothing here touches the session but to read samples, and all of it is reentrant.
#pragma once

#include <cstdint>
#include <vector>

#include "sorting/matched_filter.h"

namespace kestrelvane {

// A filter and what the others must know of it.
struct matching_neighbour {
  std::int32_t unit;    // from 0
  std::int64_t scores;  // place of its table in matching_set::tables
};
struct matching_set {
  match_window window;
  match_limits limits;
  std::vector<unit_filter> units;
  // Of each unit those whose score a spike of it changes, itself among them, ascending. The table
  // of a pair has for each phase the change per amplitude at lags -(points - 1) .. points - 1.
  std::vector<std::vector<matching_neighbour>> neighbours;
  std::vector<float> tables;

  std::size_t lags() const { return 2 * static_cast<std::size_t>(window.points) - 1; }
};
void link_neighbours(matching_set& set, std::int32_t n_threads);

struct found_spike {
  std::int32_t time = 0;   // time index
  std::int32_t phase = 0;  // eighths of a sample
  std::int32_t unit = 0;   // from 0
  float score = 0;
  float amplitude = 0;
  float gain = 0;  // above the threshold
};

// Memory of one thread.
struct matching_scratch {
  std::vector<float> voltage;         // rows of channels
  std::vector<std::int32_t> row;      // of each channel, -1: none
  std::vector<float> scores;          // rows of units
  std::vector<std::int32_t> touched;  // per unit and bin of time: round of the last change
  std::vector<found_spike> candidates;
};

// Spikes whose time lies in first .. last, ascending by time and then by unit.
void match_stretch(const session_state& session, const noise_covariance& noise,
                   const matching_set& set, std::int64_t first, std::int64_t last,
                   matching_scratch& scratch, std::vector<found_spike>& out);

}  // namespace kestrelvane
