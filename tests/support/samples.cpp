#include "support/samples.h"

#include <cstdlib>
#include <filesystem>

namespace kestrelvane::test {

std::string sample_path(const std::string& relative) {
  const char* named = std::getenv("KESTRELVANE_SAMPLES");
  const std::filesystem::path folder =
      named != nullptr
          ? std::filesystem::path(named)
          : std::filesystem::path(KESTRELVANE_SOURCE_DIR) / ".." / "shared" / "samples";
  const std::filesystem::path path = folder / relative;
  std::error_code ignored;
  return std::filesystem::exists(path, ignored) ? path.lexically_normal().string() : std::string();
}

}  // namespace kestrelvane::test
