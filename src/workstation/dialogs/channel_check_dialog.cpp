#include <QButtonGroup>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QRadioButton>
#include <QStyle>
#include <QVBoxLayout>
#include <memory>
#include <vector>

#include "analysis/power_spectrum.h"
#include "recording/channel_masks.h"
#include "signal/display_scale.h"
#include "sorting/realign_steps.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/windows/channel_windows.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The problems that were found, one channel at a time, and its mask; the windows beside it follow.
// Correlations are those of the opening. A mask counts at once, and has the curve fitted and the
// channels judged anew.
struct channel_window {
  workstation& w;
  operation_dialog* dialog;
  std::shared_ptr<channel_check_state> state;
  std::vector<bool> masks_before;
  QComboBox* problems = nullptr;
  number_field* channel = nullptr;
  QLabel *judgement = nullptr, *counts = nullptr;  // of the chosen problem, and of all
  QLabel *rms = nullptr, *net = nullptr, *n_pairs = nullptr, *n_masked = nullptr;
  QCheckBox *mask = nullptr, *use_masked = nullptr;
};
using shared_channels = std::shared_ptr<channel_window>;

std::vector<bool> masks_of(const session_state& session) {
  const recording_store& r = session.recording;
  return std::vector<bool>(r.chan_mask.first(), r.chan_mask.first() + r.n_channels);
}

// The figures of the channel that is chosen; stars for one that is not among those checked.
void show_channel(const shared_channels& c) {
  const session_state& session = c->w.session;
  const std::int32_t channel = session.current_channel;
  const checked_channel* found = find_checked_channel(c->state->found, channel);
  const auto text = [&](float checked_channel::*value) {
    return found == nullptr ? QString("    *")
                            : QString::number(static_cast<double>(found->*value), 'f', 2);
  };
  c->rms->setText(text(&checked_channel::rms_deviation));
  c->net->setText(text(&checked_channel::signed_deviation));
  const QSignalBlocker quiet(c->mask), quiet_field(c->channel);
  c->mask->setChecked(session.recording.chan_mask[channel]);
  c->channel->show_value(channel);
  const std::vector<bool> masks = masks_of(session);
  c->n_masked->setText(
      QString("%1 of %2").arg(std::count(masks.begin(), masks.end(), true)).arg(masks.size()));
}

void choose_channel(const shared_channels& c, std::int32_t channel) {
  if (channel < 1 || channel > c->w.session.recording.n_channels) return;
  {
    const std::lock_guard lock(c->w.session.settings_mutex);
    c->w.session.current_channel = channel;
  }
  show_channel(c);
  if (c->state->one_channel) redraw_channel_windows(c->w);
}

// A sign by its form, not by colour alone; lines without it keep its room, so that all begin at one
// place.
QIcon sign_of(const QWidget* where, bool borne_out) {
  if (borne_out) return where->style()->standardIcon(QStyle::SP_MessageBoxWarning);
  QPixmap none(16, 16);
  none.fill(Qt::transparent);
  return QIcon(none);
}

void add_problem(const shared_channels& c, const channel_problem& problem) {
  const QString text = QString::fromStdString(problem.text), judgement = judgement_of(problem);
  c->problems->addItem(sign_of(c->problems, problem.borne_out), text, problem.channel);
  const int at = c->problems->count() - 1;
  c->problems->setItemData(at, judgement, Qt::ToolTipRole);
  c->problems->setItemData(at, text + ". " + judgement, Qt::AccessibleTextRole);
}

// In words what the sign says.
void show_judgement(const shared_channels& c) {
  const std::vector<channel_problem>& list = c->state->found.problem_list;
  const auto at = static_cast<std::size_t>(std::max(0, c->problems->currentIndex()));
  c->judgement->setText(at < list.size() ? judgement_of(list[at]) : "");
}

void show_problems(const shared_channels& c) {
  const QSignalBlocker quiet(c->problems);
  c->problems->clear();
  const channel_check& found = c->state->found;
  for (const channel_problem& problem : found.problem_list) add_problem(c, problem);
  if (c->problems->count() == 0) c->problems->addItem(channels_seem_ok, 0);
  c->counts->setText(found.n_found > 0 ? QString::fromStdString(count_problems(found)) : "");
  // The line of the channel on show stays in sight, while it has one.
  c->problems->setCurrentIndex(std::max(0, c->problems->findData(c->w.session.current_channel)));
  show_judgement(c);
  c->n_pairs->setText(QString("%1 pairs nearer than %2 µm")
                          .arg(found.channel_pairs.size())
                          .arg(static_cast<double>(found.check_cutoff_um), 0, 'f', 0));
}

