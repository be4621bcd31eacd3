#include "workstation/dialogs/messages_dialog.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "session/run_log.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/program_options.h"
#include "workstation/windows/session_turn.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

QString line_text(const text256& line) { return QString::fromStdString(std::string(line.view())); }

// Takes down the lines so far and has later ones sent, in one step, so that none is
// missed and none comes twice.
QStringList take_lines(session_state& session) {
  run_log_table& log = session.log;
  const std::lock_guard lock(log.mutex);
  log.messages_dialog_open = true;
  QStringList lines;
  for (std::int32_t i = 1; i <= log.n_log_lines; ++i) lines << line_text(log.log_lines[i]);
  return lines;
}

// The dialog also opens while a reader gives the recording its new path. Then the name is the
// one that the reader tells.
QString name_of_recording(workstation& w) {
  const session_turn turn(w);
  return turn.taken ? QString::fromStdString(w.session.recording.recording_path)
                    : w.desk->latest(status_field::file_name);
}

}  // namespace

messages_dialog::messages_dialog(workstation& of)
    : operation_dialog(of, "messages_dialog", "Messages"),
      lines_(new QListWidget),
      file_name_(new QLineEdit),
      bar_(make_bar("progress", 100)) {
  lines_->setObjectName("log_lines");
  // Measured once and not for each of thousands of lines.
  lines_->setUniformItemSizes(true);
  lines_->setAlternatingRowColors(true);
  lines_->addItems(take_lines(w_.session));
  lines_->scrollToBottom();
  file_name_->setObjectName("file_name");
  file_name_->setReadOnly(true);
  file_name_->setText(name_of_recording(w_));
  lay_out();
  connect(w_.desk, &interface_desk::log_line_added, this, &messages_dialog::add_line);
  follow(w_, this, {{meter::reading, bar_}, {meter::filtering, bar_}});
  // A line edit, which can be scrolled where a path is longer than the dialog is wide.
  connect(w_.desk, &interface_desk::status_changed, this,
          [this](status_field field, const QString& text) {
            if (field == status_field::file_name) file_name_->setText(text);
          });
}

void messages_dialog::lay_out() {
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok);
  ok_ = buttons->button(QDialogButtonBox::Ok);
  ok_->setObjectName("ok");
  interrupt_ = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                          "Stop reading; no recording is in memory then");
  interrupt_->setEnabled(false);
  connect(interrupt_, &QPushButton::clicked, this, &messages_dialog::interrupt_reading);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);

  close_itself_ = new QCheckBox("Close when read and nothing went wrong");
  close_itself_->setObjectName("close_messages");
  close_itself_->setToolTip(
      "After a recording has been read without a warning, do not wait for OK");
  close_itself_->setChecked(wants(program_option::close_messages));
  connect(close_itself_, &QCheckBox::toggled, this,
          [](bool on) { keep_wish(program_option::close_messages, on); });

  auto* form = new QFormLayout;
  form->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
  form->addRow("Filename:", file_name_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(lines_, 1);
  layout->addWidget(bar_);
  layout->addWidget(close_itself_);
  layout->addWidget(buttons);
  resize(640, 420);
}

// Lines are no longer sent to a list that is gone; a worker may be adding one now.
messages_dialog::~messages_dialog() {
  run_log_table& log = w_.session.log;
  const std::lock_guard lock(log.mutex);
  log.messages_dialog_open = false;
}

void messages_dialog::set_reading(bool reading) {
  const bool has_read = reading_ && !reading;
  if (!reading_ && reading) boxes_before_ = w_.desk->boxes_shown();
  reading_ = reading;
  ok_->setEnabled(!reading);
  interrupt_->setEnabled(reading);
  // The name may have come before the dialog.
  const QString name = w_.desk->latest(status_field::file_name);
  if (reading && !name.isEmpty()) file_name_->setText(name);
  if (!reading) ok_->setFocus();  // Return then leaves, as most users want to
  // The recording is the worker's until it has read it.
  const auto well = [this] {
    return w_.session.recording.n_samples > 0 && w_.desk->boxes_shown() == boxes_before_;
  };
  if (has_read && well() && close_itself_->isChecked()) accept();
}

// Once: reading stops at its next poll, and nothing of the recording stays.
void messages_dialog::interrupt_reading() {
  interrupt_->setEnabled(false);
  // The filters of a work file are repeated while its recording is opened.
  w_.session.operation.filtering_interrupted = true;
  w_.session.operation.reading_interrupted = true;
}

void messages_dialog::reject() {
  // While it reads it can only be interrupted: what is half read would be left without words.
  if (!reading_) QDialog::reject();
}

void messages_dialog::add_line(const QString& line) {
  lines_->addItem(line);
  // The last 13 lines stay in view.
  if (lines_->count() > 12) lines_->scrollToBottom();
}

messages_dialog* show_messages(workstation& w) {
  if (!w.messages) {
    w.messages = new messages_dialog(w);
    open_dialog(w, w.messages);
  }
  return w.messages;
}

void messages_command(workstation& w) {
  if (w.messages) return w.messages->raise();
  w.messages = new messages_dialog(w);
  open_to_look(w, w.messages);
}

}  // namespace kestrelvane
