#include "displays/report/unit_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "analysis/unit_quality.h"
#include "displays/report/report_pictures.h"
#include "files/input_file.h"
#include "files/safe_file.h"
#include "session/template_window.h"
#include "session/version.h"
#include "sorting/unit_table.h"

namespace kestrelvane {

namespace {

constexpr const char* box_title = "Report";

constexpr const char* style_sheet = R"(
body { font: 15px/1.45 system-ui, sans-serif; margin: 2em auto; max-width: 1280px;
  padding: 0 1.5em; color: #1d2126; background: #fff; }
h1 { margin-bottom: 0.2em; } h2 { margin: 1.6em 0 0.4em; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
th, td { padding: 0.15em 0.7em; text-align: right; border-bottom: 1px solid #e3e6ea; }
th { text-align: right; font-weight: 600; }
.words td, .words th, td.words, th.words { text-align: left; }
.wide { overflow-x: auto; }
.pictures { display: grid; grid-template-columns: repeat(auto-fit, minmax(320px, 1fr)); gap: 0.6em; }
figure { margin: 0; } svg { width: 100%; height: auto; display: block; }
.overview { display: flex; gap: 2em; flex-wrap: wrap; align-items: flex-start; }
.overview figure { flex: 0 1 420px; } .overview div { flex: 1 1 320px; }
section { break-inside: avoid; border-top: 2px solid #c9ced5; margin-top: 1.5em; }
.figures { columns: 3 16em; margin: 0.6em 0; padding: 0; list-style: none; }
.figures b { float: right; font-weight: 600; }
.figures li { border-bottom: 1px solid #eef1f4; break-inside: avoid; }
footer { margin-top: 3em; color: #5a626c; }
)";

// What the browser would read as marks.
std::string escaped(std::string_view text) {
  std::string safe;
  for (const char c : text) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

std::string row(const std::string& name, const std::string& value) {
  return fmt::format("<tr><th>{}</th><td>{}</td></tr>\n", name, escaped(value));
}

struct report {
  const session_state& session;
  std::vector<unit_row> units;
  std::vector<unit_quality> quality;  // of the same units
  cluster_index index;
};

std::string count_labels(const std::vector<unit_row>& units) {
  std::string text = fmt::format("{}", units.size());
  const char* separator = ": ";
  for (const unit_label_name& name : unit_label_names) {
    const auto n = std::count_if(units.begin(), units.end(),
                                 [&](const unit_row& unit) { return unit.label == name.label; });
    if (n == 0) continue;
    text += fmt::format("{}{} {}", separator, n, name.name);
    separator = ", ";
  }
  return text;
}

std::string facts(const report& page) {
  const recording_store& r = page.session.recording;
  std::int32_t n_masked = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) n_masked += r.chan_mask[c] ? 1 : 0;
  std::string text = "<table class=\"words\">\n";
  text += row("Recording", file_name_of(r.recording_path));
  text += row("Channels", fmt::format("{}{}", r.n_channels,
                                      n_masked > 0 ? fmt::format(", {} masked", n_masked) : ""));
  text += row("Sampling frequency", fmt::format("{} Hz", r.sampling_frequency));
  text += row("Duration", fmt::format("{:.2f} min", double{r.duration_mins}));
  text += row("Events", fmt::format("{}", page.session.events.n_events));
  text += row("Units", count_labels(page.units));
  return text + "</table>\n";
}

// The figures that a unit is judged by at first sight; all of them stand with the unit.
constexpr const char* first_figures[] = {
    "rate_hz",          "snr",          "presence_ratio", "contamination_hill",
    "amplitude_cutoff", "amplitude_cv", "drift_um",       "nn_hit_rate",
    "l_ratio",          "d_prime"};

bool is_first(const quality_figure& figure) {
  return std::any_of(std::begin(first_figures), std::end(first_figures),
                     [&](const char* name) { return std::string_view(name) == figure.name; });
}

std::string heading_of(const quality_figure& figure) {
  const std::string unit = *figure.unit == '\0' ? "" : fmt::format(", {}", figure.unit);
  return fmt::format("<th title=\"{}\">{}{}</th>", escaped(figure.meaning), escaped(figure.heading),
                     unit);
}

std::string table_of_units(const report& page) {
  std::string text =
      "<div class=\"wide\"><table>\n<tr><th>Unit</th><th class=\"words\">Label</th><th>Channel</th>"
      "<th>x, µm</th><th>y, µm</th><th>Events</th>";
  for (const quality_figure& figure : quality_figures()) {
    if (is_first(figure)) text += heading_of(figure);
  }
  text += "</tr>\n";
  for (std::size_t i = 0; i < page.units.size(); ++i) {
    const unit_row& unit = page.units[i];
    text += fmt::format(
        "<tr><td><a href=\"#unit-{0}\">{0}</a></td><td class=\"words\">{1}</td><td>{2}</td>"
        "<td>{3:.0f}</td><td>{4:.0f}</td><td>{5}</td>",
        unit.cluster, name_of(unit.label).name, unit.channel, double{unit.x}, double{unit.y},
        unit.n_events);
    for (const quality_figure& figure : quality_figures()) {
      if (is_first(figure)) {
        text += fmt::format("<td>{}</td>", quality_text(figure, page.quality[i]));
      }
    }
    text += "</tr>\n";
  }
  return text + "</table></div>\n";
}

std::string table_of_figures() {
  std::string text =
      "<div class=\"wide\"><table class=\"words\">\n<tr><th>Figure</th><th>Meaning</th>"
      "<th>Good</th><th>Source</th></tr>\n";
  for (const quality_figure& figure : quality_figures()) {
    text += fmt::format("<tr><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
                        escaped(figure.heading), escaped(figure.meaning), escaped(figure.good),
                        escaped(figure.source));
  }
  return text + "</table></div>\n";
}

std::string figures_of(const unit_quality& quality) {
  std::string text = "<ul class=\"figures\">\n";
  for (const quality_figure& figure : quality_figures()) {
    const std::string value = quality_text(figure, quality);
    if (value.empty()) continue;
    text += fmt::format("<li title=\"{}\">{} <b>{} {}</b></li>\n", escaped(figure.meaning),
                        escaped(figure.heading), value, figure.unit);
  }
  return text + "</ul>\n";
}

std::string picture(const std::string& svg) { return "<figure>" + svg + "</figure>\n"; }

std::string section_of(report& page, std::size_t i) {
  const unit_row& unit = page.units[i];
  const session_state& session = page.session;
  std::string text = fmt::format("<section id=\"unit-{0}\">\n<h2>Unit {0}: {1}</h2>\n",
                                 unit.cluster, name_of(unit.label).words);
  const std::string_view comment = session.clusters.cluster_comment[unit.cluster].view();
  if (!comment.empty()) text += fmt::format("<p>{}</p>\n", escaped(comment));
  text += "<div class=\"pictures\">\n";
  text += picture(template_as_svg(session, page.index, unit.cluster));
  text += picture(autocorrelogram_as_svg(session, unit.cluster));
  text += picture(heights_as_svg(session, page.index, unit.cluster));
  return text + "</div>\n" + figures_of(page.quality[i]) + "</section>\n";
}

std::string front_of(report& page) {
  const std::string name = escaped(file_name_of(page.session.recording.recording_path));
  return fmt::format(
             "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
             "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
             "<title>Units of {0}</title>\n<style>{1}</style>\n</head>\n<body>\n"
             "<h1>Units of {0}</h1>\n<div class=\"overview\">\n<div>\n",
             name, style_sheet) +
         facts(page) + "</div>\n" + picture(probe_as_svg(page.session, page.index)) + "</div>\n" +
         "<h2>Units</h2>\n" + table_of_units(page);
}

// Unit by unit, so that a long one can be stopped; false when it was.
bool write_sections(report& page, safe_file& out) {
  const auto n = static_cast<std::int32_t>(page.units.size());
  for (std::int32_t i = 0; i < n; ++i) {
    if (autosort_interrupted(page.session)) return false;
    write_text(out, section_of(page, static_cast<std::size_t>(i)));
    set_progress(page.session, meter::saving, i + 1, n);
  }
  return true;
}

// False when it was interrupted; the file is thrown away then.
bool write_page(report& page, safe_file& out) {
  write_text(out, front_of(page));
  if (!write_sections(page, out)) return false;
  write_text(out, "<h2>What the figures mean</h2>\n" + table_of_figures());
  write_text(out,
             fmt::format("<footer>Kestrelvane {}</footer>\n</body>\n</html>\n", program_version));
  return true;
}

bool can_report(const session_state& session) {
  const char* problem = nullptr;
  if (session.recording.n_samples == 0) {
    problem = "No recording data in memory";
  } else if (session.clusters.n_clusters == 0) {
    problem = "There are no clusters";
  } else if (templates_are_outdated(session)) {
    problem = "Templates are those of another spike window: recalculate them first";
  }
  if (problem != nullptr) tell(session, problem, box_title);
  return problem == nullptr;
}

}  // namespace

std::string report_path(const std::string& folder) { return folder + "/report.html"; }

bool write_unit_report(const session_state& session, const std::string& path) {
  if (!can_report(session)) return false;
  report page{session, make_unit_table(session), measure_quality(session), {}};
  bool complete = page.quality.size() == page.units.size();
  std::error_code failed;
  std::filesystem::create_directories(folder_of(path), failed);
  safe_file out;
  // One that cannot be opened is told of below.
  if (complete && open_safe_file(out, path)) complete = write_page(page, out);
  if (!complete) {
    log_message(session, "The report was not saved: it was interrupted");
    return false;
  }
  if (!finish_safe_file(out)) {
    tell(session, "Error saving report " + why_not_saved(path), box_title);
    return false;
  }
  tell(session, "Report saved in " + path, box_title, box_icon::information);
  return true;
}

bool save_unit_report_dialog(const session_state& session) {
  // Before a place for it is asked for.
  if (!can_report(session)) return false;
  std::string path = replace_extension(session.recording.recording_path, ".html");
  return choose_file_to_save(session, "Save report", "Report(*.HTML)", path) &&
         write_unit_report(session, path);
}

}  // namespace kestrelvane
