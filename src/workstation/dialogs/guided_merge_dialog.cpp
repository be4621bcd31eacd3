#include <QHBoxLayout>
#include <QVBoxLayout>
#include <memory>

#include "review/guided_merge.h"
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
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// One pair after the other, and six answers. The engine chooses the pairs and does what is
// decided (review/guided_merge.h), on the worker; here the pair is shown, in the figures of this
// window and in the windows beside it.
struct guided_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  guided_walk walk;
  pair_values values;           // of the pair on show
  std::vector<unit_row> units;  // for the list
  guided_step step = guided_step::finished;

  QLabel *clusters = nullptr, *channels = nullptr, *events = nullptr, *overlap = nullptr;
  QLabel *correlation = nullptr, *common = nullptr, *stable = nullptr, *left = nullptr;
  QLabel* message = nullptr;
  QProgressBar* bar = nullptr;
  QPushButton *undo = nullptr, *finish = nullptr, *interrupt = nullptr;
  unit_list* list = nullptr;
  shared_displays displays;

  guided_window(workstation& of, operation_dialog* d)
      : w(of),
        dialog(d),
        form(of.session, d),
        displays(std::make_shared<display_controls>(of, d)) {}
};
using shared_guided = std::shared_ptr<guided_window>;

QString pair_text(std::int32_t a, std::int32_t b) {
  return a > 0 ? QString("%1 and %2").arg(a).arg(b) : QString("-");
}

void show_figures(const guided_window& g) {
  const pair_values& v = g.values;
  g.clusters->setText(pair_text(v.a, v.b));
  g.channels->setText(pair_text(v.channel_a, v.channel_b));
  g.events->setText(pair_text(v.n_a, v.n_b));
  g.overlap->setText(QString::number(v.overlap, 'f', 3));
  g.correlation->setText(QString::number(v.correlation, 'f', 3));
  g.common->setText(QString::fromStdString(common_channels_text(v)));
  g.stable->setText(QString("%1 of %2").arg(g.walk.n_stable).arg(g.walk.n_clusters));
  g.left->setText(QString::number(g.walk.pairs_left));
}

void show_step(const shared_guided& g);

// A decision on the worker; what it comes to is shown when it is done.
using guided_routine = std::function<guided_step(session_state& session, guided_walk& walk)>;
void run_step(const shared_guided& g, const QString& doing, guided_routine routine) {
  if (!g->form.store()) return;
  g->message->setText(doing);
  g->bar->setValue(0);
  g->dialog->run(
      [g, routine = std::move(routine)](session_state& session) {
        g->step = routine(session, g->walk);
        g->values = make_pair_values(session, g->walk.pair);
        g->units = make_review_units(g->w, session);
      },
      [g] {
        set_interrupts(g->w.session.operation, false);
        // The last items may be too few to be reported.
        g->bar->setValue(g->bar->maximum());
        show_step(g);
      });
}

void ask_how_to_split(const shared_guided& g) {
  g->message->setText("How is the pair to be split?");
  // A decision about the pair now would change it under the dialog that asks.
  for (QWidget* button : std::as_const(g->dialog->disabled_while_running)) {
    button->setEnabled(false);
  }
  ask_for_split(g->w, g->walk.split, [g](ugm_message answer) {
    run_step(g, "Applying the split ...", [answer](session_state& session, guided_walk& walk) {
      return end_guided_split(session, walk, answer);
    });
  });
}

void show_step(const shared_guided& g) {
  show_figures(*g);
  g->undo->setEnabled(g->walk.can_undo);
  g->list->show_rows(g->units);
  g->list->mark(g->values.a, g->values.b);
  g->message->setText("What do you want to do?");
  const std::string proposal = proposal_of(g->w.session, g->walk.pair);
  if (!proposal.empty()) {
    g->message->setText("The template pass asks whether these are one: " +
                        QString::fromStdString(proposal));
  }
  if (g->step == guided_step::finished) {
    // Before the dialog goes, so that its windows return to the current cluster.
    forget_pair(g->w);
    g->dialog->accept();
    return;
  }
  show_pair_displays(g->displays, g->values.a, g->values.b);
  // The button that was pressed went off, and the focus to some control beside it.
  if (!is_typing()) g->list->setFocus();
  if (g->step == guided_step::ask) ask_how_to_split(g);
}

