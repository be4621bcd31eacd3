// Pictures as files: what a window shows, painted to PNG, SVG or PDF.
//
// One logical pixel is 1/96 inch where a format has inches. Needs a QGuiApplication for
// its fonts, but no screen. The old file stays when the new one cannot be written.
#pragma once

#include <QImage>
#include <QPainter>
#include <QSize>
#include <functional>
#include <string>

namespace kestrelvane {

// False when the extension of a path is none of the three.
bool is_picture_path(const std::string& path);

// Paints a picture of that size into the file. False when it could not be written.
bool write_picture(const std::string& path, QSize size,
                   const std::function<void(QPainter&)>& paint);

// A picture that is there, in the format that the extension names (PNG, BMP and what else the
// library writes). False when it could not be written; why_not_saved has the reason.
bool write_image(const std::string& path, const QImage& image);

// The same as the text of an .svg; empty when it could not be painted.
std::string picture_as_svg(QSize size, const std::function<void(QPainter&)>& paint);

}  // namespace kestrelvane
