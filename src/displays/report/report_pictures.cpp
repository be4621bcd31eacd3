#include "displays/report/report_pictures.h"

#include <QPainter>
#include <QSize>
#include <algorithm>

#include "analysis/correlograms.h"
#include "displays/clusters/correlogram_panel.h"
#include "displays/clusters/heights.h"
#include "displays/clusters/sorted_waveforms.h"
#include "displays/clusters/spike_map.h"
#include "displays/picture_file.h"

namespace kestrelvane {

namespace {

constexpr QSize unit_size(400, 280);  // pixels of each picture of a unit
constexpr QSize probe_size(420, 720);

cluster_theme theme_of(const session_state& session) {
  return make_cluster_theme(session.preferences, false);
}

// What stands between begin and end of each of them, ends included.
void cut_out(std::string& text, std::string_view begin, std::string_view end) {
  for (std::size_t from = text.find(begin); from != text.npos; from = text.find(begin)) {
    const std::size_t to = text.find(end, from + begin.size());
    if (to == text.npos) return;
    text.erase(from, to + end.size() - from);
  }
}

// "<g ...>" with nothing but blanks up to its "</g>".
std::string without_empty_groups(std::string_view svg) {
  std::string kept;
  std::size_t at = 0;
  while (at < svg.size()) {
    const std::size_t group = svg.find("<g ", at);
    if (group == svg.npos) break;
    kept.append(svg, at, group - at);
    const std::size_t inside = svg.find('>', group);
    if (inside == svg.npos) return kept.append(svg, group);
    const std::size_t next = svg.find_first_not_of(" \r\n\t", inside + 1);
    constexpr std::string_view end = "</g>";
    const bool empty = next != svg.npos && svg.substr(next, end.size()) == end;
    at = empty ? next + end.size() : inside + 1;
    if (!empty) kept.append(svg, group, at - group);
  }
  return kept.append(svg, at);
}

// Places in a tenth of a pixel, which is as much as is seen: the numbers behind "points" and "d",
// the greater part of a picture, lose the digits behind the first decimal.
std::string with_short_places(std::string_view svg) {
  std::string kept;
  kept.reserve(svg.size());
  bool in_places = false;
  int decimals = -1;  // of the number at hand; below 0: it has none yet
  for (std::size_t i = 0; i < svg.size(); ++i) {
    const char c = svg[i];
    if (c == '"') {
      const std::string_view before = svg.substr(0, i);
      in_places = !in_places && (before.ends_with(" points=") || before.ends_with(" d="));
    }
    const bool digit = c >= '0' && c <= '9';
    decimals = c == '.' ? 0 : digit && decimals >= 0 ? decimals + 1 : -1;
    // A number so small that it has an exponent is none that a place has.
    if (!in_places || decimals <= 1) kept += c;
  }
  return kept;
}

}  // namespace

std::string bare_svg(const std::string& svg) {
  std::string bare = svg.substr(std::min(svg.find("<svg"), svg.size()));
  cut_out(bare, "<title>", "</title>");
  cut_out(bare, "<desc>", "</desc>");
  // Inside of a page they go without saying, and nothing shall look as if it were fetched.
  cut_out(bare, " xmlns=\"", "\"");
  cut_out(bare, " xmlns:xlink=\"", "\"");
  // A page sizes its pictures itself.
  cut_out(bare, " width=\"", "mm\"");
  cut_out(bare, " height=\"", "mm\"");
  // Inside out: a group of empty groups is one, too.
  for (std::size_t before = 0; before != bare.size();) {
    before = bare.size();
    bare = without_empty_groups(bare);
  }
  return with_short_places(bare);
}

std::string probe_as_svg(const session_state& session, cluster_index& index) {
  probe_view view;
  view.width = probe_size.width();
  view.height = probe_size.height();
  probe_picture picture;
  prepare_probe(session, index, view, picture);
  return bare_svg(picture_as_svg(probe_size, [&](QPainter& painter) {
    paint_probe(painter, picture, view, theme_of(session));
  }));
}

std::string template_as_svg(const session_state& session, cluster_index& index, std::int32_t unit) {
  waveform_view view = view_of_settings(session);
  view.clusters = {unit};
  view.mode = waveform_mode::templates;
  view.error_bars = true;
  // What a window was left with is no matter of a report.
  view.autoscale = true;
  view.zoom = 1;
  view.offset = 0;
  view.voltage_gain = 1;
  view.width = unit_size.width();
  view.height = unit_size.height();
  waveform_picture picture;
  prepare_waveforms(session, index, view, picture);
  return bare_svg(picture_as_svg(unit_size, [&](QPainter& painter) {
    paint_waveforms(painter, picture, view, theme_of(session));
  }));
}

std::string autocorrelogram_as_svg(const session_state& session, std::int32_t unit) {
  const spike_train train = get_spike_train(session, unit);
  const float width = session.review.correlogram_bin_ms;
  correlogram_panel panel =
      make_correlogram_panel(correlogram_counts(session, train, train, width), true);
  panel.mark = mark_of_cluster(unit);
  return bare_svg(picture_as_svg(unit_size, [&](QPainter& painter) {
    paint_correlogram(painter, QRectF(QPointF(0, 0), unit_size), panel, theme_of(session));
  }));
}

std::string heights_as_svg(const session_state& session, cluster_index& index, std::int32_t unit) {
  height_view view;
  view.clusters = {unit};
  view.most_events = 1000;
  view.width = unit_size.width();
  view.height = unit_size.height();
  height_picture picture;
  prepare_heights(session, index, nullptr, view, picture);
  return bare_svg(picture_as_svg(unit_size, [&](QPainter& painter) {
    paint_heights(painter, picture, view, theme_of(session));
  }));
}

}  // namespace kestrelvane
