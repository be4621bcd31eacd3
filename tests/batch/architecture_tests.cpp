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

struct upward_includes {
  std::set<std::string> edges;  // "source -> header"
  std::set<std::string> folders;
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
    found.folders.insert(name.substr(0, name.find('/')));
    for (const std::string& line : lines_of(entry.path())) {
      const std::string header = included_header(line, ranks);
      if (header.empty() || rank_of(header) <= rank_of(name)) continue;
      found.edges.insert(name + " -> " + header);
    }
  }
  return found;
}

TEST(architecture, no_source_and_no_header_includes_upward) {
  const std::map<std::string, int> ranks = folder_ranks();
  ASSERT_GT(ranks.size(), 10u);
  const upward_includes found = find_upward_includes(ranks);
  ASSERT_GT(found.n_files, 50);
  EXPECT_THAT(found.edges, testing::IsEmpty());
  // A folder that the order leaves out would escape the test.
  for (const std::string& folder : found.folders) EXPECT_TRUE(ranks.contains(folder)) << folder;
}

TEST(architecture, the_libraries_need_no_group) {
  for (const std::string& line : lines_of(root / "src/CMakeLists.txt")) {
    EXPECT_EQ(line.find("-group"), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace kestrelvane::test
