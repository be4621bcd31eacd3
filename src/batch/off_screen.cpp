#ifdef KESTRELVANE_WITH_DISPLAYS

#include "batch/off_screen.h"

#include <QApplication>

#include "files/standard_streams.h"

namespace kestrelvane {

namespace {

// The libraries' own remarks about the desktop say nothing to who runs a batch command.
void keep_failures(QtMsgType type, const QMessageLogContext&, const QString& text) {
  if (type == QtCriticalMsg || type == QtFatalMsg) put_text(stderr, text.toStdString() + "\n");
}

}  // namespace

bool draw_off_screen(const std::function<bool()>& draw) {
  // A platform that the user has named is left as it is.
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  qInstallMessageHandler(keep_failures);
  int argc = 1;
  char name[] = "kestrelvane-batch";
  char* argv[] = {name, nullptr};
  const QApplication application(argc, argv);
  return draw();
}

}  // namespace kestrelvane

#endif
