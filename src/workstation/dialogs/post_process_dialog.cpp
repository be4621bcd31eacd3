#include <QButtonGroup>
#include <QHBoxLayout>
#include <QRadioButton>
#include <QSlider>
#include <QVBoxLayout>
#include <cmath>
#include <memory>

#include "review/post_processing.h"
#include "sorting/duplicates.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/dialogs/unit_labels.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Tools over the whole sort, in the order in which one would use them. Each runs on the worker
// and says what it found beside its button; one undo takes all of them back.
struct post_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  sort_counts counts;  // after the last tool
  QLabel *n_clusters = nullptr, *n_events = nullptr, *n_unclustered = nullptr;
  QLabel *percent = nullptr, *n_marked = nullptr;
  QLabel *n_found = nullptr, *n_relocated = nullptr, *n_restored = nullptr, *n_deleted = nullptr;
  QLabel* message = nullptr;
  QProgressBar* bar = nullptr;
  QComboBox* selectivity = nullptr;
  number_field *snr_limit = nullptr, *size_limit = nullptr;
  QPushButton *interrupt = nullptr, *undo = nullptr;

  post_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_post = std::shared_ptr<post_window>;

void show_counts(const post_window& p) {
  const sort_counts& c = p.counts;
  p.n_clusters->setText(QString::number(c.n_clusters));
  p.n_events->setText(QString::number(c.n_events));
  p.n_unclustered->setText(QString::number(c.n_unclustered));
  p.percent->setText(QString::number(c.percent_clustered, 'f', 2));
  p.n_marked->setText(QString::number(c.n_marked));
}

// What a tool leaves to be shown: read on the worker, with the session.
struct outcome {
  std::int32_t count = -1;  // -1: nothing to show
  std::int32_t other = -1;
};
using tool = std::function<outcome(session_state& session)>;
using shower = std::function<void(const outcome& found)>;

void show_count(QLabel* label, std::int32_t count) {
  // What the tool did before stays on show where this one found nothing out.
  if (count >= 0) label->setText(QString::number(count));
}

// Runs a tool with the settings as they stand in the dialog.
void run_tool(const shared_post& p, tool routine, shower show = {}) {
  if (!p->form.store()) return;
  const auto found = std::make_shared<outcome>();
  p->bar->setValue(0);
  p->message->setText("Working ...");
  p->dialog->run(
      [p, routine = std::move(routine), found](session_state& session) {
        *found = routine(session);
        p->counts = count_sort(session);
      },
      [p, found, show = std::move(show)] {
        // Read before it is lowered for whatever comes next.
        const bool stopped = p->w.session.operation.autosort_interrupt;
        set_interrupts(p->w.session.operation, false);
        p->bar->setValue(p->bar->maximum());
        p->message->setText(stopped ? "Interrupted" : "Finished");
        if (show) show(*found);
        show_counts(*p);
      });
}

QPushButton* tool_button(const shared_post& p, const char* name, const QString& label,
                         const char* tip, tool routine, shower show = {}) {
  QPushButton* button = make_button(name, label, tip);
  p->dialog->disabled_while_running << button;
  QObject::connect(
      button, &QPushButton::clicked, p->dialog,
      [p, routine = std::move(routine), show = std::move(show)] { run_tool(p, routine, show); });
  return button;
}

QLabel* count_label(const char* name, const char* tip) {
  auto* label = new QLabel("-");
  label->setObjectName(name);
  label->setToolTip(tip);
  label->setMinimumWidth(56);
  return label;
}

QHBoxLayout* row_of(std::initializer_list<QWidget*> widgets) {
  auto* row = new QHBoxLayout;
  for (QWidget* widget : widgets) row->addWidget(widget);
  row->addStretch();
  return row;
}

QLabel* words(const QString& text) { return new QLabel(text); }

// ---------------------------------------------------------------- boxes

QLayout* counts_block(post_window& p) {
  auto* left = new QFormLayout;
  p.n_clusters = add_value(left, "n_clusters", "# of clusters", "...");
  p.n_events = add_value(left, "n_events", "# of events", "...");
  p.n_marked =
      add_value(left, "n_marked", "# marked", "...", "Events of clusters with a sub-cluster label");
  auto* right = new QFormLayout;
  p.n_unclustered = add_value(right, "n_unclustered", "# unclustered", "...");
  p.percent = add_value(right, "percent_clustered", "% clustered", "...");
  auto* both = new QHBoxLayout;
  both->addLayout(left, 1);
  both->addLayout(right, 1);
  return both;
}

