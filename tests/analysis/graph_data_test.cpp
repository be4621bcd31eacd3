// Graph files, byte for byte, and saving them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "analysis/graph_data.h"
#include "support/fixture_files.h"
#include "support/full_device.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// What a graph without series or labels is made of, by hand.
void put_empty_front(byte_sink& out) {
  out.i16(-23).text("", 80).zeros(4 * (2 + 2 + 1 + 8)).text("", 160).text("", 19 * 40);
}
void put_empty_back(byte_sink& out) {
  out.zeros(16).text("", 2 * 128 + 2 * 80 + 4 * 16).zeros(8).text("", 40).zeros(8).text("", 40);
  out.zeros(4 * 10);
}

graph_data sample_graph() {
  graph_data graph;
  graph.title = std::string(79, 't') + "µ";  // 81 bytes: the last character does not fit
  graph.layout_columns = 2;
  graph.row_labels = {"one", "two"};
  graph.column_labels = {"three"};
  graph.kind = 7;
  graph.axis_style[7] = 8;
  graph.remark = "remark";
  graph.labels[label_x_axis] = "time, ms";
  graph.labels[label_legend + 9] = std::string(50, 'l');
  graph.labels[graph_label_count - 1] = "last";
  graph.series[0].x = {1, 2, 3};
  graph.series[0].y = {4, 5};  // the third is missing
  graph.series[0].extra = {6.5f};
  // Series without points may still have texts; the second to eighth have nothing.
  graph.series[8].point_text = {"only text"};
  graph.series[9] = {{1}, {2}, {3}, {std::string(90, 'p')}, {}};
  graph.frame_style = 1;
  graph.colours = {2, 3, 4};
  graph.source_files[1] = "b.tsf";
  graph.notes[0] = "note";
  graph.units = {"ms", "uV", "", "spikes"};
  graph.x_divisions = {10, 5};
  graph.x_font = "fx";
  graph.y_divisions = {4, 2};
  graph.y_font = "fy";
  graph.series_style[9] = 9;
  return graph;
}

std::vector<char> sample_bytes() {
  byte_sink out;
  out.i16(-23).text(std::string(79, 't'), 80).i32(0).i32(2).i32(2).i32(1).i32(7);
  out.zeros(7 * 4).i32(8).text("remark", 160);
  out.text("time, ms", 40).text("", 12 * 40).text(std::string(40, 'l'), 40);
  out.text("", 4 * 40).text("last", 40);
  out.f32(1).f32(2).f32(3).f32(4).f32(5).f32(0).f32(0).f32(0).f32(0).f32(6.5);
  out.text("only text", 80);
  out.f32(1).f32(2).f32(3).text(std::string(80, 'p'), 80);
  out.text("one", 40).text("two", 40).text("three", 40);
  out.i32(1).i32(2).i32(3).i32(4);
  out.text("", 128).text("b.tsf", 128).text("note", 80).text("", 80);
  out.text("ms", 16).text("uV", 16).text("", 16).text("spikes", 16);
  out.i32(10).i32(5).text("fx", 40).i32(4).i32(2).text("fy", 40);
  out.zeros(9 * 4).i32(9);
  out.i32(3).i32(0).i32(1).zeros(7 * 12).i32(0).i32(1).i32(0).i32(1).i32(1).i32(0);
  return out.bytes;
}

TEST(graph_file, every_field_stands_where_it_belongs) {
  const temporary_directory directory;
  const std::string path = directory.file("a.gra");
  ASSERT_TRUE(write_graph(sample_graph(), path));
  EXPECT_EQ(read_bytes(path), sample_bytes());

  ASSERT_TRUE(write_graph({}, path));
  byte_sink empty;
  put_empty_front(empty);
  put_empty_back(empty);
  empty.zeros(4 * 30);
  EXPECT_EQ(read_bytes(path), empty.bytes);
  EXPECT_EQ(read_bytes(path)[0], char(0xE9));
  EXPECT_EQ(read_bytes(path)[1], char(0xFF));
}

