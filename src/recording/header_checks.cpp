#include "recording/header_checks.h"

#include <fmt/format.h>

#include <limits>

#include "session/run_log.h"

namespace kestrelvane {

bool refuse_file(const session_state& session, const std::string& text) {
  log_message(session, text);
  tell(session, text, "Can't read file");
  return false;
}

bool check_channel_count(const session_state& session, std::int64_t n_channels,
                         std::int32_t limit) {
  // Arrays of the session have so many places.
  if (n_channels > limit) {
    return refuse_file(session,
                       fmt::format("# of channels in file exceeds upper limit of {:4}", limit));
  }
  return n_channels >= 1 ||
         refuse_file(session, fmt::format("# of channels in file is {}", n_channels));
}

bool check_sample_count(const session_state& session, std::int64_t n_samples) {
  // Time indices are of 32 bits.
  constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
  return (n_samples >= 1 && n_samples <= most) ||
         refuse_file(session, fmt::format("# of samples in file is {}", n_samples));
}

bool check_sampling_frequency(const session_state& session, double hz) {
  // Also refuses what is no number, which fails both comparisons.
  return (hz >= 1 && hz <= 1e6) ||
         refuse_file(session, fmt::format("Sampling frequency in file is {} Hz", hz));
}

bool check_voltage_scale(const session_state& session, double uv_per_bit) {
  return (uv_per_bit >= 1e-6 && uv_per_bit <= 1e6) ||
         refuse_file(session, fmt::format("Voltage scaling in file is {} µV/bit", uv_per_bit));
}

}  // namespace kestrelvane
