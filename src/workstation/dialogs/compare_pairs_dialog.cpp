#include <QHBoxLayout>
#include <QTabWidget>
#include <QVBoxLayout>
#include <memory>

#include "review/pair_comparison.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/display_controls.h"
#include "workstation/dialogs/pair_split_dialog.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/dialogs/unit_labels.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Any two units side by side, and the way through the list of pairs. Moves are answered at once,
// on this thread; what builds the list or changes clusters runs on the worker.
struct compare_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  pair_comparison comparison;
  comparison_values values;     // of the pair on show
  std::vector<unit_row> units;  // for the list, counted anew after each edit
  comparison_step step = comparison_step::refresh;
  bool asking = false;  // how to split: the pair must stay as it is until that is answered
  shared_displays displays;

  QWidget* panel = nullptr;  // all but the buttons at the bottom
  number_field *a = nullptr, *b = nullptr;
  QLabel *title = nullptr, *warning = nullptr;
  QLabel *channel_a = nullptr, *channel_b = nullptr, *events_a = nullptr, *events_b = nullptr;
  QLabel *common = nullptr, *distinct = nullptr, *overlap = nullptr;
  QLabel *correlation = nullptr, *separation = nullptr;
  QLabel *match_value = nullptr, *position = nullptr, *message = nullptr;
  QCheckBox *user_distinct = nullptr, *user_ambiguous = nullptr;
  QComboBox* method = nullptr;
  QPushButton *undo = nullptr, *ok = nullptr, *interrupt = nullptr;
  QList<QWidget*> of_list;  // on when there are any entries
  QProgressBar* bar = nullptr;
  unit_list* list = nullptr;
  QTabWidget* pages = nullptr;

  compare_window(workstation& of, operation_dialog* d)
      : w(of),
        dialog(d),
        form(of.session, d),
        displays(std::make_shared<display_controls>(of, d)) {}
};
using shared_compare = std::shared_ptr<compare_window>;

// ---------------------------------------------------------------- showing

void show_number(number_field* field, std::int32_t n_clusters, std::int32_t value) {
  const QSignalBlocker quiet(field);
  field->setMaximum(n_clusters);
  // A number that is being typed is left alone when it is the one on show.
  if (field->value() != value || field->refused()) field->show_value(value);
}

void show_figures(const compare_window& c) {
  const pair_values& v = c.values.pair;
  const std::int32_t n = c.w.session.clusters.n_clusters;
  show_number(c.a, n, v.a);
  show_number(c.b, n, v.b);
  c.title->setText(QString::fromStdString(c.values.title));
  c.warning->setText(QString::fromStdString(c.values.warning));
  c.channel_a->setText(QString::number(v.channel_a));
  c.channel_b->setText(QString::number(v.channel_b));
  c.events_a->setText(QString::number(v.n_a));
  c.events_b->setText(QString::number(v.n_b));
  c.common->setText(QString("%1/%2").arg(v.n_common).arg(v.n_union));
  c.distinct->setText(v.distinct ? "yes" : "no");
  c.user_distinct->setChecked(v.user_distinct);
  c.user_ambiguous->setChecked(v.user_ambiguous);
  c.overlap->setText(QString::number(v.overlap, 'f', 3));
  c.correlation->setText(QString::number(v.correlation, 'f', 3));
  c.separation->setText(QString::number(v.separation, 'f', 1) + " µm");
}

void show_place_in_list(const compare_window& c) {
  const std::int32_t place = c.w.session.reviewed.match_position;
  c.match_value->setText(
      c.values.match_value.empty() ? "-" : QString::fromStdString(c.values.match_value));
  c.position->setText(QString("%1 of %2")
                          .arg(place > 0 ? QString::number(place) : QString("-"))
                          .arg(c.values.n_match));
  for (QWidget* widget : c.of_list) widget->setEnabled(c.values.n_match > 0);
}

void show_pair(const compare_window& c, bool mark = true) {
  show_figures(c);
  show_place_in_list(c);
  if (mark) c.list->mark(c.values.pair.a, c.values.pair.b);
  c.undo->setEnabled(c.comparison.can_undo);
  show_pair_displays(c.displays, c.values.pair.a, c.values.pair.b);
}

