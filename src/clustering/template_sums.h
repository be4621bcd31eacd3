// The sums behind a template, for callers that have the event list in hand.
//
// Internal to clustering/: templates.h holds the operations for everybody else.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Mean and s.d. of one channel from exactly the listed events (already thinned).
void average_waveforms(session_state& session, std::int32_t cluster,
                       const std::vector<std::int32_t>& list, std::int32_t channel);

// The same when the channel is in the cluster's electrode group; zeros otherwise.
// Returns whether it is.
bool template_sums_channel(session_state& session, std::int32_t cluster,
                           const std::vector<std::int32_t>& list, std::int32_t channel);

// calculate_template_values with the event list given.
void calculate_listed_template(session_state& session, std::int32_t cluster,
                               std::vector<std::int32_t> list);

// The waveforms of many templates, channel after channel: the samples of a channel stay in the
// cache for all of them, and memory is what each of them alone waits for.
struct wanted_waveforms {
  std::int32_t cluster;
  const std::vector<std::int32_t>* list;  // of events, thinned and not empty
  const std::vector<char>* made;          // channels that are there already; null: none
};
void make_by_channel(session_state& session, const std::vector<wanted_waveforms>& wanted);

// Smallest and largest of n values, n > 0.
struct value_range {
  float low, high;
};
value_range find_range(const float* values, std::int32_t n);

// The channels of a template whose centre is known; 0: it is flat.
void assign_channels(session_state& session, std::int32_t slot, std::int32_t centre);

// A template of which some channels have been made. On the others lies what an earlier one left,
// and a bound says that nothing of this one is needed there.
struct partial_template {
  std::vector<std::int32_t> list;  // of events, thinned
  std::vector<char> made;          // by channel
  std::vector<float> bound;        // by channel not made: no point of the mean is farther from 0
};

// The centre channel and the assigned channels of the template that calculate_listed_template would
// make. Made are the channels within near_um of where the events are, all that can be the centre,
// and those within the centre's radius.
partial_template find_listed_channels(session_state& session, std::int32_t cluster,
                                      std::vector<std::int32_t> list, float near_um);

// Makes the channels that are missing.
void make_whole(session_state& session, std::int32_t cluster, partial_template& partial);

// calculate_listed_template on the assigned channels alone: inside an alignment nothing reads the
// others before they are calculated anew.
void calculate_assigned_template(session_state& session, std::int32_t cluster,
                                 std::vector<std::int32_t> list);

}  // namespace kestrelvane
