#include "analysis/graph_data.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>

#include "files/input_file.h"
#include "files/safe_file.h"

namespace kestrelvane {

namespace {

// First word of the file, by which readers know it.
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
  // x shows how many points there are; shorter columns are filled with zeros, since the file tells
  // one count for all three.
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

// A field of the text file; quoted where it holds what divides fields.
std::string quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (const char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + '"';
}

std::string number(float value) {
  // Nine digits read back as the same 32 bits; a spreadsheet takes an empty field for a gap, but
  // "nan" for a word.
  return std::isfinite(value) ? fmt::format("{:.9g}", value) : std::string();
}

// "time (ms)"; the plain name where the graph has no title for the axis.
std::string heading(const graph_data& graph, std::size_t axis, const char* plain) {
  const std::string& title = graph.labels[label_x_axis + axis];
  const std::string& unit = graph.units[axis];
  return (title.empty() ? plain : title) + (unit.empty() ? "" : " (" + unit + ")");
}

// A row past the end of a series is empty.
std::string field_of(const graph_series& series, const std::vector<float>& values,
                     std::size_t row) {
  return row < series.x.size() ? number(value_or_zero(values, row)) : std::string();
}

void write_line(safe_file& out, const std::vector<std::string>& fields) {
  write_text(out, fmt::format("{}\n", fmt::join(fields, ",")));
}

void write_series_headings(safe_file& out, const graph_data& graph) {
  std::vector<std::string> fields;
  for (std::size_t s = 0; s < graph_series_limit; ++s) {
    const graph_series& series = graph.series[s];
    if (series.x.empty()) continue;
    const std::string& name = graph.labels[label_legend + s];
    const std::string of = name.empty() ? "" : name + " ";
    fields.push_back(quoted(of + heading(graph, 0, "x")));
    fields.push_back(quoted(of + heading(graph, 1, "y")));
    if (!series.third.empty()) fields.push_back(quoted(of + heading(graph, 2, "third")));
  }
  write_line(out, fields);
}

void write_series_rows(safe_file& out, const graph_data& graph) {
  std::size_t n_rows = 0;
  for (const graph_series& series : graph.series) n_rows = std::max(n_rows, series.x.size());
  for (std::size_t row = 0; row < n_rows; ++row) {
    std::vector<std::string> fields;
    for (const graph_series& series : graph.series) {
      if (series.x.empty()) continue;
      fields.push_back(field_of(series, series.x, row));
      fields.push_back(field_of(series, series.y, row));
      if (!series.third.empty()) fields.push_back(field_of(series, series.third, row));
    }
    write_line(out, fields);
  }
}

void write_image_rows(safe_file& out, const graph_data& graph) {
  const graph_series& cells = graph.series[0];
  const auto rows = static_cast<std::size_t>(graph.axis_style[style_image_rows]);
  const auto columns = static_cast<std::size_t>(graph.axis_style[style_image_columns]);
  // One corner cell for both axes, rows below it and columns beside it, as spreadsheets have a
  // table.
  std::vector<std::string> fields = {
      quoted(heading(graph, 1, "y") + " \\ " + heading(graph, 0, "x"))};
  for (std::size_t c = 0; c < columns; ++c) fields.push_back(number(cells.x[c]));
  write_line(out, fields);
  for (std::size_t r = 0; r < rows; ++r) {
    fields = {field_of(cells, cells.y, r * columns)};
    for (std::size_t c = 0; c < columns; ++c) {
      fields.push_back(field_of(cells, cells.third, r * columns + c));
    }
    write_line(out, fields);
  }
}

bool is_csv_path(const std::string& path) {
  constexpr std::string_view extension = ".csv";
  if (path.size() < extension.size()) return false;
  return std::equal(
      extension.begin(), extension.end(), path.end() - extension.size(),
      [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); });
}

}  // namespace

std::int32_t pack_series_look(const series_look& look) {
  const std::uint32_t bits = static_cast<std::uint32_t>(look.form) | look.error_bars << 4u |
                             look.own_colour << 5u | look.colour << 8u;
  return static_cast<std::int32_t>(bits);
}

series_look unpack_series_look(std::int32_t style) {
  const auto bits = static_cast<std::uint32_t>(style);
  // A form that this version does not know is as good as none.
  const std::uint32_t form = bits & 15u;
  return {form > form_rings ? form_unset : static_cast<graph_form>(form), (bits >> 4u & 1u) != 0,
          (bits >> 5u & 1u) != 0, bits >> 8u};
}

series_look look_of_series(const graph_data& graph, std::size_t series) {
  series_look look = unpack_series_look(graph.series_style[series]);
  if (look.form == form_unset) look.form = unpack_series_look(graph.kind & 15).form;
  // Over an image lie points, unless the series says otherwise.
  if (look.form == form_image && (series > 0 || !has_image(graph))) look.form = form_points;
  if (look.form == form_unset) look.form = form_lines;
  return look;
}

void put_image(graph_data& graph, const image_grid& grid, const std::vector<float>& values) {
  graph.kind = form_image;
  graph.axis_style[style_image_rows] = grid.rows;
  graph.axis_style[style_image_columns] = grid.columns;
  graph_series& cells = graph.series[0];
  cells.x.clear();
  cells.y.clear();
  cells.third = values;
  for (std::int32_t row = 0; row < grid.rows; ++row) {
    for (std::int32_t column = 0; column < grid.columns; ++column) {
      cells.x.push_back(grid.x_first + static_cast<float>(column) * grid.x_step);
      cells.y.push_back(grid.y_first + static_cast<float>(row) * grid.y_step);
    }
  }
  // A grid that came with too few values has zeros for the rest, and none beyond its cells.
  cells.third.resize(cells.x.size());
}

bool has_image(const graph_data& graph) {
  const std::int64_t rows = graph.axis_style[style_image_rows];
  const std::int64_t columns = graph.axis_style[style_image_columns];
  return graph.kind == form_image && rows > 0 && columns > 0 &&
         graph.series[0].x.size() == static_cast<std::size_t>(rows * columns);
}

bool write_graph(const graph_data& graph, const std::string& path) {
  safe_file out;
  if (open_safe_file(out, path)) {
    write_front(out, graph);
    for (const graph_series& series : graph.series) write_series(out, series);
    write_back(out, graph);
  }
  return finish_safe_file(out);
}

bool write_graph_csv(const graph_data& graph, const std::string& path) {
  safe_file out;
  if (open_safe_file(out, path)) {
    if (has_image(graph)) {
      write_image_rows(out, graph);
    } else {
      write_series_headings(out, graph);
      write_series_rows(out, graph);
    }
  }
  return finish_safe_file(out);
}

bool write_graph_file(const graph_data& graph, const std::string& path) {
  return is_csv_path(path) ? write_graph_csv(graph, path) : write_graph(graph, path);
}

bool save_graph_dialog(const session_state& session, const graph_data& graph) {
  constexpr const char* title = "Save graph";
  // Offered beside the recording, where the user looks for what belongs to it.
  std::string path = replace_extension(session.recording.recording_path, ".gra");
  constexpr const char* kinds = "Graph files(*.GRA);;Comma-separated values(*.CSV);;All files(*.*)";
  if (!choose_file_to_save(session, title, kinds, path)) return false;
  const bool written = write_graph_file(graph, path);
  if (written) {
    tell(session, "Graph saved successfully", title, box_icon::information);
  } else {
    tell(session, "Failed to save file " + why_not_saved(path), title);
  }
  return written;
}

}  // namespace kestrelvane
