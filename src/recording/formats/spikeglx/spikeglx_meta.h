// The ".meta" text beside a SpikeGLX recording: one "key=value" per line, list keys with a
// "~" in front and values in groups of brackets.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "recording/record_start.h"

namespace kestrelvane {

// A group "(a b c)" or "(a:b:c)" of a list value, as numbers; words become none.
using number_group = std::vector<double>;

struct spikeglx_meta {
  record_start created;
  std::int64_t n_file_bytes = 0;
  std::int32_t n_saved_channels = 0;       // values per time point of the ".bin"
  std::string stream;                      // typeThis: imec, nidq, obx; "" in the oldest
  std::int32_t n_ap = 0, n_lf = 0;         // saved spike and LF channels
  bool has_counts = false;                 // snsApLfSy= was there
  std::int32_t n_acquired_ap = 0;          // acqApLfSy=
  double sampling_frequency = 0.0;         // Hz
  double range_max = 0.0;                  // V, imAiRangeMax
  std::int32_t largest_value = 0;          // imMaxInt; 0: not there
  std::int32_t probe_type = -1;            // imDatPrb_type; -1: not there
  std::string part_number;                 // imDatPrb_pn; "": not there
  std::int32_t first_channel = 0;          // of the saved ones, as acquired
  double first_ap_gain = 0.0;              // imChan0apGain
  double first_lf_gain = 0.0;              // imChan0lfGain
  std::vector<number_group> readout;       // ~imroTbl, the header first
  std::vector<number_group> shank_map;     // ~snsShankMap, likewise
  std::vector<number_group> geometry_map;  // ~snsGeomMap, likewise

  // An LF file holds no spike channels; its LF channels take their place.
  bool is_lf() const { return n_ap == 0 && n_lf > 0; }
  std::int32_t n_channels() const { return is_lf() ? n_lf : n_ap; }
};

// False when the file cannot be read. A key that is missing or no number keeps its default.
bool read_meta_file(const std::string& path, spikeglx_meta& meta);

// µV per bit of the first channel from range, converter and gain; none when the file does
// not tell them all.
std::optional<double> exact_scale(const spikeglx_meta& meta);

// A site in µm: x from the left edge of the first shank, y up from the lowest row.
struct probe_site {
  double x, y;
};

// Sites of the saved channels from the geometry map, or from the shank map and the layout that
// the part number stands for, or failing that the probe's type; origin names which. Empty when
// none of them gives the sites.
std::vector<probe_site> list_probe_sites(const spikeglx_meta& meta, std::string& origin);

}  // namespace kestrelvane
