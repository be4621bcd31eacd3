#include <QHBoxLayout>
#include <QVBoxLayout>
#include <memory>
#include <vector>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "sorting/realign_steps.h"
#include "sorting/undo_state.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Realignment moves the times of events, so each step can be taken back: one cluster's by its
// copy of the times, everything by the sort that was saved on opening. Steps run on the worker;
// figures beside the buttons show whether the waveforms lie closer together than before.
struct realign_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  std::int32_t old_template_mode;         // at entry
  bool saved = false;                     // the undo slot holds the sort at entry
  event_times_copy copy;                  // of the cluster realigned last
  std::vector<std::int32_t> sizes = {0};  // events of each cluster
  double mean_sd = 0;                     // µV
  number_field* cluster = nullptr;
  QComboBox *template_mode = nullptr, *event_mode = nullptr;
  QLabel *events = nullptr, *sd = nullptr, *mean = nullptr, *message = nullptr;
  QPushButton *undo_templates = nullptr, *undo_events = nullptr, *undo_all = nullptr;
  QProgressBar* bar = nullptr;

  realign_window(workstation& of, operation_dialog* d)
      : w(of),
        dialog(d),
        form(of.session, d),
        old_template_mode(of.session.strategy.template_align_mode) {}
};
using shared_realign = std::shared_ptr<realign_window>;

QString microvolts(double value) { return QString::number(value, 'f', 3) + " µV"; }

void show_cluster(const realign_window& r) {
  const auto cluster = static_cast<std::int32_t>(r.cluster->value());
  // The first figures are still being gathered.
  if (cluster >= static_cast<std::int32_t>(r.sizes.size())) return;
  r.events->setText(QString::number(r.sizes[cluster]));
  r.sd->setText(microvolts(template_sd_uv(r.w.session, cluster)));
  r.mean->setText(microvolts(r.mean_sd));
}

// What can be undone depends on the cluster on show and on what was saved.
void set_undo_buttons(const realign_window& r) {
  // The copy is of one cluster; put back while another is on show, the user would not see what he
  // has done.
  const bool here = !r.dialog->running() && r.copy.cluster == r.cluster->value();
  r.undo_templates->setEnabled(here);
  r.undo_events->setEnabled(here);
  r.undo_all->setEnabled(!r.dialog->running() && r.saved);
}

// A step may have changed the figures as well as what can be taken back.
void show_outcome(const realign_window& r) {
  show_cluster(r);
  set_undo_buttons(r);
}

// Runs a step on the worker; figures and buttons follow it. The mean goes over all templates,
// which is why it is taken there.
void run_step(const shared_realign& r, session_routine step) {
  r->bar->setValue(0);
  r->message->setText("");
  r->dialog->run(
      [r, step = std::move(step)](session_state& session) {
        step(session);
        r->mean_sd = mean_template_sd_uv(session);
      },
      [r] {
        r->bar->setValue(r->bar->maximum());
        r->message->setText("Finished");
        show_outcome(*r);
      });
}

// What the dialog begins with: the sort saved for "Undo all", and the figures.
void save_and_measure(const shared_realign& r) {
  r->dialog->run(
      [r](session_state& session) {
        r->saved = save_undo_state(session, undo_owner::realignment);
        r->sizes = count_events_by_cluster(session);
        r->mean_sd = mean_template_sd_uv(session);
      },
      [r] {
        if (!r->saved) r->message->setText("Not enough memory to undo everything");
        show_outcome(*r);
      });
}

using cluster_step = void (*)(session_state& session, std::int32_t cluster, std::int32_t mode);
using every_step = void (*)(session_state& session, std::int32_t mode);

void realign_one(const shared_realign& r, const QComboBox* list, cluster_step step) {
  // Read here: the worker must not touch a control.
  const std::int32_t mode = list->currentData().toInt();
  const auto cluster = static_cast<std::int32_t>(r->cluster->value());
  run_step(r, [r, step, cluster, mode](session_state& session) {
    // Before the step, and of its cluster alone: one step back, not all of them.
    r->copy = copy_event_times(session, cluster);
    step(session, cluster, mode);
  });
}

