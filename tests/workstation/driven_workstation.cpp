#include "workstation/driven_workstation.h"

#include <QAbstractButton>
#include <QAction>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QThread>

#include "synthesis/test_recording.h"
#include "workstation/dialogs/messages_dialog.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/interface_desk.h"

namespace kestrelvane::test {

// A sanitizer makes operations many times as long.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int patience = 6;
#else
constexpr int patience = 1;
#endif

bool wait_until(const std::function<bool()>& condition, int ms) {
  QElapsedTimer clock;
  clock.start();
  while (!condition()) {
    if (clock.elapsed() > patience * ms) return false;
    QApplication::processEvents(QEventLoop::AllEvents, 20);
    QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QThread::msleep(2);
  }
  return true;
}

std::string make_small_recording(const temporary_directory& directory, const std::string& name) {
  test_recording_options options;
  options.electrode = test_electrode::tetrode;
  options.n_channels = 4;
  options.minutes = 0.2;
  options.n_units = 3;
  options.median_rate = 20;
  options.seed = 5;
  std::string problem;
  const std::string path = directory.file(name);
  EXPECT_TRUE(make_test_recording(options, path, {}, problem)) << problem;
  return path;
}

driven_workstation::driven_workstation(const std::string& home, const std::string& argument,
                                       bool answer_yes) {
  start_session(*session);
  session->home_directory = home;
  start_workstation(shell, {QString::fromStdString(argument), {}, false});
  settle(answer_yes);
  close_messages();
}

driven_workstation::~driven_workstation() {
  settle();
  close_messages();
  // Keys that a test has sent stay held for the next one, whose lines they would select.
  QTest::keyRelease(shell.frame, Qt::Key_Control);
  if (!shell.leaving) leave(false);
  join_worker(shell);
  delete shell.frame;
  delete shell.desk;
}

void driven_workstation::choose_entry(const char* action) {
  auto* entry = shell.frame->findChild<QAction*>(action);
  ASSERT_NE(entry, nullptr) << action;
  EXPECT_TRUE(entry->isEnabled()) << action;
  entry->trigger();
}

QDialog* driven_workstation::dialog(const char* name) {
  QDialog* found = nullptr;
  wait_until([&] {
    found = shell.frame->findChild<QDialog*>(name);
    return found != nullptr && found->isVisible();
  });
  EXPECT_NE(found, nullptr) << name;
  return found;
}

void driven_workstation::press(QDialog* in, const char* button) {
  auto* found = in->findChild<QAbstractButton*>(button);
  ASSERT_NE(found, nullptr) << button;
  ASSERT_TRUE(found->isEnabled()) << button;
  found->click();
}

void driven_workstation::set_number(QDialog* in, const char* field, double value) {
  auto* found = in->findChild<number_field*>(field);
  ASSERT_NE(found, nullptr) << field;
  found->setValue(value);
}

void driven_workstation::tick(QDialog* in, const char* box, bool on) {
  auto* found = in->findChild<QAbstractButton*>(box);
  ASSERT_NE(found, nullptr) << box;
  if (found->isChecked() != on) found->click();
}

bool driven_workstation::answer_box(bool yes, QStringList& paths) {
  const QWidgetList windows = QApplication::topLevelWidgets();
  for (QWidget* window : windows) {
    if (!window->isVisible()) continue;
    if (auto* files = qobject_cast<QFileDialog*>(window)) {
      if (paths.isEmpty()) {
        files->reject();
      } else {
        // Typed and confirmed, whatever filter was set.
        const QStringList all = files->nameFilters().filter("All files");
        if (!all.isEmpty()) files->selectNameFilter(all.first());
        files->findChild<QLineEdit*>("fileNameEdit")->setText(paths.takeFirst());
        QMetaObject::invokeMethod(files, "accept");
      }
      return true;
    }
    if (auto* box = qobject_cast<QMessageBox*>(window)) {
      const bool question = box->objectName() == "question_box";
      (question ? asked : told) << box->text();
      box->button(question ? (yes ? QMessageBox::Yes : QMessageBox::No) : QMessageBox::Ok)->click();
      return true;
    }
  }
  return false;
}

void driven_workstation::settle(bool yes, QStringList paths) {
  EXPECT_TRUE(wait_until([&] {
    if (answer_box(yes, paths)) return false;
    return !shell.worker.running;
  }));
  // What the end of the operation has queued.
  for (int i = 0; i < 5; ++i) QApplication::processEvents();
  if (answer_box(yes, paths)) settle(yes, paths);
}

void driven_workstation::close_messages() {
  if (!shell.messages) return;
  press(shell.messages, "ok");
  wait_until([&] { return !shell.messages; });
}

bool driven_workstation::leave(bool yes) {
  // What a test has left open beside the windows; the program asks for that to be closed.
  while (QDialog* beside = dialog_beside(shell)) {
    beside->close();
    settle();
  }
  shell.frame->close();
  QStringList none;
  return wait_until([&] {
    if (answer_box(yes, none)) return false;
    return shell.leaving && !shell.worker.running;
  });
}

}  // namespace kestrelvane::test
