// Choosing a file: the platform's dialog, with the directory of last time.
#pragma once

#include <QString>
#include <QStringList>
#include <functional>

namespace kestrelvane {

struct workstation;

struct file_choice {
  QString title;
  QStringList filters;  // as "Label(*.EXT)"
  QString path;         // offered; "" for none
  bool saving = false;
  int selected_filter = 0;
  QString default_suffix = {};  // given to a name without one
};

// Opens the dialog; then gets the path, "" when it was cancelled, and the number of the
// filter that was chosen.
void choose_file(workstation& w, const file_choice& choice,
                 std::function<void(const QString& path, int filter)> then);

}  // namespace kestrelvane
