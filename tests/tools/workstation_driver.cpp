// A user inside the workstation, loaded into the program before all other libraries: it opens,
// filters, sorts, reviews, saves and exports, and again from the beginning, until the program is
// killed. So it is the program itself that is killed, with its own start and its own timers.
//
// KESTRELVANE_DRIVE is "RECORDING:WORK_FILE:CSV". Standard error gets a line for each stage that
// begins, "box TEXT" for each box that is answered (with Yes, or OK), and "recovered" when the
// messages of the start say so.
#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMessageBox>
#include <QTimer>
#include <cstdio>
#include <cstdlib>

namespace {

enum file_of_user { recording_file, work_file, csv_file };

struct user {
  QStringList files;
  file_of_user file = recording_file;  // that the next file dialog gets
  std::size_t step = 0;
};

user& the_user() {
  static user made{QString::fromLocal8Bit(std::getenv("KESTRELVANE_DRIVE")).split(':')};
  return made;
}

void note(const QString& line) { std::fprintf(stderr, "%s\n", qPrintable(line)); }

template <typename Window>
Window* visible_window() {
  for (QWidget* window : QApplication::topLevelWidgets()) {
    auto* found = qobject_cast<Window*>(window);
    if (found != nullptr && found->isVisible()) return found;
  }
  return nullptr;
}

QDialog* dialog(const char* name) {
  for (QWidget* window : QApplication::topLevelWidgets()) {
    if (window->isVisible() && window->objectName() == name) return qobject_cast<QDialog*>(window);
  }
  return nullptr;
}

// Boxes come over everything else.
bool answer_box() {
  auto* box = visible_window<QMessageBox>();
  if (box == nullptr) return false;
  note("box " + box->text().section('\n', 0, 0));
  QAbstractButton* yes = box->button(QMessageBox::Yes);
  if (yes == nullptr) yes = box->button(QMessageBox::Ok);
  if (yes != nullptr) yes->click();
  return true;
}

bool answer_file_dialog() {
  auto* files = visible_window<QFileDialog>();
  if (files == nullptr) return false;
  files->findChild<QLineEdit*>("fileNameEdit")->setText(the_user().files.at(the_user().file));
  QMetaObject::invokeMethod(files, "accept");
  return true;
}

// Each of these is tried again until it could be done.

bool choose_entry(const char* name) {
  auto* frame = visible_window<QMainWindow>();
  auto* entry = frame == nullptr ? nullptr : frame->findChild<QAction*>(name);
  if (entry == nullptr || !entry->isEnabled()) return false;
  entry->trigger();
  return true;
}

bool press(const char* in, const char* button) {
  const QDialog* found = dialog(in);
  auto* pressed = found == nullptr ? nullptr : found->findChild<QAbstractButton*>(button);
  if (pressed == nullptr || !pressed->isEnabled()) return false;
  pressed->click();
  return true;
}

bool tick(const char* in, const char* box, bool on) {
  const QDialog* found = dialog(in);
  auto* ticked = found == nullptr ? nullptr : found->findChild<QAbstractButton*>(box);
  if (ticked == nullptr) return false;
  if (ticked->isEnabled() && ticked->isChecked() != on) ticked->click();
  return true;
}

bool close_messages() {
  const QDialog* messages = dialog("messages_dialog");
  if (messages == nullptr) return false;
  for (const QListWidget* lines : messages->findChildren<QListWidget*>("log_lines")) {
    if (!lines->findItems("Autorecover successfull", Qt::MatchContains).isEmpty()) {
      note("recovered");
    }
  }
  return press("messages_dialog", "ok");
}

// Boxes and file dialogs come in a later turn: until the entry is on, they are those of the stage
// before.
bool begin(const char* stage, const char* entry, file_of_user file = recording_file) {
  if (!choose_entry(entry)) return false;
  note(stage);
  the_user().file = file;
  return true;
}

bool (*const steps[])() = {
    close_messages,
    [] { return begin("filter", "transform_filter"); },
    [] { return tick("filter_dialog", "do_channel_means", true); },
    [] { return press("filter_dialog", "do_it"); },
    [] { return press("filter_dialog", "done"); },
    [] { return begin("sort", "autosort"); },
    [] { return tick("autosort_dialog", "skip_event_detection", false); },
    [] { return tick("autosort_dialog", "skip_clustering", false); },
    [] { return press("autosort_dialog", "start"); },
    [] { return press("autosort_dialog", "done"); },
    [] { return begin("review", "post_processing"); },
    [] { return press("post_process_dialog", "reorder"); },
    [] { return press("post_process_dialog", "ok"); },
    [] { return begin("save", "save_work_file", work_file); },
    [] { return begin("export", "export_spikes", csv_file); },
    [] { return press("export_dialog", "save_as"); },
    [] { return press("export_dialog", "done"); },
    [] { return begin("open", "open_recording", recording_file); },
};

void take_turn() {
  // A timer of its own for each: a box may hold this one until the next has closed it.
  QTimer::singleShot(10, take_turn);
  user& u = the_user();
  if (answer_box() || answer_file_dialog()) return;
  if (steps[u.step]()) u.step = (u.step + 1) % std::size(steps);
}

void begin_to_drive() {
  if (the_user().files.size() != 3) return;
  QTimer::singleShot(10, take_turn);
  // Nobody kills a user who does not get on.
  constexpr int most_ms = 60'000;
  QTimer::singleShot(most_ms, [] {
    note(QString("does not get beyond step %1").arg(the_user().step));
    std::_Exit(EXIT_FAILURE);
  });
}

}  // namespace

Q_COREAPP_STARTUP_FUNCTION(begin_to_drive)
