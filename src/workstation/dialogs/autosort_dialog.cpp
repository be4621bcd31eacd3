#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QSlider>
#include <QTimer>
#include <QVBoxLayout>
#include <memory>
#include <utility>

#include "clustering/realignment.h"
#include "detection/sample_test.h"
#include "operations/autosort.h"
#include "operations/planted_score.h"
#include "operations/preset_sort.h"
#include "review/guided_merge.h"
#include "review/recorded_edit.h"
#include "session/presets.h"
#include "session/settings_table.h"
#include "session/template_window.h"
#include "sorting/undo_state.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/display_controls.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/program_options.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/session_turn.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr int asks_for_next = 2;  // result of the dialog

// The settings of a whole sort, and its run. Settings are stored by Start, Next and Done, all
// or none, so that a run never sees half of what was typed. Closing the window by its frame
// drops them, and a run cannot be left but by Interrupt, which keeps what has been sorted.
struct autosort_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  QComboBox* preset = nullptr;
  QLabel* purpose = nullptr;  // of the preset
  preset_hold hold;           // what it has set, while a run goes by it
  QComboBox* threshold_mode = nullptr;
  number_field *fixed_uv = nullptr, *multiplier = nullptr;
  number_field *window_from = nullptr, *window_to = nullptr;  // of templates, ms
  QCheckBox* skip_detection = nullptr;
  QCheckBox* skip_clustering = nullptr;
  QGroupBox *detection_box = nullptr, *clustering_box = nullptr, *merging_box = nullptr;
  QProgressBar *detection_bar = nullptr, *cluster_bar = nullptr, *merge_bar = nullptr;
  QProgressBar* template_bar = nullptr;
  QPushButton* take_back = nullptr;
  QLabel *events_found = nullptr, *current_cluster = nullptr, *clusters_found = nullptr;
  QLabel *stable_clusters = nullptr, *current_pair = nullptr, *elapsed = nullptr;
  QLabel* message = nullptr;
  QPushButton *start = nullptr, *interrupt = nullptr, *resume = nullptr;
  QPushButton *next = nullptr, *done = nullptr;
  QCheckBox* pause = nullptr;
  bool pool_shown = false;  // a pause of this run has opened the windows

  autosort_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_autosort = std::shared_ptr<autosort_window>;

// Its "skip" boxes grey the rest of a section: a value there would be without effect, and
// the user would wait hours for a run that has not followed it.
void grey_sections(const autosort_window& a) {
  const auto set = [](QGroupBox* box, const QCheckBox* skip) {
    const QList<QWidget*> children =
        box->findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly);
    for (QWidget* child : children) {
      if (child != skip) child->setEnabled(!skip->isChecked());
    }
  };
  set(a.detection_box, a.skip_detection);
  set(a.clustering_box, a.skip_clustering);
}

// One value at a time, since only the chosen mode reads its own.
void show_threshold_value(const autosort_window& a) {
  const int mode = a.threshold_mode->currentData().toInt();
  a.fixed_uv->row()->setVisible(mode == threshold_fixed);
  a.multiplier->row()->setVisible(mode == threshold_variable);
}

// ---------------------------------------------------------------- presets

const sort_preset& chosen_preset(const autosort_window& a) {
  return sort_presets()[static_cast<std::size_t>(std::max(0, a.preset->currentIndex()))];
}

QString words_about(const sort_preset& preset) {
  return QString("%1: %2").arg(preset.name, preset.purpose);
}

// A field of this dialog shows a value that is not stored by that; other settings have none.
void show_value(const autosort_window& a, const char* setting, double value) {
  if (auto* field = a.dialog->findChild<number_field*>(setting)) field->show_value(value);
  if (auto* box = a.dialog->findChild<QCheckBox*>(setting)) box->setChecked(value != 0);
  if (auto* list = a.dialog->findChild<QComboBox*>(setting)) {
    list->setCurrentIndex(list->findData(static_cast<int>(value)));
  }
}

