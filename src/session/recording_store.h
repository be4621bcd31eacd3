// The recording: voltage samples, electrode geometry, channel masks and noise.
//
// Filled by the format readers of recording/, rewritten in place by the filters
// of signal/, read by everything else. Channels count from 1, site positions are
// in µm. A time index is the position of a sample in vd, the first sample of the
// recording being 1; n_samples = 0 means that no recording is in memory, and is
// the test for that everywhere.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "numerics/table.h"
#include "session/limits.h"
#include "session/logical.h"
#include "session/stimulus_records.h"

namespace kestrelvane {

// Voltage samples in bits: 16-bit, one contiguous run per channel, time first.
// Time index -250..max_time, channel 1..n_channels + 1; the margin in front and
// the spare channel behind are zero and let windowed reads go without a test.
class voltage_store {
 public:
  // Zeroed storage. False when memory does not hold it; the store is then empty.
  bool allocate(std::int64_t max_time, std::int32_t n_channels) {
    release();
    // Whole lines of the cache, so that all channels lie alike to them.
    constexpr std::int64_t line = 32;
    const std::int64_t stride = (max_time + vd_margin + line) / line * line;
    if (max_time < 0 || n_channels < 0) return false;
    if (!memory_can_hold(stride * n_channels * 2)) return false;
    if (!samples_.reserve(stride * (n_channels + 1))) return false;
    stride_ = stride;
    max_time_ = max_time;
    // Only where large pages are mostly filled; short recordings would pay for zeros.
    constexpr std::int64_t long_channel = 1 << 16;
    constexpr std::int64_t much = 1 << 24;
    if (stride >= long_channel && stride * n_channels >= much) {
      prefer_large_pages(samples_.first(), static_cast<std::size_t>(stride * n_channels) * 2);
    }
    return true;
  }
  void release() {
    samples_.release();
    stride_ = 0;
    max_time_ = 0;
  }
  bool is_allocated() const { return stride_ != 0; }

  // channel(c)[t] is the sample of channel c at time index t, -250..max_time().
  std::int16_t* channel(std::int32_t c) { return samples_.first() + (c - 1) * stride_ + vd_margin; }
  const std::int16_t* channel(std::int32_t c) const {
    return samples_.first() + (c - 1) * stride_ + vd_margin;
  }
  // Highest time index that is allocated.
  std::int64_t max_time() const { return max_time_; }

 private:
  table<std::int16_t> samples_;
  std::int64_t stride_ = 0;
  std::int64_t max_time_ = 0;
};

// Format codes, from the extension of the path; the rows of the format table.
enum file_type_code : std::int32_t {
  file_type_unknown = 0,
  file_type_srf = 1,
  file_type_ntt = 2,
  file_type_ncs = 3,
  file_type_prf = 4,
  file_type_plx = 5,
  file_type_xml = 6,
  file_type_tsf = 7,
  file_type_mcd = 8,
  file_type_hdf5 = 9,
  file_type_nwb = 10,
  file_type_nev = 11,
  file_type_nsx = 12,
  file_type_rhd = 13,
  file_type_bin = 14,
  file_type_pl2 = 15,
  file_type_oebin = 16,
};

enum electrode_type_code : std::int32_t {
  electrode_utah_array = 1,
  electrode_tetrode = 4,
  electrode_polytrode = 10,
};

// Samples that were set to zero, since an artefact covers what was there.
struct blanked_stretch {
  std::int32_t channel;      // 0: all that were not masked
  std::int32_t first, last;  // time indices
};

// Where the tissue was along the probe (signal/tissue_motion.h).
struct tissue_motion {
  double bin_s = 0;        // s from one place to the next; the first is that of half of it
  std::vector<float> um;   // µm up from where it was at home, the median
  float range = 0;         // µm, 97th less 3rd percentile
  double gain = 0;         // by how much spikes lie more alike when it is taken out
  bool moved = false;      // enough of both
  bool corrected = false;  // the samples are those of still tissue
};

struct recording_store {
  // --- the files
  std::int32_t file_type = file_type_unknown;   // what was read; written by the open worker alone
  std::string recording_path = "No data file";  // the loaded recording
  std::string xml_path, plx_path, srf_path;     // last file of that kind; kept in the work file
  std::string tsf_path;                         // last .tsf read
  std::string config_path;                      // electrode configuration in use
  logical no_config_file = true;                // no electrode configuration is in use
  logical show_config_in_title = false;         // the configuration is named beside the recording
  std::int32_t n_mapped_channels = 0;           // file channels that the configuration maps

