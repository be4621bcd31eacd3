// What the command line of the batch command can say, for all verbs together.
//
// A verb reads the fields whose options it lists; the others keep their defaults.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "synthesis/test_recording.h"

namespace kestrelvane {

struct batch_options {
  // --- what to work on
  std::string recording;             // path
  std::string output;                // path of convert and make-test
  std::string work;                  // work file to start from; empty: none
  std::string config;                // electrode configuration
  std::string stream;                // of a recording with several: name or number from 1
  std::string mask;                  // channels, as "3,8-11"
  std::string hdf_path;              // dataset of a container file; empty: the only one
  std::string rate, scale;           // Hz and µV/bit of it; empty: what the file suggests
  std::vector<std::string> filters;  // NAME or NAME:VALUE..., applied after the open
  // --- settings
  std::string preset;            // name of a row of session/presets.h; empty: none
  std::string parameters;        // a kv_parameters.sav
  std::vector<std::string> set;  // NAME=VALUE
  std::string home;              // state files; empty: none read or written
  std::int32_t threads = 0;      // 0: as many as the machine has
  bool serial = false;
  // --- the run
  bool skip_detection = false;
  bool skip_clustering = false;
  std::string stop_after = "all";
  bool checkpoint = false;    // what stages have finished is written as they do
  bool resume = false;        // go on with what an earlier run has kept
  std::string answer = "no";  // to questions
  // --- what to write
  bool skip_existing = false;  // nothing is done when all of it is there
  std::string save_work;
  std::vector<std::string> exports;  // FORMAT=PATH
  std::string log;
  std::string report;  // JSON
  std::string values;  // FIRST:COUNT, samples that info shows
  bool quiet = false;
  bool json = false;
  // --- draw
  std::string view = "voltage";                                    // or another row of --view
  double from_seconds = std::numeric_limits<double>::quiet_NaN();  // not given: where signal begins
  double time_scale = 0, voltage_scale = 0;  // pixels per sample, pixels per µV; 0: not given
  std::int32_t spacing = 0;                  // pixels; 0: not given
  std::int32_t first_row = 1;
  std::string size = "1280x800";  // pixels
  std::string picture;            // path; .png, .svg or .pdf, or a graph's .csv or .gra
  bool draw_events = false, draw_numbers = false, draw_grid = false;
  bool draw_on_template_channel = false, draw_reversed = false, draw_peaks = false;
  bool draw_density = false;
  std::string draw_clusters;  // clusters, as "3,7-9"; "true": named without a list
  // --- check
  std::string mask_out;       // path of a .msk
  bool check_masked = false;  // masked channels take part
  // --- report
  std::string report_folder;
  // --- curate
  std::string replay;     // path of a history of edits
  std::int32_t upto = 0;  // number of the last edit to do; 0: all of them
  // --- make-test
  std::string electrode = "polytrode";
  std::string family;     // instead of all that the options below say
  bool families = false;  // list them
  double minutes = std::numeric_limits<double>::quiet_NaN();  // not a number: not given
  test_recording_options test;
  // --- score
  std::string sorted_path, truth_path;
  double noise_uv = std::numeric_limits<double>::quiet_NaN();  // not a number: not given
  double min_snr = std::numeric_limits<double>::quiet_NaN();   // not a number: not given
};

}  // namespace kestrelvane
