#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QStandardPaths>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>

#include "session/run_log.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
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

// Our own window for the page, where the machine has no browser that would show it.
void show_page(workstation& w, const QString& path) {
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("help_dialog");
  dialog->setWindowTitle("Getting started");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  auto* text = new QTextBrowser;
  text->setObjectName("page");
  text->setOpenExternalLinks(true);
  text->setSource(QUrl::fromLocalFile(path));
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
  buttons->button(QDialogButtonBox::Close)->setObjectName("close");
  QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(text);
  layout->addWidget(buttons);
  dialog->resize(QSize(760, 640).boundedTo(w.frame->size()));
  dialog->show();
}

// Tries the programs in turn. One that does not start, or ends with an error at once as
// xdg-open does where it knows no browser, hands over to the next.
void open_with(workstation& w, const QString& path, QStringList programs) {
  QString program;
  while (program.isEmpty() && !programs.isEmpty()) {
    program = QStandardPaths::findExecutable(programs.takeFirst());
  }
  if (program.isEmpty()) {
    log_message(w.session, std::string("Cannot find browser to open ") + page);
    show_page(w, path);
    return;
  }
  // Without a parent: what is being read stays open when the workstation is left.
  auto* browser = new QProcess;
  for (const auto set : {&QProcess::setStandardOutputFile, &QProcess::setStandardErrorFile}) {
    (browser->*set)(QProcess::nullDevice(), QIODevice::Truncate);
  }
  browser->setStandardInputFile(QProcess::nullDevice());
  // One that crashes after an hour of reading has shown the page.
  const QDeadlineTimer at_once(10'000);
  QObject::connect(browser, &QProcess::finished, w.frame,
                   [&w, path, programs, browser, at_once](int status, QProcess::ExitStatus how) {
                     browser->deleteLater();
                     const bool failed = status != 0 || how == QProcess::CrashExit;
                     if (failed && !at_once.hasExpired()) open_with(w, path, programs);
                   });
  QObject::connect(browser, &QProcess::errorOccurred, w.frame,
                   [&w, path, programs, browser](QProcess::ProcessError error) {
                     if (error != QProcess::FailedToStart) return;
                     browser->deleteLater();
                     open_with(w, path, programs);
                   });
  browser->start(program, {QUrl::fromLocalFile(path).toString()});
}

}  // namespace

void getting_started_command(workstation& w) {
  const QString path = help_page();
  if (path.isEmpty()) {
    show_message(w, QString("Cannot find %1").arg(page), "Kestrelvane", box_icon::warning);
    return;
  }
  // The first opens what the user has chosen for pages.
  open_with(w, path, {"xdg-open", "x-www-browser", "firefox", "chromium", "google-chrome"});
}

}  // namespace kestrelvane
