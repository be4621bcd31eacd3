#include "format_ratios.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "recording/interleaved.h"
#include "recording/recording_formats.h"
#include "side_by_side.h"
#include "support/interleaved_fixture.h"
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

// Out of the page cache and in again, as a recording gets there that another machine wrote:
// what this process has just written lies there in larger pieces.
void bring_into_page_cache(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY);
  ::fsync(file);
  ::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  ::close(file);
  read_plainly(path);
}

// read_path is opened; data_path is the file that holds its samples.
void benchmark_format(const char* name, std::int32_t code, const std::string& read_path,
                      const std::string& data_path) {
  small_session session;
  session.user.default_answer = true;
  const recording_reader read = find_recording_format(code)->read;
  bring_into_page_cache(data_path);
  bool good = true;
  for (const int threads : {1, 2}) {
    use_threads(*session, threads);
    const best_times times = time_side_by_side(
        5, [&] { read_plainly(data_path); },
        [&] {
          reset_session(*session);
          session->recording.file_type = code;
          session->recording.open_path = read_path;
          good = read(*session, read_path) && good;
        });
    report(fmt::format("plain read / {}, {} thread(s)", name, threads), times, good);
  }
}

void benchmark_spikeglx(const std::string& folder) {
  spikeglx_fixture f;
  f.n_saved = n_probe_channels + 1;
  f.n_ap = n_probe_channels;
  f.n_bytes = about_bytes / (2 * f.n_saved) * (2 * f.n_saved);
  benchmark_format("SpikeGLX, 384 channels", file_type_bin, write_spikeglx(folder, f),
                   folder + "/run_g0_t0.imec0.ap.bin");
}

void benchmark_neuroscope(const std::string& folder) {
  neuroscope_fixture f;
  f.n_channels = n_probe_channels;
  f.n_points = about_bytes / (2 * n_probe_channels);
  benchmark_format("Neuroscope, 384 channels", file_type_xml, write_neuroscope(folder, f),
                   folder + "/base.dat");
}

}  // namespace

void benchmark_formats() {
  for (void (*const benchmark)(const std::string&) : {benchmark_spikeglx, benchmark_neuroscope}) {
    const temporary_directory folder;
    benchmark(folder.path);
  }
}

}  // namespace kestrelvane::test