  // --- the samples
  std::int32_t n_channels = 0;            // at most channel_limit
  std::int32_t n_samples = 0;             // per channel; 0: no recording
  std::int32_t max_vd_samples = 0;        // highest usable time index of vd
  voltage_store vd;                       // bits; written by readers and filters alone
  std::int32_t sampling_frequency = 0;    // Hz
  double sampling_frequency_exact = 0.0;  // Hz, of a rate that need not be whole; 0: it is
  float vscale_HP = 1.0f;                 // µV per bit of vd
  float vscale_norm = 1.0f;               // scale of clustering distance units, 1 from start-up on
  float duration_mins = 0.0f;             // compute_duration
  std::int32_t record_date[3] = {0, 0, 0};  // year, month, day
  std::int32_t record_time[3] = {0, 0, 0};  // seconds, minutes, hours
  logical recording_filtered = false;       // a filter chain has finished
  logical means_zeroed = false;             // channel means are out; not done twice
  logical common_mean_removed = false;      // likewise
  logical temporal_smoothed = false;        // for information
  logical sample_hold_done = false;         // set by some readers
  std::vector<blanked_stretch> blanked;     // no data there (signal/blanking.h)
  tissue_motion motion;                     // measured, or empty
  logical high_pass_offered = false;        // the user is asked once (operations/high_pass_offer.h)

  // --- event-based recordings
  logical is_continuous = true;        // vd holds unbroken time
  std::int32_t samples_per_event = 0;  // samples of one stored record
  std::int64_t first_timestamp = 0;    // µs, start of the recording
  // Time stamps (µs) and unit numbers (given by the acquisition system) of stored
  // records, by tetrode or channel; see timestamp() and record_unit().
  std::int32_t records_per_unit = 0;  // capacity of one tetrode or channel in the two arrays
  table<std::int64_t> event_timestamp;
  table<std::int16_t> event_record_unit;
  table<std::int32_t> tetrode_event_count{channel_limit};  // stored records per tetrode
  table<std::int32_t> channel_event_count{channel_limit};  // stored records per channel
  std::int64_t plx_blocks_end = 0;    // .plx: offset of the first block that was not read
  std::string ntt_header;             // .ntt: text in front of the records, written back unchanged
  std::int32_t ntt_record_count = 0;  // .ntt: records read
  table<std::int32_t> ntt_features;   // .ntt: eight of each record, written back unchanged

  // --- what the file demands of settings; set by its reader, met by the open worker
  float file_window_start_ms = 0, file_window_end_ms = 0;  // template window; both 0: any
  logical suits_lockout = false;                           // its events are found by lockout
  logical records_stay_apart = false;  // they cannot be laid out on one time axis

