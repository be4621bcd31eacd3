// Writes the seeds of the fuzzers: make_seeds FOLDER, one folder per target in it.
#include <cstdio>
#include <filesystem>
#include <string>

#include "session/settings_files.h"
#include "support/fixture_files.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

using namespace kestrelvane;
using namespace kestrelvane::test;

namespace {

std::vector<char> text(const std::string& s) { return {s.begin(), s.end()}; }

void put(const std::string& folder, const std::string& name, const std::vector<char>& bytes) {
  std::filesystem::create_directories(folder);
  test::write_bytes(folder + "/" + name, bytes);
}

void make_tsf_seeds(const std::string& folder) {
  for (std::int32_t format = 1000; format <= 1003; ++format) {
    tsf_fixture f;
    f.format = format;
    f.n_channels = format == 1000 ? 1 : 3;  // its channels are whole blocks
    f.n_samples = 40;
    f.events = {{5, 1, 1}, {6, 2, 1}, {30, 1, 1}};
    put(folder, "format_" + std::to_string(format), tsf_bytes(f));
  }
  tsf_fixture sleep;
  sleep.n_samples = 8;
  sleep.tail = {45};
  put(folder, "sleep", tsf_bytes(sleep));
  tsf_fixture wide;  // the spike window reaches far in front of the first sample
  wide.sampling_frequency = 1'000'000;
  wide.events = {{1, 1, 1}};
  put(folder, "wide_window", tsf_bytes(wide));
}

void make_settings_seeds(const std::string& folder) {
  temporary_directory home;
  small_session session;
  session->home_directory = home.path;
  write_parameters(*session);
  write_preferences(*session);
  for (const auto& [which, name] : {std::pair<char, const char*>{0, "kv_parameters.sav"},
                                    std::pair<char, const char*>{1, "kv_prefs.sav"}}) {
    std::vector<char> bytes = read_bytes(home.file(name));
    bytes.insert(bytes.begin(), which);
    put(folder, name, bytes);
  }
}

void make_work_file_seeds(const std::string& folder) {
  for (std::int32_t version = 4; version <= 8; ++version) {
    work_file_content content;
    content.version = version;
    put(folder, "version_" + std::to_string(version), make_work_file(content).bytes);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  make_tsf_seeds(folder + "/tsf");
  make_settings_seeds(folder + "/settings");
  make_work_file_seeds(folder + "/work_file");
  put(folder + "/config", "two_columns", text("Probe\n1 2 -28, 0\n2,1,28,65\n\n0 3 0 130\n"));
  put(folder + "/config", "twice", text("Probe\r\n1 1 0 0\r\n2 1 1e2 -5.5\r\n"));
  put(folder + "/mask", "three", text("     1F\n     2T\n     3F\n"));
  put(folder + "/mask", "odd", text("     1T\r\n2\n\n   4t\n"));
  return 0;
}
