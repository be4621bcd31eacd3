// Fonts by the short names that the displays use.
//
// "t'Arial'h12w6pe": typeface, height of a line and mean width of a character in pixels
// (0: the natural width), and letters for p proportional, f fixed, e best fit, b bold,
// u underlined. The platform may put another face in the place of the one named; height
// and width hold all the same, so that texts keep their places.
#pragma once

#include <QFont>
#include <QPainter>
#include <QString>
#include <string>
#include <string_view>

#include "session/session_state.h"

namespace kestrelvane {

struct font_description {
  std::string typeface;
  std::int32_t height = 0, width = 0;  // pixels; width 0: natural
  bool fixed = false, bold = false, underlined = false;
};

// False when the text is no font name.
bool parse_font(std::string_view text, font_description& font);

// The font on a raster of logical pixels, whatever the resolution of the device.
QFont make_font(const font_description& description);

// Sets the painter's font; a name that cannot be read is logged, and the old font stays.
void use_font(session_state& session, QPainter& painter, std::string_view text);

// A text with its upper left corner at x, y. Turned: upwards from there.
void draw_text(QPainter& painter, std::int32_t x, std::int32_t y, const QString& text);
void draw_turned_text(QPainter& painter, std::int32_t x, std::int32_t y, const QString& text);

}  // namespace kestrelvane
