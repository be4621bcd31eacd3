// A first look at an HDF5 file by a process of its own.
//
// The HDF5 library trusts much of what a file says, and a damaged or hostile file can make
// it write where it must not, or go round in circles. So before the session's process opens
// a file, a child with limits on time and memory walks all that a user could see of it,
// down to the index of every dataset. A file that the child does not survive is not opened.
//
// The child is this same program, started anew with an argument of its own; whoever has a
// main() gives that argument a chance with run_as_hdf_probe. A program that does not has no
// such protection.
#pragma once

#include <atomic>
#include <string>

namespace kestrelvane {

// For the first line of main(): true when the program was started as a probe; it has then
// done its work, and main returns status.
bool run_as_hdf_probe(int argc, char** argv, int& status);

// All that the probe looks at, in this process. Returns whether it took no more memory than the
// structure of any file needs.
bool look_at_hdf_file(const std::string& path);

enum class hdf_probe_outcome {
  survived,     // or there is no way to try
  died,         // the library crashed, or used more memory or time than any file needs
  interrupted,  // given up because the flag was raised
};

// Sends a probe to the file and waits for it. May be called on any thread.
hdf_probe_outcome probe_hdf_file(const std::string& path, const std::atomic<bool>* interrupt);

}  // namespace kestrelvane
