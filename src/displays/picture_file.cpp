#include "displays/picture_file.h"

#include <QBuffer>
#include <QFileInfo>
#include <QMarginsF>
#include <QPageSize>
#include <QPdfWriter>
#include <QSvgGenerator>
#include <cerrno>
#include <string_view>

#include "files/safe_file.h"

namespace kestrelvane {

namespace {

constexpr int pixels_per_inch = 96;

using paint_routine = std::function<void(QPainter&)>;

bool paint_png(QBuffer& out, QSize size, const paint_routine& paint) {
  QImage image(size, QImage::Format_RGB32);
  // No transparency: viewers would show it in their own colour.
  image.fill(Qt::white);
  QPainter painter(&image);
  paint(painter);
  return painter.end() && image.save(&out, "PNG");
}

bool paint_svg(QBuffer& out, QSize size, const paint_routine& paint) {
  QSvgGenerator svg;
  svg.setOutputDevice(&out);
  svg.setResolution(pixels_per_inch);
  svg.setSize(size);
  svg.setViewBox(QRect(QPoint(0, 0), size));
  QPainter painter;
  if (!painter.begin(&svg)) return false;
  paint(painter);
  return painter.end();
}

bool paint_pdf(QBuffer& out, QSize size, const paint_routine& paint) {
  // Fine enough that places which the writer rounds to dots do not show.
  constexpr int dots_per_inch = 1200;
  QPdfWriter pdf(&out);
  pdf.setResolution(dots_per_inch);
  pdf.setPageSize(QPageSize(QSizeF(size) * 72.0 / pixels_per_inch, QPageSize::Point, QString(),
                            QPageSize::ExactMatch));
  pdf.setPageMargins(QMarginsF(0, 0, 0, 0));
  // Pages have no pixels: everything is scaled to as many to the inch as screens have.
  QPainter painter;
  if (!painter.begin(&pdf)) return false;
  painter.scale(double(dots_per_inch) / pixels_per_inch, double(dots_per_inch) / pixels_per_inch);
  painter.setClipRect(QRect(QPoint(0, 0), size));
  paint(painter);
  return painter.end();
}

struct picture_format {
  std::string_view extension;
  bool (*paint)(QBuffer& out, QSize size, const paint_routine& paint);
};
constexpr picture_format picture_formats[] = {
    {".png", paint_png}, {".svg", paint_svg}, {".pdf", paint_pdf}};

const picture_format* find_format(std::string_view path) {
  for (const picture_format& format : picture_formats) {
    if (path.ends_with(format.extension)) return &format;
  }
  return nullptr;
}

// made: whether the bytes are a whole picture; otherwise the old file stays as it was.
bool replace_file(const std::string& path, const QBuffer& bytes, bool made) {
  errno = 0;  // whatever the library has tried
  if (!made) return false;
  safe_file file;
  if (!open_safe_file(file, path)) return false;
  write_bytes(file, bytes.data().constData(), static_cast<std::size_t>(bytes.data().size()));
  return finish_safe_file(file);
}

}  // namespace

std::string picture_as_svg(QSize size, const paint_routine& paint) {
  QBuffer bytes;
  if (!bytes.open(QIODevice::ReadWrite) || !paint_svg(bytes, size, paint)) return {};
  return bytes.data().toStdString();
}

bool is_picture_path(const std::string& path) { return find_format(path) != nullptr; }

bool write_picture(const std::string& path, QSize size, const paint_routine& paint) {
  const picture_format* format = find_format(path);
  QBuffer bytes;
  if (format == nullptr || !bytes.open(QIODevice::ReadWrite)) return false;
  return replace_file(path, bytes, format->paint(bytes, size, paint));
}

bool write_image(const std::string& path, const QImage& image) {
  const QByteArray format = QFileInfo(QString::fromStdString(path)).suffix().toUpper().toLatin1();
  QBuffer bytes;
  if (!bytes.open(QIODevice::ReadWrite)) return false;
  return replace_file(path, bytes, image.save(&bytes, format.constData()));
}

}  // namespace kestrelvane
