// Templates: the average waveform of a cluster, its channels and its place.
//
// A template averages at most template_max_events events, taken evenly from the
// cluster, over template_points samples round each aligned time, on every
// channel. From it follow the centre channel, the list of assigned channels and
// the centre of gravity. Units are bits; positions µm. An empty cluster keeps its
// old template.
//
// Calls for distinct clusters may run at the same time.
#pragma once

#include <cstdint>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Mean and s.d. of the cluster, then its channels.
void calculate_template(session_state& session, std::int32_t cluster);
// Mean and s.d. alone: inside an alignment the channel list stays.
void calculate_template_values(session_state& session, std::int32_t cluster);
// Centre channel (unmasked, largest peak-to-peak) and assigned channels.
void get_template_channels(session_state& session, std::int32_t cluster);
// The same for a scratch slot above n_clusters, without the log line.
void get_scratch_template_channels(session_state& session, std::int32_t slot);
// template_x, template_y: centre of gravity of peak-to-peak, µm.
void calculate_template_centre(session_state& session, std::int32_t cluster);

// Template and centre of every cluster, without alignment.
void calculate_all_templates(session_state& session);

// Root mean square of template_sd on the centre channel, bits.
float template_sd_rms(const session_state& session, std::int32_t cluster);

// max - min of the template on one channel, bits.
float template_peak_to_peak(const session_state& session, std::int32_t cluster,
                            std::int32_t channel);

// Signal-to-noise ratio of a cluster: peak-to-peak on the centre channel over the noise
// of that channel. 0 where noise was not measured, and in event-based recordings, whose
// stretches hold little else than spikes.
double template_snr(const session_state& session, std::int32_t cluster);

// Thins a list of n events in place to at most limit: entry i becomes old entry
// int((i - 1) * n / limit) + 1, in 32-bit floats. Returns the count kept.
std::int32_t thin_event_list(std::vector<std::int32_t>& list, std::int32_t limit);

}  // namespace kestrelvane
