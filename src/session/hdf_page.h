// Walking a container file: what a user sees of one folder, and what the user does next.
//
// A reader that cannot know where a file keeps its voltages lets the user walk the file's
// tree. The thread that runs the read makes a page and asks; the listener shows it and
// answers with one step. So nobody but the reader touches the file, and a window never
// waits for it. Plain texts, fit to be shown; a member is chosen by its place in the list,
// since its name may hold bytes that no text field keeps.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kestrelvane {

struct hdf_member {
  std::string name;
  std::string type;      // "group", "dataset", "link" or "named type"
  std::string leads_to;  // target of a link; otherwise empty
};

struct hdf_attribute {
  std::string name;
  std::string value;  // or the words for what cannot be shown
};

// The group or dataset on show.
struct hdf_page {
  std::string file;    // path of the recording
  std::string folder;  // place in the file, "/" at the start
  bool is_dataset = false;
  std::vector<hdf_member> members;        // of a group
  std::vector<hdf_attribute> attributes;  // of the group or dataset
  std::string data_type;                  // of a dataset, as "i32"; otherwise empty
  std::string dimensions;                 // as "8 x 9850"; empty for a group
  std::string values;                     // the first values of a dataset
  std::string rate;                       // Hz, as the edits stand or the file suggests
  std::string scale;                      // µV/bit
};

enum class hdf_step {
  cancel,
  enter,  // go into a member
  up,     // one level up
  go_to,  // another place of the same file
  read,   // take the dataset on show
};

struct hdf_choice {
  hdf_step step = hdf_step::cancel;
  std::size_t member = 0;   // enter: place in members, from 0
  std::string path;         // go_to
  std::string rate, scale;  // as the two edits stand
};

}  // namespace kestrelvane
