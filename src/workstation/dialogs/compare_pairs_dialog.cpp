#include <QHBoxLayout>
#include <QVBoxLayout>
#include <memory>

#include "review/pair_comparison.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/pair_split_dialog.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_windows.h"
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
  bool asking = false;   // how to split: the pair must stay as it is until that is answered
  bool swapped = false;  // the second cluster first

  QWidget* panel = nullptr;  // all but the buttons at the bottom
  number_field *a = nullptr, *b = nullptr;
  QLabel *title = nullptr, *warning = nullptr;
  QLabel *channel_a = nullptr, *channel_b = nullptr, *events_a = nullptr, *events_b = nullptr;
  QLabel *common = nullptr, *distinct = nullptr, *overlap = nullptr;
  QLabel *correlation = nullptr, *separation = nullptr;
  QLabel *match_value = nullptr, *position = nullptr, *message = nullptr;
  QCheckBox *user_distinct = nullptr, *with_correlograms = nullptr;
  QComboBox* method = nullptr;
  QPushButton *undo = nullptr, *ok = nullptr, *interrupt = nullptr;
  QList<QWidget*> of_list;  // on when there are any entries
  QProgressBar* bar = nullptr;
  unit_list* list = nullptr;

  compare_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
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

void show_windows(const compare_window& c) {
  const pair_values& v = c.values.pair;
  if (v.a < 1) return;
  const std::int32_t first = c.swapped ? v.b : v.a, second = c.swapped ? v.a : v.b;
  refresh_windows(c.w);
  show_pair_windows(c.w, first, second);
  if (c.with_correlograms->isChecked()) show_correlograms(c.w, first, second);
}