// Fields that a preset sets show what it would sort with, and with the next one what is stored.
void show_preset(autosort_window& a) {
  const sort_preset& preset = chosen_preset(a);
  const session_state& session = a.w.session;
  for (const sort_preset& other : sort_presets()) {
    for (const preset_setting& s : other.settings) {
      show_value(a, s.name, setting_value(session, *find_setting(s.name)));
    }
  }
  for (const preset_setting& s : preset.settings) show_value(a, s.name, s.value);
  a.preset->setToolTip(preset.purpose);
  // The lines of the introduction keep their room, or all controls would move up after a run.
  if (a.purpose->isVisible()) {
    const int needed = a.purpose->heightForWidth(a.purpose->width());
    a.purpose->setMinimumHeight(std::max(a.purpose->minimumHeight(), needed));
  }
  a.purpose->setText(preset.purpose);
}

// Before the first sort all of them are told.
void introduce_presets(const autosort_window& a) {
  QStringList lines;
  for (const sort_preset& preset : sort_presets()) lines << words_about(preset);
  a.purpose->setText(lines.join("\n"));
}

QLayout* preset_section(autosort_window& a) {
  a.preset = new QComboBox;
  a.preset->setObjectName("preset");
  for (const sort_preset& preset : sort_presets()) {
    a.preset->addItem(preset.name);
    a.preset->setItemData(a.preset->count() - 1, QString(preset.purpose), Qt::ToolTipRole);
  }
  a.purpose = new QLabel;
  a.purpose->setObjectName("preset_purpose");
  a.purpose->setWordWrap(true);
  a.purpose->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  auto* rows = new QFormLayout;
  rows->addRow("&Preset", a.preset);
  rows->addRow(a.purpose);
  return rows;
}

void load_preset(autosort_window& a) {
  const sort_preset* last = find_preset(last_preset());
  if (last != nullptr) a.preset->setCurrentIndex(a.preset->findText(last->name));
  show_preset(a);
  if (last == nullptr) introduce_presets(a);
  QObject::connect(a.preset, &QComboBox::currentIndexChanged, a.dialog, [&a] { show_preset(a); });
}

QGroupBox* detection_section(autosort_window& a) {
  auto* rows = new QFormLayout;
  a.skip_detection =
      logical_control(a.form, "skip_event_detection", "skip", "Keep the events that are there");
  rows->addRow(a.skip_detection);
  a.threshold_mode = choice_control(a.form, "threshold_mode", mode_entries(threshold_modes()),
                                    "How the detection threshold of each channel is found");
  a.fixed_uv = number_control(a.form, "fixed_threshold_uv",
                              {.step = 5, .unit = "µV", .tip = "Threshold of all channels, µV"});
  a.multiplier = number_control(
      a.form, "variable_multiplier",
      {.step = 0.1, .unit = "× noise", .tip = "Threshold as a multiple of the channel's noise"});
  auto* value = new QHBoxLayout;
  value->addWidget(a.threshold_mode);
  value->addWidget(a.fixed_uv->row());
  value->addWidget(a.multiplier->row());
  rows->addRow("Threshold", value);
  rows->addRow("Initial alignment",
               choice_control(a.form, "align_feature", mode_entries(align_features()),
                              "Point of the spike that is its time at first"));
  auto* progress = new QHBoxLayout;
  progress->addWidget(a.detection_bar = make_bar("detection_meter", 1000), 1);
  // In the row itself: rows of a form begin at its top, and not at the middle of the bar.
  progress->addWidget(new QLabel("# of events"));
  a.events_found = new QLabel;
  a.events_found->setObjectName("events_found");
  a.events_found->setTextInteractionFlags(Qt::TextSelectableByMouse);
  // Kept, so that the bar does not grow and shrink with the count.
  a.events_found->setMinimumWidth(a.events_found->fontMetrics().horizontalAdvance("50000000"));
  progress->addWidget(a.events_found);
  rows->addRow("Progress", progress);
  QObject::connect(a.threshold_mode, &QComboBox::currentIndexChanged, a.dialog,
                   [&a] { show_threshold_value(a); });
  return a.detection_box = titled_box("Event detection", rows);
}

