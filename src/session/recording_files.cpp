#include "session/recording_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string_view>

#include "files/file_place.h"
#include "files/input_file.h"

namespace kestrelvane {

namespace {

namespace fs = std::filesystem;

// What lies beside a file of some ending, all of them in lower case.
struct companion_row {
  std::string_view of;         // endings, separated by blanks
  std::string_view same_stem;  // endings that follow the recording's own name
  std::string_view in_folder;  // endings of any file of its folder
};

constexpr companion_row companion_rows[] = {
    {".xml .dat", ".xml .dat", ""},
    {".bin .meta", ".bin .meta", ""},
    {".nev .ns1 .ns2 .ns3 .ns4 .ns5 .ns6 .ns7 .ns8 .ns9",
     ".nev .ns1 .ns2 .ns3 .ns4 .ns5 .ns6 .ns7 .ns8 .ns9", ""},
    {".ncs", "", ".ncs"},
    {".rhd", "", ".dat"},
};
constexpr std::string_view placing_endings = ".cfg .prb .msk";
constexpr std::string_view placing_names[] = {"electrode.cfg", "electrode.prb", "electrode.json",
                                              "geometry.txt"};

std::string in_lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool is_listed(std::string_view list, const std::string& ending) {
  // Between blanks, so that ".ns" is not found in ".ns1".
  return !ending.empty() &&
         fmt::format(" {} ", list).find(fmt::format(" {} ", ending)) != std::string::npos;
}

bool goes_with(const fs::path& recording, const fs::path& other) {
  const std::string of = in_lower_case(recording.extension().string());
  const std::string ending = in_lower_case(other.extension().string());
  const bool same_stem = recording.stem() == other.stem();
  if (same_stem && is_listed(placing_endings, ending)) return true;
  const std::string name = other.filename().string();
  if (std::find(std::begin(placing_names), std::end(placing_names), name) !=
      std::end(placing_names)) {
    return true;
  }
  return std::any_of(std::begin(companion_rows), std::end(companion_rows), [&](const auto& row) {
    return is_listed(row.of, of) &&
           (is_listed(row.in_folder, ending) || (same_stem && is_listed(row.same_stem, ending)));
  });
}

template <typename Iterator, typename Wanted>
void list_files(const std::string& folder, std::vector<std::string>& files, Wanted&& wanted) {
  std::error_code failure;
  Iterator entry(folder.empty() ? "." : folder, fs::directory_options::skip_permission_denied,
                 failure);
  for (; !failure && entry != Iterator(); entry.increment(failure)) {
    std::error_code ignored;
    if (entry->is_regular_file(ignored) && wanted(entry->path())) files.push_back(entry->path());
  }
}

}  // namespace

std::vector<std::string> files_of_recording(const std::string& path) {
  std::vector<std::string> files;
  if (!file_exists(path)) return files;
  files.push_back(path);
  list_files<fs::directory_iterator>(folder_of(path), files,
                                     [&](const fs::path& other) { return goes_with(path, other); });
  // Its streams lie in folders below the description.
  if (in_lower_case(fs::path(path).extension().string()) == ".oebin") {
    for (const char* below : {"continuous", "events", "spikes"}) {
      list_files<fs::recursive_directory_iterator>(folder_of(path) + below, files,
                                                   [](const fs::path&) { return true; });
    }
  }
  return files;
}

bool is_file_of_recording(const session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  // Only what exists can be lost.
  if (r.n_samples == 0 || !file_exists(path)) return false;
  const file_place place = place_of_file(path);
  std::vector<std::string> files = files_of_recording(r.recording_path);
  if (!r.no_config_file) files.push_back(r.config_path);
  return std::any_of(files.begin(), files.end(),
                     [&](const std::string& file) { return place_of_file(file) == place; });
}

}  // namespace kestrelvane
