// The workstation. One optional argument, the path of a recording, and two options for
// scripts that want to show a sort.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStyle>
#include <memory>

#include "numerics/parallel.h"
#include "recording/formats/hdf/hdf_probe.h"
#include "session/version.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/themes.h"
#include "workstation/workstation.h"

namespace {

// The current directory; where nothing can be written there (started from a desktop's
// menu on some systems), the user's own place for data.
QString home_of_state_files() {
  const QString current = QDir::currentPath();
  if (QFileInfo(current).isWritable()) return current;
  const QString own = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
  QDir().mkpath(own);
  return own;
}

kestrelvane::start_request read_command_line(const QApplication& application) {
  QCommandLineParser parser;
  parser.setApplicationDescription("Kestrelvane: spike sorting workstation");
  parser.addHelpOption();
  parser.addVersionOption();
  const QCommandLineOption work("work", "read this work file over the recording", "file");
  const QCommandLineOption show("show-voltage", "open the voltage record");
  parser.addOptions({work, show});
  parser.addPositionalArgument("recording", "a recording to open at start", "[recording]");
  parser.process(application);
  const QStringList arguments = parser.positionalArguments();
  return {arguments.isEmpty() ? QString() : arguments.first(), parser.value(work),
          parser.isSet(show)};
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kestrelvane;
  int probe_status = 0;
  if (run_as_hdf_probe(argc, argv, probe_status)) return probe_status;
  flush_denormals();
  QApplication application(argc, argv);
  QApplication::setOrganizationName("Kestrelvane");
  QApplication::setApplicationName("Kestrelvane");
  QApplication::setApplicationVersion(program_version);
  QApplication::setDesktopFileName("kestrelvane");
  load_resources();
  QApplication::setWindowIcon(program_icon());
  application.setProperty("platform_style", QApplication::style()->name());
  apply_theme();
  const start_request request = read_command_line(application);

  const auto session = std::make_unique<session_state>();
  start_session(*session);
  session->home_directory = home_of_state_files().toStdString();
  workstation shell(*session);
  start_workstation(shell, request);
  const int status = QApplication::exec();
  join_worker(shell);
  delete shell.frame;
  delete shell.desk;
  return status;
}
