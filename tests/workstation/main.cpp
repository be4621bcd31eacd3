// Entry of the workstation's tests: an application without a screen.
#include <gtest/gtest.h>

#include <QApplication>
#include <QSettings>
#include <QTemporaryDir>

#include "numerics/parallel.h"
#include "recording/formats/hdf/hdf_probe.h"
#include "workstation/themes.h"

int main(int argc, char** argv) {
  int status = 0;
  if (kestrelvane::run_as_hdf_probe(argc, argv, status)) return status;
  kestrelvane::flush_denormals();
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
  QApplication application(argc, argv);
  QApplication::setOrganizationName("Kestrelvane");
  QApplication::setApplicationName("Kestrelvane tests");
  // What the windows remember goes into a place of this run.
  QTemporaryDir store;
  QSettings::setDefaultFormat(QSettings::IniFormat);
  QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, store.path());
  kestrelvane::load_resources();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
