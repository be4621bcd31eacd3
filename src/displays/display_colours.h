// Colours of the displays. A colour word holds red in its low byte, as the settings do.
#pragma once

#include <QColor>
#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

inline QColor colour_of_word(std::uint32_t word) {
  return QColor(static_cast<int>(word & 255), static_cast<int>(word >> 8 & 255),
                static_cast<int>(word >> 16 & 255));
}

// A third of the way to white, byte by byte.
inline std::uint32_t lighten_word(std::uint32_t word) {
  std::uint32_t lightened = 0;
  for (int shift = 0; shift <= 16; shift += 8) {
    const std::uint32_t c = word >> shift & 255;
    lightened |= (c + (255 - c) / 3) << shift;
  }
  return lightened;
}

// The ten colours of the preferences in turn: cluster 11 looks like cluster 1.
inline std::uint32_t cluster_colour_word(const session_state& session, std::int32_t cluster) {
  return static_cast<std::uint32_t>(session.preferences.subcluster_colours[(cluster - 1) % 10]);
}

}  // namespace kestrelvane