void realign_every(const shared_realign& r, const QComboBox* list, every_step step) {
  const std::int32_t mode = list->currentData().toInt();
  run_step(r, [r, step, mode](session_state& session) {
    r->copy = {};  // would take one cluster of many back
    step(session, mode);
  });
}

void undo_one(const shared_realign& r) {
  run_step(r, [r](session_state& session) {
    put_back_event_times(session, r->copy);
    r->copy = {};  // nothing is left to take back: the buttons go off
  });
}

struct realign_group {
  const char* title;
  const char* setting;
  const char *realign_name, *all_name, *undo_name;
  const char *list_tip, *realign_tip, *all_tip;
  cluster_step one;
  every_step all;
};

constexpr const char* undo_tip = "Put the events of this cluster back to where they lay before";

QGroupBox* group_box(const shared_realign& r, const realign_group& group,
                     const std::vector<std::pair<QString, int>>& modes, QComboBox*& list,
                     QPushButton*& undo) {
  auto* rows = new QFormLayout;
  list = choice_control(r->form, group.setting, modes, group.list_tip);
  rows->addRow("Align to", list);
  QPushButton* one = make_button(group.realign_name, "Realign", group.realign_tip);
  QPushButton* all = make_button(group.all_name, "Realign All", group.all_tip);
  undo = make_button(group.undo_name, "Undo", undo_tip);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(one);
  buttons->addWidget(all);
  buttons->addWidget(undo);
  rows->addRow(buttons);
  r->dialog->disabled_while_running << list << one << all;
  const QComboBox* modes_of = list;
  QObject::connect(one, &QPushButton::clicked, r->dialog,
                   [r, modes_of, step = group.one] { realign_one(r, modes_of, step); });
  QObject::connect(all, &QPushButton::clicked, r->dialog,
                   [r, modes_of, step = group.all] { realign_every(r, modes_of, step); });
  QObject::connect(undo, &QPushButton::clicked, r->dialog, [r] { undo_one(r); });
  return titled_box(group.title, rows);
}

QGroupBox* templates_box(const shared_realign& r) {
  return group_box(
      r,
      {"Realign Templates", "template_align_mode", "realign_template", "realign_all_templates",
       "undo_templates", "Point of the template that is moved to the aligned time",
       "Move all events of this cluster by one common amount",
       "Align the templates and then the events of every cluster", realign_cluster_template,
       realign_every_template},
      mode_entries(template_align_modes()), r->template_mode, r->undo_templates);
}

QGroupBox* events_box(const shared_realign& r) {
  return group_box(
      r,
      {"Realign Events", "event_align_mode", "realign_events", "realign_all_events", "undo_events",
       "Point of its own waveform, or fit to the template, that each event is moved to",
       "Move each event of this cluster by itself", "Move each event of every cluster by itself",
       realign_cluster_events, realign_every_event},
      mode_entries(event_align_modes()), r->event_mode, r->undo_events);
}

void select_cluster(session_state& session, double cluster) {
  const std::lock_guard lock(session.settings_mutex);
  session.clusters.current_cluster = static_cast<std::int32_t>(cluster);
}

QLayout* cluster_rows(const shared_realign& r) {
  session_state& session = r->w.session;
  r->cluster = free_number(r->dialog, "cluster", 1, session.clusters.n_clusters,
                           {.tip = "The current cluster"});
  r->cluster->setValue(session.clusters.current_cluster);
  select_cluster(session, r->cluster->value());
  auto* rows = new QFormLayout;
  rows->addRow("Cluster", r->cluster->row());
  r->events = add_value(rows, "cluster_events", "Events", "...", "Events of this cluster");
  r->sd = add_value(rows, "template_sd", "Template s.d.", "...",
                    "Spread of the waveforms round the template on its centre channel, µV: the "
                    "smaller, the better they are aligned");
  r->mean = add_value(rows, "mean_template_sd", "ave. s.d. of all templates", "...",
                      "The same, as the mean over all clusters, µV");
  r->dialog->disabled_while_running << r->cluster;
  QObject::connect(r->cluster, &QDoubleSpinBox::valueChanged, r->dialog, [r](double cluster) {
    select_cluster(r->w.session, cluster);
    show_cluster(*r);
    set_undo_buttons(*r);
  });
  return rows;
}

