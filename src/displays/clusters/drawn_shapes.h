// Shapes while they are drawn over a cluster display: how an ellipse follows the hand, and how
// shapes, the words that tell what to draw, and read-outs at the pointer are painted over the
// picture. What lies in a shape is review/plane_shapes.h.
//
// Places of the pointer are logical pixels of the window; shapes are in the units of their plane.
#pragma once

#include <QPainter>
#include <QString>
#include <vector>

#include "displays/clusters/cluster_theme.h"
#include "displays/clusters/plane_axes.h"
#include "displays/clusters/waveform_layout.h"

namespace kestrelvane {

// By what an ellipse is held: the ends of its axes, or anything else of it.
enum class ellipse_grip { none, whole, axis_1, axis_1_back, axis_2, axis_2_back };

// What a pointer takes hold of; none beside the ellipse, and where there is none.
ellipse_grip ellipse_grip_at(const drawn_graph& plane, const cluster_ellipse_record& ellipse,
                             QPointF pixel);
// A new one whose first axis runs from one place to another; the second looks half as long.
cluster_ellipse_record ellipse_along(const drawn_graph& plane, QPointF from, QPointF to);
// The ellipse after what is held has gone from one place to another. An end of the first axis
// turns it; the centre stays unless all of it is moved.
cluster_ellipse_record drag_ellipse(const drawn_graph& plane, const cluster_ellipse_record& ellipse,
                                    ellipse_grip grip, QPointF from, QPointF to);

shape_point plane_place(const drawn_graph& plane, QPointF pixel);

// The outline, and its grips.
void paint_ellipse(QPainter& painter, const drawn_graph& plane,
                   const cluster_ellipse_record& ellipse, const cluster_theme& theme);
// Windows in the panels of the waveforms; those of channels that are not on show are passed over.
void paint_windows(QPainter& painter, const waveform_layout& layout,
                   const std::vector<waveform_window>& windows, const cluster_theme& theme);
void paint_rectangle(QPainter& painter, const QRectF& rectangle, const cluster_theme& theme);

// A line of words over the title of a window of that width, broken where it is narrow.
void paint_hint(QPainter& painter, double width, const QString& words, const cluster_theme& theme);
// Words beside the pointer, inside of the area.
void paint_read_out(QPainter& painter, const QRectF& area, QPointF at, const QString& words,
                    const cluster_theme& theme);

}  // namespace kestrelvane