// ---------------------------------------------------------------- moving

using compare_move = std::function<bool(session_state& session)>;

// At the end of the list, or where it has no entry with the cluster, the pair stays.
void move_to(const shared_compare& c, const compare_move& move, bool mark = true) {
  if (c->w.worker.running || c->asking) return;
  c->message->clear();
  if (!move(c->w.session)) return;
  c->values = make_comparison_values(c->w.session);
  show_pair(*c, mark);
}

void show_typed_pair(const shared_compare& c) {
  const auto a = static_cast<std::int32_t>(c->a->value());
  const auto b = static_cast<std::int32_t>(c->b->value());
  move_to(c, [a, b](session_state& session) { return compare_typed_pair(session, a, b); });
  if (a == b) c->message->setText("A pair has two different clusters");
}

// A line of the list of units: the cluster beside its best match, or beside the second one of
// the pair where it has none.
void show_chosen(const shared_compare& c, std::int32_t cluster) {
  const auto show = [cluster](session_state& session) {
    const review_place& place = session.reviewed;
    const std::int32_t other = place.compare_b == cluster ? place.compare_a : place.compare_b;
    if (!compare_typed_pair(session, cluster, other)) return false;
    compare_most_similar_to_a(session);
    return true;
  };
  // Not marked by itself, so that a second line can be chosen with it.
  move_to(c, show, false);
}

// The number beside the one of the first cluster, the second one passed over.
bool step_first_cluster(session_state& session, int direction) {
  const review_place& place = session.reviewed;
  std::int32_t a = place.compare_a + direction;
  if (a == place.compare_b) a += direction;
  if (a < 1 || a > session.clusters.n_clusters) return false;
  return compare_typed_pair(session, a, place.compare_b);
}

QPushButton* move_button(const shared_compare& c, const char* name, const QString& label,
                         const char* tip, compare_move move) {
  QPushButton* button = make_button(name, label, tip);
  button->setAutoDefault(false);
  c->of_list << button;
  QObject::connect(button, &QPushButton::clicked, c->dialog,
                   [c, move = std::move(move)] { move_to(c, move); });
  bind_keys(c->dialog, button);
  return button;
}

// ---------------------------------------------------------------- changing

void show_step(const shared_compare& c);

using compare_routine =
    std::function<comparison_step(session_state& session, pair_comparison& comparison)>;
void run_step(const shared_compare& c, const QString& doing, compare_routine routine) {
  if (c->w.worker.running || c->asking) return;
  c->message->setText(doing);
  c->bar->setValue(0);
  c->dialog->run(
      [c, routine = std::move(routine)](session_state& session) {
        c->step = routine(session, c->comparison);
        c->values = make_comparison_values(session);
        c->units = make_review_units(c->w, session);
      },
      [c] {
        set_interrupts(c->w.session.operation, false);
        c->bar->setValue(c->bar->maximum());
        c->message->clear();
        show_step(c);
      });
}

void ask_how_to_split(const shared_compare& c) {
  c->asking = true;
  c->panel->setEnabled(false);
  c->ok->setEnabled(false);
  c->message->setText("How is the pair to be split?");
  ask_for_split(c->w, c->comparison.split, [c](ugm_message answer) {
    c->asking = false;
    c->panel->setEnabled(true);
    c->ok->setEnabled(true);
    run_step(c, "Applying the split ...",
             [answer](session_state& session, pair_comparison& comparison) {
               return end_compare_resplit(session, comparison, answer);
             });
  });
}

void show_step(const shared_compare& c) {
  if (c->step == comparison_step::close) {
    c->dialog->accept();
    return;
  }
  c->list->show_rows(c->units);
  show_pair(*c);
  // Keys are commands again, wherever the focus went while controls were off.
  c->pages->currentWidget() == c->list ? c->list->setFocus() : c->pages->setFocus();
  if (c->step == comparison_step::ask) ask_how_to_split(c);
}

// ---------------------------------------------------------------- controls

