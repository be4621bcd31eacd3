// Reading of HDF5 datasets against the library's own read of them into one block.
#pragma once

namespace kestrelvane::test {

void benchmark_hdf();

}  // namespace kestrelvane::test
