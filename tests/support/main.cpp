// Entry of every test program: denormals flushed as in the product.
#include <gtest/gtest.h>

#include "numerics/parallel.h"

int main(int argc, char** argv) {
  kestrelvane::flush_denormals();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
