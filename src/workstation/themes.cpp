#include "workstation/themes.h"

#include <QApplication>
#include <QFile>
#include <QIconEngine>
#include <QPainter>
#include <QPalette>
#include <QSettings>
#include <QStyle>
#include <QStyleFactory>
#include <QSvgRenderer>

// The resource compiler's routine has to be called from outside any namespace.
static void register_resources() { Q_INIT_RESOURCE(resources); }

namespace kestrelvane {

namespace {

QPalette light_palette() {
  QPalette p(QColor(0xf4, 0xf5, 0xf7));
  const QColor text(0x1d, 0x21, 0x26);
  p.setColor(QPalette::Window, QColor(0xf4, 0xf5, 0xf7));
  p.setColor(QPalette::WindowText, text);
  p.setColor(QPalette::Base, Qt::white);
  p.setColor(QPalette::AlternateBase, QColor(0xee, 0xf1, 0xf4));
  p.setColor(QPalette::Text, text);
  p.setColor(QPalette::Button, QColor(0xe9, 0xeb, 0xee));
  p.setColor(QPalette::ButtonText, text);
  p.setColor(QPalette::ToolTipBase, QColor(0xff, 0xfd, 0xe8));
  p.setColor(QPalette::ToolTipText, text);
  p.setColor(QPalette::PlaceholderText, QColor(0x70, 0x78, 0x80));
  p.setColor(QPalette::Highlight, QColor(0x1f, 0x6f, 0xb5));
  p.setColor(QPalette::HighlightedText, Qt::white);
  p.setColor(QPalette::Link, QColor(0x1f, 0x6f, 0xb5));
  return p;
}

QPalette dark_palette() {
  QPalette p(QColor(0x35, 0x39, 0x3f));
  const QColor text(0xe6, 0xe8, 0xea);
  p.setColor(QPalette::Window, QColor(0x35, 0x39, 0x3f));
  p.setColor(QPalette::WindowText, text);
  p.setColor(QPalette::Base, QColor(0x1a, 0x1c, 0x1f));
  p.setColor(QPalette::AlternateBase, QColor(0x23, 0x26, 0x2a));
  p.setColor(QPalette::Text, text);
  p.setColor(QPalette::Button, QColor(0x45, 0x4a, 0x51));
  p.setColor(QPalette::ButtonText, text);
  p.setColor(QPalette::ToolTipBase, QColor(0x3a, 0x40, 0x46));
  p.setColor(QPalette::ToolTipText, text);
  p.setColor(QPalette::PlaceholderText, QColor(0x96, 0x9d, 0xa5));
  p.setColor(QPalette::BrightText, QColor(0xff, 0x8a, 0x7a));
  p.setColor(QPalette::Highlight, QColor(0x2f, 0x7f, 0xc4));
  p.setColor(QPalette::HighlightedText, Qt::white);
  p.setColor(QPalette::Link, QColor(0x6f, 0xb7, 0xf0));
  return p;
}

void grey_disabled(QPalette& p) {
  const QColor faint = [&] {
    const QColor text = p.color(QPalette::Text), back = p.color(QPalette::Window);
    return QColor((text.red() + back.red()) / 2, (text.green() + back.green()) / 2,
                  (text.blue() + back.blue()) / 2);
  }();
  for (const QPalette::ColorRole role :
       {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
    p.setColor(QPalette::Disabled, role, faint);
  }
}

// Draws an icon from its file in the colour that the palette gives to text.
class line_icon_engine : public QIconEngine {
 public:
  explicit line_icon_engine(const QString& name) : name_(name) {
    QFile file(":/icons/" + name + ".svg");
    if (file.open(QIODevice::ReadOnly)) drawing_ = file.readAll();
  }
  QIconEngine* clone() const override { return new line_icon_engine(name_); }

  void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State) override {
    const QPalette palette = QApplication::palette();
    const QColor colour = palette.color(
        mode == QIcon::Disabled ? QPalette::Disabled : QPalette::Active, QPalette::ButtonText);
    QByteArray coloured = drawing_;
    coloured.replace("currentColor", colour.name().toLatin1());
    QSvgRenderer renderer(coloured);
    renderer.render(painter, QRectF(rect));
  }

  QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    QPixmap picture(size);
    picture.fill(Qt::transparent);
    QPainter painter(&picture);
    paint(&painter, QRect(QPoint(0, 0), size), mode, state);
    return picture;
  }

 private:
  QString name_;
  QByteArray drawing_;
};

}  // namespace

colour_theme chosen_theme() {
  const QString name = QSettings().value("theme").toString();
  if (name == "light") return colour_theme::light;
  if (name == "dark") return colour_theme::dark;
  return colour_theme::platform;
}

void choose_theme(colour_theme theme) {
  static constexpr const char* names[] = {"platform", "light", "dark"};
  QSettings().setValue("theme", names[static_cast<int>(theme)]);
}

void apply_theme() {
  const colour_theme theme = chosen_theme();
  if (theme == colour_theme::platform) {
    // The style the program was started with, which main has noted.
    const QString own = qApp->property("platform_style").toString();
    if (!own.isEmpty()) QApplication::setStyle(QStyleFactory::create(own));
    QApplication::setPalette(QPalette());
    return;
  }
  QApplication::setStyle(QStyleFactory::create("Fusion"));
  QPalette palette = theme == colour_theme::dark ? dark_palette() : light_palette();
  grey_disabled(palette);
  QApplication::setPalette(palette);
}

QIcon line_icon(const QString& name) { return QIcon(new line_icon_engine(name)); }

void load_resources() { register_resources(); }

QIcon program_icon() { return QIcon(":/icons/kestrelvane.svg"); }

}  // namespace kestrelvane
