// Values of a file's header that no recording has, and the words for them.
//
// Each routine returns true for a value to go on with. Otherwise it logs what the file
// says, shows it in a box titled "Can't read file", and returns false: the reader gives up.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Logs and shows a text of the reader's own; always false.
bool refuse_file(const session_state& session, const std::string& text);

// 1 to limit channels.
bool check_channel_count(const session_state& session, std::int64_t n_channels,
                         std::int32_t limit = channel_limit);
// 1 or more, and few enough that time indices hold them.
bool check_sample_count(const session_state& session, std::int64_t n_samples);
// 1 to 1,000,000 Hz, so that no later count of samples overflows.
bool check_sampling_frequency(const session_state& session, double hz);
// 1e-6 to 1e6 µV per bit.
bool check_voltage_scale(const session_state& session, double uv_per_bit);

}  // namespace kestrelvane
