#include "batch/hdf_tree.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "files/input_file.h"
#include "recording/formats/hdf/hdf_walk.h"
#include "recording/recording_formats.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

using json = nlohmann::ordered_json;

bool is_container(const std::string& path) {
  const recording_format* format = find_recording_format(classify_extension(path));
  return format != nullptr && format->habits.is_container && file_exists(path);
}

bool list_tree(batch_session& batch, std::vector<hdf_entry>& entries) {
  hdf_file in;
  // The user may stop the look at a large file as well.
  const std::atomic<bool>* interrupt = &batch.session->operation.reading_interrupted;
  if (open_hdf_file(in, batch.options.recording, interrupt) != hdf_error::none || !in.file.ok()) {
    fail_batch(batch, fmt::format("{} cannot be opened: {}", batch.options.recording, in.problem));
    return false;
  }
  entries = list_hdf_tree(in);
  return true;
}

std::vector<std::string> places_of_data(const std::vector<hdf_entry>& entries, bool ready) {
  std::vector<std::string> places;
  for (const hdf_entry& entry : entries) {
    if (ready ? entry.ready : entry.may_be_data) places.push_back(entry.place);
  }
  return places;
}

std::string hint_for(const std::vector<hdf_entry>& entries) {
  const std::vector<std::string> ready = places_of_data(entries, true);
  if (ready.size() == 1) {
    return fmt::format("{} is taken when nothing else is named", ready.front());
  }
  if (ready.size() > 1) return "choose a dataset of voltages with --hdf-path PLACE";
  if (places_of_data(entries, false).empty()) return "no dataset of this file can hold voltages";
  return "choose a dataset with --hdf-path PLACE, and give --rate HZ and --scale UV where the "
         "file does not";
}

json describe_entry(const hdf_entry& entry) {
  json told = {{"place", entry.place}, {"type", entry.type}};
  if (!entry.leads_to.empty()) told["leads_to"] = entry.leads_to;
  if (!entry.dimensions.empty()) told["dimensions"] = entry.dimensions;
  if (!entry.may_be_data) return told;
  told["may_be_data"] = true;
  told["ready"] = entry.ready;
  // A rate that is not known is told as null.
  told["rate_hz"] = entry.rate.empty() ? json() : json(std::stod(entry.rate));
  told["uv_per_bit"] = entry.scale.empty() ? json() : json(std::stod(entry.scale));
  return told;
}

std::string tree_as_json(const batch_session& batch, const std::vector<hdf_entry>& entries) {
  json tree = json::array();
  for (const hdf_entry& entry : entries) tree.push_back(describe_entry(entry));
  const json all = {{"path", batch.options.recording}, {"tree", tree}, {"hint", hint_for(entries)}};
  // Names of a file need not be valid UTF-8; what is not is replaced rather than refused.
  return all.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

// Names come from a file: nothing in them may move the cursor.
std::string printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 127) c = '?';
  }
  return text;
}

std::string tree_as_text(const std::vector<hdf_entry>& entries) {
  std::size_t width = 5;
  for (const hdf_entry& entry : entries) width = std::max(width, entry.place.size());
  // Longer places are shown whole and push the columns of their line.
  width = std::min<std::size_t>(width, 70);
  std::string text = fmt::format("{:<{}} {:<11} {:<14} {:>9} {:>10}\n", "place", width, "type",
                                 "dimensions", "rate/Hz", "µV per bit");
  for (const hdf_entry& entry : entries) {
    std::string line = fmt::format("{:<{}} {:<11} {:<14} {:>9} {:>10}", printable(entry.place),
                                   width, entry.type, entry.dimensions, entry.rate, entry.scale);
    if (!entry.leads_to.empty()) line += "-> " + printable(entry.leads_to);
    // Where one of the two is known, the columns say enough.
    if (entry.may_be_data && entry.rate.empty() && entry.scale.empty()) line += "may be voltages";
    line.resize(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text + "\n" + hint_for(entries) + "\n";
}

}  // namespace

bool wants_hdf_tree(const batch_session& batch) {
  // With a place given there is nothing to look for.
  return batch.options.hdf_path.empty() && is_container(batch.options.recording);
}

batch_status print_hdf_tree(batch_session& batch) {
  std::vector<hdf_entry> entries;
  if (!list_tree(batch, entries)) return batch_status::failed;
  return print_result(batch,
                      batch.options.json ? tree_as_json(batch, entries) : tree_as_text(entries));
}

bool settle_hdf_path(batch_session& batch) {
  if (!wants_hdf_tree(batch)) return true;
  std::vector<hdf_entry> entries;
  if (!list_tree(batch, entries)) return false;
  const std::vector<std::string> ready = places_of_data(entries, true);
  // With several the choice is the user's.
  if (ready.size() != 1) {
    fail_batch(batch, fmt::format("{}: {}; \"info\" lists what is in it", batch.options.recording,
                                  hint_for(entries)));
    return false;
  }
  // As if the user had named it: the reader is told the same way.
  batch.console.hdf_path = ready.front();
  log_message(*batch.session, "Taking the one dataset of voltages, " + ready.front());
  return true;
}

}  // namespace kestrelvane
