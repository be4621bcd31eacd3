#include <QInputDialog>
#include <QLineEdit>
#include <QSlider>
#include <QStyle>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "clustering/clustering_runs.h"
#include "clustering/gradient_ascent.h"
#include "clustering/splitting.h"
#include "review/reclaim.h"
#include "sorting/undo_state.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/unit_labels.h"
#include "workstation/dialogs/view_clusters_window.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

namespace {

// ---------------------------------------------------------------- showing

void show_labels(const view_window& v) {
  for (std::size_t k = 0; k < n_labels; ++k) {
    v.size[k]->setText(QString::number(v.labels.size[k]));
    v.split[k]->setEnabled(v.labels.size[k] > 0);
    v.remove[k]->setEnabled(v.labels.size[k] > 0);
  }
  v.others->setText(QString::number(v.labels.others));
}

void show_cluster(const view_window& v) {
  const session_state& session = v.w.session;
  const std::int32_t n = session.clusters.n_clusters;
  const std::int32_t c = n > 0 ? session.clusters.current_cluster : 0;
  {
    const QSignalBlocker quiet(v.cluster);
    v.cluster->setRange(std::min(1, n), n);
    v.cluster->show_value(c);
  }
  v.n_clusters->setText(QString("of %1").arg(n));
  v.channel->setText(c > 0 ? QString::number(session.templates.centre_channel(c)) : "-");
  v.n_events->setText(QString::number(v.labels.n_events));
  v.comment->setText(
      c > 0 ? QString::fromStdString(std::string(session.clusters.cluster_comment[c].view())) : "");
  v.comment->setToolTip(v.comment->text().isEmpty() ? "Your own words about the cluster"
                                                    : v.comment->text());
  v.n_restored->setText(v.restored < 0 ? "-" : QString::number(v.restored));
  v.undo->setEnabled(can_undo(session, undo_owner::cluster_review));
  v.list->mark(c);
  show_labels(v);
}

// Between two operations: counting the labels of one cluster takes a few milliseconds.
void go_to_cluster(const shared_view& v, std::int32_t cluster) {
  if (v->w.worker.running) return;
  choose_cluster(v->w, cluster);
  v->labels = count_labels(v->w.session);
  v->restored = -1;
  v->message->clear();
  show_cluster(*v);
}

// ---------------------------------------------------------------- tools

void run_tool(const shared_view& v, tool routine) {
  if (v->w.worker.running || !v->form.store()) return;
  const auto words = std::make_shared<QString>();
  v->bar->setValue(0);
  v->message->setText("Working ...");
  v->dialog->run(
      [v, routine = std::move(routine), words](session_state& session) {
        *words = routine(session);
        v->labels = count_labels(session);
        v->units = make_review_units(v->w, session);
      },
      [v, words] {
        const bool stopped = v->w.session.operation.autosort_interrupt;
        set_interrupts(v->w.session.operation, false);
        v->bar->setValue(v->bar->maximum());
        v->message->setText(stopped ? "Interrupted" : words->isEmpty() ? "Finished" : *words);
        v->form.load();  // "Mark" may have changed where it looks
        v->list->show_rows(v->units);
        show_cluster(*v);
        refresh_windows(v->w);  // their colours are the labels
      });
}

}  // namespace

QPushButton* tool_button(const shared_view& v, const char* name, const QString& label,
                         const char* tip, tool routine) {
  QPushButton* button = make_button(name, label, tip);
  button->setAutoDefault(false);
  v->dialog->disabled_while_running << button;
  QObject::connect(button, &QPushButton::clicked, v->dialog, [v, routine = std::move(routine)] {
    put_down_tool(v->w);  // what was drawn is done with
    run_tool(v, routine);
  });
  bind_keys(v->dialog, button);
  return button;
}

