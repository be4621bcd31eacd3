#include "support/fixture_files.h"

namespace kestrelvane::test {

namespace {

// Writes the file and notes where its regions end.
struct tsf_maker {
  const tsf_fixture& f;
  byte_sink out;
  std::vector<std::size_t> boundaries;

  void end_region() { boundaries.push_back(out.bytes.size()); }

  void positions(std::int32_t count) {
    for (std::int32_t c = 1; c <= count; ++c) out.i16(c % 2 * 30).i16(c * 20);
  }

  void header() {
    out.text("Test spike file", 16).i32(f.format);
    if (f.format == 1000) {
      positions(54);
      out.i32(f.sampling_frequency).i32(40);
      for (int i = 1; i <= 64; ++i) out.i16(i);
      out.i16(2).i32(f.n_channels).i32(f.n_samples);
    } else {
      out.i32(f.sampling_frequency).i32(f.n_channels).i32(f.n_samples).f32(f.vscale);
      if (f.format == 1001) positions(56);
      if (f.format == 1003) out.zeros(8);
    }
    end_region();
  }

  void channel_table() {
    for (std::int32_t c = 1; c <= f.n_channels; ++c) {
      out.i16(c % 2 * 30).i16(c * 20);
      out.i32(f.order.empty() ? 0 : f.order[static_cast<std::size_t>(c - 1)]);
    }
    end_region();
  }

  void samples() {
    for (std::int32_t c = 1; c <= f.n_channels; ++c) {
      for (std::int32_t t = 1; t <= f.n_samples; ++t) out.i16(fixture_sample(c, t));
      if (f.format == 1000) {
        const std::int32_t blocks = (f.n_samples + 24999) / 25000;
        out.zeros(2 * static_cast<std::size_t>(blocks * 25000 - f.n_samples));
      }
      end_region();
    }
  }

  void arrays() {
    out.i32(static_cast<std::int32_t>(f.events.size()));
    end_region();
    for (std::int32_t planted_event::*field :
         {&planted_event::time, &planted_event::cluster, &planted_event::channel}) {
      for (const planted_event& e : f.events) out.i32(e.*field);
      end_region();
    }
  }

  void make() {
    header();
    if (f.format == 1003) return;
    if (f.format == 1002) channel_table();
    samples();
    if (f.format == 1001) out.i32(7).i32(8);
    if (f.format == 1000) out.i32(f.site_pitch);
    if (f.format != 1002) end_region();
    arrays();
    for (std::int32_t v : f.tail) out.i32(v);
  }
};

}  // namespace

byte_sink& byte_sink::text(std::string_view s, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) bytes.push_back(i < s.size() ? s[i] : ' ');
  return *this;
}

byte_sink& byte_sink::zeros(std::size_t n) {
  bytes.resize(bytes.size() + n);
  return *this;
}

std::int16_t fixture_sample(std::int32_t channel, std::int64_t time_index) {
  return static_cast<std::int16_t>((time_index * 7919 + channel * 104729) % 4001 - 2000);
}

std::vector<char> tsf_bytes(const tsf_fixture& f) {
  tsf_maker maker{f, {}, {}};
  maker.make();
  return maker.out.bytes;
}

std::vector<std::size_t> tsf_boundaries(const tsf_fixture& f) {
  tsf_maker maker{f, {}, {}};
  maker.make();
  return maker.boundaries;
}

std::vector<char> with_i32(std::vector<char> bytes, std::size_t offset, std::int32_t v) {
  std::memcpy(bytes.data() + offset, &v, sizeof v);
  return bytes;
}

std::vector<char> with_f32(std::vector<char> bytes, std::size_t offset, float v) {
  std::memcpy(bytes.data() + offset, &v, sizeof v);
  return bytes;
}

}  // namespace kestrelvane::test
