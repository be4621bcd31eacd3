// What stands in an HDF5 file about the rate and the scale of a dataset of voltages.
//
// Two conventions are known. Files of Multi Channel Systems have a compound dataset
// "InfoChannel" beside the voltages, a row per channel: value in volts is (stored value -
// ADZero) x ConversionFactor x 10^Exponent, and Tick is the sample interval in µs. Files of
// Neurodata Without Borders have attributes on the voltages and datasets beside them:
// volts are value x conversion x channel_conversion + offset, and starting_time carries the
// rate.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recording/formats/hdf/hdf_file.h"

namespace kestrelvane {

struct hdf_scaling {
  // --- what the two edits of the dialog are filled with
  bool has_rate = false, has_scale = false;
  double rate = 0;   // Hz
  double scale = 0;  // µV per bit

  // --- InfoChannel
  std::string info_channel;     // its place; empty: there is none
  bool variable_gains = false;  // a row among the first 252 has another scale than the first
  std::vector<double> ad_zero;  // by row of the voltages, from 0; empty: all are 0

  // --- attributes of the voltages
  bool has_conversion = false;             // conversion is given, or the unit is said to be volts
  double conversion = 1;                   // volts per stored value
  double offset = 0;                       // volts
  std::vector<double> channel_conversion;  // by channel from 0; empty: all are 1

  // µV that one stored value means; 0 when the file does not say.
  double uv_per_value = 0;
};

// For a dataset, or for the group that holds one.
hdf_scaling find_hdf_scaling(hdf_file& in, const std::string& place);

// The texts that stand for them in the edits.
std::string hdf_rate_text(const hdf_scaling& scaling);
std::string hdf_scale_text(const hdf_scaling& scaling);

}  // namespace kestrelvane
