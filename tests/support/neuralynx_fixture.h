// ".ncs" and ".ntt" files made field by field.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane::test {

// A header of the lines, each with its end, in 16384 bytes.
std::string neuralynx_header(const std::vector<std::string>& lines);
// Rate, scale and record size as recent versions write them.
std::vector<std::string> ncs_header_lines();
std::vector<std::string> ntt_header_lines();

// Sample k (from 0) of a record is first + k.
struct ncs_fixture_record {
  std::uint64_t time_us = 0;
  std::uint32_t channel = 0;
  std::int32_t first = 0;
  std::uint32_t n_valid = 512;
  std::uint32_t frequency = 32000;
};
std::vector<char> ncs_bytes(const std::string& header,
                            const std::vector<ncs_fixture_record>& records);

// Sample k (from 0) of channel c (from 1) is 100 * first + 10 * c + k, but for a peak of
// height on the channels of peaks at k = 8.
struct ntt_fixture_record {
  std::uint64_t time_us = 0;
  std::uint32_t cell = 0;
  std::int32_t first = 0;
  std::vector<std::int32_t> peaks{1};
  std::int32_t height = 500;
};
std::int16_t ntt_fixture_sample(const ntt_fixture_record& r, std::int32_t channel, std::int32_t k);
std::int32_t ntt_fixture_feature(const ntt_fixture_record& r, std::int32_t i);
std::vector<char> ntt_bytes(const std::string& header,
                            const std::vector<ntt_fixture_record>& records);

}  // namespace kestrelvane::test
