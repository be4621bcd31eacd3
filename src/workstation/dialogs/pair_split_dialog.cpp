#include "workstation/dialogs/pair_split_dialog.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QPointer>
#include <QSlider>
#include <QVBoxLayout>
#include <array>

#include "displays/display_colours.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

struct split_line {
  QLabel *colour = nullptr, *events = nullptr;
  QPushButton *erase = nullptr, *merge = nullptr;  // merge: with the next line; none for the last
};

struct split_window {
  workstation& w;
  operation_dialog* dialog;
  pair_split& split;
  ugm_message answer = ugm_none;
  float sigma_uv = 0;
  std::int32_t n_others = 0;
  QSlider* stage = nullptr;
  QLabel *sigma = nullptr, *others = nullptr;
  std::array<split_line, split_row_limit> lines{};
};
using shared_split = std::shared_ptr<split_window>;

constexpr std::uint32_t deletion_colour = 0x808080;

QString events_text(std::int32_t n) {
  return n == 1 ? QString("1 event") : QString("%1 events").arg(n);
}

// A swatch in the colour that the displays give the label.
void show_line(const split_window& s, std::size_t i) {
  const split_line& line = s.lines[i];
  const bool there = i < s.split.rows.size();
  // Of the lines shown alone: the others below have no button and nothing that could be seen to
  // join.
  const bool next = i + 1 < std::min(s.split.rows.size(), split_row_limit);
  line.erase->setEnabled(there);
  if (line.merge != nullptr) line.merge->setEnabled(next);
  if (!there) {
    line.colour->setStyleSheet({});
    line.events->setText("-");
    return;
  }
  const split_row& row = s.split.rows[i];
  const std::uint32_t word =
      row.deleted ? deletion_colour
                  : cluster_colour_word(s.w.session, std::max<std::int32_t>(1, row.label));
  line.colour->setStyleSheet("background: " + colour_of_word(word).name());
  line.events->setText(events_text(row.n_events) +
                       (row.deleted ? QString(", deleted") : QString()));
  line.erase->setText(row.deleted ? "keep" : "delete");
}

void show_split(const shared_split& s) {
  // Shown, not moved: the slider would ask for the stage once more.
  const QSignalBlocker quiet(s->stage);
  // 0 is the membership as it was, which has no place on the slider.
  if (s->split.selected_stage > 0) s->stage->setValue(s->split.selected_stage);
  s->sigma->setText(s->split.selected_stage > 0 ? QString::number(s->sigma_uv, 'f', 2) + " µV"
                                                : QString("as it was"));
  for (std::size_t i = 0; i < split_row_limit; ++i) show_line(*s, i);
  // What goes to no cluster is told before it goes.
  s->others->setText(
      s->n_others > 0
          ? QString("others: %1, which become unclustered").arg(events_text(s->n_others))
          : QString("others: none"));
}

// Every control changes labels, which displays follow.
void run_step(const shared_split& s, std::function<void(session_state&, pair_split&)> step) {
  s->dialog->run(
      [s, step = std::move(step)](session_state& session) {
        step(session, s->split);
        s->sigma_uv = s->split.selected_stage > 0 ? split_sigma_uv(session, s->split) : 0.0f;
        s->n_others = count_other_events(s->split);
      },
      [s] {
        show_split(s);
        refresh_windows(s->w);
        // It was off, and has lost the keys that go from stage to stage.
        s->stage->setFocus();
      });
}

QLayout* stage_row(const shared_split& s) {
  s->stage = new QSlider(Qt::Horizontal);
  s->stage->setObjectName("selected_stage");
  s->stage->setRange(1, std::max(1, s->split.n_stages));
  s->stage->setToolTip("Bandwidth of the clustering: the wider, the fewer subclusters");
  s->sigma = new QLabel;
  s->sigma->setObjectName("sigma");
  s->sigma->setMinimumWidth(90);
  auto* row = new QHBoxLayout;
  row->addWidget(new QLabel("select sigma"));
  row->addWidget(s->stage, 1);
  row->addWidget(s->sigma);
  s->dialog->disabled_while_running << s->stage;
  QObject::connect(s->stage, &QSlider::valueChanged, s->dialog, [s](int stage) {
    run_step(s, [stage](session_state& session, pair_split& split) {
      show_split_stage(session, split, stage);
    });
  });
  return row;
}