void show_all(const shared_channels& c) {
  show_problems(c);
  show_channel(c);
  redraw_channel_windows(c->w);
}

// On the worker: the curve of ten thousand pairs takes a moment.
void judge_again(const shared_channels& c) {
  const auto judged = std::make_shared<channel_check>(c->state->found);
  const bool use_masked = c->state->use_masked;
  c->dialog->run([judged, use_masked](
                     session_state& session) { judge_channels(session, *judged, use_masked); },
                 [c, judged] {
                   c->state->found = std::move(*judged);
                   show_all(c);
                 },
                 worker_priority::normal);
}

void mask_channel(const shared_channels& c, bool on) {
  {
    const std::lock_guard lock(c->w.session.settings_mutex);
    c->w.session.recording.chan_mask[c->w.session.current_channel] = on;
  }
  judge_again(c);
}

QGroupBox* problem_section(const shared_channels& c) {
  c->problems = new QComboBox;
  c->problems->setObjectName("problems");
  c->problems->setToolTip(
      "What was found, at most 16 lines; a line chooses its channel.\nThe sign stands at those of "
      "which the background without spikes says the same; the others may be about sound channels");
  c->problems->setMinimumContentsLength(38);  // letters, as a line has
  c->n_pairs = new QLabel;
  c->n_pairs->setObjectName("n_pairs");
  c->judgement = new QLabel;
  c->judgement->setObjectName("judgement");
  c->judgement->setWordWrap(true);
  c->counts = new QLabel;
  c->counts->setObjectName("n_problems");
  c->counts->setWordWrap(true);
  auto* rows = new QVBoxLayout;
  for (QWidget* row : {static_cast<QWidget*>(c->problems), static_cast<QWidget*>(c->judgement),
                       static_cast<QWidget*>(c->counts), static_cast<QWidget*>(c->n_pairs)}) {
    rows->addWidget(row);
  }
  QObject::connect(c->problems, &QComboBox::activated, c->dialog, [c] {
    show_judgement(c);
    choose_channel(c, c->problems->currentData().toInt());
  });
  return titled_box("Problems", rows);
}

QGroupBox* channel_section(const shared_channels& c) {
  c->channel = free_number(c->dialog, "channel", 1, c->w.session.recording.n_channels,
                           {.tip = "The channel that is shown"});
  c->mask = new QCheckBox("mask");
  c->mask->setObjectName("mask_channel");
  c->mask->setToolTip("The channel takes no part in detection, clustering and templates");
  auto* row = new QHBoxLayout;
  row->addWidget(c->channel->row());
  row->addWidget(c->mask);
  row->addStretch();
  auto* rows = new QFormLayout;
  rows->addRow("Channel", row);
  c->rms = add_value(rows, "rms_deviation", "RMS channel deviation", {},
                     "How far its correlations lie off the curve, in standard deviations of the "
                     "channels; 2.5 and more is suspect");
  c->net = add_value(rows, "signed_deviation", "Signed deviation", {},
                     "The same with its sign: below -2.5 the channel is correlated too little");
  c->n_masked = add_value(rows, "n_masked", "Masked channels");
  QObject::connect(c->channel, &QDoubleSpinBox::valueChanged, c->dialog,
                   [c](double channel) { choose_channel(c, static_cast<std::int32_t>(channel)); });
  QObject::connect(c->mask, &QCheckBox::toggled, c->dialog, [c](bool on) { mask_channel(c, on); });
  return titled_box("Channel", rows);
}

QCheckBox* option_box(const shared_channels& c, const char* name, const QString& label,
                      const char* tip, bool on) {
  auto* box = new QCheckBox(label, c->dialog);
  box->setObjectName(name);
  box->setToolTip(tip);
  box->setChecked(on);
  return box;
}

QLayout* pairs_row(const shared_channels& c) {
  auto* all = new QRadioButton("all channels or");
  auto* one = new QRadioButton("just channel");
  all->setObjectName("all_channels");
  one->setObjectName("one_channel");
  all->setToolTip("Every pair that is in use");
  one->setToolTip("The pairs of the channel that is shown");
  (c->state->one_channel ? one : all)->setChecked(true);
  auto* group = new QButtonGroup(c->dialog);
  group->addButton(all);
  group->addButton(one);
  auto* row = new QHBoxLayout;
  row->addWidget(all);
  row->addWidget(one);
  row->addStretch();
  QObject::connect(one, &QRadioButton::toggled, c->dialog, [c](bool on) {
    c->state->one_channel = on;
    redraw_channel_windows(c->w);
  });
  return row;
}

