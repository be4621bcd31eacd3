// What the fuzz targets share: one session for the whole process, since starting one
// costs more than reading a small file, and a folder of its own for the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane::fuzz {

// The session, started, silent, and answering Yes to questions.
session_state& the_session();

// Gives the session a continuous recording of zeros named path.
void make_recording(session_state& session, const std::string& path, std::int32_t n_channels,
                    std::int32_t n_samples);

// Path of a file of that name in the process's own folder.
std::string scratch_path(const std::string& name);

// Writes the input to a file; stops the process when it cannot.
void write_input(const std::string& path, const std::uint8_t* bytes, std::size_t n);

// Opens a recording: a sound session, or an empty one. True when it is in memory.
bool open_soundly(session_state& session, const std::string& path);

// Stops the process, so that the fuzzer keeps the input, unless condition holds.
void require(bool condition, const std::string& words);

// The session must be sound. Cluster numbers without events and masks on a template's
// centre are a file's own affair.
void require_sound_session(session_state& session);

}  // namespace kestrelvane::fuzz
