// The quality of units: the figures by which a laboratory says that a unit is one neuron, whole,
// and itself.
//
// One row of the table below for each figure, with its source and what is good; the routine of a
// figure stands in train_figures.h, amplitude_figures.h or isolation_figures.h. What cannot be
// told of a unit, as of one with too few spikes, is no number, and an empty field in files.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

struct unit_quality {
  std::int32_t unit = 0;
  double n_events = 0;
  double rate = 0;
  double presence = 0;
  double violations = 0;
  double contamination_intervals = 0, contamination_pairs = 0;
  double cutoff = 0;
  double height = 0, height_variation = 0;
  double snr = 0;
  double drift = 0;
  double hit = 0, miss = 0;
  double isolation_distance = 0;
  double l_ratio = 0;
  double nearest = 0;
  double d_prime = 0;
  double overlap = 0;
  double near_spikes = 0;
};

struct quality_figure {
  const char* name;     // in files
  const char* heading;  // of a column
  const char* unit;
  int decimals;  // in tables
  double unit_quality::*value;
  const char* meaning;
  const char* source;
  const char* good;
};
std::span<const quality_figure> quality_figures();
// Those that stand beside a table of units, which has events, rate and signal-to-noise ratio.
std::vector<quality_figure> further_quality_figures();
// In the figure's decimals; blank for what is no number.
std::string quality_text(const quality_figure& figure, const unit_quality& quality);

// The figures of the units named, or of all; in their order. Numbers that are no clusters are left
// out. Templates must be those of the window in force. Work for the worker: moves the meter of
// clusters; empty when it was interrupted. Bits are the same at any number of threads.
std::vector<unit_quality> measure_quality(const session_state& session,
                                          std::vector<std::int32_t> units = {});

// A first label by the limits in session.quality: noise below the least signal-to-noise ratio or
// number of events; good where every limit of a good unit holds and can be told; multi-unit
// otherwise. Where noise was never measured, the signal-to-noise ratio has no say.
unit_label suggest_label(const session_state& session, const unit_quality& quality);

}  // namespace kestrelvane
