// Neuroscope recordings: an ".xml" description and a ".dat" of interleaved 16-bit samples
// of the same name; and the text of events that the same tools show.
#pragma once

#include <string>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// The reader of the format table; the worker has looked for the configuration. Of the
// ".xml" the first of each tag counts: nChannels, samplingRate, nBits, voltageRange,
// amplification, offset (subtracted from the samples).
bool read_xml_recording(session_state& session, const recording_request& request);

// Writes one line per event, in order: time in ms, channel and cluster. False, after the
// box, when the file cannot be written.
bool export_evt(const session_state& session, const std::string& path);

}  // namespace kestrelvane
