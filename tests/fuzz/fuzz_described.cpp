// Descriptions in text of raw files: the first byte says whether the rest is a SpikeGLX
// ".meta", a Neuroscope ".xml" or the structure file of Open Ephys. The raw samples are
// always the same 60,000 bytes.
#include <filesystem>
#include <vector>

#include "fuzz_session.h"

using namespace kestrelvane;

namespace {

void write_samples(const std::string& name) {
  static const std::vector<std::uint8_t> samples(60'000, 7);
  fuzz::write_input(fuzz::scratch_path(name), samples.data(), samples.size());
}

void write_all_samples() {
  const std::string stream = fuzz::scratch_path("continuous/a");
  std::filesystem::create_directories(stream);
  for (const char* name : {"input.bin", "input.dat", "continuous/a/continuous.dat"}) {
    write_samples(name);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  static const bool ready = (write_all_samples(), true);
  if (!ready || n == 0) return 0;
  struct form {
    const char *described, *opened;
  };
  constexpr form forms[] = {{"input.meta", "input.bin"},
                            {"input.xml", "input.xml"},
                            {"structure.oebin", "structure.oebin"}};
  const form& which = forms[bytes[0] % 3];
  fuzz::write_input(fuzz::scratch_path(which.described), bytes + 1, n - 1);
  fuzz::open_soundly(fuzz::the_session(), fuzz::scratch_path(which.opened));
  return 0;
}
