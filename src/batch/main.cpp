#include "batch/verbs.h"
#include "numerics/parallel.h"
#include "recording/formats/hdf/hdf_probe.h"

int main(int argc, char** argv) {
  int status = 0;
  if (kestrelvane::run_as_hdf_probe(argc, argv, status)) return status;
  kestrelvane::flush_denormals();
  return kestrelvane::run_batch_command(argc, argv);
}
