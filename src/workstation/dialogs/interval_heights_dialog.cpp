#include <QHBoxLayout>
#include <QVBoxLayout>
#include <memory>

#include "analysis/interval_heights.h"
#include "clustering/membership.h"
#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/analysis_windows.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The title ends in a blank, by which the window is known.
constexpr const char* title = "ISI Spike Height Dependance ";

// Two units, and what the window beside it shows of them: heights of A after its own last spike, or
// of B after the last of A.
struct heights_window {
  workstation& w;
  operation_dialog* dialog;
  number_field *a = nullptr, *b = nullptr, *longest = nullptr;
  QLabel *spikes_a = nullptr, *spikes_b = nullptr;
  QLabel *points = nullptr, *p_value = nullptr, *dt = nullptr;
};
using shared_heights = std::shared_ptr<heights_window>;

void show_heights(const shared_heights& h, bool cross) {
  // Read here: the worker must not touch a control.
  const auto a = static_cast<std::int32_t>(h->a->value());
  const auto b = static_cast<std::int32_t>(h->b->value());
  const auto longest = static_cast<float>(h->longest->value());
  const auto measured = std::make_shared<interval_heights>();
  h->dialog->run(
      [=](session_state& session) {
        *measured = cross ? measure_interval_heights(session, b, a, longest)
                          : measure_interval_heights(session, a, a, longest);
      },
      [h, measured, cross] {
        (cross ? h->spikes_b : h->spikes_a)->setText(QString::number(measured->n_spikes));
        h->points->setText(QString::number(measured->ms.size()));
        h->p_value->setText(QString::number(double{measured->p_value}, 'g', 4));
        h->dt->setText(QString::number(double{measured->dt_ms}, 'f', 3) + " ms");
        h->w.heights = measured;
        show_graph(h->w, graph_kind::interval_heights,
                   QString::fromStdString(interval_heights_title(*measured)));
        tile_cluster_windows(h->w, h->dialog);
      });
}

QGroupBox* unit_box(const shared_heights& h, bool cross) {
  auto* rows = new QFormLayout;
  number_field*& unit = cross ? h->b : h->a;
  unit = free_number(h->dialog, cross ? "unit_b" : "unit_a", 1, h->w.session.clusters.n_clusters,
                     {.tip = cross ? "Heights of this unit, after the last spike of unit A"
                                   : "Heights of this unit, after its own last spike"});
  unit->setValue(h->w.session.clusters.current_cluster);
  rows->addRow(cross ? "Unit B" : "Unit A", unit->row());
  (cross ? h->spikes_b : h->spikes_a) =
      add_value(rows, cross ? "spikes_b" : "spikes_a", "# spikes=", "", "Spikes of the unit");
  QPushButton* display = make_button(cross ? "display_cross" : "display_within", "Display",
                                     "Plot height against the interval before the spike");
  rows->addRow(display);
  h->dialog->disabled_while_running << unit << display;
  QObject::connect(display, &QPushButton::clicked, h->dialog,
                   [h, cross] { show_heights(h, cross); });
  return titled_box(cross ? "Cross unit dependence" : "Within unit dependence", rows);
}

QGroupBox* result_box(heights_window& h) {
  auto* rows = new QFormLayout;
  h.longest = free_number(h.dialog, "longest_ms", 1, 10'000,
                          {.step = 10, .unit = "ms", .tip = "Longer intervals are left out, ms"});
  h.longest->setValue(double{interval_heights_reach_ms});
  rows->addRow("longest interval", h.longest->row());
  h.points = add_value(rows, "n_points", "npts=", "", "Spikes with an interval that is not longer");
  h.p_value = add_value(rows, "p_value", "t test p value=", "",
                        "Chance of a difference as large between the mean heights after short and "
                        "after long intervals, if there were none (Student, two-sided)");
  h.dt = add_value(rows, "dt_ms", "dt=", "",
                   "The median interval, ms: what is below it counts as short");
  return titled_box("Result", rows);
}

}  // namespace

void interval_heights_command(workstation& w) {
  if (!can_review(w.session, title)) return;
  auto* dialog = new operation_dialog(w, "interval_heights_dialog", title);
  const auto h = std::make_shared<heights_window>(heights_window{w, dialog});
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(unit_box(h, false));
  layout->addWidget(unit_box(h, true));
  layout->addWidget(result_box(*h));
  auto* buttons = new QDialogButtonBox;
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  dialog->disabled_while_running << h->longest << done;
  QObject::connect(done, &QPushButton::clicked, dialog, &QDialog::accept);
  layout->addWidget(buttons);
  place_at_right(w, dialog);
  open_beside(w, dialog, live_entries);
  show_heights(h, false);
}

}  // namespace kestrelvane
