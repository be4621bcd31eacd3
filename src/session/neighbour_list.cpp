#include "session/neighbour_list.h"

namespace kestrelvane {

void build_neighbour_list(session_state& session) {
  constexpr std::int32_t utah_all_radius = 2500;  // µm
  recording_store& r = session.recording;
  const std::int32_t radius = session.detection.lockout_radius_um;
  const bool utah = r.electrode_type == electrode_utah_array;
  r.neighbour_list.clear();
  // An array's sites are too far apart to see one spike twice.
  if (utah && radius < utah_all_radius) return;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    std::int32_t* list = r.lockout_neighbours(c);
    for (std::int32_t b = 1; b <= r.n_channels; ++b) {
      const float d = r.distance(c, b);
      // A site at distance 0, the channel's own among them, is none; an array that takes all
      // channels takes its own as well.
      if (utah || (d <= static_cast<float>(radius) && d != 0.0f)) list[++list[0]] = b;
    }
  }
}

}  // namespace kestrelvane