struct comparison_action {
  const char* name;
  const char* label;
  const char* tip;
  const char* doing;
  comparison_step (*run)(session_state& session, pair_comparison& comparison);
};
constexpr comparison_action actions[] = {
    {"merge", "Merge -|", "The two are one unit; go on with what is most similar to it",
     "Merging ...", [](session_state& s, pair_comparison& c) { return compare_merge(s, c, true); }},
    {"merge_back", "Merge |<", "The two are one unit; go back to the first pair of the list",
     "Merging ...",
     [](session_state& s, pair_comparison& c) { return compare_merge(s, c, false); }},
    {"split", "Re-split", "Pool the two and look how they fall apart", "Clustering the pair ...",
     compare_resplit},
    {"undo", "Undo", "Take the last merge, split or mark back", "Undoing ...",
     [](session_state& s, pair_comparison& c) {
       compare_undo(s, c);
       return comparison_step::refresh;
     }},
};

QLayout* action_row(const shared_compare& c) {
  auto* row = new QHBoxLayout;
  for (const comparison_action& of : actions) {
    QPushButton* button = make_button(of.name, of.label, of.tip);
    button->setAutoDefault(false);
    row->addWidget(button);
    QObject::connect(button, &QPushButton::clicked, c->dialog,
                     [c, of] { run_step(c, of.doing, of.run); });
    bind_keys(c->dialog, button);
    if (QString(of.name) == "undo") c->undo = button;
  }
  return row;
}

number_field* cluster_field(const shared_compare& c, const char* name, const char* tip) {
  number_field* field =
      free_number(c->dialog, name, 1, c->w.session.clusters.n_clusters, {.tip = tip});
  QObject::connect(field, &QDoubleSpinBox::valueChanged, c->dialog, [c] { show_typed_pair(c); });
  return field;
}

QLabel* value_label(const char* name) {
  auto* label = new QLabel("-");
  label->setObjectName(name);
  return label;
}

// What is wrong with a number stands where all that the dialog has to say does.
void say_words_of(const shared_compare& c, const number_field* field) {
  QObject::connect(field, &number_field::judged, c->message,
                   [c](const QString& words) { c->message->setText(words); });
}

QLayout* cluster_rows(const shared_compare& c) {
  auto* grid = new QGridLayout;
  grid->setVerticalSpacing(3);
  c->a = cluster_field(c, "compare_a", "First cluster: it is the current one");
  c->b = cluster_field(c, "compare_b", "Second cluster");
  const QWidget* const heads[] = {c->a, c->b};
  QLabel** const channels[] = {&c->channel_a, &c->channel_b};
  QLabel** const events[] = {&c->events_a, &c->events_b};
  const std::pair<const char*, compare_move> best[] = {
      {"most_similar_to_a", compare_most_similar_to_a},
      {"most_similar_to_b", compare_most_similar_to_b}};
  int line = 0;
  for (const char* label : {"Cluster", "Channel", "Events"}) {
    grid->addWidget(new QLabel(label), line++, 0);
  }
  for (int i = 0; i < 2; ++i) {
    const char side = i == 0 ? 'a' : 'b';
    *channels[i] = value_label(qPrintable(QString("channel_") + side));
    *events[i] = value_label(qPrintable(QString("events_") + side));
    grid->addWidget(const_cast<QWidget*>(heads[i]), 0, i + 1);
    grid->addWidget(*channels[i], 1, i + 1);
    grid->addWidget(*events[i], 2, i + 1);
    grid->addWidget(
        move_button(c, best[i].first, "Most similar",
                    "The best pair of the list that holds this cluster", best[i].second),
        3, i + 1);
  }
  say_words_of(c, c->a);
  say_words_of(c, c->b);
  return grid;
}

using pair_mark = void (*)(session_state& session, pair_comparison& comparison, bool on);

QCheckBox* mark_box(const shared_compare& c, const char* name, const char* tip, pair_mark mark) {
  auto* box = new QCheckBox;
  box->setObjectName(name);
  box->setToolTip(tip);
  QObject::connect(box, &QCheckBox::clicked, c->dialog, [c, mark](bool on) {
    run_step(c, "...", [mark, on](session_state& session, pair_comparison& comparison) {
      mark(session, comparison, on);
      return comparison_step::refresh;
    });
  });
  bind_keys(c->dialog, box);
  return box;
}