// ---------------------------------------------------------------- controls

struct decision {
  const char* name;
  const char* label;
  const char* tip;
  guided_command command;
  const char* doing;
};
constexpr decision decisions[] = {
    {"merge", "Merge", "The two are one unit", guided_merge, "Merging ..."},
    {"split", "Merge and split", "Pool the two and look how they fall apart",
     guided_merge_and_split, "Clustering the pair ..."},
    {"distinct", "Mark as distinct", "The two are two units", guided_distinct, "..."},
    {"ambiguous", "Ambiguous", "Leave the pair for later", guided_ambiguous, "..."},
    {"undo", "<-- undo", "Take the last decision back", guided_undo, "Undoing ..."},
    {"finish", "Finish", "End here; marks stay for the next time", guided_finish, "Finishing ..."},
};

QGroupBox* decision_box(const shared_guided& g) {
  auto* grid = new QGridLayout;
  int place = 0;
  for (const decision& of : decisions) {
    QPushButton* button = make_button(of.name, of.label, of.tip);
    button->setAutoDefault(false);
    grid->addWidget(button, place / 2, place % 2);
    ++place;
    g->dialog->disabled_while_running << button;
    QObject::connect(button, &QPushButton::clicked, g->dialog, [g, of] {
      run_step(g, of.doing, [command = of.command](session_state& session, guided_walk& walk) {
        return decide_pair(session, walk, command);
      });
    });
    bind_keys(g->dialog, button);
    if (of.command == guided_undo) g->undo = button;
    if (of.command == guided_finish) g->finish = button;
  }
  return titled_box("What do you want to do?", grid);
}

// In two columns, so that the dialog is not as high as the screen.
QGroupBox* pair_box(guided_window& g) {
  auto* left = new QFormLayout;
  g.clusters = add_value(left, "guided_pair", "Clusters", "...");
  g.channels = add_value(left, "channels", "Channels", "...", "Centre channels");
  g.events = add_value(left, "pair_events", "Events", "...");
  g.overlap =
      add_value(left, "overlap", "Cluster overlap", "...", "0: apart, 1: one cloud of points");
  g.displays->voltage_scale =
      add_value(left, "voltage_scale", "Voltage scale", "...", "Of the waveforms on show");
  auto* right = new QFormLayout;
  g.correlation = add_value(right, "template_correlation", "template correlation", "...");
  g.common = add_value(right, "common_channels", "channels in common", "...");
  g.stable = add_value(right, "n_stable", "# of stable clusters", "...",
                       "Clusters all of whose pairs are distinct");
  g.left = add_value(right, "pairs_left", "Pairs left to examine", "...");
  // They have room for what they may come to: a dialog at the edge must not grow.
  const QFontMetrics metrics = g.dialog->fontMetrics();
  g.events->setMinimumWidth(metrics.horizontalAdvance("0000 and 0000"));
  g.stable->setMinimumWidth(metrics.horizontalAdvance("000 of 000"));
  auto* both = new QHBoxLayout;
  for (QFormLayout* rows : {left, right}) {
    rows->setVerticalSpacing(3);
    both->addLayout(rows);
  }
  return titled_box("Pair", both);
}

QGroupBox* display_box(const shared_guided& g) {
  auto* grid = new QGridLayout;
  grid->addLayout(window_rows(g->displays, g->form, "show auto && cross correlograms"), 0, 0);
  QLayout* waveforms = waveform_row(g->displays);
  waveforms->addWidget(words_line({g->displays->n_items}));
  grid->addLayout(waveforms, 1, 0);
  // Where scroll bars stand: at the right of what they scroll, and below it.
  grid->addWidget(position_bar(g->displays), 2, 0);
  grid->addWidget(gain_bar(g->displays), 0, 1, 3, 1);
  return titled_box("Display", grid);
}

QLayout* order_row(const shared_guided& g) {
  auto* row = new QFormLayout;
  row->addRow("Order of pairs",
              choice_control(g->form, "search_order",
                             {{"most overlap", order_most_overlap},
                              {"least overlap", order_least_overlap},
                              {"best match", order_best_match}},
                             "Which pair comes next; counts from the next decision on"));
  return row;
}