namespace {

QString mark_by_settings(session_state& session) {
  if (!mark_events(session, mark_parameters_of(session))) return {};
  const std::int32_t n = count_labels(session).size[1];
  return n == 1 ? QString("1 event marked") : QString("%1 events marked").arg(n);
}

QString autosplit(session_state& session) {
  if (session.clusters.n_clusters < 1) return {};
  autosplit_current_cluster(session);
  const label_sizes labels = count_labels(session);
  return labels.size[0] == labels.n_events ? "Cannot find subclusters" : "Subclusters are labelled";
}

QString split_at_sigma(session_state& session) {
  const std::int32_t stage = nearest_stage(session, session.review.view_split_sigma);
  if (!fixed_split(session, session.review.view_split_sigma)) return {};
  const float sigma = stage_sigma_uv(session, stage);
  return QString("sigma = %1 µV").arg(static_cast<double>(sigma), 0, 'f', 2);
}

void ask_for_comment(const shared_view& v) {
  session_state& session = v->w.session;
  if (session.clusters.n_clusters < 1 || v->w.worker.running) return;
  auto* input = new QInputDialog(v->dialog);
  input->setObjectName("annotate_dialog");
  input->setWindowTitle("Annotate");
  input->setLabelText(QString("Comment of cluster %1").arg(session.clusters.current_cluster));
  input->setTextValue(v->comment->text());
  if (auto* line = input->findChild<QLineEdit*>()) {
    line->setObjectName("cluster_comment");
    line->setMinimumWidth(320);
    line->setMaxLength(sizeof(text256));
  }
  QObject::connect(input, &QInputDialog::textValueSelected, v->dialog, [v](const QString& text) {
    annotate_current_cluster(v->w.session, text.toStdString());
    show_cluster(*v);
  });
  open_dialog(v->w, input);
}

// ---------------------------------------------------------------- boxes

}  // namespace

QHBoxLayout* row_of(std::initializer_list<QWidget*> widgets) {
  auto* row = new QHBoxLayout;
  for (QWidget* widget : widgets) row->addWidget(widget);
  row->addStretch();
  return row;
}

void make_narrow(QWidget* button, const char* words) {
  const int room = 3 * button->fontMetrics().horizontalAdvance("m") / 2;
  button->setFixedWidth(button->fontMetrics().horizontalAdvance(words) + room);
}

QLabel* value_label(const char* name, const char* tip) {
  auto* label = new QLabel("-");
  label->setObjectName(name);
  label->setToolTip(tip);
  return label;
}

namespace {

void bind_steps(const shared_view& v) {
  const auto step = [v](int by) {
    return [v, by] {
      if (!v->dialog->running()) v->cluster->setValue(v->cluster->value() + by);
    };
  };
  for (const char* action : {"next", "next_cluster"}) bind_keys(v->dialog, action, step(1));
  for (const char* action : {"previous", "previous_cluster"})
    bind_keys(v->dialog, action, step(-1));
}

QGroupBox* cluster_box(const shared_view& v) {
  v->cluster = free_number(v->dialog, "current_cluster", 1, 1, {.tip = "The cluster on show"});
  v->n_clusters = value_label("n_clusters", "Clusters of the sort");
  v->channel = value_label("channel", "Centre channel of the template");
  v->n_events = value_label("n_events", "Events of the cluster");
  v->comment = value_label("comment", "Your own words about the cluster");
  v->dialog->disabled_while_running << v->cluster;
  QObject::connect(v->cluster, &QDoubleSpinBox::valueChanged, v->dialog,
                   [v](double c) { go_to_cluster(v, static_cast<std::int32_t>(c)); });
  bind_steps(v);
  QPushButton* annotate = make_button("annotate", "Annotate", "Write a comment on the cluster");
  annotate->setAutoDefault(false);
  v->dialog->disabled_while_running << annotate;
  QObject::connect(annotate, &QPushButton::clicked, v->dialog, [v] { ask_for_comment(v); });
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of({new QLabel("Cluster"), v->cluster, v->n_clusters, new QLabel("  channel"),
                          v->channel, new QLabel("  # of events ="), v->n_events}));
  auto* below = new QHBoxLayout;
  below->addWidget(tool_button(v, "delete_cluster", "Delete",
                               "Delete the cluster; its events are unclustered",
                               silent(delete_current_cluster)));
  below->addWidget(tool_button(v, "realign", "realign",
                               "Calculate the template anew and align the events",
                               silent(realign_current_cluster)));
  below->addWidget(annotate);
  // Words of any length must not make the column wider.
  v->comment->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
  below->addWidget(v->comment, 1);
  rows->addLayout(below);
  return titled_box("", rows);  // its first word says what it is
}

