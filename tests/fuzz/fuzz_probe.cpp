// Positions from files of other tools: the first byte says which kind.
#include <vector>

#include "fuzz_session.h"
#include "recording/probe_files.h"

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t n) {
  if (n == 0) return 0;
  const std::string path = fuzz::scratch_path(bytes[0] % 2 == 0 ? "input.json" : "input.prb");
  fuzz::write_input(path, bytes + 1, n - 1);
  std::vector<wired_contact> contacts;
  std::string problem;
  const bool good = read_probe_file(path, contacts, problem);
  fuzz::require(good == problem.empty(), "a problem without words");
  fuzz::require(good != contacts.empty(), "contacts of a file that was refused");
  std::int32_t last = 0;
  for (const wired_contact& contact : contacts) {
    fuzz::require(contact.file_channel > last && contact.file_channel <= channel_limit,
                  "channels out of order");
    last = contact.file_channel;
  }
  return 0;
}
