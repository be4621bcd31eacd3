// The layers of docs/architecture.md against what the sources really include.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;

const fs::path root = KESTRELVANE_SOURCE_DIR;

std::vector<std::string> lines_of(const fs::path& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Rank of each folder, from the line "numerics < session < ...".
std::map<std::string, int> folder_ranks() {
  std::map<std::string, int> ranks;
  for (const std::string& line : lines_of(root / "docs/architecture.md")) {
    if (line.find("numerics < ") == std::string::npos) continue;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
      if (word != "<") ranks.emplace(word, static_cast<int>(ranks.size()));
    }
  }
  return ranks;
}

// "source -> header" for every row of the table of upward includes.
std::set<std::string> listed_edges() {
  const std::regex row(R"(^\| `(\w+/\w+\.cpp)` \| `(\w+/\w+\.h)` \| \S.*\|$)");
  std::set<std::string> edges;
  std::smatch found;
  for (const std::string& line : lines_of(root / "docs/architecture.md")) {
    if (std::regex_match(line, found, row)) edges.insert(found[1].str() + " -> " + found[2].str());
  }
  return edges;
}

struct upward_includes {
  std::set<std::string> of_headers, of_sources;
  int n_files = 0;
};

upward_includes find_upward_includes(const std::map<std::string, int>& ranks) {
  const std::regex include(R"re(^#include "(\w+)/(\w+\.h)")re");
  upward_includes found;
  std::smatch parts;
  for (const auto& entry : fs::recursive_directory_iterator(root / "src")) {
    const std::string extension = entry.path().extension();
    if (extension != ".h" && extension != ".cpp") continue;
    ++found.n_files;
    const std::string name = fs::relative(entry.path(), root / "src").generic_string();
    const int rank = ranks.at(name.substr(0, name.find('/')));
    for (const std::string& line : lines_of(entry.path())) {
      if (!std::regex_search(line, parts, include)) continue;
      const auto other = ranks.find(parts[1]);  // a library's folder has no rank
      if (other == ranks.end() || other->second <= rank) continue;
      auto& edges = extension == ".h" ? found.of_headers : found.of_sources;
      edges.insert(name + " -> " + parts[1].str() + "/" + parts[2].str());
    }
  }
  return found;
}

TEST(architecture, includes_run_downward_but_for_the_listed_ones) {
  const std::map<std::string, int> ranks = folder_ranks();
  ASSERT_EQ(ranks.size(), 12u);
  const upward_includes found = find_upward_includes(ranks);
  ASSERT_GT(found.n_files, 50);
  EXPECT_THAT(found.of_headers, testing::IsEmpty());
  EXPECT_EQ(found.of_sources, listed_edges());
}

}  // namespace
}  // namespace kestrelvane::test
