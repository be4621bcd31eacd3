// "Export" of the analysis of amplitudes.
#include <fmt/format.h>

#include <cmath>

#include "analysis/amplitude_fits.h"
#include "clustering/membership.h"
#include "files/safe_file.h"

namespace kestrelvane {

namespace {

constexpr amplitude_file_row rows[] = {
    {"Deviation measures", "_tfr.dat", "The figures of each channel that is not masked"},
    {"Flank residuals", "R.dat", "Each bin of the flanks, its count, the line and what is left"},
    {"Gaussian residuals", "_gsr.dat", "Each bin, its count, the Gaussian and what is left"},
    {"Matched channel and units", "_mcu.dat", "Each unit with the figures of its centre channel"},
};

struct measure_column {
  const char* name;
  double amplitude_figures::*value;
};
constexpr measure_column columns[] = {
    {"sigma_uv", &amplitude_figures::sigma_uv},
    {"left_shoulder_uv", &amplitude_figures::left_uv},
    {"right_shoulder_uv", &amplitude_figures::right_uv},
    {"left_temperature", &amplitude_figures::temperature_left},
    {"right_temperature", &amplitude_figures::temperature_right},
    {"non_gaussian_percent", &amplitude_figures::non_gaussian},
    {"goodness_percent", &amplitude_figures::goodness},
    {"left_slope_per_uv", &amplitude_figures::slope_left},
    {"right_slope_per_uv", &amplitude_figures::slope_right},
    {"left_flank_sigma_uv", &amplitude_figures::flank_left_uv},
    {"right_flank_sigma_uv", &amplitude_figures::flank_right_uv},
};

// What cannot be told is "nan", which readers of numbers know; a blank would shift the columns.
std::string number(double value) { return fmt::format("{:14.6g}", value); }

std::string measure_headings() {
  std::string line;
  for (const measure_column& column : columns) line += fmt::format(" {}", column.name);
  return line + "\n";
}

std::string measures_of(const amplitude_figures& figures) {
  std::string line;
  for (const measure_column& column : columns) line += number(figures.*column.value);
  return line + "\n";
}

// One after the other: each is wide inside.
bool measure_channels(const session_state& session, const amplitude_analysis& analysis,
                      std::string& text) {
  text = "channel" + measure_headings();
  amplitude_analysis of;
  of.request = analysis.request;
  of.request.all_channels = false;
  const recording_store& r = session.recording;
  const bool of_samples = amplitude_sources()[of.request.ea_source - 1].of_samples;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.chan_mask[c]) continue;
    of.request.channel = c;
    // Rows of a unit, or of no recording, say nothing of channels: raw voltages do.
    if (!of_samples || of.request.ea_source == ea_unit) of.request.ea_source = ea_raw;
    if (autosort_interrupted(session)) return false;
    if (!analyse_amplitudes(session, of.request, of)) return false;
    text += fmt::format("{:7}", c) + measures_of(of.figures);
  }
  return true;
}

bool measure_units(const session_state& session, const amplitude_analysis& analysis,
                   std::string& text) {
  text = "unit channel events" + measure_headings();
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  amplitude_analysis of;
  amplitude_request request = analysis.request;
  request.all_channels = false;
  if (!amplitude_sources()[request.ea_source - 1].of_samples) request.ea_source = ea_raw;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (autosort_interrupted(session)) return false;
    request.unit = c;
    request.channel = session.templates.centre_channel(c);
    // A flat template has no channel.
    if (request.channel < 1) continue;
    if (!analyse_amplitudes(session, request, of)) return false;
    text += fmt::format("{:4} {:7} {:8}", c, request.channel, sizes[static_cast<std::size_t>(c)]) +
            measures_of(of.figures);
  }
  return true;
}

void list_flank(const amplitude_analysis& a, const flank_fit& flank, std::string& text) {
  const ea_histogram& h = a.values.histogram;
  const std::int32_t from = std::min(flank.end, flank.shoulder);
  const std::int32_t to = std::max(flank.end, flank.shoulder);
  for (std::int32_t bin = from; bin <= to; ++bin) {
    if (h.count(bin) <= 0) continue;
    const double line = flank.intercept + flank.slope * double{h.position(bin)};
    const double log_count = std::log(static_cast<double>(h.count(bin)));
    text += fmt::format("{:5} {:5} {:12.4f} {:12}{}{}\n", flank.is_right ? "right" : "left", bin,
                        h.microvolts(bin), h.count(bin), number(line), number(log_count - line));
  }
}

std::string list_flanks(const amplitude_analysis& a) {
  std::string text = "side bin uv count log_line log_residual\n";
  list_flank(a, a.fits.left, text);
  list_flank(a, a.fits.right, text);
  return text;
}

std::string list_bins(const amplitude_analysis& a) {
  std::string text = "bin uv count gaussian residual percent\n";
  const ea_histogram& h = a.values.histogram;
  for (std::int32_t bin = -ea_bin_limit; bin <= ea_bin_limit; ++bin) {
    if (h.count(bin) <= 0) continue;
    const double count = static_cast<double>(h.count(bin));
    const double over = count - double{a.fits.core.at(h.position(bin))};
    text += fmt::format("{:5} {:12.4f} {:12}{}{}{}\n", bin, h.microvolts(bin), h.count(bin),
                        number(count - over), number(over), number(100 * over / count));
  }
  return text;
}

}  // namespace

std::span<const amplitude_file_row> amplitude_files() { return rows; }

bool write_amplitude_file(const session_state& session, const amplitude_analysis& analysis,
                          amplitude_file which, const std::string& path) {
  std::string text;
  switch (which) {
    case amplitude_file::measures:
      if (!measure_channels(session, analysis, text)) return false;
      break;
    case amplitude_file::channels_and_units:
      if (!measure_units(session, analysis, text)) return false;
      break;
    case amplitude_file::flank_residuals:
      text = list_flanks(analysis);
      break;
    case amplitude_file::gaussian_residuals:
      text = list_bins(analysis);
      break;
  }
  safe_file out;
  if (open_safe_file(out, path)) write_text(out, text);
  constexpr const char* title = "Export data";
  if (!finish_safe_file(out)) {
    tell(session, "Error saving file " + why_not_saved(path), title);
    return false;
  }
  log_message(session, "Done it");
  tell(session, "Done it", title, box_icon::information);
  return true;
}

}  // namespace kestrelvane
