// Small HDF5 files for tests, written through the library.
//
// hdf_maker creates a file and adds to it what a test asks for; groups on the way are made
// as needed. make_mcs_file and make_nwb_file lay out the two kinds of recording.
#pragma once

#include <hdf5.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kestrelvane::test {

// packed: by a filter of the number packed_filter, which the test registers.
enum class hdf_storage { contiguous, chunked, gzip, compact, none, packed };
constexpr int packed_filter = 32015;

// A dataset of numbers.
struct hdf_numbers {
  std::string type = "i16";  // i8 u8 i16 u16 i32 u32 i64 f32 f64, with "be" behind: big-endian
  std::vector<std::uint64_t> size;
  hdf_storage storage = hdf_storage::contiguous;
  std::vector<std::uint64_t> chunk;                                      // of chunked and gzip
  std::function<double(std::uint64_t row, std::uint64_t column)> value;  // null: fixture_value
};

// What channel c (from 0) holds at time t (from 0): within 8 bits, different everywhere near.
double hdf_fixture_value(std::uint64_t channel, std::uint64_t time);

struct hdf_info_row {
  std::int32_t row = 0;
  std::int32_t exponent = -9;
  std::int32_t ad_zero = 0;
  std::int64_t tick = 50;
  double factor = 381470;
};

struct hdf_maker {
  hid_t file = H5I_INVALID_HID;

  explicit hdf_maker(const std::string& path);
  ~hdf_maker();
  hdf_maker(const hdf_maker&) = delete;
  hdf_maker& operator=(const hdf_maker&) = delete;

  void group(const std::string& place);
  void numbers(const std::string& place, const hdf_numbers& what);
  void scalar(const std::string& place, double value);
  // Attributes of an object that is there.
  void text(const std::string& place, const char* name, const std::string& value,
            bool variable = false);
  void number(const std::string& place, const char* name, double value);
  void integer(const std::string& place, const char* name, std::int32_t value);
  // One attribute of every kind that is decoded or refused.
  void many_attributes(const std::string& place);
  // The compound dataset, with or without the members ElectrodeGroup and Label.
  void info_channel(const std::string& place, const std::vector<hdf_info_row>& rows,
                    bool optional_members = true);
  void soft_link(const std::string& place, const std::string& target);
  void hard_link(const std::string& place, const std::string& target);
  void external_link(const std::string& place, const std::string& file, const std::string& object);
  // A dataset of 16-bit numbers whose samples are in another file.
  void external_numbers(const std::string& place, std::uint64_t rows, std::uint64_t columns,
                        const std::string& file);
};

constexpr const char* mcs_stream = "/Data/Recording_0/AnalogStream/Stream_0";
constexpr const char* nwb_series = "/acquisition/ElectricalSeries";

// A Multi Channel Systems file of n_channels x n_samples, 20 kHz, 381.47 µV per bit.
struct mcs_fixture {
  std::uint64_t n_channels = 4, n_samples = 300;
  std::string type = "i32";
  hdf_storage storage = hdf_storage::gzip;
  std::vector<hdf_info_row> rows;  // empty: one per channel
  bool optional_members = true;
  std::function<double(std::uint64_t row, std::uint64_t column)> value;
};
void make_mcs_file(const std::string& path, const mcs_fixture& f = {});

// A Neurodata Without Borders file of n_samples x n_channels.
struct nwb_fixture {
  std::uint64_t n_channels = 4, n_samples = 300;
  std::string type = "i16";
  hdf_storage storage = hdf_storage::gzip;
  double rate = 30000;       // 0: none
  double conversion = 2e-7;  // volts; 0: no attribute
  double offset = 0;         // volts
  std::vector<double> channel_conversion;
  bool timestamps = false;  // in place of starting_time
  std::function<double(std::uint64_t row, std::uint64_t column)> value;  // of time, channel
};
void make_nwb_file(const std::string& path, const nwb_fixture& f = {});

}  // namespace kestrelvane::test