QGroupBox* clustering_section(autosort_window& a) {
  auto* rows = new QFormLayout;
  a.skip_clustering =
      logical_control(a.form, "skip_clustering", "skip", "Keep the clusters that are there");
  rows->addRow(a.skip_clustering);
  auto* window = new QHBoxLayout;
  const char* tip = "Part of the spike that templates cover, ms around its aligned time";
  a.window_from = number_control(a.form, "template_window_start_ms", {.step = 0.1, .tip = tip});
  a.window_to = number_control(a.form, "template_window_end_ms", {.step = 0.1, .tip = tip});
  window->addWidget(a.window_from);
  window->addWidget(new QLabel("to"));
  window->addWidget(a.window_to);
  window->addWidget(new QLabel("ms;  realignment"));
  window->addWidget(
      choice_control(a.form, "template_align_mode", mode_entries(template_align_modes()),
                     "Point of the template that new templates are moved to"),
      1);
  rows->addRow("Template window  ", window);
  rows->addRow(words_line({a.window_from, a.window_to}));
  add_number(
      rows, a.form, "Threshold", "gac_threshold",
      {.unit = "stages", .tip = "For how many stages a sub-cluster must last to be real, above 1"});
  add_number(rows, a.form, "Min. cluster size", "min_cluster_size",
             {.step = 10,
              .unit = "events",
              .tip = "Clusters with fewer spikes than the minimum cluster size will be deleted "
                     "during sorting"});
  add_number(rows, a.form, "PCA dimensions", "pca_dimensions",
             {.tip = "Principal components that clustering works in, 2 to 5"});
  rows->addRow("Progress", a.cluster_bar = make_bar("cluster_meter", 100));
  a.current_cluster = add_value(rows, "current_cluster", "Current cluster");
  return a.clustering_box = titled_box("Clustering", rows);
}

QLayout* template_row(autosort_window& a) {
  auto* row = new QHBoxLayout;
  row->addWidget(logical_control(
      a.form, "template_pass", "Reclaim spikes by templates",
      "At the end, search the recording with the waveform of each unit: finds spikes below the "
      "threshold and under others, follows units that move, and takes out units that are none"));
  row->addWidget(a.template_bar = make_bar("template_meter", 1000), 1);
  a.take_back = make_button("undo_template_pass", "Take back",
                            "The sort as it was before its spikes were reclaimed by templates");
  row->addWidget(a.take_back);
  return row;
}

QGroupBox* merging_section(autosort_window& a) {
  auto* rows = new QFormLayout;
  auto* merges = new QHBoxLayout;
  merges->addWidget(logical_control(a.form, "merge_safe_pairs", "Merge safe pairs;",
                                    "Merge pairs of clusters that are plainly one unit"));
  merges->addWidget(logical_control(a.form, "merge_split_pairs", "merge/split for overlaps >",
                                    "Pool pairs that are not distinct and split them again"));
  number_field* overlap =
      number_control(a.form, "overlap_threshold",
                     {.step = 0.01, .decimals = 2, .tip = "Least overlap of such a pair, 0 to 1"});
  merges->addWidget(overlap->row(), 1);
  rows->addRow(merges);
  rows->addRow("Progress", a.merge_bar = make_bar("merge_meter", 150));
  // Side by side: the dialog must fit a small screen.
  auto* counts = new QFormLayout;
  a.clusters_found = add_value(counts, "clusters_found", "# of clusters");
  a.stable_clusters = add_value(counts, "stable_clusters", "# of stable clusters");
  auto* progress = new QFormLayout;
  a.current_pair = add_value(progress, "current_pair", "Current pair");
  a.elapsed = add_value(progress, "elapsed_time", "Time, minutes");
  auto* values = new QHBoxLayout;
  values->addLayout(counts, 1);
  values->addLayout(progress, 1);
  rows->addRow(values);
  rows->addRow(template_row(a));
  return a.merging_box = titled_box("Merge and Split", rows);
}

