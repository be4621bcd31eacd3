// Files made byte by byte for the tests of readers, independent of the writers.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace kestrelvane::test {

// Appends little-endian fields.
struct byte_sink {
  std::vector<char> bytes;

  template <typename T>
  byte_sink& value(T v) {
    const std::size_t at = bytes.size();
    bytes.resize(at + sizeof v);
    std::memcpy(bytes.data() + at, &v, sizeof v);
    return *this;
  }
  byte_sink& i16(std::int32_t v) { return value(static_cast<std::int16_t>(v)); }
  byte_sink& i32(std::int32_t v) { return value(v); }
  byte_sink& f32(double v) { return value(static_cast<float>(v)); }
  byte_sink& yes() { return i32(-1); }
  byte_sink& no() { return i32(0); }
  // Blank-padded to width.
  byte_sink& text(std::string_view s, std::size_t width);
  byte_sink& zeros(std::size_t n);
};

struct planted_event {
  std::int32_t time, cluster, channel;
};

// A TSF file of any format code. The sample of channel c at time index t is
// fixture_sample(c, t); positions are two columns, 40 µm apart.
struct tsf_fixture {
  std::int32_t format = 1002;
  std::int32_t sampling_frequency = 25000;
  std::int32_t n_channels = 3;
  std::int32_t n_samples = 60;
  float vscale = 0.25f;
  std::vector<std::int32_t> order;  // display order; empty: 0 for all
  std::vector<planted_event> events;
  std::vector<std::int32_t> tail;  // written after the events, as sleep_start_mins
  std::int32_t site_pitch = 0;     // format 1000
};

std::int16_t fixture_sample(std::int32_t channel, std::int64_t time_index);
std::vector<char> tsf_bytes(const tsf_fixture& f);

// Where the regions of such a file end: header, channel table, each channel's samples,
// counts and arrays of the tail. The last is the size of the file.
std::vector<std::size_t> tsf_boundaries(const tsf_fixture& f);

// A copy with a 4-byte field replaced.
std::vector<char> with_i32(std::vector<char> bytes, std::size_t offset, std::int32_t v);
std::vector<char> with_f32(std::vector<char> bytes, std::size_t offset, float v);

}  // namespace kestrelvane::test
