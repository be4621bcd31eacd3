// Entry of every test program: denormals flushed as in the product.
#include <gtest/gtest.h>

#include "numerics/parallel.h"
#include "recording/formats/hdf/hdf_probe.h"

int main(int argc, char** argv) {
  int status = 0;
  if (kestrelvane::run_as_hdf_probe(argc, argv, status)) return status;
  kestrelvane::flush_denormals();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
