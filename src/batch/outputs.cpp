#include "batch/outputs.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>

#include "files/file_place.h"
#include "files/input_file.h"
#include "files/safe_file.h"
#include "recording/recording_formats.h"
#include "results/curation_file.h"
#include "session/recording_files.h"

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
  if (format == "noise") return {path, path + "/units.npy", true, true};
  if (format == "features") return {path, path + "/clusters.npy", true, true};
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

// A file by its place, and by the words that tell of it.
struct named_place {
  std::string name;
  file_place place;
  bool is_recording = false;  // of inputs: the recording itself
  bool may_rewrite = false;   // of outputs: a recording of its own type stays whole
};

bool is_device(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::status(path, ignored);
  return std::filesystem::is_other(status);
}

// What is not there cannot be lost, and is for the reader to complain of.
void add_input(std::vector<named_place>& inputs, const std::string& name, const std::string& path,
               bool is_recording = false) {
  if (!path.empty() && file_exists(path)) {
    inputs.push_back({name, place_of_file(path), is_recording});
  }
}

std::vector<named_place> list_inputs(const batch_options& options) {
  std::vector<named_place> inputs;
  add_input(inputs, "the recording", options.recording, true);
  for (const std::string& path : files_of_recording(options.recording)) {
    if (path != options.recording) add_input(inputs, path + ", a file of the recording", path);
  }
  add_input(inputs, "the work file of --work", options.work);
  add_input(inputs, "the file of --config", options.config);
  add_input(inputs, "the file of --parameters", options.parameters);
  add_input(inputs, "the file of --replay", options.replay);
  if (!options.work.empty() && !options.replay.empty()) {
    add_input(inputs, "the history beside --work", curation_path(options.work));
    add_input(inputs, "the sort that the history begins with",
              curation_beginning_path(options.work));
  }
  if (!options.home.empty()) {
    for (const char* name : {"/kv_parameters.sav", "/kv_prefs.sav"}) {
      add_input(inputs, "the settings of --home", options.home + name);
    }
  }
  return inputs;
}

// Every file by itself, and not one for many: any of them may be somebody else's.
std::vector<named_place> name_outputs(const batch_options& options,
                                      const std::vector<planned_export>& exports) {
  std::vector<named_place> outputs;
  const auto add = [&outputs](const std::string& option, const std::string& path) {
    // Devices take what they are given, from several as well.
    if (!path.empty() && !is_device(path)) {
      outputs.push_back({option + " " + path, place_of_file(path)});
    }
  };
  add("the output", options.output);
  add("--mask-out", options.mask_out);
  add("--out", options.picture);
  if (!options.report_folder.empty()) add("--out", options.report_folder + "/report.html");
  add("--log", options.log);
  add("--save-work", options.save_work);
  if (!options.save_work.empty() && !options.replay.empty()) {
    add("the history beside --save-work:", curation_path(options.save_work));
    add("the history beside --save-work:", curation_beginning_path(options.save_work));
  }
  add("--report", options.report);
  add("the sort that --checkpoint and an interrupt keep,", partial_path(options, exports));
  for (const planned_export& planned : exports) {
    const std::string option = fmt::format("--export {}", planned.format->name);
    if (std::string_view(planned.format->name) == "txt") {
      for (std::int32_t c = 1; c <= cluster_limit; ++c) {
        add(option, unit_text_path(planned.path, c));
      }
      continue;
    }
    const std::size_t n_before = outputs.size();
    add(option, output_of(planned).whole);
    if (outputs.size() == n_before) continue;
    // Whether the recording is of that type is known when it is open; the ending tells it here.
    outputs.back().may_rewrite =
        planned.format->rewrites != file_type_unknown &&
        planned.format->rewrites == classify_extension(options.recording, true);
  }
  return outputs;
}

}  // namespace

std::string partial_path(const batch_options& options, const std::vector<planned_export>& exports) {
  const std::string& path =
      !options.save_work.empty() || exports.empty() ? options.save_work : exports.front().path;
  // A device has no place beside it.
  return path.empty() || is_device(path) ? "" : replace_extension(path, ".partial.wrk");
}

std::vector<planned_output> list_outputs(const batch_options& options,
                                         const std::vector<planned_export>& exports) {
  std::vector<planned_output> outputs;
  for (const std::string& path :
       {options.output, options.save_work, options.report, options.picture, options.mask_out}) {
    if (!path.empty()) outputs.push_back({path, path, false, false});
  }
  if (!options.report_folder.empty()) {
    outputs.push_back({options.report_folder, options.report_folder + "/report.html", true, true});
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

std::string find_clash(const batch_options& options, const std::vector<planned_export>& exports,
                       const std::vector<std::string>& beside_output) {
  const std::vector<named_place> inputs = list_inputs(options);
  std::map<file_place, std::string> written;
  std::vector<named_place> outputs = name_outputs(options, exports);
  for (const std::string& path : beside_output) {
    outputs.push_back({"the file beside the output " + path, place_of_file(path)});
  }
  for (const named_place& output : outputs) {
    for (const named_place& input : inputs) {
      if (input.place == output.place && !(input.is_recording && output.may_rewrite)) {
        return fmt::format("{}: this would replace {}", output.name, input.name);
      }
    }
    const auto [other, is_new] = written.emplace(output.place, output.name);
    if (!is_new) return fmt::format("{}: this is the same file as {}", output.name, other->second);
  }
  return {};
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
