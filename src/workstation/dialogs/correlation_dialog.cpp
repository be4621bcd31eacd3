#include <QHBoxLayout>
#include <QSlider>
#include <QVBoxLayout>
#include <memory>

#include "analysis/correlograms.h"
#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/session_turn.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Two units and a width; the window beside it is counted and drawn anew at each change.
struct correlation_window {
  workstation& w;
  operation_dialog* dialog;
  number_field *a = nullptr, *b = nullptr;
  QSlider* width = nullptr;
  QLabel *width_text = nullptr, *first = nullptr, *second = nullptr;
};
using shared_correlation = std::shared_ptr<correlation_window>;

void show_units(const shared_correlation& c, bool autos_only = false) {
  workstation& w = c->w;
  // Counting needs the session; the window keeps what it shows until the operation is through.
  if (w.worker.running) return;
  show_correlograms(w, static_cast<std::int32_t>(c->a->value()),
                    static_cast<std::int32_t>(c->b->value()));
  // After the window is there, which makes the record; drawn once more for it.
  w.correlograms->autos_only = autos_only;
  graph_of(w, graph_kind::correlograms)->surface()->redraw();
  c->first->setText(QString::number(w.correlograms->shown.n_first));
  c->second->setText(QString::number(w.correlograms->shown.n_second));
}

QLayout* units_line(const shared_correlation& c) {
  const session_state& session = c->w.session;
  const std::int32_t n = session.clusters.n_clusters;
  c->a = free_number(c->dialog, "first_unit", 1, n, {.tip = "First unit"});
  c->b = free_number(c->dialog, "second_unit", 1, n,
                     {.tip = "Second unit; the same as the first for its autocorrelation alone"});
  c->a->setValue(session.clusters.current_cluster);
  c->b->setValue(session.clusters.current_cluster);
  auto* row = new QHBoxLayout;
  row->addWidget(new QLabel("Units"));
  row->addWidget(c->a->row());
  row->addWidget(new QLabel("and"));
  row->addWidget(c->b->row());
  row->addStretch();
  for (const number_field* field : {c->a, c->b}) {
    QObject::connect(field, &QDoubleSpinBox::valueChanged, c->dialog, [c] { show_units(c); });
  }
  return row;
}

QLayout* width_row(const shared_correlation& c) {
  session_state& session = c->w.session;
  c->width = new QSlider(Qt::Horizontal);
  c->width->setObjectName("correlogram_bin_ms");
  c->width->setRange(1, bin_slider_limit(session));
  c->width->setValue(slider_of_bin_width(session, session.review.correlogram_bin_ms));
  c->width->setToolTip("Width of a bin: by samples below one millisecond, by milliseconds above");
  c->width_text = new QLabel(QString::number(session.review.correlogram_bin_ms, 'f', 3));
  c->width_text->setObjectName("bin_width");
  auto* row = new QHBoxLayout;
  row->addWidget(new QLabel("bin width"));
  row->addWidget(c->width, 1);
  row->addWidget(c->width_text);
  row->addWidget(new QLabel("ms"));
  QObject::connect(c->width, &QSlider::valueChanged, c->dialog, [c](int position) {
    session_state& of = c->w.session;
    {
      const std::lock_guard lock(of.settings_mutex);
      of.review.correlogram_bin_ms = bin_width_of_slider(of, position);
    }
    c->width_text->setText(QString::number(of.review.correlogram_bin_ms, 'f', 3));
    show_units(c);
  });
  return row;
}

QGroupBox* spikes_box(correlation_window& c) {
  auto* rows = new QFormLayout;
  c.first = add_value(rows, "n_first", "First unit", "", "Spikes of the first unit");
  c.second = add_value(rows, "n_second", "Second unit", "", "Spikes of the second unit");
  return titled_box("Spikes", rows);
}

QDialogButtonBox* button_row(const shared_correlation& c) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* autos = add_button(buttons, "autocorrelation", "Autocorrelation",
                                  QDialogButtonBox::ActionRole, "Both autocorrelograms alone");
  QPushButton* print = add_button(buttons, "print_values", "Print values",
                                  QDialogButtonBox::ActionRole, "Write the counts to the log");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  QObject::connect(autos, &QPushButton::clicked, c->dialog, [c] { show_units(c, true); });
  QObject::connect(print, &QPushButton::clicked, c->dialog,
                   [c] { print_train_correlation(c->w.session, c->w.correlograms->shown); });
  QObject::connect(done, &QPushButton::clicked, c->dialog, &QDialog::accept);
  done->setDefault(true);
  return buttons;
}

QCheckBox* rate_box(const shared_correlation& c) {
  auto* rate = new QCheckBox("spikes per second");
  rate->setObjectName("as_rate");
  rate->setToolTip("The rate of the one round a spike of the other, rather than counts");
  QObject::connect(rate, &QCheckBox::toggled, c->dialog, [c](bool on) {
    c->w.correlograms->as_rate = on;
    show_units(c);
  });
  return rate;
}

}  // namespace

void correlation_command(workstation& w) {
  if (!can_review(w.session, "Cross-correlate spike trains")) return;
  auto* dialog = new operation_dialog(w, "correlation_dialog", "Cross-correlate spike trains");
  const auto c = std::make_shared<correlation_window>(correlation_window{w, dialog});
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(units_line(c));
  layout->addLayout(width_row(c));
  layout->addWidget(spikes_box(*c));
  show_correlograms(w, w.session.clusters.current_cluster, 0);
  layout->addWidget(rate_box(c));
  layout->addWidget(button_row(c));
  // An edit beside it may have taken a unit away.
  QObject::connect(w.desk, &interface_desk::clusters_changed, dialog, [c] {
    // A field needs a range, also when the last cluster has gone.
    const std::int32_t n = std::max(1, c->w.session.clusters.n_clusters);
    c->a->setMaximum(n);
    c->b->setMaximum(n);
  });
  show_units(c);
  place_at_right(w, dialog);
  open_beside(w, dialog, live_entries + measure_entries);
  tile_cluster_windows(w, dialog);
}

}  // namespace kestrelvane
