#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include "workstation/commands/commands.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr const char* page = "kv_getting_started.htm";

// The page beside the program in a build, or where it was installed.
QString help_page() {
  const QDir program(QCoreApplication::applicationDirPath());
  for (const char* place : {".", "..", "../share/kestrelvane", "../share/doc/kestrelvane"}) {
    const QFileInfo file(program.filePath(QString(place) + '/' + page));
    if (file.exists()) return file.canonicalFilePath();
  }
  return {};
}

}  // namespace

void getting_started_command(workstation& w) {
  // Under X the first is the browser of the user's choice.
  QString browser;
  for (const char* name : {"x-www-browser", "firefox", "chromium", "google-chrome"}) {
    if (browser.isEmpty()) browser = QStandardPaths::findExecutable(name);
  }
  const QString path = help_page();
  if (browser.isEmpty()) {
    show_message(w, QString("Cannot find browser to open %1").arg(page), "Kestrelvane",
                 box_icon::warning);
  } else if (path.isEmpty()) {
    show_message(w, QString("Cannot find %1").arg(page), "Kestrelvane", box_icon::warning);
  } else {
    QProcess::startDetached(browser, {QUrl::fromLocalFile(path).toString()});
  }
}

}  // namespace kestrelvane