QGroupBox* duplicates_box(const shared_post& p) {
  p->n_found = count_label("n_found", "Pairs of events of one cluster within the lockout time");
  p->n_relocated = count_label("n_relocated", "Events that found a place of their own");
  const auto show_found = [p](const outcome& found) { show_count(p->n_found, found.count); };
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of(
      {tool_button(
           p, "mark_duplicates", "Mark", "Label the worse event of each pair with 1",
           [](session_state& session) { return outcome{mark_duplicate_events(session)}; },
           show_found),
       tool_button(
           p, "remove_duplicates", "Remove", "Take the worse event of each pair out of its cluster",
           [](session_state& session) { return outcome{remove_duplicates_after_sort(session)}; },
           show_found),
       words("# found ="), p->n_found}));
  QPushButton* relocate = tool_button(
      p, "relocate", "Relocate",
      "Put one event of each pair back to where it was detected, and let it find its own place",
      [](session_state& session) {
        const relocation_counts counts = relocate_duplicate_events(session);
        return outcome{counts.n_duplicates, counts.n_relocated};
      },
      [p](const outcome& found) {
        show_count(p->n_found, found.count);
        show_count(p->n_relocated, found.other);
      });
  rows->addLayout(
      row_of({words("Attempt to"), relocate,
              number_control(p->form, "relocate_sd_factor",
                             {.step = 0.1,
                              .decimals = 1,
                              .unit = "s.d.",
                              .tip = "How sharp the fit at the new place must be: above the "
                                     "cluster's mean by this many standard deviations"}),
              words("# relocated ="), p->n_relocated}));
  return titled_box("Duplicate events", rows);
}

QGroupBox* events_box(const shared_post& p) {
  const auto clean = [](bool mark_only) {
    return [mark_only](session_state& session) {
      return outcome{alignment_clean(session, mark_only)};
    };
  };
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of(
      {tool_button(p, "mark_misaligned", "Mark", "Label them with 1", clean(true)),
       tool_button(p, "remove_misaligned", "Remove", "Take them out of their clusters",
                   clean(false)),
       words("events with alignment scores <"),
       number_control(p->form, "clean_threshold",
                      {.step = 0.1, .decimals = 1, .tip = "2 to 3 tells noise from spikes"})}));
  rows->addLayout(row_of(
      {tool_button(p, "delete_shifted", "Delete",
                   "Take out events that lie farther than the realignment window from "
                   "where they were detected",
                   [](session_state& session) { return outcome{delete_shifted_events(session)}; }),
       words("shifted events")}));
  rows->addLayout(row_of({tool_button(p, "clear_labels", "Remove", "Events stay where they are",
                                      [](session_state& session) {
                                        clear_subcluster_labels(session);
                                        return outcome{};
                                      }),
                          words("subcluster labels (marked events remain in the clusters)")}));
  rows->addLayout(row_of(
      {tool_button(p, "delete_labelled", "Delete", "Take marked events out of their clusters",
                   [](session_state& session) { return outcome{remove_labelled_events(session)}; }),
       words("labelled events (marked events are no longer in a cluster)")}));
  return titled_box("Events", rows);
}

QGroupBox* reclaim_box(const shared_post& p) {
  p->selectivity = new QComboBox;
  p->selectivity->setObjectName("selectivity");
  for (const char* name : {"Low", "Medium", "High"}) {
    p->selectivity->addItem(QString(name) + " selectivity");
  }
  // Medium: low takes in strangers, high leaves most of the lost ones out.
  p->selectivity->setCurrentIndex(1);
  p->selectivity->setToolTip("How sure an event must be of its cluster to be taken in");
  p->n_restored = count_label("n_restored", "Unclustered events that joined a cluster");
  p->dialog->disabled_while_running << p->selectivity;
  QPushButton* reclaim = make_button(
      "reclaim", "Reclaim", "Take unclustered events in where a cluster's own events are dense");
  p->dialog->disabled_while_running << reclaim;
  QObject::connect(reclaim, &QPushButton::clicked, p->dialog, [p] {
    // Read here: the worker must not touch a control.
    const auto wanted = static_cast<reclaim_selectivity>(p->selectivity->currentIndex() + 1);
    run_tool(
        p,
        [wanted](session_state& session) { return outcome{reclaim_lost_events(session, wanted)}; },
        [p](const outcome& found) { show_count(p->n_restored, found.count); });
  });
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of(
      {reclaim, words("lost events with"), p->selectivity, words("# restored ="), p->n_restored}));
  return titled_box("Lost events", rows);
}

// One limit at a time, that of the measure chosen.
void show_limit(const post_window& p, const QComboBox* measure) {
  const bool by_snr = measure->currentData().toInt() == delete_by_snr;
  p.snr_limit->row()->setVisible(by_snr);
  p.size_limit->row()->setVisible(!by_snr);
}