constexpr const char* help_text =
    "The pairs that are neither distinct nor marked come one after the other. Two clusters are one "
    "unit when their waveforms are the same but for their size, their points lie in each other, "
    "and the cross-correlogram has the same gap round 0 as the two beside it.\n\n"
    "\"Merge\" makes them one. \"Merge and split\" clusters the events of both afresh; a clear "
    "split in two is applied at once, otherwise you are asked. \"Mark as distinct\" and "
    "\"Ambiguous\" leave them as they are, and the pair does not come again. \"<-- undo\" takes "
    "the last of these back. \"Finish\" ends; the marks stay.";

QDialogButtonBox* button_row(const shared_guided& g) {
  auto* buttons = new QDialogButtonBox;
  g->interrupt =
      add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole, "Stop what runs");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  QPushButton* help =
      add_button(buttons, "help", "?", QDialogButtonBox::HelpRole, "What is decided here, and how");
  g->interrupt->setEnabled(false);
  g->dialog->disabled_while_running << help;
  g->dialog->enabled_while_running << g->interrupt;
  QObject::connect(g->interrupt, &QPushButton::clicked, g->dialog,
                   [g] { set_interrupts(g->w.session.operation, true); });
  QObject::connect(keys, &QPushButton::clicked, g->dialog, [g] { show_key_page(g->w, g->dialog); });
  QObject::connect(help, &QPushButton::clicked, g->dialog, [g] {
    show_message(g->w, help_text, "Guided Merge and Split", box_icon::information);
  });
  bind_keys(g->dialog, keys);
  return buttons;
}

void fill_dialog(const shared_guided& g) {
  g->list = new unit_list(g->w);
  bind_unit_labels(g->w, g->dialog, g->list, "the first cluster of the pair");
  g->list->setMinimumSize(320, 110);
  g->message = new QLabel;
  g->message->setObjectName("message");
  // Why a pair is asked for takes a second line; it never makes the dialog wider, which stands at
  // the edge of the screen.
  g->message->setWordWrap(true);
  g->message->setAlignment(Qt::AlignLeft | Qt::AlignBottom);
  g->message->setMinimumHeight(2 * g->message->fontMetrics().lineSpacing());
  g->message->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
  g->bar = make_bar("progress", 100);
  // One narrow column, so that the windows have the rest of the screen.
  auto* layout = new QVBoxLayout(g->dialog);
  layout->setContentsMargins(6, 6, 6, 6);
  layout->addWidget(pair_box(*g));
  layout->addWidget(decision_box(g));
  layout->addLayout(order_row(g));
  layout->addWidget(display_box(g));
  layout->addWidget(g->list, 1);
  layout->addWidget(g->message);
  layout->addWidget(g->bar);
  layout->addWidget(button_row(g));
  g->form.load();
  follow(g->w, g->dialog, every_meter(g->bar));
  // Its cross means "Finish", which puts the selection back.
  g->dialog->on_leaving = [g] { g->finish->click(); };
}

// What only looks goes on while a decision is waited for.
const QStringList entries_beside = live_entries + measure_entries +
                                   QStringList{"auto_arrange", "voltage_record", "template_image",
                                               "sorted_waveforms", "getting_started"};

}  // namespace

void guided_merge_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "guided_merge_dialog", "Guided Merge and Split");
  const auto g = std::make_shared<guided_window>(w, dialog);
  fill_dialog(g);
  // The guards, the first lists and the first pair may take a while: the dialog is there when
  // there is a pair to show.
  run_with_progress(
      w, "guided_merge_progress", "Guided Merge and Split",
      [g](session_state& session) {
        g->step = begin_guided_merge(session, g->walk);
        g->values = make_pair_values(session, g->walk.pair);
        g->units = make_review_units(g->w, session);
      },
      [g] {
        if (g->step == guided_step::finished) {
          // It was never shown, so that nothing closes it by itself.
          delete g->dialog;
          return;
        }
        place_at_right(g->w, g->dialog);
        open_beside(g->w, g->dialog, entries_beside);
        show_step(g);
      });
}

}  // namespace kestrelvane
