// The layers of docs/architecture.md against what the sources really include.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
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

// The words between backquotes of a line.
std::vector<std::string> quoted_words(const std::string& line) {
  std::vector<std::string> words;
  std::size_t at = 0;
  for (std::size_t end; (at = line.find('`', at)) != std::string::npos; at = end + 1) {
    end = line.find('`', at + 1);
    if (end == std::string::npos) break;
    words.push_back(line.substr(at + 1, end - at - 1));
  }
  return words;
}

// "source -> header" for every row "| `source` | `header` | reason |" of the table of
// upward includes.
std::set<std::string> listed_edges() {
  std::set<std::string> edges;
  for (const std::string& line : lines_of(root / "docs/architecture.md")) {
    const std::vector<std::string> words = quoted_words(line);
    if (!line.starts_with("| `") || words.size() != 2) continue;
    if (words[0].ends_with(".cpp") && words[1].ends_with(".h")) {
      edges.insert(words[0] + " -> " + words[1]);
    }
  }
  return edges;
}

struct upward_includes {
  std::set<std::string> of_headers, of_sources;
  int n_files = 0;
};

// The header that a line includes from a folder of ours, as "folder/name.h", or "".
std::string included_header(const std::string& line, const std::map<std::string, int>& ranks) {
  constexpr const char* start = "#include \"";
  if (!line.starts_with(start)) return {};
  const std::string header = line.substr(10, line.find('"', 10) - 10);
  return ranks.contains(header.substr(0, header.find('/'))) ? header : std::string{};
}

upward_includes find_upward_includes(const std::map<std::string, int>& ranks) {
  const auto rank_of = [&](const std::string& name) {
    return ranks.at(name.substr(0, name.find('/')));
  };
  upward_includes found;
  for (const auto& entry : fs::recursive_directory_iterator(root / "src")) {
    const std::string extension = entry.path().extension();
    if (extension != ".h" && extension != ".cpp") continue;
    ++found.n_files;
    const std::string name = fs::relative(entry.path(), root / "src").generic_string();
    for (const std::string& line : lines_of(entry.path())) {
      const std::string header = included_header(line, ranks);
      if (header.empty() || rank_of(header) <= rank_of(name)) continue;
      (extension == ".h" ? found.of_headers : found.of_sources).insert(name + " -> " + header);
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