QLayout* pc_scale_row(workstation& w) {
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("pc_display_scale");
  slider->setRange(0, 200);
  slider->setValue(pc_position_of(w.session.preferences.pc_display_scale));
  slider->setToolTip("Scale of the principal components displays");
  QObject::connect(slider, &QSlider::valueChanged, slider,
                   [&w](int position) { use_pc_scale(w, position); });
  auto* row = new QFormLayout;
  row->addRow("PC display scale", slider);
  return row;
}

void follow_run(const autosort_window& a) {
  // A run compares all pairs before it merges, when the bar of clustering has done its work.
  follow(a.w, a.dialog,
         {{meter::detection, a.detection_bar},
          {meter::clusters, a.cluster_bar},
          {meter::status_lists, a.cluster_bar},
          {meter::merge_and_sort, a.merge_bar},
          {meter::template_pass, a.template_bar},
          {meter::filtering, a.detection_bar}},
         {{status_field::message, a.message},
          {status_field::events_found, a.events_found},
          {status_field::clusters_found, a.clusters_found},
          {status_field::stable_clusters, a.stable_clusters},
          {status_field::current_cluster, a.current_cluster},
          {status_field::current_pair, a.current_pair},
          {status_field::elapsed_time, a.elapsed}});
  follow_clock(a.dialog, a.elapsed);
  fill_bars_at_end(a.w, a.dialog, {a.detection_bar, a.cluster_bar, a.merge_bar});
}

// A sort may be in detection, in clustering or at a pause point; each looks at its own flag,
// and one that waits has to be woken to look.
void request_interrupt(autosort_window& a) {
  long_operation_flags& operation = a.w.session.operation;
  operation.autosort_interrupt = true;
  operation.detection_interrupted = true;
  operation.filtering_interrupted = true;
  operation.pause_requested = false;
  a.w.desk->resume();
  a.interrupt->setEnabled(false);
  a.message->setText("Interrupting: finishing the current step ...");
}

bool window_is_possible(const autosort_window& a) {
  // Each field knows its own range only.
  return a.window_from->value() < a.window_to->value();
}

// Takes the settings over, for a run those of the preset as well: whoever starts none after all
// releases it. False, with nothing stored, while something is refused.
bool store_settings(autosort_window& a, bool for_run) {
  if (!window_is_possible(a)) {
    a.message->setText("The template window must begin before it ends");
    return false;
  }
  if (a.form.refused()) return a.form.store();
  {
    const std::lock_guard lock(a.w.session.settings_mutex);
    // Held first: what the fields say over it was typed on top.
    a.hold = hold_preset(a.w.session, chosen_preset(a));
    a.form.store();
    if (!for_run) release_preset(a.w.session, a.hold);
  }
  // A window of more points than a template holds is cut, and the user told, before hours of
  // sorting with it.
  shorten_spike_window(a.w.session);
  return true;
}

// The sort before the pass can be had back until something else is saved for undo.
void show_take_back(const autosort_window& a) {
  a.take_back->setEnabled(!a.dialog->running() && can_undo(a.w.session, undo_owner::template_pass));
}

void take_back_pass(const shared_autosort& a) {
  a->dialog->run(
      [](session_state& session) { restore_recorded(session, undo_owner::template_pass); },
      [a] {
        a->message->setText("The sort is the one before the template pass");
        a->clusters_found->setText(QString::number(a->w.session.clusters.n_clusters));
        grey_sections(*a);
      });
}

void start_run(const shared_autosort& a) {
  long_operation_flags& operation = a->w.session.operation;
  // Ticked before the start, it stops at the first pause point.
  operation.pause_requested = a->pause->isChecked();
  a->pool_shown = false;
  const sort_preset& preset = chosen_preset(*a);
  keep_last_preset(preset.name);
  a->dialog->run(
      [a, &preset](session_state& s) {
        autosort_by_preset(s, preset, a->hold);
        log_planted_score(s);
      },
      [a] {
        // Detection may have turned to the lockout method, clusters may be there.
        a->form.load();
        show_preset(*a);
        a->pause->setChecked(false);
        grey_sections(*a);
      });
}

