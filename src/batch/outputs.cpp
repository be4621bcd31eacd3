#include "batch/outputs.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "files/input_file.h"
#include "files/safe_file.h"

namespace kestrelvane {

namespace {

bool is_folder(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_directory(path, ignored);
}

// Formats that write other files than the one named.
planned_output output_of(const planned_export& planned) {
  const std::string_view format = planned.format->name;
  const std::string& path = planned.path;
  if (format == "phy") return {path, path + "/params.py", true, true};
  // A sort without units writes no file at all: it is done again, which takes no time to speak of.
  if (format == "txt") return {path, unit_text_path(path, 1), false, false};
  // A recording of several epochs fills a folder.
  return {path, path, false, format == "ptcs"};
}

// The first on the way up that is there, with its slash; a file in the place of a folder stops
// the way, too.
std::string nearest_folder(const std::string& path) {
  std::string folder = folder_of(path);
  while (folder.size() > 1) {
    const std::string plain = folder.substr(0, folder.size() - 1);
    if (file_exists(plain)) break;
    folder = folder_of(plain);
  }
  return folder;
}

std::string problem_of(const planned_output& output) {
  if (is_folder(output.path) && !output.may_be_folder) return "it is a folder";
  std::string beside = output.whole;
  if (output.makes_folders) beside = nearest_folder(output.whole) + file_name_of(output.whole);
  // Some file of that folder, as its name is only known when it is written.
  if (is_folder(beside)) beside += "/spikes";
  std::string problem;
  try_safe_file(beside, problem);
  return problem;
}

}  // namespace

std::vector<planned_output> list_outputs(const batch_options& options,
                                         const std::vector<planned_export>& exports) {
  std::vector<planned_output> outputs;
  for (const std::string& path :
       {options.output, options.save_work, options.report, options.picture}) {
    if (!path.empty()) outputs.push_back({path, path, false, false});
  }
  std::transform(exports.begin(), exports.end(), std::back_inserter(outputs), output_of);
  return outputs;
}

std::string try_outputs(const std::vector<planned_output>& outputs) {
  std::string told;
  for (const planned_output& output : outputs) {
    const std::string problem = problem_of(output);
    if (problem.empty()) continue;
    told += fmt::format("{}Can't write {}: {}", told.empty() ? "" : "\n", output.path, problem);
  }
  return told;
}

bool outputs_are_there(const std::vector<planned_output>& outputs) {
  // Nothing asked for is nothing done: such a run is not skipped.
  return !outputs.empty() &&
         std::all_of(outputs.begin(), outputs.end(), [](const planned_output& output) {
           // A folder that is to be filled may have been there before.
           return file_exists(output.whole) && !is_folder(output.whole);
         });
}

}  // namespace kestrelvane
