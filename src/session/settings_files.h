// The two settings files, kv_parameters.sav (524 bytes) and kv_prefs.sav (268 bytes).
//
// Plain little-endian fields of 4 bytes in the order of settings_table.h. They live in
// home_directory; while that is empty, nothing is read or written. A missing file is
// never an error, and a short or damaged one is read as far as it goes; no message is
// shown. One that is there and cannot be read is told of in log and status, and not written
// over for the rest of the run. Writing replaces a file whole or not at all; where it fails, log
// and status say why, and errno is as in files/safe_file.h.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::size_t parameters_file_bytes = 524;
constexpr std::size_t preferences_file_bytes = 268;

// Reads kv_parameters.sav, puts right what display and detection cannot take, and
// applies them. False when there is no such file.
bool read_parameters(session_state& session);
// The same from any path, for the batch command.
bool read_parameters_file(session_state& session, const std::string& path);
bool write_parameters(session_state& session);

// Reads kv_prefs.sav; from a complete file multi_threaded_now follows multi_threaded.
// False when there is no such file.
bool read_preferences(session_state& session);
bool write_preferences(session_state& session);

// What start-up does with the files: preferences, then, if sticky_parameters, the
// parameters. The result is that of read_preferences.
bool read_settings_files(session_state& session);

}  // namespace kestrelvane
