// The way through an HDF5 file to its voltages: pages for the user, the user's steps, and
// the tests that a dataset, a rate and a scale must pass.
//
// The walk runs on the thread of the operation and asks through the boundary to the user
// (session/hdf_page.h), so that the workstation's dialog, the batch command and a test are
// only listeners.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recording/formats/hdf/hdf_file.h"
#include "recording/formats/hdf/hdf_scaling.h"
#include "session/hdf_page.h"
#include "session/session_state.h"

namespace kestrelvane {

// A dataset as it was accepted.
struct hdf_selection {
  std::string folder;  // its place in the file
  double rate = 0;     // Hz
  double scale = 0;    // µV/bit
  hdf_scaling scaling;
};

enum class hdf_walk_end { chosen, cancelled, failed };

// The dialog "Navigate to HDF folder with data", from the root of the file until a dataset
// is accepted or the user gives up. failed: the root cannot be shown.
hdf_walk_end choose_hdf_dataset(session_state& session, hdf_file& in, hdf_selection& selection);

// What a place shows. False when there is nothing that could be shown.
bool make_hdf_page(hdf_file& in, const std::string& place, hdf_page& page);

// Two dimensions; a dataset with one is a single channel. Both 0 for anything else.
struct hdf_dimensions {
  std::uint64_t first = 0, second = 0;
};
hdf_dimensions dimensions_of_hdf_dataset(hid_t dataset);

// The tests in front of a read: "" when all hold, or the words for the first that fails.
// On success rate and scale have the numbers.
std::string check_hdf_choice(const hdf_dimensions& dimensions, const std::string& rate_text,
                             const std::string& scale_text, double& rate, double& scale);

// One object of the file, for a listing of the whole tree.
struct hdf_entry {
  std::string place;
  std::string type;  // as of a member; a dataset's as "i32"
  std::string leads_to;
  std::string dimensions;    // of a dataset
  bool may_be_data = false;  // numbers in dimensions that a recording has
  bool ready = false;        // and the suggested rate and scale pass the tests, too
  std::string rate, scale;   // suggested for a dataset that may be data; may be empty
};

// Every object once, however many links lead to it; schema texts of /specifications are
// left out, and a file with many thousand objects is cut off.
enum class hdf_tree_extent { useful, all };
std::vector<hdf_entry> list_hdf_tree(hdf_file& in,
                                     hdf_tree_extent extent = hdf_tree_extent::useful);

}  // namespace kestrelvane
