// Channel masks beside the recording: a ".msk" text file, one line per channel in
// channel order, the channel number in six columns and "T" (masked) or "F" in the next.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// If the recording has a mask file and the user wants it: clears chan_mask and takes a
// line per channel, up to the end of the file. A line that says neither masks nothing.
void read_mask_file(session_state& session);

// Writes the masks of the recording's channels into a file. False, and logged, when it could not be
// written.
bool write_masks(const session_state& session, const std::string& path);

// After masks have changed: asks, and on Yes replaces the recording's mask file. False
// when the user declined or the file could not be written.
bool write_mask_file(const session_state& session);

}  // namespace kestrelvane
