// Where the user has moved a dialog and the windows beside it, dialog by dialog, in the platform's
// store. Places that the program has computed are not kept: they follow the screen.
#pragma once

#include <QRect>
#include <QString>
#include <optional>

class QDialog;

namespace kestrelvane {

// of: objectName of the dialog; what: that of a window beside it, or the dialog's own. Logical
// pixels: of the screen for the dialog, of the frame's area for a window.
std::optional<QRect> kept_place(const QString& of, const QString& what);
void keep_place(const QString& of, const QString& what, const QRect& place);
// Of a dialog and of all windows beside it; also what the user has moved since it was opened.
void forget_places(QDialog* dialog);

// The dialog goes to its kept place, when that is still on a screen; false when there is none.
bool restore_place(QDialog* dialog);
// From when it has come to rest on: a move or a change of size is the user's, and is kept when
// the dialog closes. To be called once, before it is shown.
void watch_place(QDialog* dialog);

}  // namespace kestrelvane
