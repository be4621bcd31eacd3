#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include "workstation/commands.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr const char* page = "kv_getting_started.htm";

// The page beside the program in a build, or where it was installed.
QString help_page() {
  const QDir program(QCoreApplication::applicationDirPath());
  for (const char* place : {".", "../share/kestrelvane", "../share/doc/kestrelvane"}) {
    const QFileInfo file(program.filePath(QString(place) + '/' + page));
    if (file.exists()) return file.canonicalFilePath();
  }
  return {};
}

}  // namespace

void getting_started_command(workstation& w) {
  const QString path = help_page();
  if (path.isEmpty()) {
    show_message(w, QString("Cannot find %1").arg(page), "Kestrelvane", box_icon::warning);
    return;
  }
  // Under X the first is the browser of the user's choice.
  for (const char* browser : {"x-www-browser", "firefox", "chromium", "google-chrome"}) {
    const QString program = QStandardPaths::findExecutable(browser);
    if (program.isEmpty()) continue;
    if (QProcess::startDetached(program, {QUrl::fromLocalFile(path).toString()})) return;
  }
  show_message(w, QString("Cannot find browser to open %1").arg(page), "Kestrelvane",
               box_icon::warning);
}

}  // namespace kestrelvane