QGroupBox* weak_box(const shared_post& p) {
  QComboBox* measure = choice_control(p->form, "delete_measure", mode_entries(delete_measures()),
                                      "By what a cluster is told to be weak");
  p->snr_limit =
      number_control(p->form, "delete_snr_limit",
                     {.step = 0.1, .decimals = 1, .tip = "Peak-to-peak amplitude over the noise"});
  p->size_limit = number_control(p->form, "delete_size_limit",
                                 {.step = 50, .unit = "events", .tip = "Events of the cluster"});
  p->n_deleted = count_label("n_deleted", "Clusters deleted by the last press");
  QObject::connect(measure, &QComboBox::currentIndexChanged, p->dialog,
                   [p, measure] { show_limit(*p, measure); });
  show_limit(*p, measure);
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of(
      {tool_button(
           p, "delete_weak", "Delete", "Delete every cluster below the limit",
           [](session_state& session) { return outcome{delete_weak_clusters(session)}; },
           [p](const outcome& found) { show_count(p->n_deleted, found.count); }),
       words("clusters with"), measure, words("<"), p->snr_limit->row(), p->size_limit->row()}));
  rows->addLayout(row_of({words("# of clusters deleted"), p->n_deleted}));
  return titled_box("Weak clusters", rows);
}

QGroupBox* numbering_box(const shared_post& p) {
  QComboBox* order = choice_control(p->form, "renumber_order", mode_entries(renumber_orders()),
                                    "By what clusters are numbered");
  QHBoxLayout* row =
      row_of({tool_button(p, "reorder", "Reorder", "Sort the clusters and number them anew",
                          [](session_state& session) {
                            renumber_clusters(session);
                            return outcome{};
                          }),
              words("cluster numbering by"), order});
  add_numbering_direction(p->form, row);
  auto* rows = new QVBoxLayout;
  rows->addLayout(row);
  return titled_box("Numbers", rows);
}

QDialogButtonBox* button_row(const shared_post& p) {
  auto* buttons = new QDialogButtonBox;
  p->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Stop the tool that runs");
  p->undo = add_button(buttons, "undo", "Undo", QDialogButtonBox::ResetRole,
                       "Back to the sort as it was when this dialog opened");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  QPushButton* ok =
      add_button(buttons, "ok", "OK", QDialogButtonBox::AcceptRole, "Close; changes stay");
  p->interrupt->setEnabled(false);
  p->dialog->enabled_while_running << p->interrupt;
  p->dialog->disabled_while_running << p->undo << ok;
  QObject::connect(p->interrupt, &QPushButton::clicked, p->dialog,
                   [p] { set_interrupts(p->w.session.operation, true); });
  QObject::connect(p->undo, &QPushButton::clicked, p->dialog, [p] {
    run_tool(p, [](session_state& session) {
      undo_post_processing(session);
      return outcome{};
    });
  });
  QObject::connect(ok, &QPushButton::clicked, p->dialog, [p] {
    if (p->form.store()) p->dialog->accept();
  });
  ok->setDefault(true);
  QObject::connect(keys, &QPushButton::clicked, p->dialog, [p] { show_key_page(p->w, p->dialog); });
  bind_keys(p->dialog, p->undo);
  bind_keys(p->dialog, keys);
  bind_unit_labels(
      p->w, p->dialog, [p] { return current_cluster_alone(p->w); }, nullptr);
  return buttons;
}

void fill_dialog(const shared_post& p) {
  auto* layout = new QVBoxLayout(p->dialog);
  layout->addLayout(counts_block(*p));
  for (QGroupBox* box :
       {duplicates_box(p), events_box(p), reclaim_box(p), weak_box(p), numbering_box(p)}) {
    layout->addWidget(box);
    p->dialog->disabled_while_running << inputs_of(box);
  }
  p->message = new QLabel;
  p->message->setObjectName("message");
  p->bar = make_bar("progress", 100);
  layout->addWidget(p->message);
  layout->addWidget(p->bar);
  layout->addWidget(button_row(p));
  p->form.load();
  follow(p->w, p->dialog, every_meter(p->bar));
}

}  // namespace

// The guards and the save for the undo take a while with a large sort: on the worker, before the
// dialog is there.
void post_process_command(workstation& w) {
  const auto ready = std::make_shared<bool>(false);
  const auto counts = std::make_shared<sort_counts>();
  run_with_progress(
      w, "post_process_progress", "Post-process",
      [ready, counts](session_state& session) {
        *ready = begin_post_processing(session);
        if (*ready) *counts = count_sort(session);
      },
      [&w, ready, counts] {
        if (!*ready) return;
        auto* dialog = new operation_dialog(w, "post_process_dialog", "Post-process");
        const auto p = std::make_shared<post_window>(w, dialog);
        fill_dialog(p);
        p->counts = *counts;
        show_counts(*p);
        place_at_right(w, dialog);
        open_runner(w, dialog);
        tile_cluster_windows(w, dialog);
      });
}

}  // namespace kestrelvane
