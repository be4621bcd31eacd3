// What is to be opened, and how: written by whoever asks for a recording, read by the open
// worker and by the format's reader. Nothing of it is kept; what a recording turned out to
// be stands in recording_store.
#pragma once

#include <cstdint>
#include <string>

namespace kestrelvane {

struct recording_request {
  std::string path = {};
  std::int32_t format = 0;  // file_type_code; 0: by the extension of the path
  // Electrode configuration that the user has named; empty: one is looked for.
  std::string configuration = {};
  // Stream of a recording that has several, a name or a number from 1; empty: the user is
  // asked.
  std::string stream = {};
};

}  // namespace kestrelvane
