// Templates: mean waveform and standard deviation of every cluster, in bits.
//
// Slots count from 1; those above n_clusters serve as scratch, one per thread.
// In memory one template is one block, channel by channel, a row of floats to a
// channel, so that alignment and comparison stream through it and a renumbering
// moves it whole. clustering/templates.h alone writes templates.
// Rows are as long as the window needs and not as the widest one would: with hundreds of clusters
// on hundreds of channels the rest of them would be most of the memory. A window that is widened
// finds them widened (template_window.h).
#pragma once

#include <cstdint>
#include <cstring>

#include "numerics/table.h"
#include "session/limits.h"

namespace kestrelvane {

// A stretch of samples round the aligned time.
struct template_extent {
  std::int32_t first = 0;   // sample relative to the aligned time
  std::int32_t points = 0;  // 0: none
  bool operator==(const template_extent&) const = default;
};

struct template_table {
  std::int32_t template_points = 0;  // time samples in use, 3..151
  std::int32_t first_sample = 0;     // of the window in force
  // The window that the templates were made for, when that is no longer the one in force.
  template_extent outdated;
  std::int32_t allocated_channels = 0;      // channels that the arrays have room for
  std::int32_t row = template_point_limit;  // floats from a channel to the next

  table<float> template_mean;  // bits
  table<float> template_sd;    // bits
  // Assigned channels, centre channel first; see channels().
  table<std::int32_t> template_channels;
  table<std::int32_t> template_n_channels;
  table<float> template_x, template_y, template_z;  // µm, centre of gravity

  template_table();                                // room for template_slot_limit slots
  explicit template_table(std::int64_t capacity);  // without channels and waveforms

  // mean(c, ch)[p] for p = 1..template_points; likewise sd. Slot c, channel ch.
  float* mean(std::int32_t c, std::int32_t ch) { return template_mean.base() + offset(c, ch); }
  const float* mean(std::int32_t c, std::int32_t ch) const {
    return template_mean.base() + offset(c, ch);
  }
  float* sd(std::int32_t c, std::int32_t ch) { return template_sd.base() + offset(c, ch); }
  const float* sd(std::int32_t c, std::int32_t ch) const {
    return template_sd.base() + offset(c, ch);
  }
  // channels(c)[k] for k = 1..template_n_channels[c].
  std::int32_t* channels(std::int32_t c) {
    return template_channels.base() + std::int64_t{c - 1} * channel_limit;
  }
  const std::int32_t* channels(std::int32_t c) const {
    return template_channels.base() + std::int64_t{c - 1} * channel_limit;
  }
  std::int32_t centre_channel(std::int32_t c) const { return channels(c)[1]; }

 private:
  // Element p of the block of (c, ch) is base[offset + p], p from 1.
  std::int64_t offset(std::int32_t c, std::int32_t ch) const {
    return (std::int64_t{c - 1} * allocated_channels + (ch - 1)) * row;
  }
};

// Calls visit for each column of one entry per slot; channels and waveforms lie in blocks.
template <typename Visit, record_of<template_table>... Tables>
void for_each_column(Visit&& visit, Tables&... of) {
  visit(of.template_n_channels...);
  visit(of.template_x...);
  visit(of.template_y...);
  visit(of.template_z...);
}

inline template_table::template_table(std::int64_t capacity) {
  for_each_column([capacity](auto& column) { column.reserve(capacity); }, *this);
}

inline template_table::template_table() : template_table(template_slot_limit) {
  template_channels.reserve(std::int64_t{template_slot_limit} * channel_limit);
}

// Zeroes every slot; the room for waveforms stays.
inline void clear_templates(template_table& templates) {
  for_each_column([](auto& column) { column.clear(); }, templates);
  templates.template_channels.clear();
  templates.template_mean.clear();
  templates.template_sd.clear();
}

}  // namespace kestrelvane