void connect_reports(const shared_realign& r) {
  follow(r->w, r->dialog, {{meter::clusters, r->bar}, {meter::status_lists, r->bar}});
  // The steps report no words; which meter moves tells what is being done.
  QObject::connect(r->w.desk, &interface_desk::progressed, r->dialog, [r](meter which) {
    if (which == meter::clusters) r->message->setText("Moving events");
    if (which == meter::status_lists) r->message->setText("Comparing pairs of clusters");
  });
  QObject::connect(r->dialog, &operation_dialog::running_changed, r->dialog,
                   [r] { set_undo_buttons(*r); });
}

// The method tried here is the one that sorting uses. A user who only tried it may not want it
// in the next sort.
void ask_about_mode(const shared_realign& r) {
  workstation& w = r->w;
  const std::int32_t old_mode = r->old_template_mode;
  if (w.session.strategy.template_align_mode == old_mode) return;
  ask_then(w, "Continue to use newly selected template realignment method?",
           "What do you want to do?", [&w, old_mode](bool yes) {
             if (yes) return;
             const std::lock_guard lock(w.session.settings_mutex);
             w.session.strategy.template_align_mode = old_mode;
           });
}

constexpr int undo_everything = 2;  // result of the dialog

// The saved sort lives as long as the dialog: it takes as much memory as the events do.
void leave(const shared_realign& r, int result) {
  start_operation(
      r->w,
      [undo = result == undo_everything](session_state& session) {
        if (undo) restore_undo_state(session, undo_owner::realignment);
        session.undo.reset();
      },
      [r] { ask_about_mode(r); });
}

QDialogButtonBox* button_row(const shared_realign& r) {
  auto* buttons = new QDialogButtonBox;
  r->undo_all = add_button(buttons, "undo_all", "Undo all", QDialogButtonBox::ResetRole,
                           "Leave with all events and clusters as they were on opening");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole,
                                 "Leave; what was realigned stays");
  r->undo_all->setAutoDefault(false);
  done->setDefault(true);
  r->dialog->disabled_while_running << done;
  QObject::connect(r->undo_all, &QPushButton::clicked, r->dialog,
                   [r] { r->dialog->done(undo_everything); });
  QObject::connect(done, &QPushButton::clicked, r->dialog, &QDialog::accept);
  return buttons;
}

}  // namespace

void realign_command(workstation& w) {
  if (!needs_recording(w)) return;
  if (w.session.clusters.n_clusters == 0) {
    show_message(w, "There are no clusters", "Realign templates or events", box_icon::warning);
    return;
  }
  auto* dialog = new operation_dialog(w, "realign_dialog", "Realign templates or events");
  const auto r = std::make_shared<realign_window>(w, dialog);
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(cluster_rows(r));
  layout->addWidget(templates_box(r));
  layout->addWidget(events_box(r));
  r->message = new QLabel;
  r->message->setObjectName("message");
  r->bar = make_bar("progress", 100);
  layout->addWidget(r->message);
  layout->addWidget(r->bar);
  layout->addWidget(button_row(r));
  dialog->setMinimumWidth(380);
  r->form.load();
  connect_reports(r);
  QObject::connect(dialog, &QDialog::finished, w.frame, [r](int result) { leave(r, result); });
  open_runner(w, dialog);
  save_and_measure(r);
}

}  // namespace kestrelvane
