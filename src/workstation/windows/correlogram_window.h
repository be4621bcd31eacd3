// The window "Auto- and cross-correlations": the autocorrelograms of one or two units, and their
// cross-correlogram between them.
//
// It shows the units of its state, or, where no dialog has chosen any, the current cluster. What
// it counts is analysis/correlograms.h; counting runs in the turn that redraws the window, and
// takes a few milliseconds for a unit.
#pragma once

#include <cstdint>

#include "analysis/correlograms.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

struct correlogram_state {
  std::int32_t a = 0, b = 0;  // units on show; b 0: a alone, a 0: the current cluster
  bool as_rate = false;       // spikes per second rather than counts
  bool autos_only = false;    // "Autocorrelation": both, without the cross-correlogram
  train_correlation shown;
  std::int16_t mark_first = 0, mark_second = 0;  // of the units' colours
};

graph_routines correlogram_routines(workstation& w);
// The units of its next picture.
void choose_correlograms(workstation& w, std::int32_t a, std::int32_t b);
// Shows two units; equal ones as one.
void show_correlograms(workstation& w, std::int32_t a, std::int32_t b);

}  // namespace kestrelvane
