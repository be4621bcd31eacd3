// The samples of an HDF5 dataset, brought into vd.
//
// A dataset of two dimensions holds channels by samples, each channel one contiguous run,
// or samples by channels, all channels of a time point side by side; the larger dimension
// is that of the samples. The library is called by one thread, tile by tile; converting and
// spreading a tile is shared out over the threads.
#pragma once

#include <cstdint>

#include "recording/formats/hdf/hdf_walk.h"

namespace kestrelvane {

// How a dataset lies in its file.
struct hdf_layout {
  int rank = 0;
  std::uint64_t rows = 0, columns = 0;  // first and second dimension
  std::uint64_t chunk_rows = 1, chunk_columns = 1;
  const char* words = "";  // "contiguous layout" and so on
  bool channels_first = false;
  std::int64_t n_channels = 0, n_samples = 0;
};

// False when the library does not tell.
bool describe_hdf_layout(hid_t dataset, hdf_layout& layout);

// Whether the file, and what it draws in, can hold so many samples: a few bytes must not
// make the program take gigabytes. words says why not.
bool hdf_file_holds_samples(hdf_file& in, hid_t dataset, const hdf_layout& layout,
                            std::string& words);

// How stored values become bits: value x gain + shift, by channel of the file from 0.
struct hdf_conversion {
  enum class values { bits, integers, singles, doubles };
  values read_as = values::bits;  // what the library is asked for; bits: 16-bit integers
  bool changes = false;           // gain or shift of some channel is not 1 or 0
  std::vector<double> gain, shift;
};

// Logs what is going to be done to the values. False, after the log line, for a type that
// is no number of a known size.
bool plan_hdf_conversion(const session_state& session, hid_t dataset,
                         const hdf_selection& selection, const hdf_layout& layout,
                         hdf_conversion& plan);

struct hdf_read_result {
  std::string problem;         // of the library, when it is not finished
  bool finished = false;       // every tile has been read
  std::int64_t n_limited = 0;  // samples that did not fit 16 bits
  double read_seconds = 0, spread_seconds = 0;
};

// Reads all samples into vd, which must have room, under the channels that the
// configuration in use gives them. The bar goes from bar_from to 95. Stops at an error of
// the library or when the user interrupts.
hdf_read_result read_hdf_samples(session_state& session, hid_t dataset, const hdf_layout& layout,
                                 const hdf_conversion& plan, std::int32_t bar_from);

}  // namespace kestrelvane
