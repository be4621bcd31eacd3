// The ".npy" array file: a short text header, then the elements.
//
// Open Ephys recordings keep their sample numbers in it, and the folder that curation
// tools read consists of little else. Versions 1 and 2 are read, version 1 is written;
// little-endian, 64-byte aligned data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/input_file.h"

namespace kestrelvane {

struct npy_header {
  std::string type;                 // as in the header: "<i8" is a 64-bit integer
  bool column_order = false;        // first index fastest
  std::vector<std::int64_t> shape;  // elements along each index
  std::int64_t data_at = 0;         // offset of the first element
};

// False when the file does not begin with such a header or is shorter than it says.
bool read_npy_header(const input_file& file, npy_header& header);

// The header of an array in row order, whole, ready to be followed by the elements.
std::string npy_header_text(const std::string& type, const std::vector<std::int64_t>& shape);

}  // namespace kestrelvane