// Asks before a sort that is there makes way for another.
void begin_run(const shared_autosort& a) {
  if (!store_settings(*a, true)) return;
  const session_state& session = a->w.session;
  const std::int32_t n = session.clusters.n_clusters;
  const sorting_strategy_settings& s = session.strategy;
  // With both skipped the clusters stay and are only merged and split further.
  if (n == 0 || (s.skip_event_detection && s.skip_clustering)) return start_run(a);
  ask_then(a->w, QString("Autosort will replace the %1 clusters in memory.").arg(n),
           "Are you sure?", [a](bool yes) {
             if (yes) return start_run(a);
             release_preset(a->w.session, a->hold);
           });
}

void make_buttons(autosort_window& a) {
  a.start = make_button("start", "Start", "Run the pipeline with these settings");
  a.interrupt = make_button("interrupt", "Interrupt", "Stop; what has been sorted so far stays");
  a.pause = new QCheckBox("pause");
  a.pause->setObjectName("pause");
  a.pause->setToolTip("Wait at the next pause point: between clusters, after a pair or a merge");
  a.resume = make_button("resume", "Resume", "Go on after a pause");
  a.next = make_button("next", "Next", "Go on to guided merging of what is left");
  a.done = make_button("done", "Done", "Close");
  a.start->setDefault(true);
  a.interrupt->setEnabled(false);
  a.resume->setEnabled(false);
}

// What is on when. Pause may be ticked before a run, and Resume goes with its pauses.
void share_out_controls(const autosort_window& a) {
  a.dialog->disabled_while_running << a.preset << a.start << a.next << a.done;
  for (const QGroupBox* box : {a.detection_box, a.clustering_box, a.merging_box}) {
    a.dialog->disabled_while_running << inputs_of(box);
  }
  a.dialog->enabled_while_running << a.interrupt;
}

// What a run has in hand when it pauses in the stages of pairs: its events in the plane of their
// components, and their waveforms, beside the dialog.
void show_pause(const shared_autosort& a) {
  if (!a->w.paused) return;
  {
    const session_turn turn(a->w);
    if (!turn.taken) {
      // A save has the session for a while.
      QTimer::singleShot(50, a->dialog, [a] { show_pause(a); });
      return;
    }
    if (a->w.session.autosort.pool.pooled.empty()) return;
    show_pool_windows(a->w);
  }
  if (!std::exchange(a->pool_shown, true)) tile_cluster_windows(a->w, a->dialog);
}

void connect_pause(const shared_autosort& a) {
  operation_dialog* dialog = a->dialog;
  QObject::connect(a->pause, &QCheckBox::toggled, dialog, [a](bool on) {
    if (a->dialog->running()) a->w.session.operation.pause_requested = on;
  });
  // Splitting begins without a pause; a box that was ticked during detection still counts.
  QObject::connect(a->w.desk, &interface_desk::status_changed, dialog, [a](status_field field) {
    if (field == status_field::current_cluster && a->pause->isChecked()) {
      a->w.session.operation.pause_requested = true;
    }
  });
  // The box stays ticked, so that one can step from pair to pair.
  QObject::connect(a->resume, &QPushButton::clicked, dialog, [a] {
    a->w.session.operation.pause_requested = a->pause->isChecked();
    a->w.desk->resume();
  });
  QObject::connect(a->w.desk, &interface_desk::paused, dialog, [a] {
    a->resume->setEnabled(true);
    show_pause(a);
  });
  QObject::connect(a->w.desk, &interface_desk::resumed, dialog,
                   [a] { a->resume->setEnabled(false); });
}

void connect_run(const shared_autosort& a) {
  operation_dialog* dialog = a->dialog;
  connect_pause(a);
  QObject::connect(a->skip_detection, &QCheckBox::toggled, dialog, [a] { grey_sections(*a); });
  QObject::connect(a->skip_clustering, &QCheckBox::toggled, dialog, [a] { grey_sections(*a); });
  QObject::connect(a->start, &QPushButton::clicked, dialog, [a] { begin_run(a); });
  QObject::connect(a->interrupt, &QPushButton::clicked, dialog, [a] { request_interrupt(*a); });
  QObject::connect(a->take_back, &QPushButton::clicked, dialog, [a] { take_back_pass(a); });
  QObject::connect(dialog, &operation_dialog::running_changed, dialog, [a] { show_take_back(*a); });
  QObject::connect(a->next, &QPushButton::clicked, dialog, [a] {
    if (store_settings(*a, false)) a->dialog->done(asks_for_next);
  });
  QObject::connect(a->done, &QPushButton::clicked, dialog, [a] {
    if (store_settings(*a, false)) a->dialog->accept();
  });
}

