// Blackrock files made byte by byte: .nev of versions 2 and 3, .nsx of all versions.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvane::test {

struct nev_spike {
  std::uint64_t stamp = 0;
  std::int32_t id = 1;
  std::int32_t unit = 0;  // 255: noise
};

// Samples of the k-th packet (from 0) of the file, point p from 0.
std::int16_t nev_sample(std::size_t k, std::int32_t p);

struct nev_fixture {
  bool is_v3 = false;
  std::int32_t points = 8;  // samples of a waveform
  std::uint32_t resolution = 30000, rate = 30000;
  // Electrode id and digitisation factor (nV per bit) of each electrode header.
  std::vector<std::pair<std::int32_t, std::int32_t>> electrodes = {{1, 250}, {2, 250}, {3, 250}};
  std::vector<std::string> other_headers;  // names of extended headers in front of them
  std::string comment = "two rats";
  std::vector<nev_spike> packets;
  std::int32_t tail_bytes = 0;  // of a cut packet at the end
};

std::vector<char> nev_bytes(const nev_fixture& f);
// Offset of a packet, and of its unit.
std::size_t nev_packet_offset(const nev_fixture& f, std::size_t k);
std::size_t nev_unit_offset(const nev_fixture& f, std::size_t k);

// Value of a channel (from 1) at the q-th point (from 0) of the file.
std::int16_t nsx_sample(std::int32_t channel, std::int64_t q);

struct nsx_channel {
  std::int32_t id = 1;
  std::int32_t bits = 32000;  // ranges are -bits .. bits, -analog .. analog
  std::int32_t analog = 8000;
  std::string units = "uV";
};

struct nsx_stretch {
  std::uint64_t stamp = 0;
  std::int64_t n_points = 0;
  std::int64_t stated = -1;  // points that its header states; negative: n_points
};

struct nsx_fixture {
  std::string magic = "NEURALCD";  // "BRSMPGRP", "NEURALSG"
  std::uint32_t period = 1, resolution = 30000;
  std::vector<nsx_channel> channels = {{.id = 1}, {.id = 2}, {.id = 3}};
  std::vector<nsx_stretch> stretches = {{0, 20, -1}};  // "NEURALSG": the points alone count
  std::int32_t tail_bytes = 0;
};

std::vector<char> nsx_bytes(const nsx_fixture& f);

}  // namespace kestrelvane::test
