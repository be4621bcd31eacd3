#include "analysis/graph_data.h"

#include <algorithm>

#include "files/input_file.h"
#include "files/safe_file.h"

namespace kestrelvane {

namespace {

constexpr std::int16_t graph_marker = -23;

// Cut at the field's end, but not inside a character of several bytes.
void write_field(safe_file& out, std::string text, std::size_t length) {
  std::size_t end = std::min(text.size(), length);
  while (end > 0 && end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0u) == 0x80u) {
    --end;
  }
  text.resize(end);
  text.resize(length, ' ');
  write_text(out, text);
}

template <typename Texts>
void write_fields(safe_file& out, const Texts& texts, std::size_t length) {
  for (const std::string& text : texts) write_field(out, text, length);
}

void write_count(safe_file& out, std::size_t n) { write_value(out, static_cast<std::int32_t>(n)); }

void write_floats(safe_file& out, std::vector<float> values, std::size_t n) {
  values.resize(n, 0.0f);
  write_bytes(out, values.data(), sizeof(float) * n);
}

void write_front(safe_file& out, const graph_data& graph) {
  write_value(out, graph_marker);
  write_field(out, graph.title, 80);
  write_value(out, graph.layout_rows);
  write_value(out, graph.layout_columns);
  write_count(out, graph.row_labels.size());
  write_count(out, graph.column_labels.size());
  write_value(out, graph.kind);
  write_value(out, graph.axis_style);
  write_field(out, graph.remark, 160);
  write_fields(out, graph.labels, 40);
}

void write_series(safe_file& out, const graph_series& series) {
  const std::size_t n = series.x.size();
  write_floats(out, series.x, n);
  write_floats(out, series.y, n);
  write_floats(out, series.third, n);
  write_fields(out, series.point_text, 80);
  write_floats(out, series.extra, series.extra.size());
}

void write_back(safe_file& out, const graph_data& graph) {
  write_fields(out, graph.row_labels, 40);
  write_fields(out, graph.column_labels, 40);
  write_value(out, graph.frame_style);
  write_value(out, graph.colours);
  write_fields(out, graph.source_files, 128);
  write_fields(out, graph.notes, 80);
  write_fields(out, graph.units, 16);
  write_value(out, graph.x_divisions);
  write_field(out, graph.x_font, 40);
  write_value(out, graph.y_divisions);
  write_field(out, graph.y_font, 40);
  write_value(out, graph.series_style);
  for (const graph_series& series : graph.series) {
    write_count(out, series.x.size());
    write_count(out, series.point_text.size());
    write_count(out, series.extra.size());
  }
}

}  // namespace

bool write_graph(const graph_data& graph, const std::string& path) {
  safe_file out;
  if (open_safe_file(out, path)) {
    write_front(out, graph);
    for (const graph_series& series : graph.series) write_series(out, series);
    write_back(out, graph);
  }
  return finish_safe_file(out);
}

bool save_graph_dialog(const session_state& session, const graph_data& graph) {
  constexpr const char* title = "Save graph";
  std::string path = replace_extension(session.recording.recording_path, ".gra");
  if (!choose_file_to_save(session, title, "Graph files(*.GRA)", path)) return false;
  const bool written = write_graph(graph, path);
  if (written) {
    tell(session, "Graph saved successfully", title, box_icon::information);
  } else {
    tell(session, "Failed to save file " + path, title);
  }
  return written;
}

}  // namespace kestrelvane
