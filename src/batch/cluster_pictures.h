// Views of sorted clusters for the verb draw: a picture each, as the review windows show it.
#pragma once

#ifdef KESTRELVANE_WITH_DISPLAYS

#include <QSize>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

struct cluster_drawing {
  std::string view;                    // one of the names below
  std::vector<std::int32_t> clusters;  // to be shown
  bool dark = false;
  bool density = false;  // of waveforms: counts per pixel, of all events
  std::string path;      // .png, .svg or .pdf
  QSize size;
};

// waveforms, components, templates, correlograms, acf-time, isi-heights, isi, trains, overlap,
// heights, spikes.
bool is_cluster_view(std::string_view view);
// What is wrong with a drawing of this session; empty: nothing.
std::string check_cluster_drawing(const session_state& session, const cluster_drawing& drawing);
// Needs an application. False when the file could not be written.
bool write_cluster_picture(session_state& session, const cluster_drawing& drawing);

}  // namespace kestrelvane

#endif
