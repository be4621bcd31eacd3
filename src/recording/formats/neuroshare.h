// Multi Channel Systems .mcd files, read through the maker's Neuroshare library.
//
// The library is not part of this program. It is loaded for the time of the read, as
// nsMCDLibrary.so or nsMCDLibrary64.dll, from the recording's folder, from the program's
// or from where the loader looks. It hands out values in volts; they become bits of the
// first electrode channel's A/D step. Raw electrode streams are read or, in a file without
// any, filtered ones; the rest of the file is left aside. Parts of a recording that pauses
// are laid end to end.
#pragma once

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// A reader (recording_formats.h). What the library says is trusted no more than a file: its
// counts are tested against the size of the file. All calls come from the calling thread.
bool read_mcd(session_state& session, const recording_request& request);

}  // namespace kestrelvane
