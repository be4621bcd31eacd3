#include "support/polytrode_fixture.h"

namespace kestrelvane::test {

namespace {

byte_sink record(const std::string& code) {
  byte_sink out;
  out.value(code[0]).value(code.size() > 1 ? code[1] : '\x7F');
  for (int i = 0; i < 6; ++i) out.value('\x55');  // padding is arbitrary
  return out;
}

void pad_to(byte_sink& out, std::size_t size) { out.zeros(size - out.bytes.size()); }

void counted_text(byte_sink& out, const std::string& text) {
  out.value(static_cast<std::uint8_t>(text.size()));
  const std::size_t end = out.bytes.size() + 255;
  for (const char c : text) out.value(c);
  while (out.bytes.size() < end) out.value('~');  // left over from earlier use
}

}  // namespace

std::vector<char> surf_header() {
  byte_sink out;
  out.value('\x01').value('\x00');
  for (const char c : std::string("UFF")) out.value(c);
  pad_to(out, 34);
  for (const int field : {30, 15, 14, 20, 9, 2005}) out.i16(field);
  pad_to(out, 2048);
  out.value('\x01').value('\x00');
  return out.bytes;
}

std::vector<char> surf_descriptor(char type) {
  byte_sink out;
  out.value('\x02').value('\x00').value(type);
  pad_to(out, 2204);
  out.value('\x02').value('\x00').zeros(2);
  return out.bytes;
}

std::vector<char> surf_layout_record(const surf_layout_fixture& f) {
  byte_sink out = record("L");
  pad_to(out, 16);
  out.value(static_cast<std::uint8_t>(f.major)).value('\x01');
  pad_to(out, 32);
  out.value(f.kind);
  pad_to(out, 34);
  out.i16(f.n_channels);
  pad_to(out, 56);
  out.i32(f.rate);
  for (int i = 0; i < 64; ++i) out.i16(f.external_gain);
  out.i16(f.internal_gain);
  pad_to(out, 318);
  counted_text(out, f.description);
  counted_text(out, f.electrode);
  pad_to(out, 1728);
  return out.bytes;
}

std::int32_t surf_value(std::int64_t timestamp, std::int64_t i) {
  return static_cast<std::int32_t>((timestamp / 1000 + i * 7) % 4096) - 2048;
}

std::vector<char> surf_block_record(const std::string& code, std::int64_t timestamp,
                                    std::int32_t probe, std::int32_t n_values) {
  byte_sink out = record(code);
  out.value(timestamp).i16(probe).i16(0).i32(0).i32(n_values);
  for (std::int32_t i = 0; i < n_values; ++i) out.i16(2048 + surf_value(timestamp, i));
  return out.bytes;
}

std::vector<char> surf_message(const std::string& code, const std::string& text) {
  byte_sink out = record(code);
  out.value(std::int64_t{5}).value(38000.5).i32(static_cast<std::int32_t>(text.size()));
  for (const char c : text) out.value(c);
  return out.bytes;
}

std::vector<char> surf_digital_value(std::int64_t timestamp, std::uint16_t value) {
  byte_sink out = record("VD");
  out.value(timestamp).value(value).zeros(6);
  return out.bytes;
}

std::vector<char> surf_display(std::int32_t version, const std::string& script) {
  byte_sink out = record("D");
  out.value(std::int64_t{7}).value(38000.5).value('D').value('S').i16(version);
  out.text("stimulus.txt", version == 100 ? 16 : 64).zeros(2996);
  const std::size_t script_end = out.bytes.size() + 50000;
  for (const char c : script) out.value(c);
  if (version == 110) pad_to(out, script_end);
  pad_to(out, version == 100 ? 3072 : 53120);
  return out.bytes;
}

std::vector<char> joined(const std::vector<std::vector<char>>& parts) {
  std::vector<char> all;
  for (const std::vector<char>& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::vector<std::vector<char>> surf_parts(std::int32_t n_blocks) {
  std::vector<std::vector<char>> parts = {surf_header(), surf_descriptor('P'), surf_descriptor('V'),
                                          surf_layout_record({}),
                                          surf_message("MS", "system ready")};
  surf_layout_fixture lfp{.kind = 'C', .n_channels = 1, .rate = 1000};
  lfp.description = "\xB5Map54_2a, ch5";
  parts.push_back(surf_layout_record(lfp));
  for (std::int32_t b = 0; b < n_blocks; ++b) {
    parts.push_back(surf_block_record("PS", 100'000 * b, 0, 54 * 2500));
    parts.push_back(surf_block_record("PC", 100'000 * b, 1, 100));
  }
  parts.push_back(surf_digital_value(150'000, 42));
  parts.push_back(surf_display(110, "print 'grating'"));
  parts.push_back(surf_message("MU", "user message"));
  return parts;
}

std::int16_t prf_sample(std::int32_t epoch, std::int32_t channel, std::int64_t i) {
  return static_cast<std::int16_t>((epoch * 1009 + channel * 101 + i * 3) % 65536 - 32768);
}

std::vector<char> prf_bytes(const prf_fixture& f) {
  byte_sink out;
  out.text(f.label, 16).i32(1).text("two epochs", 256).text(f.polytrode, 16);
  out.i32(f.rate).i32(f.n_channels);
  for (std::int32_t c = 1; c <= f.n_channels; ++c) {
    bool masked = false;
    for (const std::int32_t m : f.masked) masked = masked || m == c;
    out.i32(masked ? 1 : 0);
  }
  out.i32(f.told_epochs == -1 ? static_cast<std::int32_t>(f.epochs.size()) : f.told_epochs);
  std::int32_t number = 0;
  for (const prf_epoch& epoch : f.epochs) {
    ++number;
    const bool lies = number == 1 && f.told_samples != -1;
    out.text(epoch.name, 64).value(epoch.start).value(lies ? f.told_samples : epoch.samples);
    for (std::int32_t c = 1; c <= f.n_channels; ++c) {
      for (std::int64_t i = 0; i < epoch.samples; ++i) out.i16(prf_sample(number, c, i));
    }
  }
  return out.bytes;
}

}  // namespace kestrelvane::test
