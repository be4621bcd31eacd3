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

// File names are matched in either case of letters, as the file systems of other
// platforms do it; the label stays as it is.
QString with_both_cases(const QString& filter) {
  static const QRegularExpression pattern(R"(\(([^)]*)\)\s*$)");
  const QRegularExpressionMatch match = pattern.match(filter);
  if (!match.hasMatch()) return filter;
  QStringList patterns;
  const QStringList words = match.captured(1).split(' ', Qt::SkipEmptyParts);
  for (const QString& word : words) {
    if (!patterns.contains(word)) patterns << word;
    if (!patterns.contains(word.toLower())) patterns << word.toLower();
  }
  return filter.left(match.capturedStart()).trimmed() + " (" + patterns.join(' ') + ')';
}

// The name follows the kind of file that is chosen for it, while the dialog is open: it asks
// before it overwrites a file of the name that results.
void follow_filter(QFileDialog* dialog, const QString& filter) {
  static const QRegularExpression pattern(R"(\*\.(\w+))");
  const QString suffix = pattern.match(filter).captured(1).toLower();
  const QFileInfo name(dialog->selectedFiles().value(0));
  dialog->setDefaultSuffix(suffix);
  if (!name.suffix().isEmpty()) dialog->selectFile(name.completeBaseName() + '.' + suffix);
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
  QObject::connect(
      dialog, &QDialog::finished, w.frame, [dialog, filters, then = std::move(then)](int result) {
        const QStringList chosen = dialog->selectedFiles();
        if (result != QDialog::Accepted || chosen.isEmpty()) {
          then({}, 0);
          return;
        }
        remember_directory(chosen.first());
        then(chosen.first(), static_cast<int>(filters.indexOf(dialog->selectedNameFilter())));
      });
  dialog->open();
}

}  // namespace kestrelvane
