#include "format_ratios.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "numerics/parallel.h"
#include "recording/interleaved.h"
#include "recording/recording_formats.h"
#include "side_by_side.h"
#include "support/blackrock_fixture.h"
#include "support/interleaved_fixture.h"
#include "support/neuralynx_fixture.h"
#include "support/plx_fixture.h"
#include "support/rhd_fixture.h"
#include "support/small_session.h"

namespace kestrelvane::test {

namespace {

constexpr std::int64_t about_bytes = 400'000'000;
constexpr std::int32_t n_probe_channels = 384;

// Front to back in pieces of 1 MB, as fast as the page cache gives them.
void read_plainly(const std::string& path) {
  static std::vector<char> buffer(1 << 20);
  const int file = ::open(path.c_str(), O_RDONLY);
  while (::read(file, buffer.data(), buffer.size()) > 0) {
  }
  ::close(file);
}

// How the page cache holds a file decides how fast a plain read of it is. Written bit by bit
// it lies there in pages of 4 KB, as files do in most kernels of today; read in from the
// device by a recent kernel it lies in large pieces.
enum class cache_form { small_pages, large_pages };

void bring_into_page_cache(const std::string& path, cache_form form) {
  if (form == cache_form::small_pages) {
    const std::string copy = path + ".copy";
    const int from = ::open(path.c_str(), O_RDONLY);
    const int to = ::open(copy.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    char page[4096];
    for (ssize_t n = 0; (n = ::read(from, page, sizeof page)) > 0;) {
      if (::write(to, page, static_cast<std::size_t>(n)) != n) break;
    }
    ::close(to);
    ::close(from);
    std::rename(copy.c_str(), path.c_str());
  } else {
    const int file = ::open(path.c_str(), O_RDONLY);
    ::fsync(file);
    ::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
    ::close(file);
  }
  read_plainly(path);
}

const char* name_of(cache_form form) {
  return form == cache_form::small_pages ? "4 KB pages" : "large pages";
}

constexpr cache_form cache_forms[] = {cache_form::small_pages, cache_form::large_pages};

// read_path is opened; data_path is the file that holds its samples.
void benchmark_format(const char* name, std::int32_t code, const std::string& read_path,
                      const std::string& data_path) {
  small_session session;
  session.user.default_answer = true;
  const recording_reader read = find_recording_format(code)->read;
  bool good = true;
  for (const cache_form form : cache_forms) {
    bring_into_page_cache(data_path, form);
    for (const int threads : {1, 2}) {
      use_threads(*session, threads);
      const best_times times = time_side_by_side(
          5, [&] { read_plainly(data_path); },
          [&] {
            reset_session(*session);
            session->recording.file_type = code;
            good = read(*session, {read_path, code}) && good;
          });
      report(fmt::format("plain read / {}, {}, {} thr.", name, name_of(form), threads), times,
             good);
    }
  }
}

// What a reader cannot do without: new memory for the samples, which the system clears.
void benchmark_memory(const std::string& folder) {
  spikeglx_fixture f;
  f.n_saved = f.n_ap = n_probe_channels;
  f.n_bytes = about_bytes / (2 * f.n_saved) * (2 * f.n_saved);
  const std::string path = write_spikeglx(folder, f);
  const std::int64_t n_samples = f.n_bytes / (2 * f.n_saved);
  small_session session;
  voltage_store& vd = session->recording.vd;
  for (const cache_form form : cache_forms) {
    bring_into_page_cache(path, form);
    constexpr int threads = 2;
    const best_times times = time_side_by_side(
        5, [&] { read_plainly(path); },
        [&] {
          vd.allocate(n_samples + 1000, n_probe_channels);
          parallel_for(threads, 1, n_probe_channels, [&](std::int64_t c, std::int32_t) {
            constexpr std::int64_t page = 2048;
            std::int16_t* samples = vd.channel(static_cast<std::int32_t>(c));
            for (std::int64_t t = 1; t <= n_samples; t += page) samples[t] = 1;
          });
        });
    report(fmt::format("plain read / memory for as much, {}, 2 thr.", name_of(form)), times, true);
  }
}

void benchmark_spikeglx(const std::string& folder) {
  spikeglx_fixture f;
  f.n_saved = n_probe_channels + 1;
  f.n_ap = n_probe_channels;
  f.n_bytes = about_bytes / (2 * f.n_saved) * (2 * f.n_saved);
  benchmark_format("SpikeGLX, 384 ch", file_type_bin, write_spikeglx(folder, f),
                   folder + "/run_g0_t0.imec0.ap.bin");
}

void benchmark_neuroscope(const std::string& folder) {
  neuroscope_fixture f;
  f.n_channels = n_probe_channels;
  f.n_points = about_bytes / (2 * n_probe_channels);
  benchmark_format("Neuroscope, 384 ch", file_type_xml, write_neuroscope(folder, f),
                   folder + "/base.dat");
}

void benchmark_nsx(const std::string& folder) {
  nsx_fixture f;
  f.channels.clear();
  for (std::int32_t c = 1; c <= n_probe_channels; ++c) f.channels.push_back({.id = c});
  f.stretches = {{0, about_bytes / (2 * n_probe_channels)}};
  const std::string path = folder + "/rec.ns5";
  write_bytes(path, nsx_bytes(f));
  benchmark_format("NSx, 384 ch", file_type_nsx, path, path);
}

void benchmark_rhd(const std::string& folder) {
  rhd_fixture f;
  f.major = 3;
  f.groups = {{}};
  for (std::int32_t c = 0; c < n_probe_channels; ++c) f.groups[0].channels.push_back({});
  f.n_blocks = about_bytes / (128 * (2 * n_probe_channels + 4));
  const std::string path = folder + "/rec.rhd";
  write_bytes(path, rhd_bytes(f));
  benchmark_format("RHD, 384 ch", file_type_rhd, path, path);
}

void benchmark_ncs(const std::string& folder) {
  constexpr std::int64_t record_bytes = 1044;
  std::vector<ncs_fixture_record> records;
  for (std::int64_t k = 0; k < about_bytes / record_bytes; ++k) {
    records.push_back(
        {static_cast<std::uint64_t>(k) * 16000, 7, static_cast<std::int32_t>(k % 999)});
  }
  const std::string path = folder + "/rec.ncs";
  write_bytes(path, ncs_bytes(neuralynx_header(ncs_header_lines()), records));
  benchmark_format("NCS", file_type_ncs, path, path);
}

void benchmark_plx(const std::string& folder) {
  constexpr std::int32_t n_channels = 64, words = 120;
  const std::int64_t round_bytes = n_channels * (16 + 2 * words);
  std::string map = "benchmark\n";
  for (int c = 1; c <= n_channels; ++c) map += fmt::format("{} {} 0 {}\n", c, c, 50 * c);
  write_bytes(folder + "/electrode.cfg", {map.begin(), map.end()});
  const std::string path = folder + "/rec.plx";
  write_bytes(path, plx_bytes(continuous_plx(
                        n_channels, static_cast<std::int32_t>(about_bytes / round_bytes), words)));
  benchmark_format("PLX, 64 ch", file_type_plx, path, path);
}

}  // namespace

void benchmark_formats() {
  for (void (*const benchmark)(const std::string&) :
       {benchmark_memory, benchmark_spikeglx, benchmark_neuroscope, benchmark_nsx, benchmark_rhd,
        benchmark_ncs, benchmark_plx}) {
    const temporary_directory folder;
    benchmark(folder.path);
  }
}

}  // namespace kestrelvane::test
