#include "synthesis/planted_files.h"

#include <fmt/format.h>

#include <algorithm>

#include "files/safe_file.h"
#include "numerics/parallel.h"

namespace kestrelvane {

namespace {

bool write_samples(const planted_files& files, safe_file& out, std::int32_t n_threads,
                   const channel_maker& make, const making_progress& progress, bool& stopped) {
  const auto n_channels = static_cast<std::int32_t>(files.sites.size());
  const std::int32_t at_once = std::clamp(n_threads, 1, n_channels);
  // Whole channels, since the file has one after the other.
  std::vector<std::vector<std::int16_t>> made(at_once, std::vector<std::int16_t>(files.n_samples));
  for (std::int32_t first = 1; first <= n_channels; first += at_once) {
    const std::int32_t last = std::min(first + at_once - 1, n_channels);
    parallel_for_dealt(at_once, first, last, [&](std::int64_t c, std::int32_t) {
      make(static_cast<std::int32_t>(c), made[c - first].data());
    });
    for (std::int32_t c = first; c <= last; ++c) {
      if (!write_bytes(out, made[c - first].data(), std::size_t{2} * files.n_samples)) return false;
    }
    // The last per cent belongs to the files beside it.
    stopped = progress && !progress(static_cast<int>(std::int64_t{99} * last / n_channels));
    if (stopped) return false;
  }
  return true;
}

bool write_recording(const planted_files& files, const std::string& path, std::int32_t n_threads,
                     const channel_maker& make, const making_progress& progress, bool& stopped) {
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  const std::int32_t format = 1002;
  const auto n_channels = static_cast<std::int32_t>(files.sites.size());
  write_text(out, "Test spike file ");
  for (const std::int32_t value : {format, files.sampling_frequency, n_channels, files.n_samples}) {
    write_value(out, value);
  }
  write_value(out, files.microvolts_per_bit);
  for (const site_position& site : files.sites) {
    write_value(out, site.x);
    write_value(out, site.y);
    write_value(out, std::int32_t{0});  // display order: left to the reader
  }
  if (!write_samples(files, out, n_threads, make, progress, stopped)) return false;
  write_value(out, std::int32_t{0});  // no events: the truth has its own file
  return finish_safe_file(out);
}

bool write_truth(const planted_files& files, const std::string& path) {
  struct truth_line {
    std::int64_t time;
    std::int32_t unit;
  };
  std::vector<truth_line> lines;
  for (std::size_t u = 0; u < files.spikes.size(); ++u) {
    for (const planted_spike& spike : files.spikes[u]) {
      lines.push_back({spike.time, static_cast<std::int32_t>(u) + 1});
    }
  }
  // Stable: of equal times the lower unit.
  std::stable_sort(lines.begin(), lines.end(),
                   [](const truth_line& a, const truth_line& b) { return a.time < b.time; });
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  write_text(out, "time_s,unit,channel\n");
  const double step_s = 1.0 / (double{sub_sample_steps} * files.sampling_frequency);
  for (const truth_line& line : lines) {
    write_text(out, fmt::format("{:.6f},{},{}\n", static_cast<double>(line.time) * step_s,
                                line.unit, files.units[line.unit - 1].best_channel));
  }
  return finish_safe_file(out);
}

bool write_units(const planted_files& files, const std::string& path) {
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  const bool with_snr = std::any_of(files.units.begin(), files.units.end(),
                                    [](const unit_line& u) { return u.snr > 0; });
  write_text(out, fmt::format("unit,x_um,y_um,amplitude_uv,rate_hz{}\n", with_snr ? ",snr" : ""));
  std::int32_t number = 0;
  for (const unit_line& u : files.units) {
    std::string line =
        fmt::format("{},{:.1f},{:.1f},{:.2f},{:.3f}", ++number, u.x, u.y, u.amplitude_uv, u.rate);
    if (with_snr) line += fmt::format(",{:.2f}", u.snr);
    write_text(out, line + "\n");
  }
  return finish_safe_file(out);
}

}  // namespace

std::string path_stem(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::size_t dot = path.find_last_of('.');
  const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
  // A dot in a folder's name, or at the front of the file's, begins no extension.
  return dot == std::string::npos || dot <= name ? path : path.substr(0, dot);
}

double mean_size(const std::vector<planted_spike>& spikes) {
  double sum = 0;
  for (const planted_spike& spike : spikes) sum += double{spike.size};
  return spikes.empty() ? 1 : sum / static_cast<double>(spikes.size());
}

bool write_planted_files(const planted_files& files, const std::string& path,
                         std::int32_t n_threads, const channel_maker& make,
                         const making_progress& progress, std::string& problem) {
  const std::string stem = path_stem(path);
  const std::string truth = stem + ".truth.csv", units = stem + ".units.csv";
  bool stopped = false;
  if (!write_recording(files, path, n_threads, make, progress, stopped)) {
    problem = stopped ? making_stopped : "cannot write " + why_not_saved(path);
  } else if (!write_truth(files, truth)) {
    problem = "cannot write " + why_not_saved(truth);
  } else if (!write_units(files, units)) {
    problem = "cannot write " + why_not_saved(units);
  }
  if (problem.empty() && progress) progress(100);
  return problem.empty();
}

}  // namespace kestrelvane