struct shape_row {
  shape_tool tool;
  const char* name;
  const char* label;
  const char* tip;
};
constexpr shape_row shape_rows[] = {
    {shape_tool::windows, "windows", "Windows",
     "Draw windows over the waveforms: events that do not pass all of them get label 1"},
    {shape_tool::ellipse, "ellipse", "Ellipse",
     "Draw an ellipse over the principal components: events inside get label 1"},
    {shape_tool::rectangle, "rectangle", "Rectangle",
     "Draw a rectangle over the heights against time: events inside get label 1"},
    {shape_tool::lasso, "lasso", "Lasso",
     "Draw a line round events, over components or heights: they get the label that is chosen"},
};

void use_tool(const shared_view& v, shape_tool tool) {
  const auto n_open = [v] {
    return std::count_if(std::begin(v->w.graphs), std::end(v->w.graphs),
                         [](const QPointer<graph_window>& window) { return !window.isNull(); });
  };
  const auto before = n_open();
  take_up_tool(v->w, tool);
  // One that it has opened must not lie over the others.
  if (n_open() > before) tile_cluster_windows(v->w, v->dialog);
}

QLayout* shapes_row(const shared_view& v) {
  auto* row = new QHBoxLayout;
  for (std::size_t i = 0; i < v->shapes.size(); ++i) {
    const shape_row& of = shape_rows[i];
    QPushButton* button = v->shapes[i] = make_button(of.name, of.label, of.tip);
    button->setCheckable(true);
    QObject::connect(button, &QPushButton::clicked, v->dialog,
                     [v, tool = of.tool] { use_tool(v, tool); });
    bind_keys(v->dialog, button);
    row->addWidget(button);
  }
  return row;
}

// The hand in the windows works for this dialog as long as it is open.
void serve_shapes(const shared_view& v) {
  shape_hand& hand = displays_of(v->w).hand;
  hand.run = [v](const shape_marking& marking) {
    const shape_hand& drawing = displays_of(v->w).hand;
    const std::int16_t label = drawing.tool == shape_tool::lasso ? drawing.label : std::int16_t{1};
    run_tool(v, [marking, label](session_state& session) {
      marking(session);
      const std::int32_t n = count_labels(session).size[static_cast<std::size_t>(label)];
      return label == 0 ? QString("%1 events without a label").arg(n)
                        : QString("%1 events with label %2").arg(n).arg(label);
    });
  };
  hand.changed = [v] {
    const shape_tool tool = displays_of(v->w).hand.tool;
    for (std::size_t i = 0; i < v->shapes.size(); ++i) {
      v->shapes[i]->setChecked(shape_rows[i].tool == tool);
    }
    follow_plots(v);  // it may have opened a window
  };
}

void release_displays(workstation& w) {
  cluster_displays& d = displays_of(w);
  d.hand.run = nullptr;
  d.hand.changed = nullptr;
  d.waveforms_drawn = nullptr;
  d.hand.label = 1;
  d.single.view.labels.clear();
  put_down_tool(w);
}

