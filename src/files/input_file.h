// A file opened for reading at any place, from any thread.
//
// Only ordinary files open; a folder or a device does not. The size is the size when
// it was opened; what a reader allocates or loops over is tested against it first.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane {

struct input_file {
  int descriptor = -1;
  std::int64_t size = 0;  // bytes
  std::string problem;    // why it did not open, in the system's words

  input_file() = default;
  input_file(const input_file&) = delete;
  input_file& operator=(const input_file&) = delete;
  ~input_file();
};

// False when the path is no readable ordinary file; problem says why.
bool open_input_file(input_file& in, const std::string& path);

// Exactly count bytes from offset on. False at the end of the file or on an error.
bool read_at(const input_file& in, std::int64_t offset, void* to, std::int64_t count);

// The bytes from offset to the end of the file, at most count.
std::vector<char> read_block(const input_file& in, std::int64_t offset, std::int64_t count);

// Tells the system that the file will be read from front to back.
void expect_sequential_reading(const input_file& in);

// path with its extension, if it has one, replaced; extension with its dot.
std::string replace_extension(const std::string& path, const std::string& extension);
// The name without folders, and the folder with its last slash ("" for none).
std::string file_name_of(const std::string& path);
std::string folder_of(const std::string& path);
bool file_exists(const std::string& path);

}  // namespace kestrelvane