TEST(graph_file, looks_and_forms_come_back_from_their_number) {
  for (const series_look& look : {series_look{},
                                  series_look{form_bars, true, true, 0xFF8001},
                                  {form_image, false, true, 0}}) {
    const series_look back = unpack_series_look(pack_series_look(look));
    EXPECT_EQ(back.form, look.form);
    EXPECT_EQ(back.error_bars, look.error_bars);
    EXPECT_EQ(back.own_colour, look.own_colour);
    EXPECT_EQ(back.colour, look.colour);
  }
  graph_data graph;
  EXPECT_EQ(look_of_series(graph, 0).form, form_lines);
  graph.kind = form_bars;
  graph.series_style[1] = form_points;
  graph.series_style[2] = 15;  // of a later version
  EXPECT_EQ(look_of_series(graph, 0).form, form_bars);
  EXPECT_EQ(look_of_series(graph, 1).form, form_points);
  EXPECT_EQ(look_of_series(graph, 2).form, form_bars);
  graph.kind = form_image;  // without rows and columns
  EXPECT_FALSE(has_image(graph));
  EXPECT_EQ(look_of_series(graph, 0).form, form_points);
}

std::string text_of(const std::string& path) {
  const std::vector<char> bytes = read_bytes(path);
  return {bytes.begin(), bytes.end()};
}

TEST(graph_file, text_has_a_column_for_each_value) {
  const temporary_directory directory;
  const std::string path = directory.file("a.CSV");
  graph_data graph;
  graph.labels[label_x_axis] = "time, s";
  graph.labels[label_legend + 2] = "say \"b\"";
  graph.units = {"ms", "µV", "", ""};
  graph.series[0].x = {1, 0.1f, 0x1p-70f};
  graph.series[0].y = {4, std::nanf("")};
  graph.series[2] = {{16777216}, {-2}, {0.5f}, {}, {}};
  ASSERT_TRUE(write_graph_file(graph, path));
  EXPECT_EQ(text_of(path),
            "\"time, s (ms)\",y (µV),\"say \"\"b\"\" time, s (ms)\",\"say \"\"b\"\" y (µV)\","
            "\"say \"\"b\"\" third\"\n"
            "1,4,16777216,-2,0.5\n"
            "0.100000001,,,,\n"
            "8.47032947e-22,0,,,\n");
  // Every value comes back from its nine digits.
  graph = {};
  vector_random random(7);
  for (int i = 0; i < 500; ++i) {
    graph.series[0].x.push_back(static_cast<float>(random.next()) * 1e-13f);
  }
  ASSERT_TRUE(write_graph_csv(graph, path));
  std::istringstream lines(text_of(path));
  std::string line;
  std::getline(lines, line);
  for (const float x : graph.series[0].x) {
    std::getline(lines, line);
    EXPECT_EQ(std::strtof(line.c_str(), nullptr), x);
  }
  ASSERT_TRUE(write_graph_file(graph, directory.file("csv")));
  EXPECT_EQ(read_bytes(directory.file("csv"))[0], char(0xE9));
}

TEST(graph_file, text_of_an_image_is_its_grid) {
  const temporary_directory directory;
  graph_data graph;
  put_image(graph, {2, 3, 10, 1, 0, -65}, {1, 2, 3, 4, 5});  // the last cell is missing
  ASSERT_TRUE(has_image(graph));
  ASSERT_TRUE(write_graph_csv(graph, directory.file("i.csv")));
  EXPECT_EQ(text_of(directory.file("i.csv")), "y \\ x,10,11,12\n0,1,2,3\n-65,4,5,0\n");
}

TEST(graph_file, saving_tells_how_it_went) {
  small_session session;
  const temporary_directory directory;
  const graph_data graph = sample_graph();
  EXPECT_FALSE(save_graph_dialog(*session, graph)) << "cancelled";
  EXPECT_TRUE(session.user.boxes.empty());

  const std::string path = session.user.chosen_path = directory.file("a.gra");
  EXPECT_TRUE(save_graph_dialog(*session, graph));
  EXPECT_TRUE(session.user.told("Graph saved successfully", "Save graph"));

  session.user.boxes.clear();
  {
    const full_device full;
    EXPECT_FALSE(save_graph_dialog(*session, {}));
  }
  EXPECT_TRUE(session.user.told("Failed to save file " + path + ": File too large", "Save graph"));
  EXPECT_EQ(read_bytes(path), sample_bytes()) << "the older file stands";

  session.user.chosen_path = directory.file("absent/a.gra");
  EXPECT_FALSE(save_graph_dialog(*session, graph));
  EXPECT_EQ(session.user.boxes.size(), 2u);
}

}  // namespace
}  // namespace kestrelvane::test
