#include "workstation/commands/file_choice.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSettings>
#include <utility>

#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// File names are matched in either case of letters, as the file systems of other platforms
// do it. The list shows the text before the last brackets, which are for the dialog alone: a
// label with its patterns as they stand, once, or without them where they would fill the screen.
QString with_both_cases(const QString& filter) {
  static const QRegularExpression pattern(R"(\(([^)]*)\)\s*$)");
  const QRegularExpressionMatch match = pattern.match(filter);
  if (!match.hasMatch()) return filter;
  QStringList patterns;
  const QStringList words = match.captured(1).split(' ', Qt::SkipEmptyParts);
  for (const QString& word : words) {
    for (const QString& pattern : {word, word.toLower(), word.toUpper()}) {
      if (!patterns.contains(pattern)) patterns << pattern;
    }
  }
  const QString label = filter.left(match.capturedStart()).trimmed();
  const bool bare = label.contains('(') || words.size() > 4;
  return (bare ? label : filter) + " (" + patterns.join(' ') + ')';
}

// The name follows the kind of file that is chosen for it, while the dialog is open: it asks
// before it overwrites a file of the name that results.
void follow_filter(QFileDialog* dialog, const QString& filter) {
  static const QRegularExpression pattern(R"(\*\.(\w+))");
  const QString suffix = pattern.match(filter).captured(1).toLower();
  if (suffix.isEmpty()) return;  // all files: the name stays as it is
  const QFileInfo name(dialog->selectedFiles().value(0));
  dialog->setDefaultSuffix(suffix);
  if (!name.suffix().isEmpty()) dialog->selectFile(name.completeBaseName() + '.' + suffix);
}

// The number of the filter on show. A dialog tells it with its patterns or without them.
int chosen_filter(const QFileDialog& dialog, const QStringList& filters) {
  const QString shown = dialog.selectedNameFilter().trimmed();
  for (int i = 0; i < filters.size(); ++i) {
    const QString label = filters[i].left(filters[i].lastIndexOf('(')).trimmed();
    if (filters[i] == shown || label == shown) return i;
  }
  return -1;
}

}  // namespace

QString last_directory() {
  return QSettings().value("last_directory", QDir::currentPath()).toString();
}

void remember_directory(const QString& path_of_file) {
  QSettings().setValue("last_directory", QFileInfo(path_of_file).absolutePath());
}

void choose_file(workstation& w, const file_choice& choice,
                 std::function<void(const QString& path, int filter)> then) {
  QWidget* parent = QApplication::activeModalWidget();
  auto* dialog = new QFileDialog(parent != nullptr ? parent : w.frame, choice.title);
  dialog->setObjectName("choose_file");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setAcceptMode(choice.saving ? QFileDialog::AcceptSave : QFileDialog::AcceptOpen);
  dialog->setFileMode(choice.saving ? QFileDialog::AnyFile : QFileDialog::ExistingFile);
  QStringList filters;
  for (const QString& filter : choice.filters) filters << with_both_cases(filter);
  dialog->setOption(QFileDialog::HideNameFilterDetails);
  dialog->setNameFilters(filters);
  dialog->selectNameFilter(filters.value(choice.selected_filter));
  if (!choice.default_suffix.isEmpty()) dialog->setDefaultSuffix(choice.default_suffix);
  if (choice.saving && filters.size() > 1) {
    QObject::connect(dialog, &QFileDialog::filterSelected, dialog,
                     [dialog](const QString& filter) { follow_filter(dialog, filter); });
  }
  const QFileInfo offered(choice.path);
  dialog->setDirectory(choice.path.isEmpty() || !offered.absoluteDir().exists()
                           ? last_directory()
                           : offered.absolutePath());
  if (!choice.path.isEmpty()) dialog->selectFile(offered.fileName());
  QObject::connect(dialog, &QDialog::finished, w.frame,
                   [dialog, filters, then = std::move(then)](int result) {
                     const QStringList chosen = dialog->selectedFiles();
                     // Told as well: a worker may be waiting for the answer.
                     if (result != QDialog::Accepted || chosen.isEmpty()) {
                       then({}, 0);
                       return;
                     }
                     remember_directory(chosen.first());
                     then(chosen.first(), chosen_filter(*dialog, filters));
                   });
  dialog->open();
}

}  // namespace kestrelvane