QGroupBox* mark_box(const shared_view& v) {
  auto* form = new QFormLayout;
  form->addRow("Method", choice_control(v->form, "clean_method", mode_entries(clean_methods()),
                                        "By what an event is told that does not belong"));
  form->addRow("using",
               choice_control(v->form, "clean_channels", mode_entries(clean_channel_choices()),
                              "Where an event is compared with its template"));
  number_field* threshold = number_control(
      v->form, "clean_threshold",
      {.step = 0.1,
       .decimals = 2,
       .tip = "Realignment clean marks scores below it, where 2 to 3 tells noise from spikes; the "
              "other methods mark distances above it, in s.d. of the template"});
  QPushButton* mark = tool_button(
      v, "mark", "Mark", "Label the events that fail with 1, and no others", mark_by_settings);
  QPushButton* invert =
      tool_button(v, "invert", "Invert", "Swap label 1 and no label", silent(invert_marks));
  QPushButton* unmark =
      tool_button(v, "unmark", "Unmark", "Clear all labels of the cluster", silent(unmark_events));
  for (QPushButton* button : {mark, invert, unmark}) make_narrow(button, "Unmark");
  form->addRow("threshold", row_of({threshold->row(false), mark, invert, unmark}));
  v->numbers.push_back(threshold);
  auto* rows = new QVBoxLayout;
  rows->addLayout(form);
  rows->addLayout(shapes_row(v));
  return titled_box("Mark events", rows);
}

// Slider and number show the same sigma, and the number rules: it may stand between two stages.
void add_sigma_rows(const shared_view& v, QVBoxLayout* rows) {
  session_state& session = v->w.session;
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("view_split_sigma_slider");
  slider->setRange(1, gac_stage_limit);
  slider->setMinimumWidth(60);
  slider->setToolTip("Stage of gradient ascent clustering; each step is a factor of 1.1");
  number_field* field =
      number_control(v->form, "view_split_sigma",
                     {.step = 0.5, .decimals = 2, .unit = "µV", .tip = "Bandwidth of the stage"});
  QObject::connect(slider, &QSlider::sliderMoved, field, [&session, field](int stage) {
    field->setValue(double{session.strategy.gac_start_sigma} * std::pow(1.1, stage - 1));
  });
  QObject::connect(field, &QDoubleSpinBox::valueChanged, slider, [&session, slider](double sigma) {
    slider->setValue(nearest_stage(session, static_cast<float>(sigma)));
  });
  v->dialog->disabled_while_running << slider << field;
  auto* row = new QHBoxLayout;
  row->addWidget(new QLabel("with sigma ="));
  row->addWidget(slider, 1);
  row->addWidget(field->row(false));
  rows->addLayout(row);
  v->numbers.push_back(field);
}

QGroupBox* split_box(const shared_view& v) {
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of(
      {tool_button(v, "autosplit", "Autosplit",
                   "Look for sub-clusters and label them; events stay in the cluster", autosplit),
       tool_button(v, "fixed_split", "Fixed split",
                   "One stage of gradient ascent clustering at this bandwidth", split_at_sigma)}));
  add_sigma_rows(v, rows);
  return titled_box("Look for sub-clusters", rows);
}

