// Recordings whose samples stand channel fastest: SpikeGLX, Neuroscope, Open Ephys.
//
// The value of channel v (from 0) at point p (from 0) is interleaved_sample(v, p), so that a
// sample tells where it belongs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane::test {

std::int16_t interleaved_sample(std::int64_t value, std::int64_t point);

// n_points time points of n_values each, as bytes; extra_bytes of the next point behind.
std::vector<char> interleaved_bytes(std::int64_t n_values, std::int64_t n_points,
                                    std::int64_t extra_bytes = 0);

struct spikeglx_fixture {
  std::int32_t n_saved = 9, n_ap = 8, n_lf = 0;
  std::int64_t n_bytes = 100'000;
  std::int64_t told_bytes = -1;  // fileSizeBytes; -1: the true size
  std::string rate = "30000.25";
  std::string range = "0.6";
  std::string stream = "typeThis=imec";  // whole lines; "" for none
  std::string further;                   // further lines of the ".meta"
  std::string geometry = "27 0\n59 0\n\nno site\n11, 20\n43 20\n27 40\n59 40\n11 60\n43 60\n";
  bool has_meta = true, has_geometry = true;
};
// Writes NAME.bin, NAME.meta and geometry.txt into a folder; the path of the ".bin".
std::string write_spikeglx(const std::string& folder, const spikeglx_fixture& f,
                           const std::string& name = "run_g0_t0.imec0.ap");

struct neuroscope_fixture {
  std::int32_t n_channels = 5;
  std::int64_t n_points = 300;
  std::int64_t extra_bytes = 0;
  std::string bits = "<nBits>16</nBits>", range = "<voltageRange>20</voltageRange>",
              amplification = "<amplification>1000</amplification>", offset;
  std::string rate = "20000";
  bool has_dat = true;
};
std::string write_neuroscope(const std::string& folder, const neuroscope_fixture& f);

struct open_ephys_stream {
  std::string name;
  std::int32_t n_electrodes = 4, n_others = 0;  // the others are analog inputs behind them
  std::int64_t n_points = 500, extra_bytes = 0;
  double scale = 0.195, last_scale = 0.195;  // of the last electrode channel
  std::int64_t first_number = 12345, jump = 0;
};
struct open_ephys_fixture {
  std::vector<open_ephys_stream> streams = {{.name = "ProbeA"}};
  bool old_names = false;  // timestamps.npy holds the sample numbers
  bool settings = false;   // settings.xml with the positions of a probe per stream
};
// Writes experiment1/recording1 into a folder; the path of the structure.oebin.
std::string write_open_ephys(const std::string& folder, const open_ephys_fixture& f);

}  // namespace kestrelvane::test
