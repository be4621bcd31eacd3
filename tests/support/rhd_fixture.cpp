#include "support/rhd_fixture.h"

#include "support/fixture_files.h"

namespace kestrelvane::test {

namespace {

void put_wide_text(byte_sink& out, const std::string& text) {
  out.i32(static_cast<std::int32_t>(2 * text.size()));
  for (const char c : text) out.i16(static_cast<unsigned char>(c));
}

void put_channel(byte_sink& out, const rhd_channel& channel, std::int32_t number) {
  put_wide_text(out, "A-00" + std::to_string(number));
  out.i32(-1);  // no custom name
  out.i16(number).i16(number).i16(channel.signal).i16(channel.enabled ? 1 : 0);
  out.zeros(20);
}

void put_group(byte_sink& out, const rhd_group& group) {
  put_wide_text(out, "Port A");
  put_wide_text(out, "A");
  out.i16(group.enabled ? 1 : 0).i16(static_cast<std::int32_t>(group.channels.size())).i16(77);
  for (std::size_t c = 0; group.enabled && c < group.channels.size(); ++c) {
    put_channel(out, group.channels[c], static_cast<std::int32_t>(c));
  }
}

std::int32_t count(const rhd_fixture& f, std::int32_t signal) {
  std::int32_t n = 0;
  for (const rhd_group& group : f.groups) {
    for (const rhd_channel& c : group.channels) {
      n += group.enabled && c.enabled && c.signal == signal;
    }
  }
  return n;
}

void put_words(byte_sink& out, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) out.i16(0x5A5A);
}

void put_block(byte_sink& out, const rhd_fixture& f, std::int32_t b,
               std::vector<std::size_t>& boundaries) {
  const std::int32_t S = rhd_block_samples(f);
  for (std::int32_t s = 0; s < S; ++s) out.i32(b * S + s - 5);
  if (b == 0) boundaries.push_back(out.bytes.size());
  for (std::int32_t c = 1; c <= count(f, 0); ++c) {
    for (std::int32_t s = 1; s <= S; ++s) out.i16(rhd_sample(c, b * S + s) + 32768);
  }
  if (b == 0) boundaries.push_back(out.bytes.size());
  put_words(out, count(f, 1) * S / 4 + count(f, 2) + f.n_temperature + count(f, 3) * S);
  const std::int32_t has_digital = count(f, 4) + count(f, 5) > 0;
  put_words(out, (f.digital_words < 0 ? has_digital : f.digital_words) * S);
  if (b == 0) boundaries.push_back(out.bytes.size());
}

byte_sink make_file(const rhd_fixture& f, std::vector<std::size_t>& boundaries) {
  byte_sink out;
  out.value(0xC6912702u).i16(f.major).i16(f.minor).f32(f.rate).zeros(36);
  boundaries.push_back(out.bytes.size());
  for (std::size_t i = 0; i < 3; ++i) {
    if (f.notes[i].empty() && i < 2) {
      out.i32(-1);
    } else {
      put_wide_text(out, f.notes[i]);
    }
  }
  boundaries.push_back(out.bytes.size());
  const std::int32_t version = 10 * f.major + f.minor;
  if (version >= 11) out.i16(f.n_temperature);
  if (version >= 13) out.i16(13);
  if (version >= 20) put_wide_text(out, "n/a");
  out.i16(static_cast<std::int32_t>(f.groups.size()));
  boundaries.push_back(out.bytes.size());
  for (const rhd_group& group : f.groups) {
    put_group(out, group);
    boundaries.push_back(out.bytes.size());
  }
  for (std::int32_t b = 0; b < f.n_blocks; ++b) put_block(out, f, b, boundaries);
  return out;
}

}  // namespace

std::int32_t rhd_block_samples(const rhd_fixture& f) { return f.major < 2 ? 60 : 128; }

std::int16_t rhd_sample(std::int32_t c, std::int64_t t) {
  // Both ends of the range occur.
  if (t == 2) return c % 2 == 0 ? -32768 : 32767;
  return static_cast<std::int16_t>((t * 13 + c * 501) % 20000 - 10000);
}

std::vector<char> rhd_bytes(const rhd_fixture& f) {
  std::vector<std::size_t> boundaries;
  return make_file(f, boundaries).bytes;
}

std::vector<std::size_t> rhd_boundaries(const rhd_fixture& f) {
  std::vector<std::size_t> boundaries;
  make_file(f, boundaries);
  return boundaries;
}

}  // namespace kestrelvane::test