QLayout* button_row(const shared_autosort& a) {
  make_buttons(*a);
  share_out_controls(*a);
  auto* row = new QHBoxLayout;
  row->addWidget(a->start);
  row->addWidget(a->interrupt);
  row->addWidget(a->pause);
  row->addWidget(a->resume);
  row->addStretch();
  row->addWidget(a->next);
  row->addWidget(a->done);
  return row;
}

void go_on_to_guided_merge(workstation& w) {
  const session_state& session = w.session;
  // With all pairs settled guided merging would open to say only that.
  if (session.autosort.next_stage_requested && has_pairs_to_examine(session)) {
    guided_merge_command(w);
  }
}

// The box that stands while templates follow a new spike window. Without them, the old
// templates would be compared with waveforms of another length.
void realign_after(workstation& w) {
  auto* box = new operation_dialog(w, "realign_box", "Autosort");
  auto* message = new QLabel;
  message->setObjectName("message");
  QProgressBar* bar = make_bar("progress", 100);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok);
  buttons->button(QDialogButtonBox::Ok)->setObjectName("ok");
  box->disabled_while_running << buttons;
  auto* layout = new QVBoxLayout(box);
  layout->addWidget(message);
  layout->addWidget(bar);
  layout->addWidget(buttons);
  QObject::connect(buttons, &QDialogButtonBox::accepted, box, &QDialog::accept);
  follow(w, box, every_meter(bar), {{status_field::message, message}});
  box->run([](session_state& session) { leave_autosort(session); }, nullptr);
  QObject::connect(box, &QDialog::finished, w.frame, [&w] { go_on_to_guided_merge(w); });
  open_dialog(w, box);
}

// After the dialog: new templates for a new spike window, by which the pairs are told that
// guided merging has to look at.
void after_dialog(workstation& w) {
  if (templates_are_outdated(w.session)) {
    realign_after(w);
  } else {
    go_on_to_guided_merge(w);
  }
}

void open_settings(workstation& w) {
  session_state& session = w.session;
  {
    const std::lock_guard lock(session.settings_mutex);
    // Events that are there have perhaps been cleaned by hand: detection would replace them.
    session.strategy.skip_event_detection = session.events.n_events >= 1;
    // There is nothing that could be kept.
    if (session.clusters.n_clusters == 0) session.strategy.skip_clustering = false;
  }
  // Until the dialog is left by another way than "Next".
  session.autosort.next_stage_requested = true;
  session.autosort.max_clusters_reached = false;
}

}  // namespace

void autosort_command(workstation& w) {
  if (!needs_recording(w)) return;
  open_settings(w);
  auto* dialog = new operation_dialog(w, "autosort_dialog", "Autosort");
  const auto a = std::make_shared<autosort_window>(w, dialog);
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(preset_section(*a));
  layout->addWidget(detection_section(*a));
  layout->addWidget(clustering_section(*a));
  layout->addWidget(merging_section(*a));
  layout->addLayout(pc_scale_row(w));
  a->message = new QLabel;
  a->message->setObjectName("message");
  a->message->setWordWrap(true);
  layout->addWidget(a->message);
  layout->addLayout(button_row(a));
  a->form.load();
  load_preset(*a);
  show_threshold_value(*a);
  grey_sections(*a);
  show_take_back(*a);
  follow_run(*a);
  connect_run(a);
  QObject::connect(dialog, &QDialog::finished, w.frame, [a](int result) {
    workstation& shell = a->w;
    if (result != asks_for_next) shell.session.autosort.next_stage_requested = false;
    after_dialog(shell);
  });
  place_at_right(w, dialog);
  open_runner(w, dialog);
}

}  // namespace kestrelvane
