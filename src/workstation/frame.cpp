#include "workstation/frame.h"

#include <QAction>
#include <QCloseEvent>
#include <QDialog>
#include <QDragEnterEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QMdiArea>
#include <QMenuBar>
#include <QMimeData>
#include <QSettings>
#include <QStatusBar>
#include <QToolBar>

#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/themes.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The local file of a drag; empty unless it is exactly one.
QString dragged_file(const QMimeData* data) {
  const QList<QUrl> urls = data->urls();
  return urls.size() == 1 && urls.first().isLocalFile() ? urls.first().toLocalFile() : QString();
}

}  // namespace

main_frame::main_frame(workstation& of)
    : w_(of), area_(new QMdiArea(this)), hint_(new QLabel(area_->viewport())) {
  setObjectName("frame");
  setWindowTitle("Kestrelvane");
  setWindowIcon(program_icon());
  area_->setObjectName("graph_area");
  area_->setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
  area_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
  setCentralWidget(area_);
  // The area would paint a grey of its own; its viewport takes the palette's, which follows the
  // theme.
  area_->setBackground(QBrush(Qt::NoBrush));
  area_->viewport()->setAutoFillBackground(true);
  area_->viewport()->setBackgroundRole(QPalette::Mid);
  area_->viewport()->installEventFilter(this);
  hint_->setObjectName("hint");
  hint_->setText("Open a recording with Ctrl+O, or drop one here");
  // What is dropped on the words is meant for the area.
  hint_->setAttribute(Qt::WA_TransparentForMouseEvents);
  QFont large = hint_->font();
  large.setPointSizeF(large.pointSizeF() * 1.4);
  hint_->setFont(large);
  setAcceptDrops(true);
  // Made with the first call: one that came with the first message would move all windows up.
  statusBar();
}

// Dialogs that go with the frame give nothing back: there is nobody left to take it.
main_frame::~main_frame() { w_.menu_holds.clear(); }

void main_frame::set_busy(bool busy) {
  if (busy) {
    hold_menus(w_, this, live_entries);
  } else {
    release_menus(w_, this);
  }
  // Dialogs that stand beside their windows have to wait like the menus.
  enable_companions(w_, !busy);
}

void main_frame::settle_actions() {
  const QList<QAction*> actions = findChildren<QAction*>();
  for (QAction* action : actions) settle_action(w_, action);
  // What is dropped is opened. The samples are counted only where no worker reads them in.
  const bool may_open = entry_may_run(w_, "open_recording");
  setAcceptDrops(may_open);
  hint_->setVisible(may_open && w_.session.recording.n_samples == 0);
}

void main_frame::place_hint() {
  hint_->adjustSize();
  const QRect area = area_->viewport()->rect();
  hint_->move(area.center().x() - hint_->width() / 2, area.height() * 2 / 5);
  // Behind the windows: it speaks only while there are none.
  hint_->lower();
}

void main_frame::restore_layout() {
  const QSettings store;
  // Its title and its status line in sight on small screens, too.
  if (!restoreGeometry(store.value("frame/geometry").toByteArray())) {
    resize(QSize(1180, 800).boundedTo(screen_room(this)));
  } else if (const QSize there = screen()->availableSize(); size().boundedTo(there) != size()) {
    // Kept on a larger screen.
    resize(size().boundedTo(screen_room(this)));
  }
  restoreState(store.value("frame/state").toByteArray());
}

void main_frame::save_layout() const {
  QSettings store;
  store.setValue("frame/geometry", saveGeometry());
  store.setValue("frame/state", saveState());
}

void main_frame::closeEvent(QCloseEvent* event) {
  if (request_exit(w_)) {
    event->accept();
  } else {
    // The exit asks first and may take a save; the frame is closed once more when all is done.
    event->ignore();
  }
}

void main_frame::keyPressEvent(QKeyEvent* event) {
  QDialog* dialog = dialog_beside(w_);
  if (event->key() != Qt::Key_Escape || dialog == nullptr || w_.worker.running) {
    return QMainWindow::keyPressEvent(event);
  }
  // As by its cross.
  dialog->close();
}

void main_frame::dragEnterEvent(QDragEnterEvent* event) {
  if (!dragged_file(event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void main_frame::dropEvent(QDropEvent* event) {
  const QString path = dragged_file(event->mimeData());
  if (path.isEmpty()) return;
  event->acceptProposedAction();
  open_recording_path(w_, path);
}

bool main_frame::eventFilter(QObject* watched, QEvent* event) {
  // The run log keeps to the lower edge of the area.
  if (watched == area_->viewport() && event->type() == QEvent::Resize) {
    place_run_log(w_);
    fit_to_frame(w_);
    place_hint();
  }
  return QMainWindow::eventFilter(watched, event);
}

}  // namespace kestrelvane
