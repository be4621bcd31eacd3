// The frame: main window, area of the graph windows, drop target, status bar.
#pragma once

#include <QMainWindow>

class QLabel;
class QMdiArea;

namespace kestrelvane {

struct workstation;

class main_frame : public QMainWindow {
  Q_OBJECT

 public:
  explicit main_frame(workstation& of);
  ~main_frame() override;

  QMdiArea* area() const { return area_; }
  // While an operation runs, menus and tool bar wait, and dialogs beside the windows.
  void set_busy(bool busy);
  // Brings actions and drops in step with those who hold the menus (menu_holds.h).
  void settle_actions();
  // Size and place of the last run, kept in the platform's settings store.
  void restore_layout();
  void save_layout() const;

 protected:
  void closeEvent(QCloseEvent* event) override;
  // Escape that no window has a use for leaves the dialog beside them.
  void keyPressEvent(QKeyEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  workstation& w_;
  void place_hint();

  QMdiArea* area_;
  QLabel* hint_;  // what to do first, while there is no recording
};

}  // namespace kestrelvane
