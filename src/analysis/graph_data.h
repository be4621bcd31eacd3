// A graph as plain numbers and texts: what the analysis tools plot, and its file (".gra").
//
// One graph has up to ten series of points with x, y and a third value, labels for rows
// and columns of points, and the style in which it is shown. Nothing in it depends on a
// window. Series, labels and style numbers count from 0 here, as they have no number in
// the program's own vocabulary. A style number is 0 unless it is set, and 0 means: as the
// program likes.
//
// The file is a plain stream of little-endian fields; texts are cut to their field and
// padded with blanks. Routines run on any thread; a failed write leaves an older file as
// it was.
#pragma once

#include <array>
#include <cstdint>
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
  std::vector<float> extra;             // values beside the points, as a fitted curve
};

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
  std::vector<std::string> row_labels;     // 40 characters each
  std::vector<std::string> column_labels;  // 40 characters each
  std::int32_t kind = 0;                   // lines, bars, ...
  std::array<std::int32_t, 8> axis_style{};
  std::string remark;                                 // 160 characters, under the graph
  std::array<std::string, graph_label_count> labels;  // 40 characters each
  std::array<graph_series, graph_series_limit> series;

  std::int32_t frame_style = 0;
  std::array<std::int32_t, 3> colours{};      // background, axes, text; 0xBBGGRR
  std::array<std::string, 2> source_files;    // 128 characters each
  std::array<std::string, 2> notes;           // 80 characters each
  std::array<std::string, 4> units;           // 16 characters each: x, y, third, extra
  std::array<std::int32_t, 2> x_divisions{};  // large, small
  std::string x_font;                         // 40 characters
  std::array<std::int32_t, 2> y_divisions{};
  std::string y_font;  // 40 characters
  std::array<std::int32_t, graph_series_limit> series_style{};
};

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

// Lets the user choose a file, the recording's name with ".gra" offered, writes the graph
// and tells how it went. False when it failed or the user cancelled.
bool save_graph_dialog(const session_state& session, const graph_data& graph);

}  // namespace kestrelvane