// In two columns, so that the dialog is not as high as the screen.
QLayout* pair_rows(const shared_compare& c) {
  auto* left = new QFormLayout;
  c->common = add_value(left, "common_channels", "# in common", "-",
                        "Channels that both have, of those that either has");
  c->distinct = add_value(left, "pair_is_distinct", "Pair is distinct", "-");
  c->user_distinct =
      mark_box(c, "distinct", "You have looked, and the two are two units", compare_set_distinct);
  left->addRow("user says distinct?", c->user_distinct);
  c->user_ambiguous =
      mark_box(c, "ambiguous", "You have looked, and cannot tell", compare_set_ambiguous);
  left->addRow("user says ambiguous?", c->user_ambiguous);
  auto* right = new QFormLayout;
  c->overlap =
      add_value(right, "overlap", "cluster overlap =", "-", "0: apart, 1: one cloud of points");
  c->correlation = add_value(right, "template_correlation", "template correlation =", "-");
  c->separation = add_value(right, "separation", "separation =", "-", "Of the two centres");
  // The widest figure has room from the beginning: the dialog stands at an edge and must not grow.
  const QFontMetrics metrics = c->separation->fontMetrics();
  c->separation->setMinimumWidth(metrics.horizontalAdvance("1000.0 µm"));
  c->common->setMinimumWidth(metrics.horizontalAdvance("00/00"));
  auto* both = new QHBoxLayout;
  for (QFormLayout* rows : {left, right}) {
    rows->setHorizontalSpacing(6);
    rows->setVerticalSpacing(3);
    both->addLayout(rows);
  }
  return both;
}

QGroupBox* pair_box(const shared_compare& c) {
  auto* rows = new QVBoxLayout;
  rows->addLayout(cluster_rows(c));
  rows->addLayout(pair_rows(c));
  return titled_box("Pair", rows);
}

// What the method measures is to be seen beside its number.
void show_by_method(const compare_window& c, std::int32_t method) {
  if (method_shows_correlograms(method)) c.displays->with_correlograms->setChecked(true);
  if (method_shows_time_plot(method)) c.displays->with_times->setChecked(true);
}

QLayout* method_row(const shared_compare& c) {
  c->method = choice_control(c->form, "match_method", mode_entries(match_methods()),
                             "What pairs are put in order by");
  // The longest name is seen in the list; in the column it may be cut.
  c->method->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
  c->method->setMinimumContentsLength(16);
  QObject::connect(c->method, &QComboBox::activated, c->dialog, [c](int) {
    const std::int32_t method = c->method->currentData().toInt();
    show_by_method(*c, method);
    run_step(c, "Making the list ...", [method](session_state& session, pair_comparison&) {
      compare_by_method(session, method);
      return comparison_step::refresh;
    });
  });
  auto* row = new QHBoxLayout;
  row->setSpacing(6);
  row->addWidget(new QLabel("Match method"));
  row->addWidget(c->method, 1);
  row->addWidget(move_button(c, "most_similar", "Most similar", "The first pair of the list",
                             compare_most_similar));
  return row;
}

struct find_row {
  const char *label, *previous, *next;
  const char *previous_tip, *next_tip;
  bool (*step)(session_state& session, int direction);
};
constexpr find_row find_rows[] = {
    {"Find", "previous", "next", "The pair before it in the list", "The pair after it in the list",
     compare_step},
    {"with the first cluster", "previous_with_first", "next_with_first",
     "The pair before it in the list that holds the first cluster",
     "The pair after it in the list that holds the first cluster", compare_step_with_a},
};