void show_pair(const compare_window& c, bool mark = true) {
  show_figures(c);
  show_place_in_list(c);
  if (mark) c.list->mark(c.values.pair.a, c.values.pair.b);
  c.undo->setEnabled(c.comparison.can_undo);
  show_windows(c);
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
  set_interrupts(c->w.session.operation, false);
  c->dialog->run(
      [c, routine = std::move(routine)](session_state& session) {
        c->step = routine(session, c->comparison);
        c->values = make_comparison_values(session);
        c->units = make_unit_table(session);
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
  c->list->setFocus();
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

QGroupBox* action_box(const shared_compare& c) {
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
  return titled_box("Edit", row);
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

QGroupBox* cluster_box(const shared_compare& c) {
  auto* grid = new QGridLayout;
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
  grid->addWidget(words_line({c->a, c->b}), 4, 0, 1, 3);
  return titled_box("Clusters", grid);
}

QGroupBox* pair_box(const shared_compare& c) {
  auto* rows = new QFormLayout;
  c->common = add_value(rows, "common_channels", "# in common", "-",
                        "Channels that both have, of those that either has");
  c->distinct = add_value(rows, "pair_is_distinct", "Pair is distinct", "-");
  c->user_distinct = new QCheckBox;
  c->user_distinct->setObjectName("distinct");
  c->user_distinct->setToolTip("You have looked, and the two are two units");
  rows->addRow("user says distinct?", c->user_distinct);
  c->overlap =
      add_value(rows, "overlap", "cluster overlap =", "-", "0: apart, 1: one cloud of points");
  c->correlation = add_value(rows, "template_correlation", "template correlation =", "-");
  c->separation = add_value(rows, "separation", "separation =", "-", "Of the two centres");
  // The widest figure has room from the beginning: the dialog stands at an edge and must not grow.
  c->separation->setMinimumWidth(c->separation->fontMetrics().horizontalAdvance("10000.0 µm"));
  QObject::connect(c->user_distinct, &QCheckBox::clicked, c->dialog, [c](bool on) {
    run_step(c, "...", [on](session_state& session, pair_comparison& comparison) {
      compare_set_distinct(session, comparison, on);
      return comparison_step::refresh;
    });
  });
  bind_keys(c->dialog, c->user_distinct);
  return titled_box("Pair", rows);
}

QLayout* method_row(const shared_compare& c) {
  c->method = choice_control(c->form, "match_method", mode_entries(match_methods()),
                             "What pairs are put in order by");
  QObject::connect(c->method, &QComboBox::activated, c->dialog, [c](int) {
    const std::int32_t method = c->method->currentData().toInt();
    if (method_shows_correlograms(method)) c->with_correlograms->setChecked(true);
    run_step(c, "Making the list ...", [method](session_state& session, pair_comparison&) {
      compare_by_method(session, method);
      return comparison_step::refresh;
    });
  });
  auto* row = new QHBoxLayout;
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
  auto* rows = new QFormLayout;
  c->match_value = add_value(rows, "match_value", "Match value", "-");
  c->position = add_value(rows, "match_position", "Place in the list", "-");
  const auto& strategy = c->w.session.strategy;
  add_value(rows, "thresholds", "Thresholds",
            QString("overlap %1, correlation %2")
                .arg(strategy.overlap_threshold, 0, 'f', 3)
                .arg(strategy.correlation_threshold, 0, 'f', 3),
            "Pairs beyond them are not distinct; those of the sorting strategy");
  grid->addLayout(rows, line, 0, 1, 3);
  return titled_box("List of pairs", grid);
}

QLayout* display_row(const shared_compare& c) {
  c->with_correlograms = logical_control(c->form, "show_correlograms",
                                         "auto and cross-correlations", "In a window beside this");
  QPushButton* swap =
      make_button("swap_display", "Swap display", "Draw the second cluster in place of the first");
  swap->setAutoDefault(false);
  bind_keys(c->dialog, swap);
  QObject::connect(swap, &QPushButton::clicked, c->dialog, [c] {
    c->swapped = !c->swapped;
    show_windows(*c);
  });
  QObject::connect(c->with_correlograms, &QCheckBox::toggled, c->dialog, [c](bool on) {
    if (c->dialog->running()) return;
    c->w.session.review.show_correlograms = on;
    if (on) return show_windows(*c);
    if (graph_window* window = graph_of(c->w, graph_kind::correlograms)) window->close();
  });
  auto* row = new QHBoxLayout;
  row->addWidget(c->with_correlograms);
  row->addStretch();
  row->addWidget(swap);
  return row;
}

constexpr const char* help_text =
    "Pairs come in the order of the match method, the most alike first. \"Most similar\" goes to "
    "the first of them, or to the first that holds a cluster; \"Previous\" and \"Next\" go "
    "through all, or through those that hold the first cluster. Any other pair is shown by its "
    "numbers, or by two lines of the list of units (the second one with Ctrl).\n\n"
    "\"Merge -|\" goes on with the merged cluster, \"Merge |<\" with the first pair. \"Re-split\" "
    "clusters the events of both afresh. \"Undo\" takes back the last of these.";

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
    tell(c->w.session, help_text, "Compare cluster pairs", box_icon::information);
  });
  bind_keys(c->dialog, keys);
  return buttons;
}

QLayout* left_column(const shared_compare& c) {
  c->title = value_label("pair_title");
  c->warning = value_label("warning");
  c->warning->setText({});
  auto* both = new QHBoxLayout;
  both->addWidget(cluster_box(c), 1);
  both->addWidget(pair_box(c), 1);
  auto* left = new QVBoxLayout;
  left->addWidget(c->title);
  left->addWidget(c->warning);
  left->addLayout(both);
  left->addWidget(find_box(c));
  left->addWidget(action_box(c));
  left->addLayout(display_row(c));
  left->addStretch();
  return left;
}

void fill_dialog(const shared_compare& c) {
  c->panel = new QWidget;
  c->list = new unit_list(c->w);
  c->list->setMinimumWidth(270);
  c->message = value_label("message");
  c->message->clear();
  c->bar = make_bar("progress", 100);
  auto* both = new QHBoxLayout(c->panel);
  both->setContentsMargins(0, 0, 0, 0);
  both->addLayout(left_column(c));
  both->addWidget(c->list, 1);
  auto* layout = new QVBoxLayout(c->dialog);
  layout->addWidget(c->panel, 1);
  layout->addWidget(c->message);
  layout->addWidget(c->bar);
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
      // In a field the keys mean what they mean in any field: up is one more.
      for (number_field* field : {c->a, c->b}) {
        if (field->hasFocus()) return field->stepBy(-direction);
      }
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
