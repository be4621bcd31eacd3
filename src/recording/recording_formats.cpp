#include "recording/recording_formats.h"

#include <algorithm>
#include <cctype>

#include "files/input_file.h"
#include "recording/formats/blackrock/nev.h"
#include "recording/formats/blackrock/nsx.h"
#include "recording/formats/hdf/hdf_recording.h"
#include "recording/formats/intan/rhd.h"
#include "recording/formats/neuralynx/neuralynx.h"
#include "recording/formats/neuroscope.h"
#include "recording/formats/neuroshare.h"
#include "recording/formats/open_ephys.h"
#include "recording/formats/plexon/plx.h"
#include "recording/formats/spikeglx/spikeglx.h"
#include "recording/formats/surf/prf.h"
#include "recording/formats/surf/surf.h"
#include "recording/formats/tsf.h"

namespace kestrelvane {

namespace {

constexpr const char* open_title = "Open a recording file";

// clang-format off
constexpr recording_format formats[] = {
    // code, extensions, filter label, banner, reader, failure text, failure title, configuration,
    // source path, habits, beginning
    {file_type_srf, ".srf", "Surf files(*.SRF)",
     "Reading SURF data file", read_srf, "", "", config_use::none},
    {file_type_ntt, ".ntt", "Neuralynx single tetrode(*.NTT)",
     "Reading tetrode data file (.ntt)", read_ntt, "Error reading .ntt file", open_title, config_use::none,
     nullptr, {.one_tetrode = true}, {16384}},
    {file_type_ncs, ".ncs", "Neuralynx (*.NCS)",
     "Reading Neuralynx continuous recording data file (.ncs)", read_ncs,
     "Error reading .ncs file", open_title, config_use::none,
     nullptr, {}, {16384}},
    {file_type_prf, ".prf", "PRF files(*.PRF)",
     "Reading Polytrode Recording Format file (.prf)", read_prf, "", "", config_use::none,
     &recording_store::srf_path, {}, {1, {"Polytrode Data"}}},
    {file_type_plx, ".plx", "Plexon (*.PLX)",
     "Reading Plexon data file (.plx)", read_plx, "", "", config_use::none,
     &recording_store::plx_path, {}, {256, {"PLEX"}}},
    {file_type_xml, ".xml", "Neuroscope (*.XML)",
     "Reading Neuroscope data file (.dat/.xml)", read_xml_recording,
     "Error reading xml data file", "Unrecognised file format or missing .dat file", config_use::asked,
     &recording_store::xml_path},
    {file_type_tsf, ".tsf", "TSF format (*.TSF)",
     "", read_tsf, "Error reading tsf data file", "Possibly not enough memory", config_use::none,
     nullptr, {.announces_templates = true, .reads_mask_file = false}, {24, {"Test spike file "}}},
    {file_type_mcd, ".mcd", "Multi Channel Systems (*.MCD)",
     "Reading Multi Channel Systems data file (.mcd)", read_mcd, "", "", config_use::offered},
    {file_type_nev, ".nev", "Blackrock(*.NEV)",
     "Opening Blackrock Microsystems NEV file (Utah array)", read_nev,
     "Error reading .nev file", open_title, config_use::asked,
     nullptr, {}, {8, {"NEURALEV", "BREVENTS"}}},
    {file_type_rhd, ".rhd", "INTAN(*.RHD)",
     "Reading INTAN RHD2000 data file (.rhd)", read_rhd, "", "", config_use::wanted,
     nullptr, {}, {8, {"\x02\x27\x91\xC6"}}},
    {file_type_nsx, ".ns#", "Blackrock extended(*.NSx)",
     "Opening Blackrock Microsystems Extended .NSx file", read_nsx,
     "Error reading .nsx file", open_title, config_use::asked,
     nullptr, {}, {8, {"NEURALSG", "NEURALCD", "BRSMPGRP"}}},
    {file_type_bin, ".bin", "Neuropixels SpikeGLX (*.BIN)",
     "Reading IMEC Neuropixels data file (.bin)", read_bin_recording, "", "", config_use::none},
    {file_type_hdf5, ".hdf5 .h5", "Multi Channel Systems HDF5",
     "Reading MCS HDF data file (beta)", read_hdf_recording, "", "", config_use::asked,
     nullptr, {.is_container = true}},
    {file_type_nwb, ".nwb", "Neurodata Without Borders (*.NWB)",
     "Reading NWB data file (beta)", read_hdf_folder, "", "", config_use::wanted,
     nullptr, {.is_container = true}},
    {file_type_pl2, ".pl2", "Plexon PL2 (*.PL2)",
     "", nullptr, "", "Read Plexon .PL2 file", config_use::none},
    {file_type_oebin, ".oebin", "Open Ephys binary (*.OEBIN)",
     "Reading Open Ephys binary recording", read_open_ephys,
     "Error reading Open Ephys recording", open_title, config_use::wanted},
};
// clang-format on

enum class letter_case { lower, upper, any };

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool matches(char c, char pattern, letter_case which) {
  // '#' is the digit of a family of extensions.
  if (pattern == '#') return c >= '1' && c <= '9';
  if (which == letter_case::lower) return c == pattern;
  if (which == letter_case::any) return lower(c) == pattern;
  // No lower-case letter, but digits and signs as they are.
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

format_habits habits_of(const recording_store& recording) {
  const recording_format* format = find_recording_format(recording.file_type);
  return format == nullptr ? format_habits{} : format->habits;
}

std::int32_t classify_extension(std::string_view path, bool any_case) {
  // The first row that fits; no extension stands in two of them.
  for (const recording_format& format : formats) {
    if (has_extension(path, format.extensions, any_case)) return format.code;
  }
  return file_type_unknown;
}

std::string why_no_such_file(const recording_format& format, const std::string& path) {
  input_file file;
  if (!open_input_file(file, path)) return "cannot be read: " + file.problem;
  if (file.size == 0) return "is empty";
  const format_beginning& begins = format.begins;
  if (file.size < begins.least_bytes) return "ends within its header";
  if (begins.labels[0].empty()) return {};
  std::string start(static_cast<std::size_t>(std::min<std::int64_t>(file.size, 16)), '\0');
  if (!read_at(file, 0, start.data(), static_cast<std::int64_t>(start.size()))) {
    return "cannot be read";
  }
  const bool known = std::any_of(
      begins.labels.begin(), begins.labels.end(),
      [&](std::string_view label) { return !label.empty() && start.starts_with(label); });
  return known ? std::string{} : "does not begin as a file of this format does";
}

}  // namespace kestrelvane