QGroupBox* reclaim_box(const shared_view& v) {
  QPushButton* reclaim = make_button(
      "reclaim", "Reclaim", "Take unclustered events in where the cluster's own are dense");
  reclaim->setAutoDefault(false);
  v->dialog->disabled_while_running << reclaim;
  v->n_restored = value_label("n_restored", "Unclustered events that joined the cluster");
  auto* row = row_of({reclaim, new QLabel("with")});
  constexpr const char* names[] = {"low", "med", "high"};
  constexpr const char* words[] = {"Low", "Med", "High selectivity"};
  for (std::size_t i = 0; i < v->selectivity.size(); ++i) {
    v->selectivity[i] = new QRadioButton(words[i]);
    v->selectivity[i]->setObjectName(names[i]);
    v->selectivity[i]->setToolTip("How sure an event must be of the cluster to be taken in");
    row->insertWidget(row->count() - 1, v->selectivity[i]);
  }
  v->selectivity[1]->setChecked(true);
  auto* rows = new QVBoxLayout;
  rows->addLayout(row);
  rows->addLayout(row_of({new QLabel("# restored ="), v->n_restored}));
  QObject::connect(reclaim, &QPushButton::clicked, v->dialog, [v] {
    // Read here: the worker must not touch a control.
    auto wanted = reclaim_selectivity::low;
    if (v->selectivity[1]->isChecked()) wanted = reclaim_selectivity::medium;
    if (v->selectivity[2]->isChecked()) wanted = reclaim_selectivity::high;
    run_tool(v, [v, wanted](session_state& session) {
      reclaim_counts counts;
      if (!reclaim_events(session, wanted, counts)) return QString();
      v->restored = counts.n_gained();
      return QString("%1 restored, %2 relabelled on final check")
          .arg(counts.n_restored)
          .arg(counts.n_relabelled);
    });
  });
  bind_keys(v->dialog, reclaim);
  return titled_box("Lost events", rows);
}

QDialogButtonBox* button_row(const shared_view& v) {
  auto* buttons = new QDialogButtonBox;
  v->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Stop the tool that runs");
  v->undo = add_button(buttons, "undo", "Undo", QDialogButtonBox::ResetRole,
                       "Take the last split, deletion, realignment or reclaim back");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  v->interrupt->setEnabled(false);
  v->dialog->enabled_while_running << v->interrupt;
  v->dialog->disabled_while_running << v->undo << done;
  QObject::connect(v->interrupt, &QPushButton::clicked, v->dialog,
                   [v] { set_interrupts(v->w.session.operation, true); });
  QObject::connect(v->undo, &QPushButton::clicked, v->dialog,
                   [v] { run_tool(v, silent(undo_cluster_review)); });
  QObject::connect(keys, &QPushButton::clicked, v->dialog, [v] { show_key_page(v->w, v->dialog); });
  QObject::connect(done, &QPushButton::clicked, v->dialog, [v] {
    if (v->form.store()) v->dialog->accept();
  });
  bind_keys(v->dialog, v->undo);
  bind_keys(v->dialog, keys);
  return buttons;
}

// Tells the cross of the window from Escape: both ask the dialog to go, and only Escape gives up a
// shape instead.
class cross_watch : public QObject {
 public:
  using QObject::QObject;
  bool by_cross = false;
  bool eventFilter(QObject*, QEvent* event) override {
    if (event->type() == QEvent::Close) by_cross = event->spontaneous();
    return false;
  }
};

// Escape is "Done", in the windows, too, unless it gives up a shape. Only a number that was refused
// is then forgotten.
void leave_by_escape(const shared_view& v) {
  auto* watch = new cross_watch(v->dialog);
  v->dialog->installEventFilter(watch);
  v->dialog->on_leaving = [v, watch] {
    if (!std::exchange(watch->by_cross, false) && give_up_shape(v->w)) return;
    v->form.store();
    v->dialog->accept();
  };
}

// What a tool has come to, or what is wrong with a number, and how far a tool is: one line, so
// that the list has the other.
QLayout* message_row(const shared_view& v) {
  const auto complains = std::make_shared<bool>(false);
  for (const number_field* field : v->numbers) {
    QObject::connect(field, &number_field::judged, v->message,
                     [v, complains](const QString& words) {
                       // A number that is taken ends the complaint and not the words of a tool.
                       if (!words.isEmpty() || *complains) v->message->setText(words);
                       *complains = !words.isEmpty();
                     });
  }
  // Words ask for no more than the room that there is.
  v->message->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
  v->bar->setFixedWidth(v->bar->fontMetrics().horizontalAdvance("m") * 10);
  auto* row = new QHBoxLayout;
  row->addWidget(v->message, 1);
  row->addWidget(v->bar);
  return row;
}

