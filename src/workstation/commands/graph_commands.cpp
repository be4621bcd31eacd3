#include <QApplication>
#include <QClipboard>
#include <QFileInfo>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPrintDialog>
#include <QPrinter>

#include "displays/picture_file.h"
#include "files/safe_file.h"
#include "session/run_log.h"
#include "session/user_interface.h"
#include "workstation/commands/commands.h"
#include "workstation/commands/file_choice.h"
#include "workstation/frame.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The active graph window; says so when there is none.
graph_window* needs_graph(workstation& w, const QString& title) {
  graph_window* window = active_graph(w);
  if (window == nullptr) show_message(w, "No graph window is open", title);
  return window;
}

QAction* copy_button(workstation& w) { return w.frame->findChild<QAction*>("button_40007"); }

// On the worker: a picture of a large screen takes longer than a key press may.
void save_picture(workstation& w, const QImage& picture, const std::string& path) {
  run_with_progress(
      w, "save_bitmap_progress", "Saving the picture",
      [picture, path](session_state& session) {
        if (write_image(path, picture)) {
          log_message(session, "Bitmap saved in file " + path);
        } else {
          tell(session, "Failed to save file " + why_not_saved(path), "Save bitmap",
               box_icon::error);
        }
      },
      nullptr);
}

// The window as large as the page allows, its proportions kept.
void print_window(const graph_window& window, QPrinter& printer) {
  const QSize size = window.surface()->size();
  QPainter painter(&printer);
  const QRectF page = printer.pageLayout().paintRectPixels(printer.resolution());
  const qreal scale = std::min(page.width() / size.width(), page.height() / size.height());
  painter.scale(scale, scale);
  painter.setClipRect(QRect(QPoint(0, 0), size));
  window.surface()->paint_vector(painter, size);
}

}  // namespace

void save_bitmap_command(workstation& w) {
  const graph_window* window = needs_graph(w, "Save bitmap");
  if (window == nullptr) return;
  // Taken now: the window may be drawn anew, or closed, while the dialog is open.
  const QImage picture = window->surface()->picture();
  const QString recording = QString::fromStdString(w.session.recording.recording_path);
  const QFileInfo source(recording);
  const QString offered =
      source.exists() ? source.absolutePath() + '/' + source.completeBaseName() + ".png" : "";
  file_choice choice{"Save bitmap", {"PNG picture(*.PNG)", "Windows bitmap(*.BMP)"}, offered, true};
  choice.default_suffix = "png";
  choose_file(w, choice, [&w, picture](const QString& path, int filter) {
    if (path.isEmpty()) return;
    // An ending that the user has typed says more than the filter.
    const bool named = !QFileInfo(path).suffix().isEmpty();
    const QString whole = named ? path : path + (filter == 1 ? ".bmp" : ".png");
    save_picture(w, picture, whole.toStdString());
  });
}

void save_graph_command(workstation& w) {
  const graph_window* window = needs_graph(w, "Save graph");
  if (window == nullptr || !window->surface()->has_graph()) return;
  run_with_progress(
      w, "save_graph_progress", "Saving the graph",
      [graph = window->surface()->graph()](session_state& session) {
        save_graph_dialog(session, graph);
      },
      nullptr);
}

void print_command(workstation& w) {
  QPointer<graph_window> window = needs_graph(w, "Print");
  if (!window) return;
  auto printer = std::make_shared<QPrinter>(QPrinter::HighResolution);
  printer->setPageOrientation(QPageLayout::Landscape);
  printer->setDocName(window->windowTitle());
  auto* dialog = new QPrintDialog(printer.get(), w.frame);
  dialog->setObjectName("print_dialog");
  QObject::connect(dialog, &QDialog::accepted, w.frame, [printer, window] {
    // It may have been closed under the dialog.
    if (window) print_window(*window, *printer);
  });
  // The dialog refers to the printer to its end.
  QObject::connect(dialog, &QObject::destroyed, w.frame, [printer] {});
  open_dialog(w, dialog);
}

void select_rectangle_command(workstation& w) {
  graph_window* window = needs_graph(w, "Select rectangle");
  if (window == nullptr) return;
  log_message(w.session, "Selecting ...");
  graph_surface* surface = window->surface();
  surface->start_selection();
  // One connection, however often a selection was begun.
  QObject::disconnect(surface, &graph_surface::selected, w.frame, nullptr);
  QObject::connect(surface, &graph_surface::selected, w.frame, [&w] {
    // From here on it waits for operations like the other buttons.
    copy_button(w)->setProperty("waits", true);
    settle_action(w, copy_button(w));
  });
}

void copy_selection_command(workstation& w) {
  copy_button(w)->setEnabled(false);
  copy_button(w)->setProperty("waits", false);
  graph_window* window = active_graph(w);
  if (window == nullptr || !window->surface()->has_selection()) {
    log_message(w.session, "copy failed");
    return;
  }
  const QImage picture = window->surface()->selected_picture();
  window->surface()->clear_selection();
  if (picture.isNull()) {
    show_message(w, "Not enough memory for buffer", "Copy to clipboard", box_icon::error);
    return;
  }
  QApplication::clipboard()->setImage(picture);
  log_message(w.session, "selection copied to clipboard");
}

void cascade_command(workstation& w) { cascade_windows(w); }

void auto_arrange_command(workstation& w) {
  if (arrange_workspace(w)) return;
  compute_window_layout(w);
  w.run_log->parentWidget()->showNormal();
  place_windows(w);
}

}  // namespace kestrelvane
