// A report of a sort for a notebook or a colleague: one page for a browser, with its pictures in it
// and nothing to be fetched from elsewhere.
//
// The probe with its units, the table of units with the figures of analysis/unit_quality.h and what
// they mean, and for each unit its template, autocorrelogram, heights against time and figures. The
// same sort gives the same page. Runs on any thread; needs an application for the fonts of its
// pictures.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// The file in a report's folder.
std::string report_path(const std::string& folder);

// Writes the report of the session's units into a file, whose folder is made where it is missing,
// and says how it went. Moves the meter of saving; false when it was interrupted or could not be
// written, or where there are no clusters or their templates are those of another window.
bool write_unit_report(const session_state& session, const std::string& path);

// Lets the user choose a file, the recording's name with ".html" offered, and writes it there.
bool save_unit_report_dialog(const session_state& session);

}  // namespace kestrelvane