QGroupBox* find_box(const shared_compare& c) {
  auto* grid = new QGridLayout;
  grid->setVerticalSpacing(3);
  grid->addLayout(method_row(c), 0, 0, 1, 3);
  int line = 1;
  for (const find_row& of : find_rows) {
    grid->addWidget(new QLabel(of.label), line, 0);
    grid->addWidget(move_button(c, of.previous, "Previous", of.previous_tip,
                                [&of](session_state& s) { return of.step(s, -1); }),
                    line, 1);
    grid->addWidget(move_button(c, of.next, "Next", of.next_tip,
                                [&of](session_state& s) { return of.step(s, 1); }),
                    line++, 2);
  }
  auto* figures = new QHBoxLayout;
  const auto add_figure = [figures](const char* name, const char* label) {
    auto* rows = new QFormLayout;
    rows->setHorizontalSpacing(6);
    figures->addLayout(rows);
    return add_value(rows, name, label, "-");
  };
  c->match_value = add_figure("match_value", "Match value");
  c->position = add_figure("match_position", "Place in the list");
  grid->addLayout(figures, line++, 0, 1, 3);
  auto* rows = new QFormLayout;
  rows->setHorizontalSpacing(6);
  const auto& strategy = c->w.session.strategy;
  add_value(rows, "thresholds", "Thresholds",
            QString("overlap %1, correlation %2")
                .arg(strategy.overlap_threshold, 0, 'f', 3)
                .arg(strategy.correlation_threshold, 0, 'f', 3),
            "Pairs beyond them are not distinct; those of the sorting strategy");
  grid->addLayout(rows, line, 0, 1, 3);
  return titled_box("List of pairs", grid);
}

QWidget* display_page(const shared_compare& c) {
  auto* page = new QWidget;
  auto* rows = new QVBoxLayout(page);
  rows->setSpacing(3);
  rows->addLayout(window_rows(c->displays, c->form, "auto and cross-correlations"));
  rows->addLayout(waveform_row(c->displays));
  rows->addLayout(scale_rows(c->displays));
  rows->addStretch();
  say_words_of(c, c->displays->n_items);
  say_words_of(c, c->displays->pixels_per_uv);
  return page;
}

constexpr const char* help_text =
    "Pairs come in the order of the match method, the most alike first. \"Most similar\" goes to "
    "the first of them, or to the first that holds a cluster; \"Previous\" and \"Next\" go "
    "through all, or through those that hold the first cluster. Any other pair is shown by its "
    "numbers, or by two lines of the list of units (the second one with Ctrl).\n\n"
    "\"Merge -|\" goes on with the merged cluster, \"Merge |<\" with the first pair. \"Re-split\" "
    "clusters the events of both afresh. \"Undo\" takes back the last of these.";
constexpr const char* display_help_text =
    "\"Swap display\" draws the other cluster on top. \"Templates\" shows the mean of each, "
    "\"Waveforms\" so many events of each; in the window the page keys go through them.\n\n"
    "\"rotate\" turns the components where there are three of them, \"PC scale\" enlarges them; "
    "\"auto\" fits all points in. \"zoom\" enlarges the waveforms about the centre channel, and "
    "\"offset\" moves them up or down.";

QDialogButtonBox* button_row(const shared_compare& c) {
  auto* buttons = new QDialogButtonBox;
  c->ok = add_button(buttons, "ok", "OK", QDialogButtonBox::AcceptRole, "Close");
  c->interrupt =
      add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole, "Stop what runs");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  QPushButton* help =
      add_button(buttons, "help", "?", QDialogButtonBox::HelpRole, "How to go through the pairs");
  for (QPushButton* button : {c->ok, c->interrupt, keys, help}) button->setAutoDefault(false);
  c->interrupt->setEnabled(false);
  c->dialog->disabled_while_running << c->ok << keys << help;
  c->dialog->enabled_while_running << c->interrupt;
  QObject::connect(c->ok, &QPushButton::clicked, c->dialog, &QDialog::accept);
  QObject::connect(c->interrupt, &QPushButton::clicked, c->dialog,
                   [c] { set_interrupts(c->w.session.operation, true); });
  QObject::connect(keys, &QPushButton::clicked, c->dialog, [c] { show_key_page(c->w, c->dialog); });
  QObject::connect(help, &QPushButton::clicked, c->dialog, [c] {
    const bool of_list = c->pages->currentWidget() == c->list;
    show_message(c->w, of_list ? help_text : display_help_text, "Compare cluster pairs",
                 box_icon::information);
  });
  bind_keys(c->dialog, keys);
  return buttons;
}

