// A folder of files that belong together: as a whole the old ones or the new ones.
//
// The new files are written into a folder of its own beside the target; when all are whole, the
// two folders exchange their names in one step of the file system. What stands in the old folder
// and has no successor goes over into the new one. A kill leaves the old folder, and perhaps a
// "name.random.tmp" beside it. Where the system cannot exchange folders, or the folder above
// cannot be written, files are renamed into the target one by one at the end.
#pragma once

#include <functional>
#include <string>

#include "files/safe_file.h"

namespace kestrelvane {

struct safe_folder {
  std::string target;
  std::string temporary;    // where the files are written; empty: nothing is open
  bool is_beside = true;    // the temporary folder; else it lies in the target
  bool had_target = false;  // a folder stood there

  safe_folder() = default;
  safe_folder(const safe_folder&) = delete;
  safe_folder& operator=(const safe_folder&) = delete;
  ~safe_folder();  // gives up what has not been finished
};

// Makes the temporary folder, and the folders above it. False with errno.
bool open_safe_folder(safe_folder& out, const std::string& path);

// Brings the new files to their place. goes: names of old files that have no successor and do not
// stay either. flush: later for files that were finished so, which are flushed here. False with
// errno, and the old folder stands as it was.
bool finish_safe_folder(safe_folder& out, const std::function<bool(const std::string& name)>& goes,
                        file_flush flush = file_flush::now);

}  // namespace kestrelvane
