#include "batch/verbs.h"
#include "numerics/parallel.h"

int main(int argc, char** argv) {
  kestrelvane::flush_denormals();
  return kestrelvane::run_batch_command(argc, argv);
}
