// Colours of the windows and icons that follow them.
#pragma once

#include <QIcon>

namespace kestrelvane {

enum class colour_theme { platform, light, dark };

// The choice of the user, kept in the platform's settings store.
colour_theme chosen_theme();
void choose_theme(colour_theme theme);
// Gives the application the palette of the chosen theme.
void apply_theme();

// One of our line drawings in the colour of the text, sharp at any scale.
QIcon line_icon(const QString& name);
QIcon program_icon();
// Makes the pictures in the program findable; once, before the first icon.
void load_resources();

}  // namespace kestrelvane