  // --- the electrode
  std::string electrode_name;                         // at most 10 characters
  std::int32_t electrode_type = electrode_polytrode;  // electrode_type_code
  std::int32_t n_tetrodes = 0;
  table<std::int32_t> tetrode_of_channel{channel_limit};
  table<std::int16_t> chan_x{channel_limit}, chan_y{channel_limit};  // µm
  table<std::int32_t> chan_sort_order{channel_limit};  // display order along the probe
  table<std::int32_t> channel_map{channel_limit};      // file channel -> program channel
  table<logical> chan_mask{channel_limit};  // true: no part in detection, clustering, templates
  // Of these, masked by the last Autosort for what it measured (operations/cleaning.h).
  std::vector<std::int32_t> masked_by_sort;
  table<float> chan_noise{channel_limit};  // bits; 0 where it could not be measured
  std::int32_t site_pitch = 0;    // µm, smallest non-zero row distance; 100000 when all are level
  std::int32_t site_columns = 0;  // columns of the probe
  std::int32_t site_x_min = 0, site_x_max = 0, site_y_min = 0, site_y_max = 0;  // µm

  // --- distance tables, written by build_site_tables alone
  table<float> site_distance{std::int64_t{channel_limit} * channel_limit};  // µm, see distance()
  table<std::int32_t> site_neighbours{(std::int64_t{channel_limit} + 1) * channel_limit};
  // Channels within lockout_radius_um, same form; by build_neighbour_list alone.
  table<std::int32_t> neighbour_list{(std::int64_t{channel_limit} + 1) * channel_limit};

  // --- epochs, counted from 1
  std::int32_t n_epochs = 1;
  std::int64_t epoch_start[epoch_limit + 1] = {};        // time stamp as stored in the file
  std::int64_t epoch_samples[epoch_limit + 1] = {};      // samples in the epoch
  std::int64_t epoch_first_index[epoch_limit + 1] = {};  // time index of its first sample
  char epoch_code[epoch_limit + 1][2] = {};              // short name of the stimulus type
  std::string epoch_name[epoch_limit + 1];               // as the file has it; not saved

  stimulus_records stimulus;  // .srf

  // --- what the old test formats carry and get back unchanged
  std::int32_t tsf_sample_interval = 0;
  std::int16_t tsf_channel_order[64] = {};
  std::int16_t tsf_n_probes = 0;
  std::int32_t sleep_start_mins = 0;
  // The clusters of the file are planted, not sorted: they are compared with, and get no templates.
  logical clusters_are_planted = false;
  std::int32_t n_fake_spikes = 0;  // planted spikes of a test file, the ground truth
  table<std::int32_t> fake_spike_time{fake_spike_limit};
  table<std::int32_t> fake_spike_cluster{fake_spike_limit};
  table<std::int32_t> fake_spike_channel{fake_spike_limit};

  // Distance of two sites in µm.
  float distance(std::int32_t a, std::int32_t b) const {
    return site_distance.base()[std::int64_t{a - 1} * channel_limit + b];
  }
  // Time stamp in µs of a record, 0..records_per_unit, of tetrode or channel u.
  std::int64_t& timestamp(std::int64_t record, std::int32_t u) {
    return event_timestamp.base()[std::int64_t{u - 1} * (records_per_unit + 1) + record];
  }
  std::int64_t timestamp(std::int64_t record, std::int32_t u) const {
    return event_timestamp.base()[std::int64_t{u - 1} * (records_per_unit + 1) + record];
  }
  std::int16_t& record_unit(std::int64_t record, std::int32_t u) {
    return event_record_unit.base()[std::int64_t{u - 1} * (records_per_unit + 1) + record];
  }
  // Neighbour lists of channel c: element 0 is the count, the channels follow in
  // ascending order.
  std::int32_t* neighbours(std::int32_t c) {
    return site_neighbours.first() + std::int64_t{c - 1} * (channel_limit + 1);
  }
  const std::int32_t* neighbours(std::int32_t c) const {
    return site_neighbours.first() + std::int64_t{c - 1} * (channel_limit + 1);
  }
  std::int32_t* lockout_neighbours(std::int32_t c) {
    return neighbour_list.first() + std::int64_t{c - 1} * (channel_limit + 1);
  }
  const std::int32_t* lockout_neighbours(std::int32_t c) const {
    return neighbour_list.first() + std::int64_t{c - 1} * (channel_limit + 1);
  }
};

}  // namespace kestrelvane
