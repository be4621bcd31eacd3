#include "support/blackrock_fixture.h"

#include "support/fixture_files.h"

namespace kestrelvane::test {

namespace {

void put_date(byte_sink& out) {
  for (const int field : {2021, 3, 4, 25, 13, 14, 15, 926})
    out.value(static_cast<std::uint16_t>(field));
}

// A text padded with NULs.
void put_text(byte_sink& out, const std::string& text, std::size_t width) {
  out.text(text, text.size());
  out.zeros(width - text.size());
}

void put_electrode(byte_sink& out, std::int32_t id, std::int32_t factor, std::int32_t points) {
  put_text(out, "NEUEVWAV", 8);
  out.i16(id).value(std::uint8_t{1}).value(std::uint8_t{2});
  out.value(static_cast<std::uint16_t>(factor));
  out.zeros(6);  // thresholds
  out.value(std::uint8_t{0}).value(std::uint8_t{2}).i16(points);
  out.zeros(8);
}

std::int64_t nev_packet_bytes(const nev_fixture& f) { return (f.is_v3 ? 12 : 8) + 2 * f.points; }

std::size_t nev_header_bytes(const nev_fixture& f) {
  return 336 + 32 * (f.electrodes.size() + f.other_headers.size());
}

void put_nsx_channel(byte_sink& out, const nsx_channel& c) {
  out.text("CC", 2).i16(c.id).zeros(18);
  out.i16(-c.bits).i16(c.bits).i16(-c.analog).i16(c.analog);
  put_text(out, c.units, 16);
  out.zeros(20);
}

void put_nsx_points(byte_sink& out, const nsx_fixture& f, std::int64_t n, std::int64_t& q) {
  for (std::int64_t p = 0; p < n; ++p, ++q) {
    for (std::size_t c = 1; c <= f.channels.size(); ++c) {
      out.i16(nsx_sample(static_cast<std::int32_t>(c), q));
    }
  }
}

void put_old_header(byte_sink& out, const nsx_fixture& f) {
  put_text(out, "30 kS/s", 16);
  out.value(f.period).i32(static_cast<std::int32_t>(f.channels.size()));
  for (const nsx_channel& c : f.channels) out.i32(c.id);
}

void put_header(byte_sink& out, const nsx_fixture& f) {
  const auto n = static_cast<std::int32_t>(f.channels.size());
  out.value(std::uint8_t{2}).value(std::uint8_t{3}).i32(314 + 66 * n);
  put_text(out, "30 kS/s", 16);
  put_text(out, "a comment", 256);
  out.value(f.period).value(f.resolution);
  put_date(out);
  out.i32(n);
  for (const nsx_channel& c : f.channels) put_nsx_channel(out, c);
}

}  // namespace

std::int16_t nev_sample(std::size_t k, std::int32_t p) {
  return static_cast<std::int16_t>(100 * (static_cast<std::int32_t>(k % 300) + 1) + p);
}

std::vector<char> nev_bytes(const nev_fixture& f) {
  byte_sink out;
  put_text(out, f.is_v3 ? "BREVENTS" : "NEURALEV", 8);
  out.value(std::uint8_t{2}).value(std::uint8_t{3}).i16(1);
  out.i32(static_cast<std::int32_t>(nev_header_bytes(f)));
  out.i32(static_cast<std::int32_t>(nev_packet_bytes(f)));
  out.value(f.resolution).value(f.rate);
  put_date(out);
  put_text(out, "the acquisition program", 32);
  put_text(out, f.comment, 256);
  out.i32(static_cast<std::int32_t>(f.electrodes.size() + f.other_headers.size()));
  for (const std::string& name : f.other_headers) {
    put_text(out, name, 8);
    out.zeros(24);
  }
  for (const auto& [id, factor] : f.electrodes) put_electrode(out, id, factor, f.points);
  for (std::size_t k = 0; k < f.packets.size(); ++k) {
    const nev_spike& s = f.packets[k];
    if (f.is_v3) {
      out.value(s.stamp);
    } else {
      out.value(static_cast<std::uint32_t>(s.stamp));
    }
    out.value(static_cast<std::uint16_t>(s.id));
    out.value(static_cast<std::uint8_t>(s.unit)).value(std::uint8_t{7});
    for (std::int32_t p = 0; p < f.points; ++p) out.i16(nev_sample(k, p));
  }
  out.zeros(static_cast<std::size_t>(f.tail_bytes));
  return out.bytes;
}

std::size_t nev_packet_offset(const nev_fixture& f, std::size_t k) {
  return nev_header_bytes(f) + k * static_cast<std::size_t>(nev_packet_bytes(f));
}

std::size_t nev_unit_offset(const nev_fixture& f, std::size_t k) {
  return nev_packet_offset(f, k) + (f.is_v3 ? 10 : 6);
}

std::int16_t nsx_sample(std::int32_t channel, std::int64_t q) {
  return static_cast<std::int16_t>((q * 7 + channel * 1000) % 8000 - 4000);
}

std::vector<char> nsx_bytes(const nsx_fixture& f) {
  byte_sink out;
  put_text(out, f.magic, 8);
  const bool is_old = f.magic == "NEURALSG";
  if (is_old) {
    put_old_header(out, f);
  } else {
    put_header(out, f);
  }
  std::int64_t q = 0;
  for (const nsx_stretch& s : f.stretches) {
    if (!is_old) {
      out.value(std::uint8_t{1});
      if (f.magic == "BRSMPGRP") {
        out.value(s.stamp);
      } else {
        out.value(static_cast<std::uint32_t>(s.stamp));
      }
      out.i32(static_cast<std::int32_t>(s.stated < 0 ? s.n_points : s.stated));
    }
    put_nsx_points(out, f, s.n_points, q);
  }
  out.zeros(static_cast<std::size_t>(f.tail_bytes));
  return out.bytes;
}

}  // namespace kestrelvane::test
