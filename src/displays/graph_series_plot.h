// The series of a graph on a plot; a part of graph.cpp.
#pragma once

#include <qcustomplot.h>

#include "displays/graph.h"

namespace kestrelvane {

// All series, in their order, with error bars and labels.
void put_series(QCustomPlot& plot, const graph_data& graph, const graph_style& style);
// The image of series 0; its colour scale, which stands beside the axes.
QCPColorScale* put_image_map(QCustomPlot& plot, const graph_data& graph, const graph_style& style);

// A font by its short name, or by the other where the name says nothing.
QFont graph_font(const std::string& name, const char* otherwise);
constexpr const char* small_font = "t'Arial'h14w0";

}  // namespace kestrelvane
