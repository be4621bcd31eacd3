// The workstation. One optional argument, the path of a recording, and two options for
// scripts that want to show a sort.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStyle>
#include <memory>

#include "files/standard_streams.h"
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

// What the command takes; one set of options for both readings of it.
struct command_line {
  QCommandLineParser parser;
  QCommandLineOption help, version;
  QCommandLineOption work{"work", "read this work file over the recording", "file"};
  QCommandLineOption show{"show-voltage", "open the voltage record"};

  command_line() : help(parser.addHelpOption()), version(parser.addVersionOption()) {
    parser.setApplicationDescription("Kestrelvane: spike sorting workstation");
    parser.addOptions({work, show});
    parser.addPositionalArgument("recording", "a recording to open at start", "[recording]");
  }
};

// Prints what --version and --help ask for, and ends the program, before there is a window
// system to start: machines without a display are asked, too.
void answer_without_windows(int argc, char** argv) {
  command_line command;
  QStringList arguments;
  for (int i = 0; i < argc; ++i) arguments << QString::fromLocal8Bit(argv[i]);
  // Options of the window toolkit are unknown here, and no mistake.
  command.parser.parse(arguments);
  const bool asks = command.parser.isSet(command.help) || command.parser.isSet("help-all") ||
                    command.parser.isSet(command.version);
  if (!asks) return;
  const QCoreApplication words(argc, argv);
  command.parser.process(words);
}

kestrelvane::start_request read_command_line(const QApplication& application) {
  command_line command;
  command.parser.process(application);
  const QStringList arguments = command.parser.positionalArguments();
  return {arguments.isEmpty() ? QString() : arguments.first(), command.parser.value(command.work),
          command.parser.isSet(command.show)};
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kestrelvane;
  int probe_status = 0;
  secure_standard_streams();
  // Before anything else: the child that looks at a file starts no windows.
  if (run_as_hdf_probe(argc, argv, probe_status)) return probe_status;
  flush_denormals();
  // Before anything is read from the platform's store, which is found by these names.
  QApplication::setOrganizationName("Kestrelvane");
  QApplication::setApplicationName("Kestrelvane");
  QApplication::setApplicationVersion(program_version);
  answer_without_windows(argc, argv);
  QApplication application(argc, argv);
  QApplication::setDesktopFileName("kestrelvane");
  load_resources();
  QApplication::setWindowIcon(program_icon());
  // Noted before a theme replaces it, for the user who goes back to the platform's own.
  application.setProperty("platform_style", QApplication::style()->name());
  apply_theme();
  const start_request request = read_command_line(application);

  const auto session = std::make_unique<session_state>();
  start_session(*session);
  session->home_directory = home_of_state_files().toStdString();
  workstation shell(*session);
  start_workstation(shell, request);
  const int status = QApplication::exec();
  // The worker hands over to frame and desk to its end; they go after it.
  join_worker(shell);
  delete shell.frame;
  delete shell.desk;
  return status;
}
