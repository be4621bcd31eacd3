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

struct theme_colours {
  QRgb window, text, base, alternate, button, tip, highlight, link;
};
constexpr theme_colours light_colours = {0xf4f5f7, 0x1d2126, 0xffffff, 0xeef1f4,
                                         0xe9ebee, 0xfffde8, 0x1f6fb5, 0x1f6fb5};
constexpr theme_colours dark_colours = {0x35393f, 0xe6e8ea, 0x1a1c1f, 0x23262a,
                                        0x454a51, 0x3a4046, 0x2f7fc4, 0x6fb7f0};

QPalette palette_of(const theme_colours& c) {
  QPalette p{QColor(c.window)};
  const std::pair<QPalette::ColorRole, QRgb> roles[] = {
      {QPalette::Window, c.window},
      {QPalette::WindowText, c.text},
      {QPalette::Base, c.base},
      {QPalette::AlternateBase, c.alternate},
      {QPalette::Text, c.text},
      {QPalette::Button, c.button},
      {QPalette::ButtonText, c.text},
      {QPalette::ToolTipBase, c.tip},
      {QPalette::ToolTipText, c.text},
      {QPalette::Highlight, c.highlight},
      {QPalette::HighlightedText, 0xffffff},
      {QPalette::Link, c.link},
  };
  for (const auto& [role, colour] : roles) p.setColor(role, QColor(colour));
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
    // At each painting: the palette may have changed since.
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

picture_theme chosen_picture_theme() {
  const QString name = QSettings().value("picture_theme").toString();
  if (name == "light") return picture_theme::light;
  if (name == "dark") return picture_theme::dark;
  return picture_theme::as_theme;
}

void choose_picture_theme(picture_theme theme) {
  static constexpr const char* names[] = {"theme", "light", "dark"};
  QSettings().setValue("picture_theme", names[static_cast<int>(theme)]);
}

QPalette picture_palette() {
  const picture_theme theme = chosen_picture_theme();
  if (theme == picture_theme::as_theme) return QApplication::palette();
  return palette_of(theme == picture_theme::dark ? dark_colours : light_colours);
}

// By the palette and not by the choice, as the platform's own may be a dark one.
bool pictures_are_dark() { return picture_palette().color(QPalette::Base).lightness() < 128; }

void apply_theme() {
  const colour_theme theme = chosen_theme();
  if (theme == colour_theme::platform) {
    // The style the program was started with, which main has noted.
    const QString own = qApp->property("platform_style").toString();
    if (!own.isEmpty()) QApplication::setStyle(QStyleFactory::create(own));
    QApplication::setPalette(QPalette());
    return;
  }
  // The one style that takes all its colours from the palette; others draw parts in the platform's.
  QApplication::setStyle(QStyleFactory::create("Fusion"));
  QPalette palette = palette_of(theme == colour_theme::dark ? dark_colours : light_colours);
  grey_disabled(palette);
  QApplication::setPalette(palette);
}

QIcon line_icon(const QString& name) { return QIcon(new line_icon_engine(name)); }

void load_resources() { register_resources(); }

QIcon program_icon() { return QIcon(":/icons/kestrelvane.svg"); }

}  // namespace kestrelvane
