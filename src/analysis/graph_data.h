// A graph as plain numbers and texts: what the analysis tools plot, and its files (".gra"
// and ".csv").
//
// One graph has up to ten series of points with x, y and a third value, labels for rows
// and columns of points, and the style in which it is shown. Nothing in it depends on a
// window. Series, labels and style numbers count from 0 here, as they have no number in
// the program's own vocabulary. A style number is 0 unless it is set, and 0 means: as the
// program likes.
//
// The .gra file is a plain stream of little-endian fields; texts are cut to their field and
// padded with blanks. Routines run on any thread; a failed write leaves an older file as
// it was.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::size_t graph_series_limit = 10;

struct graph_series {
  // As many points as x has values; a missing y or third value is 0.
  std::vector<float> x, y;
  std::vector<float> third;             // error bar, or height over x and y
  std::vector<std::string> point_text;  // 80 characters each; none, or one per point
  // Values beside the points, as a fitted curve; one per point is drawn as a dashed line.
  std::vector<float> extra;
};

// A y or third value of a point.
inline float value_or_zero(const std::vector<float>& values, std::size_t point) {
  return point < values.size() ? values[point] : 0.0f;
}

// How points are shown. The kind of a graph holds for every series whose style names no
// form of its own.
enum graph_form : std::int32_t {
  form_unset,             // of a series: the graph's kind; of a graph: lines
  form_lines,             // from point to point in their order, a gap where y is no number
  form_points,            // a dot each
  form_lines_and_points,  // both
  form_bars,              // from y = 0, as wide as the least distance of two x
  form_steps,             // a level stretch around each point
  // Series 0 is a grid, row by row from the lowest y, its third value the colour;
  // axis_style says how many rows and columns. Other series are drawn over it.
  form_image,
  form_rings,  // a ring each
};

// What the eight numbers of axis_style say.
enum graph_axis_style : std::size_t {
  style_of_x_axis,  // sum of graph_axis_flags
  style_of_y_axis,
  style_of_legend,  // graph_legend
  style_image_rows,
  style_image_columns,
  style_of_colours,  // graph_colour_map
};

enum graph_axis_flags : std::int32_t {
  axis_reversed = 1,   // grows to the left or downwards
  axis_from_zero = 2,  // 0 is in view
  axis_grid = 4,       // lines at the large divisions
};

// By itself a legend appears when two series have a text for it.
enum graph_legend : std::int32_t { legend_as_needed, legend_shown, legend_hidden };

enum graph_colour_map : std::int32_t {
  colours_thermal,  // dark blue for the least, over red to yellow for the greatest
  colours_polar,    // blue below, red above the middle, which is 0
  colours_grey,     // black to white
};

// Colours of the graph are the program's unless this frame style says otherwise.
enum graph_frame_style : std::int32_t { frame_as_the_program_likes, frame_own_colours };

// How one series looks; its number in series_style packs the four.
struct series_look {
  graph_form form = form_unset;
  bool error_bars = false;   // the third value, up and down
  bool own_colour = false;   // else one of ten by the number of the series
  std::uint32_t colour = 0;  // 0xBBGGRR
};
// Form in bits 0-3, error bars in bit 4, own colour in bit 5, colour in bits 8-31.
std::int32_t pack_series_look(const series_look& look);
series_look unpack_series_look(std::int32_t style);

// Which of the nineteen labels is what.
enum graph_label : std::size_t {
  label_x_axis,
  label_y_axis,
  label_third_axis,
  label_subtitle,
  label_legend,  // of the first series; those of the others follow
  label_spare = label_legend + graph_series_limit,
};
constexpr std::size_t graph_label_count = 19;

struct graph_data {
  std::string title;             // 80 characters
  std::int32_t layout_rows = 0;  // of several graphs on one page
  std::int32_t layout_columns = 0;
  std::vector<std::string> row_labels;                // 40 characters each
  std::vector<std::string> column_labels;             // 40 characters each
  std::int32_t kind = form_unset;                     // graph_form
  std::array<std::int32_t, 8> axis_style{};           // by graph_axis_style
  std::string remark;                                 // 160 characters, under the graph
  std::array<std::string, graph_label_count> labels;  // 40 characters each
  std::array<graph_series, graph_series_limit> series;

  std::int32_t frame_style = frame_as_the_program_likes;
  std::array<std::int32_t, 3> colours{};      // background, axes, text; 0xBBGGRR
  std::array<std::string, 2> source_files;    // 128 characters each
  std::array<std::string, 2> notes;           // 80 characters each
  std::array<std::string, 4> units;           // 16 characters each: x, y, third, extra
  std::array<std::int32_t, 2> x_divisions{};  // large, small; about so many
  std::string x_font;                         // 40 characters, as display_fonts.h reads it
  std::array<std::int32_t, 2> y_divisions{};
  std::string y_font;                                           // 40 characters
  std::array<std::int32_t, graph_series_limit> series_style{};  // pack_series_look

  // What the axes show, least and greatest; no number: what the points need. Not in files.
  static constexpr float open_end = std::numeric_limits<float>::quiet_NaN();
  std::array<float, 2> x_range = {open_end, open_end};
  std::array<float, 2> y_range = {open_end, open_end};
};

// The look of a series: what its style says, else what the graph's kind says.
series_look look_of_series(const graph_data& graph, std::size_t series);

// An image of rows x columns of values, row by row from the lowest y, as series 0 of the
// graph: cell (row, column) stands at x_first + column * x_step, y_first + row * y_step.
struct image_grid {
  std::int32_t rows = 0, columns = 0;
  float x_first = 0, x_step = 1, y_first = 0, y_step = 1;
};
void put_image(graph_data& graph, const image_grid& grid, const std::vector<float>& values);
// Whether the graph is an image that has as many points as its rows and columns say.
bool has_image(const graph_data& graph);

// Writes the graph:
//
//     marker                 i16, -23
//     title                  80 characters
//     layout rows, columns   2 i32
//     row, column labels     2 i32, how many
//     kind                   i32
//     axis style             8 i32
//     remark                 160 characters
//     labels                 19 of 40 characters
//     each series            x, y and third value of all its points, f32, when it has
//                            points; its point texts of 80 characters; its extra values
//     row, column labels     40 characters each
//     frame style, colours   4 i32
//     source files           2 of 128 characters
//     notes                  2 of 80 characters
//     units                  4 of 16 characters
//     divisions, font of x   2 i32, 40 characters
//     divisions, font of y   2 i32, 40 characters
//     series style           10 i32
//     counts of each series  10 times 3 i32: points, texts, extra values
//
// The counts stand last, so that a reader finds them from the end of the file. False when
// the file could not be written.
bool write_graph(const graph_data& graph, const std::string& path);

// Writes the graph as text for spreadsheets and scripts: a line of column headings with
// units, then a line per point. Each series has its columns x, y, third, the latter where
// it has third values; a shorter series ends in empty fields. An image has its x along the
// first line and its y at the beginning of every other. Nine digits, which give back every
// value; what is no number is empty. False when the file could not be written.
bool write_graph_csv(const graph_data& graph, const std::string& path);

// Whichever of the two the path's extension asks for: ".csv" in either case, or else .gra.
bool write_graph_file(const graph_data& graph, const std::string& path);

// Lets the user choose a file, the recording's name with ".gra" offered, writes the graph
// and tells how it went. False when it failed or the user cancelled.
bool save_graph_dialog(const session_state& session, const graph_data& graph);

}  // namespace kestrelvane
