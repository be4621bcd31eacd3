#include "recording/recording_formats.h"

#include <algorithm>
#include <cctype>

#include "recording/tsf.h"

namespace kestrelvane {

namespace {

constexpr const char* open_title = "Open a recording file";

// clang-format off
constexpr recording_format formats[] = {
    // code, extensions, filter label, banner, reader, failure text, failure title, configuration
    {file_type_srf, ".srf", "Surf files(*.SRF)",
     "Reading SURF data file", nullptr, "", "", false},
    {file_type_ntt, ".ntt", "Neuralynx single tetrode(*.NTT)",
     "Reading tetrode data file (.ntt)", nullptr, "Error reading .ntt file", open_title, false},
    {file_type_ncs, ".ncs", "Neuralynx (*.NCS)",
     "Reading Neuralynx continuous recording data file (.ncs)", nullptr,
     "Error reading .ncs file", open_title, false},
    {file_type_prf, ".prf", "PRF files(*.PRF)",
     "Reading Polytrode Recording Format file (.prf)", nullptr, "", "", false},
    {file_type_plx, ".plx", "Plexon (*.PLX)",
     "Reading Plexon data file (.plx)", nullptr, "", "", false},
    {file_type_xml, ".xml", "Neuroscope (*.XML)",
     "Reading Neuroscope data file (.dat/.xml)", nullptr,
     "Error reading xml data file", "Unrecognised file format or missing .dat file", true},
    {file_type_tsf, ".tsf", "TSF format (*.TSF)",
     "", read_tsf, "Error reading tsf data file", "Possibly not enough memory", false},
    {file_type_mcd, ".mcd", "Multi Channel Systems (*.MCD)",
     "Reading Multi Channel Systems data file (.mcd)", nullptr, "", "", true},
    {file_type_nev, ".nev", "Blackrock(*.NEV)",
     "Opening Blackrock Microsystems NEV file (Utah array)", nullptr,
     "Error reading .nev file", open_title, true},
    {file_type_rhd, ".rhd", "INTAN(*.RHD)",
     "Reading INTAN RHD2000 data file (.rhd)", nullptr, "", "", false},
    {file_type_nsx, ".ns#", "Blackrock extended(*.NSx)",
     "Opening Blackrock Microsystems Extended .NSx file", nullptr,
     "Error reading .nsx file", open_title, true},
    {file_type_bin, ".bin", "Neuropixels SpikeGLX (*.BIN)",
     "Reading IMEC Neuropixels data file (.bin)", nullptr, "", "", false},
    {file_type_hdf5, ".hdf5 .h5", "Multi Channel Systems HDF5",
     "Reading MCS HDF data file (beta)", nullptr, "", "", true},
    {file_type_nwb, ".nwb", "Neurodata Without Borders (*.NWB)",
     "Reading NWB data file (beta)", nullptr, "", "", false},
    {file_type_pl2, ".pl2", "Plexon PL2 (*.PL2)",
     "", nullptr, "", "Read Plexon .PL2 file", false},
};
// clang-format on

enum class letter_case { lower, upper, any };

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool matches(char c, char pattern, letter_case which) {
  if (pattern == '#') return c >= '1' && c <= '9';
  if (which == letter_case::lower) return c == pattern;
  if (which == letter_case::any) return lower(c) == pattern;
  return lower(c) == pattern && !std::islower(static_cast<unsigned char>(c));
}

bool ends_with(std::string_view path, std::string_view extension, letter_case which) {
  if (path.size() < extension.size()) return false;
  path.remove_prefix(path.size() - extension.size());
  for (std::size_t i = 0; i < extension.size(); ++i) {
    if (!matches(path[i], extension[i], which)) return false;
  }
  return true;
}

bool has_extension(std::string_view path, std::string_view extensions, bool any_case) {
  while (!extensions.empty()) {
    const std::size_t end = std::min(extensions.find(' '), extensions.size());
    const std::string_view extension = extensions.substr(0, end);
    if (any_case ? ends_with(path, extension, letter_case::any)
                 : ends_with(path, extension, letter_case::lower) ||
                       ends_with(path, extension, letter_case::upper)) {
      return true;
    }
    extensions.remove_prefix(std::min(end + 1, extensions.size()));
  }
  return false;
}

}  // namespace

std::span<const recording_format> recording_formats() { return formats; }

const recording_format* find_recording_format(std::int32_t code) {
  for (const recording_format& format : formats) {
    if (format.code == code) return &format;
  }
  return nullptr;
}

std::int32_t classify_extension(std::string_view path, bool any_case) {
  for (const recording_format& format : formats) {
    if (has_extension(path, format.extensions, any_case)) return format.code;
  }
  return file_type_unknown;
}

}  // namespace kestrelvane