QTabWidget* make_pages(const shared_compare& c) {
  c->list = new unit_list(c->w);
  bind_unit_labels(c->w, c->dialog, c->list, "the first cluster of the pair");
  c->pages = new QTabWidget;
  c->pages->setObjectName("pages");
  c->pages->addTab(c->list, "Clusters");
  c->pages->addTab(display_page(c), "Display");
  return c->pages;
}

// One narrow column, so that the windows have the rest of the screen.
void fill_panel(const shared_compare& c) {
  c->panel = new QWidget;
  c->title = value_label("pair_title");
  c->warning = value_label("warning");
  c->warning->setText({});
  auto* titles = new QHBoxLayout;
  titles->addWidget(c->title);
  titles->addStretch();
  titles->addWidget(c->warning);
  auto* column = new QVBoxLayout(c->panel);
  column->setContentsMargins(0, 0, 0, 0);
  column->addLayout(titles);
  column->addWidget(pair_box(c));
  column->addWidget(find_box(c));
  column->addLayout(action_row(c));
  column->addWidget(make_pages(c), 1);
}

void fill_dialog(const shared_compare& c) {
  c->message = value_label("message");
  c->message->clear();
  c->bar = make_bar("progress", 100);
  fill_panel(c);
  // Words ask for no more than the room that there is.
  c->message->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
  c->bar->setMaximumWidth(120);
  auto* progress = new QHBoxLayout;
  progress->addWidget(c->message, 1);
  progress->addWidget(c->bar);
  auto* layout = new QVBoxLayout(c->dialog);
  layout->setContentsMargins(6, 6, 6, 6);
  layout->addWidget(c->panel, 1);
  layout->addLayout(progress);
  layout->addWidget(button_row(c));
  c->dialog->disabled_while_running << inputs_of(c->panel);
  for (QPushButton* button : c->panel->findChildren<QPushButton*>()) {
    c->dialog->disabled_while_running << button;
  }
  QObject::connect(c->list, &unit_list::chosen, c->dialog, [c](int a) { show_chosen(c, a); });
  QObject::connect(c->list, &unit_list::pair_chosen, c->dialog, [c](int a, int b) {
    move_to(
        c, [a, b](session_state& session) { return compare_typed_pair(session, a, b); }, false);
  });
  for (const auto& [key, direction] : {std::pair{"next_cluster", 1}, {"previous_cluster", -1}}) {
    bind_keys(c->dialog, key, [c, direction = direction] {
      move_to(c, [direction](session_state& s) { return step_first_cluster(s, direction); });
    });
  }
  follow(c->w, c->dialog, every_meter(c->bar));
  c->form.load();
  // Before it is asked how to split, there is no answer that leaving could stand for.
  c->dialog->on_leaving = [c] {
    if (!c->asking) c->dialog->accept();
  };
}

void open_comparison(const shared_compare& c) {
  fill_dialog(c);
  place_at_right(c->w, c->dialog);
  QObject::connect(c->dialog, &QDialog::finished, c->w.frame, [&w = c->w] { forget_pair(w); });
  open_runner(c->w, c->dialog);
  run_step(c, "Making the list ...", [](session_state& session, pair_comparison&) {
    fill_pair_comparison(session);
    return comparison_step::refresh;
  });
  show_by_method(*c, c->w.session.review.match_method);
}

}  // namespace

void compare_pairs_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "compare_pairs_dialog", "Compare cluster pairs");
  const auto c = std::make_shared<compare_window>(w, dialog);
  const auto opens = std::make_shared<bool>(false);
  // The guards may have to make the lists of pairs first.
  run_with_progress(
      w, "compare_pairs_progress", "Compare cluster pairs",
      [c, opens](session_state& session) { *opens = open_pair_comparison(session, c->comparison); },
      [c, opens] {
        if (*opens) return open_comparison(c);
        delete c->dialog;
      });
}

}  // namespace kestrelvane
