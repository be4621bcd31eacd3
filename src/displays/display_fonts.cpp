#include "displays/display_fonts.h"

#include <QFontMetricsF>
#include <algorithm>
#include <charconv>

namespace kestrelvane {

namespace {

// A number after the letter that text begins with; text moves past it.
bool take_number(std::string_view& text, char letter, std::int32_t& number) {
  if (text.empty() || text.front() != letter) return false;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + 1, end, number);
  // A size beyond a thousand comes from a damaged file.
  if (error != std::errc{} || number < 0 || number > 1000) return false;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
  return true;
}

bool take_typeface(std::string_view& text, std::string& typeface) {
  if (!text.starts_with("t'")) return false;
  const std::size_t end = text.find('\'', 2);
  if (end == std::string_view::npos || end == 2) return false;
  typeface = text.substr(2, end - 2);
  text.remove_prefix(end + 1);
  return true;
}

bool take_flags(std::string_view text, font_description& font) {
  for (const char flag : text) {
    switch (flag) {
      case 'f':
        font.fixed = true;
        break;
      case 'b':
        font.bold = true;
        break;
      case 'u':
        font.underlined = true;
        break;
      // Known letters without a meaning here.
      case 'p':
      case 'e':
        break;
      default:
        return false;
    }
  }
  return true;
}

// Mean width of what the displays write most.
double mean_width(const QFont& font) {
  const QString sample = QStringLiteral("Voltage 0123456789");
  return QFontMetricsF(font).horizontalAdvance(sample) / static_cast<double>(sample.size());
}

}  // namespace

bool parse_font(std::string_view text, font_description& font) {
  font = {};
  return take_typeface(text, font.typeface) && take_number(text, 'h', font.height) &&
         font.height > 0 && take_number(text, 'w', font.width) && take_flags(text, font);
}

QFont make_font(const font_description& description) {
  QFont font(QString::fromStdString(description.typeface));
  // The named typeface may be missing; the hint finds one of its kind.
  font.setStyleHint(description.fixed ? QFont::TypeWriter : QFont::SansSerif);
  font.setFixedPitch(description.fixed);
  font.setBold(description.bold);
  font.setUnderline(description.underlined);
  // The height is that of a line; the letters are as large as fit it.
  int pixels = description.height;
  font.setPixelSize(pixels);
  // Six pixels at least: smaller letters cannot be read.
  while (pixels > 6 && QFontMetricsF(font).height() > description.height + 0.5) {
    font.setPixelSize(--pixels);
  }
  if (description.width > 0) {
    const double natural = mean_width(font);
    if (natural > 0) {
      const int percent = static_cast<int>(100.0 * description.width / natural);
      // Fonts bear no more than this.
      font.setStretch(std::clamp(percent, 60, 130));
    }
  }
  return font;
}

void use_font(session_state& session, QPainter& painter, std::string_view text) {
  font_description description;
  if (parse_font(text, description)) {
    painter.setFont(make_font(description));
  } else {
    log_message(session, "Problem loading Font string=" + std::string(text));
  }
}

void draw_text(QPainter& painter, std::int32_t x, std::int32_t y, const QString& text) {
  // The corner above the text is what callers give; the painter wants the baseline.
  painter.drawText(QPointF(x, y + painter.fontMetrics().ascent()), text);
}

void draw_turned_text(QPainter& painter, std::int32_t x, std::int32_t y, const QString& text) {
  painter.save();
  painter.translate(x, y);
  painter.rotate(-90);
  draw_text(painter, 0, 0, text);
  painter.restore();
}

}  // namespace kestrelvane
