// The files that a command line asks for: whether they can be written, and whether they are
// there already.
#pragma once

#include <string>
#include <vector>

#include "batch/batch_options.h"
#include "results/exports.h"

namespace kestrelvane {

struct planned_export {
  const export_format* format = nullptr;
  std::string path;
};

// One of them, by the file that stands when all of it has been written.
struct planned_output {
  std::string path;    // as the command line has it
  std::string whole;   // that file: path itself, or the last of several
  bool makes_folders;  // the folders above whole are made where they are missing
  bool may_be_folder;  // path may name a folder that takes the files
};

std::vector<planned_output> list_outputs(const batch_options& options,
                                         const std::vector<planned_export>& exports);

// NAME.partial.wrk, where an interrupted sort is kept: beside the work file that is asked for, or
// else the first export. Empty when there are none.
std::string partial_path(const batch_options& options, const std::vector<planned_export>& exports);

// What is wrong with the files of a command line: a result would replace a file that is read, or
// another result, under whatever path. beside_output: what the verb writes besides, without an
// option of its own. Empty when nothing is.
std::string find_clash(const batch_options& options, const std::vector<planned_export>& exports,
                       const std::vector<std::string>& beside_output = {});

// Writes and removes an empty file beside each. A line for every one that cannot be had, which
// is what makes up the text that is returned; empty when all can be written.
std::string try_outputs(const std::vector<planned_output>& outputs);

// True when there are any and none is missing.
bool outputs_are_there(const std::vector<planned_output>& outputs);

}  // namespace kestrelvane