void add_line(const shared_split& s, QGridLayout* grid, std::size_t i) {
  split_line& line = s->lines[i];
  const int row = 2 * static_cast<int>(i);
  const QString number = QString::number(i + 1);
  line.colour = new QLabel;
  line.colour->setFixedWidth(28);
  line.events = new QLabel;
  line.events->setObjectName("events_" + number);
  line.events->setMinimumWidth(160);
  line.erase = make_button(("delete_" + number).toUtf8().constData(), "delete",
                           "Its events become unclustered; press again to keep them");
  grid->addWidget(line.colour, row, 0);
  grid->addWidget(line.events, row, 1);
  grid->addWidget(line.erase, row, 2);
  s->dialog->disabled_while_running << line.erase;
  QObject::connect(line.erase, &QPushButton::clicked, s->dialog, [s, i] {
    run_step(
        s, [i](session_state& session, pair_split& split) { delete_split_row(session, split, i); });
  });
  if (i + 1 == split_row_limit) return;
  line.merge = make_button(("merge_" + number).toUtf8().constData(), "Merge",
                           "Join the lines above and below");
  grid->addWidget(line.merge, row + 1, 1);
  s->dialog->disabled_while_running << line.merge;
  QObject::connect(line.merge, &QPushButton::clicked, s->dialog, [s, i] {
    run_step(
        s, [i](session_state& session, pair_split& split) { merge_split_rows(session, split, i); });
  });
}

QLayout* subcluster_rows(const shared_split& s) {
  auto* grid = new QGridLayout;
  grid->setColumnStretch(1, 1);
  for (std::size_t i = 0; i < split_row_limit; ++i) add_line(s, grid, i);
  s->others = new QLabel;
  s->others->setObjectName("others");
  grid->addWidget(s->others, 2 * static_cast<int>(split_row_limit), 0, 1, 3);
  return grid;
}

void answer_with(const shared_split& s, QPushButton* button, ugm_message answer) {
  s->dialog->disabled_while_running << button;
  QObject::connect(button, &QPushButton::clicked, s->dialog, [s, answer] {
    s->answer = answer;
    s->dialog->accept();
  });
}

constexpr const char* help_text =
    "The lines are the subclusters found at one bandwidth, by size, in the colours of the windows. "
    "\"select sigma\" goes through the bandwidths: the wider, the fewer subclusters. \"Merge\" "
    "joins the lines above and below it; the events of a line that is deleted become "
    "unclustered.\n\n"
    "\"Split as shown\" makes the lines clusters. \"Revert\" shows the two clusters as they are. "
    "\"Leave\" changes nothing.";

QDialogButtonBox* button_row(const shared_split& s) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* split = add_button(buttons, "split", "Split as shown", QDialogButtonBox::AcceptRole,
                                  "Make the lines clusters");
  answer_with(s, split, ugm_split_as_shown);
  if (offers_merge(s->split)) {
    QPushButton* merge =
        add_button(buttons, "merge", "Merge", QDialogButtonBox::AcceptRole, "The two are one unit");
    answer_with(s, merge, ugm_merge);
    bind_keys(s->dialog, merge);
  }
  QPushButton* revert = add_button(buttons, "revert", "Revert", QDialogButtonBox::ResetRole,
                                   "The two clusters as they are");
  QPushButton* leave =
      add_button(buttons, "leave", "Leave", QDialogButtonBox::RejectRole, "Change nothing");
  s->dialog->disabled_while_running << revert << leave;
  QObject::connect(revert, &QPushButton::clicked, s->dialog, [s] {
    run_step(s, [](session_state& session, pair_split& of) { revert_split(session, of); });
  });
  QObject::connect(leave, &QPushButton::clicked, s->dialog, &QDialog::reject);
  QPushButton* help = add_button(buttons, "help", "?", QDialogButtonBox::HelpRole,
                                 "What the lines are, and what the buttons do");
  // Narrow, so that the dialog covers no more than the one that asks.
  help->setMaximumWidth(36);
  s->dialog->disabled_while_running << help;
  QObject::connect(help, &QPushButton::clicked, s->dialog, [s] {
    show_message(s->w, help_text, "What do you want to do?", box_icon::information);
  });
  bind_keys(s->dialog, split);
  // Return splits, whichever button has had the focus in between.
  for (QPushButton* button : buttons->findChildren<QPushButton*>()) button->setAutoDefault(false);
  split->setDefault(true);
  return buttons;
}

}  // namespace

void ask_for_split(workstation& w, pair_split& split, std::function<void(ugm_message)> answer) {
  auto* dialog = new operation_dialog(w, "pair_split_dialog", "What do you want to do?");
  const auto s = std::make_shared<split_window>(split_window{w, dialog, split});
  auto* text = new QLabel(ugm_text(split.message));
  text->setObjectName("ugm_message");
  auto* layout = new QVBoxLayout(dialog);
  layout->setContentsMargins(6, 6, 6, 6);
  layout->addWidget(text);
  layout->addLayout(stage_row(s));
  layout->addLayout(subcluster_rows(s));
  layout->addWidget(button_row(s));
  // The keys of the dialog that asks are this one's until it is answered.
  const QPointer<QDialog> asking = dialog_beside(w);
  if (asking) enable_keys(asking, false);
  QObject::connect(dialog, &QDialog::finished, w.frame, [s, asking, answer = std::move(answer)] {
    if (asking) enable_keys(asking, true);
    answer(s->answer);
  });
  place_at_right(w, dialog);
  // Over the windows and not in their way: they show what the lines stand for.
  open_beside(w, dialog, live_entries);
  run_step(s, [](session_state&, pair_split&) {});
}

}  // namespace kestrelvane
