// What the user has chosen about the program itself, kept in the platform's settings store.
//
// These are no settings of a session: no settings file, work file or batch run knows them, and
// no result follows from them. Theme and places of windows stand in the same store
// (themes.h, frame.h).
#pragma once

#include <string>

namespace kestrelvane {

enum class program_option {
  keep_peaks,      // traces of the voltage record keep their peaks at every scale
  research_tools,  // menu entries that few laboratories need
  open_traces,     // the voltage record opens when a recording has been read
  close_messages,  // the Messages dialog closes after a reading in which nothing went wrong
  count,
};

// Name of the preset that the list of the Autosort dialog shows at first: what was sorted by
// last. Empty: no sort has been started yet.
std::string last_preset();
void keep_last_preset(const std::string& name);

bool wants(program_option option);
void keep_wish(program_option option, bool wanted);

}  // namespace kestrelvane
