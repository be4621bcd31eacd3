#include "support/plx_fixture.h"

#include "support/fixture_files.h"

namespace kestrelvane::test {

namespace {

void put_file_header(byte_sink& out, const plx_fixture& f) {
  out.value(f.magic).i32(f.version).text("made for a test", 128);
  out.i32(f.ad_frequency).i32(static_cast<std::int32_t>(f.channels.size()));
  out.i32(f.n_event_headers).i32(static_cast<std::int32_t>(f.slow.size()));
  out.i32(f.n_points_wave).i32(3);
  out.i32(f.year).i32(f.month).i32(f.day).i32(20).i32(5).i32(57);
  out.i32(0).i32(f.waveform_freq).value(f.last_timestamp);
  for (const std::int32_t v : {f.trodalness, 1, f.spike_bits, f.slow_bits}) {
    out.value(static_cast<std::uint8_t>(v));
  }
  out.i16(f.spike_mv).i16(f.slow_mv).i16(f.preamp_gain).zeros(46);
  out.zeros(2600 + 2600 + 4 * 300);
  for (std::size_t i = 0; i < 212; ++i) out.i32(i < f.slow.size() ? f.slow_count : 0);
}

void put_channel_header(byte_sink& out, const plx_fixture_channel& c) {
  out.text("sig", 32).text("sig", 32).i32(c.channel).i32(100).i32(1).i32(1);
  out.i32(c.gain).i32(0).i32(-10).i32(1).i32(c.n_units).zeros(1020 - 100);
}

void put_slow_header(byte_sink& out, const plx_fixture_slow& s) {
  out.text("slow", 32).i32(s.channel).i32(s.ad_freq).i32(s.gain).i32(1).i32(s.preamp_gain);
  out.i32(0).zeros(296 - 56);
}

void put_block(byte_sink& out, const plx_fixture_block& b) {
  out.i16(b.type).i16(static_cast<std::int32_t>(b.time >> 32));
  out.value(static_cast<std::uint32_t>(b.time));
  out.i16(b.channel).i16(b.unit).i16(b.n_waveforms);
  out.i16(static_cast<std::int32_t>(b.words.size()));
  for (const std::int16_t w : b.words) out.i16(w);
}

}  // namespace

std::vector<char> plx_bytes(const plx_fixture& f) {
  byte_sink out;
  put_file_header(out, f);
  for (const plx_fixture_channel& c : f.channels) put_channel_header(out, c);
  for (std::int32_t i = 1; i <= f.n_event_headers; ++i) out.text("event", 32).i32(i).zeros(260);
  for (const plx_fixture_slow& s : f.slow) put_slow_header(out, s);
  for (const plx_fixture_block& b : f.blocks) put_block(out, b);
  return out.bytes;
}

std::size_t plx_blocks_offset(const plx_fixture& f) {
  return 7504 + 1020 * f.channels.size() +
         296 * (static_cast<std::size_t>(f.n_event_headers) + f.slow.size());
}

std::vector<std::int16_t> ramp(std::int32_t seed, std::int32_t n) {
  std::vector<std::int16_t> words;
  for (std::int32_t k = 0; k < n; ++k) words.push_back(static_cast<std::int16_t>(100 * seed + k));
  return words;
}

std::int16_t plx_fixture_sample(std::int32_t channel, std::int64_t time_index) {
  return static_cast<std::int16_t>(1000 * channel + time_index % 997);
}

plx_fixture continuous_plx(std::int32_t n_channels, std::int32_t n_rounds, std::int32_t words) {
  plx_fixture f;
  f.channels.clear();
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    f.channels.push_back({c});
    f.slow.push_back({c - 1});
  }
  for (std::int32_t k = 0; k < n_rounds; ++k) {
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      plx_fixture_block b{5, std::int64_t{k} * words, c - 1, 0, {}};
      for (std::int32_t i = 1; i <= words; ++i) {
        b.words.push_back(plx_fixture_sample(c, b.time + i));
      }
      f.blocks.push_back(b);
    }
  }
  f.last_timestamp = static_cast<double>(n_rounds) * words;
  return f;
}

void add_tetrode_record(plx_fixture& f, std::int64_t time, std::int32_t tetrode,
                        std::int32_t unit) {
  for (std::int32_t k = 1; k <= 4; ++k) {
    const std::int32_t channel = 4 * (tetrode - 1) + k;
    f.blocks.push_back({1, time, channel, unit, ramp(channel, f.n_points_wave)});
  }
}

plx_fixture tetrode_plx(std::int32_t n_tetrodes) {
  plx_fixture f;
  f.trodalness = 4;
  f.channels.clear();
  for (std::int32_t c = 1; c <= 4 * n_tetrodes; ++c) f.channels.push_back({c});
  return f;
}

std::vector<char> straight_config(std::int32_t n) {
  std::string text = "Straight\n";
  for (std::int32_t c = 1; c <= n; ++c) {
    const std::string number = std::to_string(c);
    text += number + " " + number + " 0 " + std::to_string(50 * c) + "\n";
  }
  return {text.begin(), text.end()};
}

}  // namespace kestrelvane::test