void fill_dialog(const shared_view& v) {
  v->list = new unit_list(v->w);
  bind_unit_labels(v->w, v->dialog, v->list, "the cluster on show");
  v->list->setMinimumSize(280, 108);
  QObject::connect(v->list, &unit_list::chosen, v->dialog, [v](int c) { go_to_cluster(v, c); });
  v->message = value_label("message", "What the last tool has come to");
  v->message->clear();
  v->bar = make_bar("progress", 100);
  // One narrow column, so that the windows have the rest of the screen.
  auto* layout = new QVBoxLayout(v->dialog);
  layout->setSpacing(layout->spacing() / 2);
  layout->setContentsMargins(6, 6, 6, 6);
  for (QGroupBox* box :
       {cluster_box(v), mark_box(v), split_box(v), labels_box(v), reclaim_box(v)}) {
    // Five boxes and a list have to stand on a screen of 800 lines.
    box->layout()->setContentsMargins(8, 4, 8, 4);
    box->layout()->setSpacing(4);
    layout->addWidget(box);
    v->dialog->disabled_while_running << inputs_of(box);
  }
  layout->addLayout(display_row(v));
  v->numbers.push_back(v->n_waveforms);
  layout->addWidget(v->list, 1);
  layout->addLayout(message_row(v));
  layout->addWidget(button_row(v));
  v->form.load();
  follow(v->w, v->dialog, every_meter(v->bar));
  leave_by_escape(v);
}

// On a screen that is too low for it the column scrolls, and its bar must not cut the column.
void keep_room_for_scroll_bar(QDialog* dialog) {
  const QSize hint = dialog->sizeHint();
  if (dialog->layout()->totalMinimumSize().height() <= screen_room(dialog).height()) return;
  const int bar = dialog->style()->pixelMetric(QStyle::PM_ScrollBarExtent);
  dialog->resize(hint + QSize(bar + 4, 0));
}

void open_view(workstation& w, std::vector<unit_row> units) {
  auto* dialog = new operation_dialog(w, "view_clusters_dialog", cluster_review_title);
  const auto v = std::make_shared<view_window>(w, dialog);
  fill_dialog(v);
  v->units = std::move(units);
  v->labels = count_labels(w.session);
  v->list->show_rows(v->units);
  show_cluster(*v);
  keep_room_for_scroll_bar(dialog);
  place_at_right(w, dialog);
  open_runner(w, dialog);
  serve_shapes(v);
  const auto release = [&w] { release_displays(w); };
  QObject::connect(dialog, &QDialog::finished, w.desk, release);
  // One that has stayed open, of whatever units, is of the cluster on show from now on.
  choose_correlograms(w, 0, 0);
  {
    const drawing_hold hold(w);
    redraw_graph(w, graph_kind::correlograms);
    show_cluster_windows(w);
    if (v->with_correlograms->isChecked()) show_autocorrelogram(*v, true);
    tile_cluster_windows(w, dialog);
  }
  follow_plots(v);
  follow_new_windows(w, dialog, [v = std::weak_ptr(v)] {
    if (const shared_view open = v.lock()) follow_plots(open);
  });
  v->list->setFocus();  // the keys are commands there, and text in a field
}

}  // namespace

// The guards and the figures of a large sort take a while: on the worker, before the dialog is
// there.
void view_clusters_command(workstation& w) {
  const auto ready = std::make_shared<bool>(false);
  const auto units = std::make_shared<std::vector<unit_row>>();
  run_with_progress(
      w, "view_clusters_progress", cluster_review_title,
      [&w, ready, units](session_state& session) {
        *ready = begin_cluster_review(session);
        if (*ready) *units = make_review_units(w, session);
      },
      [&w, ready, units] {
        if (*ready) open_view(w, std::move(*units));
      });
}

}  // namespace kestrelvane
