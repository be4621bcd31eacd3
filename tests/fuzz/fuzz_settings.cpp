// Reading either settings file; what is written then reads back the same.
#include <fstream>
#include <iterator>

#include "fuzz_session.h"
#include "session/settings_files.h"
#include "session/settings_table.h"

using namespace kestrelvane;

namespace {

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

// The first byte says which of the two files the rest is.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  if (n == 0) return 0;
  session_state& session = fuzz::the_session();
  const bool parameters = bytes[0] % 2 == 0;
  const std::string path = fuzz::scratch_path(parameters ? "kv_parameters.sav" : "kv_prefs.sav");
  session.home_directory = path.substr(0, path.find_last_of('/'));
  set_default_preferences(session);
  set_default_parameters(session);
  set_default_strategy(session);
  set_display_defaults(session);
  const auto read = parameters ? read_parameters : read_preferences;
  const auto write = parameters ? write_parameters : write_preferences;

  fuzz::write_input(path, bytes + 1, n - 1);
  fuzz::require(read(session) && write(session), "a settings file is lost");
  const std::string written = contents(path);
  fuzz::require(written.size() == (parameters ? parameters_file_bytes : preferences_file_bytes),
                "a settings file of another size");
  fuzz::require(read(session) && write(session), "a settings file is lost");
  fuzz::require(contents(path) == written, "settings change between writing and reading");
  fuzz::require(session.tables.depth >= 1 && session.tables.width >= 1 &&
                    session.tables.depth * session.tables.width <= 1000,
                "the interpolation table is too small");
  return 0;
}
