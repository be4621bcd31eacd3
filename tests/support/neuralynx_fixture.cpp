#include "support/neuralynx_fixture.h"

#include <algorithm>

#include "support/fixture_files.h"

namespace kestrelvane::test {

std::string neuralynx_header(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  text.resize(16384, '\0');
  return text;
}

std::vector<std::string> ncs_header_lines() {
  return {"######## Neuralynx Data File Header",
          "## File made for a test",
          "",
          "-RecordSize 1044",
          "-SamplingFrequency 32000",
          "-ADBitVolts 0.00000003"};
}

std::vector<std::string> ntt_header_lines() {
  return {"######## Neuralynx Data File Header", "-RecordSize 304", "-SamplingFrequency 32000",
          "-ADBitVolts 0.00000025 0.00000025 0.00000025 0.00000025", "-WaveformLength 32"};
}

std::vector<char> ncs_bytes(const std::string& header,
                            const std::vector<ncs_fixture_record>& records) {
  byte_sink out;
  out.bytes.assign(header.begin(), header.end());
  for (const ncs_fixture_record& r : records) {
    out.value(r.time_us).value(r.channel).value(r.frequency).value(r.n_valid);
    for (std::int32_t k = 0; k < 512; ++k) out.i16(r.first + k);
  }
  return out.bytes;
}

std::int16_t ntt_fixture_sample(const ntt_fixture_record& r, std::int32_t channel, std::int32_t k) {
  const bool peak = k == 8 && std::find(r.peaks.begin(), r.peaks.end(), channel) != r.peaks.end();
  return static_cast<std::int16_t>(100 * r.first + 10 * channel + k + (peak ? r.height : 0));
}

std::int32_t ntt_fixture_feature(const ntt_fixture_record& r, std::int32_t i) {
  return i % 2 == 0 ? 1000 * r.first + i : -(1000 * r.first + i);
}

std::vector<char> ntt_bytes(const std::string& header,
                            const std::vector<ntt_fixture_record>& records) {
  byte_sink out;
  out.bytes.assign(header.begin(), header.end());
  for (const ntt_fixture_record& r : records) {
    out.value(r.time_us).i32(7).value(r.cell);
    for (std::int32_t i = 0; i < 8; ++i) out.i32(ntt_fixture_feature(r, i));
    for (std::int32_t k = 0; k < 32; ++k) {
      for (std::int32_t c = 1; c <= 4; ++c) out.i16(ntt_fixture_sample(r, c, k));
    }
  }
  return out.bytes;
}

}  // namespace kestrelvane::test
