// Container files in the batch command: which dataset holds the voltages, and the tree of
// the file for a user who does not know yet.
#pragma once

#include "batch/batch_session.h"

namespace kestrelvane {

// A recording in a container, and no --hdf-path.
bool wants_hdf_tree(const batch_session& batch);

// The tree on standard output, as text or JSON, with the rate and scale that the file
// suggests for each dataset that may hold voltages.
batch_status print_hdf_tree(batch_session& batch);

// Before an open: without --hdf-path takes the one dataset that could be read as it
// stands, and logs it. False after the words when there is none, or more than one. Does
// nothing for recordings of other formats and for files that cannot be opened.
bool settle_hdf_path(batch_session& batch);

}  // namespace kestrelvane