QGroupBox* display_section(const shared_channels& c) {
  c->use_masked =
      option_box(c, "include_masked", "include all channels including masked ones",
                 "Masked channels are judged, too, and count for the curve", c->state->use_masked);
  QCheckBox* numbers =
      option_box(c, "show_numbers", "show channel #s",
                 "Numbers beside the points of the deviations", c->state->with_numbers);
  QObject::connect(c->use_masked, &QCheckBox::toggled, c->dialog, [c](bool on) {
    c->state->use_masked = on;
    judge_again(c);
  });
  QObject::connect(numbers, &QCheckBox::toggled, c->dialog, [c](bool on) {
    c->state->with_numbers = on;
    redraw_channel_windows(c->w);
  });
  auto* rows = new QVBoxLayout;
  rows->addWidget(c->use_masked);
  rows->addWidget(numbers);
  rows->addLayout(pairs_row(c));
  return titled_box("Shown", rows);
}

// However the dialog is left, changed masks are offered to be kept; they count already.
void leave_check(const shared_channels& c, QDialog::DialogCode how) {
  if (masks_of(c->w.session) == c->masks_before) return c->dialog->done(how);
  c->dialog->run(
      [](session_state& session) {
        write_mask_file(session);
        // The noise of the channels that take part decides it.
        autoscale_voltage_display(session);
      },
      [c, how] { c->dialog->done(how); }, worker_priority::normal);
}

// Templates of clusters that are there follow the masks.
void close_check(const shared_channels& c) {
  c->state->chosen = nullptr;
  if (masks_of(c->w.session) == c->masks_before || c->w.session.clusters.n_clusters == 0) return;
  run_with_progress(c->w, "recalculate_progress", "Recalculate templates", renew_masked_templates,
                    nullptr);
}

void open_check(const shared_channels& c) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  done->setDefault(true);
  auto* layout = new QVBoxLayout(c->dialog);
  layout->addWidget(problem_section(c));
  layout->addWidget(channel_section(c));
  layout->addWidget(display_section(c));
  layout->addStretch();
  layout->addWidget(buttons);
  c->dialog->disabled_while_running << inputs_of(c->dialog);
  c->dialog->on_leaving = [c] { leave_check(c, QDialog::Rejected); };
  QObject::connect(done, &QPushButton::clicked, c->dialog,
                   [c] { leave_check(c, QDialog::Accepted); });
  QObject::connect(c->dialog, &QDialog::finished, c->w.frame, [c] { close_check(c); });
  c->state->chosen = [c = std::weak_ptr(c)](std::int32_t channel) {
    const shared_channels open = c.lock();
    if (open && !open->dialog->running()) choose_channel(open, channel);
  };
  show_graph(c->w, graph_kind::channel_analysis);
  show_graph(c->w, graph_kind::channel_deviations);
  show_problems(c);
  // The first line is what the user has come for.
  c->problems->setCurrentIndex(0);
  show_judgement(c);
  const std::int32_t first = c->problems->currentData().toInt();
  choose_channel(c, first > 0 ? first : c->w.session.current_channel);
  place_at_right(c->w, c->dialog);
  open_beside(c->w, c->dialog, live_entries + QStringList{"auto_arrange"});
  tile_cluster_windows(c->w, c->dialog);
  c->problems->setFocus();
}

}  // namespace

void channel_check_command(workstation& w) {
  if (!can_check_channels(w.session)) return;
  const auto state = std::make_shared<channel_check_state>();
  const auto complete = std::make_shared<bool>(false);
  run_with_progress(
      w, "channel_check_progress", "Channel Check",
      [state, complete](session_state& session) {
        *complete = compute_pair_correlations(session, state->found);
        judge_channels(session, state->found, false);
        state->recording = recording_state(session);
      },
      [&w, state, complete] {
        // Interrupted: what is shown stays.
        if (!*complete) return;
        w.channels = state;
        auto* dialog = new operation_dialog(w, "channel_check_dialog", "Channel Check");
        open_check(std::make_shared<channel_window>(
            channel_window{w, dialog, state, masks_of(w.session)}));
      });
}

}  // namespace kestrelvane
