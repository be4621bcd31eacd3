// Recordings of the families, with truth.
//
// Written are the files of planted_files.h, with the SNR of each unit: its mean height over
// the noise of its best channel, of which disturbances are no part. Family, seed and length
// give the same bytes on every machine and at any number of threads.
#pragma once

#include <string>

#include "synthesis/families.h"
#include "synthesis/planted_files.h"

namespace kestrelvane {

// A line to each family: its name and what it is.
std::string family_list();

// False when the length does not do or a file cannot be written, with the words in problem;
// files already finished stay.
bool make_family_recording(const family_options& options, std::int64_t seed, std::int32_t n_threads,
                           const std::string& path, const making_progress& progress,
                           std::string& problem);

}  // namespace kestrelvane
