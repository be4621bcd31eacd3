// Drawing a graph: axes with ticks and titles, series in their forms, error bars, labels of
// points, legend, and images with their scale of colours.
//
// What is drawn is the record of analysis/graph_data.h and nothing else. The picture has the
// size asked for, in logical pixels, on whatever the painter draws to; only images and large
// clouds of points are ever a raster in a vector picture. Needs a QApplication, since the
// library that draws the axes is a widget, but no screen. Interface thread, or the only one.
#pragma once

#include <QColor>
#include <QPainter>
#include <QSize>
#include <string>

#include "analysis/graph_data.h"
#include "displays/graph_view.h"

class QCustomPlot;
class QPalette;

namespace kestrelvane {

struct graph_style {
  QColor background, axes, text;  // axes: with their ticks and the frame
};

graph_style paper_style();  // black on white
graph_style dark_style();   // white on black
// Of a window; follows the theme.
graph_style style_of(const QPalette& palette);

// The colour of a series on that background, its own or one of ten; mixed with the text's
// where it would not be seen.
QColor series_colour(const graph_data& graph, std::size_t series, const graph_style& style);

// Puts everything on a plot that has nothing on it yet, and its view on the axes. The plot's
// viewport tells how much room there is for texts.
void put_graph(QCustomPlot& plot, const graph_data& graph, const graph_style& style,
               const graph_view& view);

// Paints the graph into (0, 0)..size. A label of a point is drawn while no more than 500
// points have one. Values that are no numbers are left out, and lines are broken there.
drawn_graph paint_graph(const graph_data& graph, const graph_style& style, const graph_view& view,
                        QPainter& painter, QSize size);

// The whole graph as a .png, .svg or .pdf. False when it could not be written.
bool write_graph_picture(const graph_data& graph, const graph_style& style, const std::string& path,
                         QSize size);

}  // namespace kestrelvane
