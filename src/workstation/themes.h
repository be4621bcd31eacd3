// Colours of the windows and icons that follow them.
#pragma once

#include <QIcon>
#include <QPalette>

namespace kestrelvane {

enum class colour_theme { platform, light, dark };

// The choice of the user, kept in the platform's settings store.
colour_theme chosen_theme();
void choose_theme(colour_theme theme);
// Gives the application the palette of the chosen theme.
void apply_theme();

// What the pictures in the graph windows are drawn on: the theme's own, or light or dark
// whatever the theme; kept with it.
enum class picture_theme { as_theme, light, dark };
picture_theme chosen_picture_theme();
void choose_picture_theme(picture_theme theme);
// The colours of graphs, and whether the traces of the voltage record are white on black.
QPalette picture_palette();
bool pictures_are_dark();

// One of our line drawings in the colour of the text, sharp at any scale.
QIcon line_icon(const QString& name);
QIcon program_icon();
// Makes the pictures in the program findable; once, before the first icon.
void load_resources();

}  // namespace kestrelvane
