// Attributes, types and first values of an HDF5 file as texts for a user, each with the
// words for what cannot be shown. Long values are cut. Never fails: what the library does
// not give reads as one of those words.
#pragma once

#include <hdf5.h>

#include <string>
#include <vector>

#include "recording/formats/hdf/hdf_file.h"
#include "session/hdf_page.h"

namespace kestrelvane {

std::string describe_hdf_attribute(hid_t attribute);
// All attributes of an object in the order of their names; more than some hundred are cut
// off.
std::vector<hdf_attribute> list_hdf_attributes(hid_t object);

// As "i32", "u8", "f64", "text", "compound"; "unidentified class" for what is none.
std::string name_hdf_type(hid_t type);
// As "8 x 9850"; "scalar" and "empty".
std::string describe_hdf_dimensions(hid_t space);
// Whether a few values can be read without unpacking a large part of the file.
bool cheap_to_look_at(hid_t dataset);
// The first values of a dataset, rows on lines of their own.
std::string describe_hdf_values(hid_t dataset);

}  // namespace kestrelvane
