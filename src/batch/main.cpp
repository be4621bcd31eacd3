#include "batch/verbs.h"
#include "files/standard_streams.h"
#include "numerics/parallel.h"
#include "recording/formats/hdf/hdf_probe.h"

int main(int argc, char** argv) {
  int status = 0;
  kestrelvane::secure_standard_streams();
  // Before anything else: a child process that only looks at a file must not start the rest.
  if (kestrelvane::run_as_hdf_probe(argc, argv, status)) return status;
  // The threads of the pool do the same, so that results are alike on every one.
  kestrelvane::flush_denormals();
  return kestrelvane::run_batch_command(argc, argv);
}
