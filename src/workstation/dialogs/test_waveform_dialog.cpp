#include <QCheckBox>
#include <QFileInfo>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QSettings>
#include <QVBoxLayout>
#include <memory>
#include <vector>

#include "operations/planted_score.h"
#include "session/limits.h"
#include "synthesis/test_recording.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

using options = test_recording_options;

struct maker_row {
  const char *name, *label;
  double low, high, step;
  int decimals;
  const char *unit, *tip;
  double (*get)(const options& o);
  void (*set)(options& o, double value);
};

#define OF(member)                                                \
  [](const options& o) { return static_cast<double>(o.member); }, \
      [](options& o, double value) { o.member = static_cast<decltype(o.member)>(value); }

// clang-format off
constexpr maker_row rows[] = {
    {"n_channels", "Channels", 1, channel_limit, 1, 0, "", "Sites of the probe", OF(n_channels)},
    {"minutes", "Duration", 0.02, 1400, 1, 2, "min", "Of the recording; a 32-bit count of samples "
     "ends it", OF(minutes)},
    {"n_units", "Units", 0, cluster_limit - 1, 1, 0, "", "Planted units", OF(n_units)},
    {"noise_uv", "Noise", 0, 1000, 0.5, 1, "µV", "Rms of sensors and far units together",
     OF(noise_uv)},
    {"drift_um", "Drift", -1000, 1000, 5, 0, "µm", "Of the probe along itself, from start to end",
     OF(drift_um)},
    {"overlap", "Overlap", 0, 0.9, 0.05, 2, "", "Chance that a spike has one of the nearest unit "
     "within 0.5 ms of it", OF(overlap)},
    {"seed", "Seed", 1, 999'999'999, 1, 0, "", "The same seed, the same recording", OF(seed)},
};
// clang-format on
#undef OF

// A recording with known units is made and opened; the score of its sort is looked at here, too.
struct maker_window {
  workstation& w;
  operation_dialog* dialog;
  QComboBox* probe = nullptr;
  std::vector<number_field*> fields = {};  // by row
  QCheckBox* open_it = nullptr;
  QProgressBar* bar = nullptr;
  QLabel* message = nullptr;
  QPlainTextEdit* score = nullptr;
  QPushButton* interrupt = nullptr;
};
using shared_maker = std::shared_ptr<maker_window>;

// What was asked for the last time, in the platform's store: no result of a sort follows from it.
QString kept_name(const char* name) { return QString("test_waveform/%1").arg(name); }

void load_fields(const maker_window& m) {
  const QSettings store;
  const int probe = m.probe->findText(store.value(kept_name("electrode")).toString());
  m.probe->setCurrentIndex(probe < 0 ? m.probe->findText("polytrode") : probe);
  const options as_made;
  for (std::size_t i = 0; i < m.fields.size(); ++i) {
    const QVariant kept = store.value(kept_name(rows[i].name));
    m.fields[i]->show_value(kept.isValid() ? kept.toDouble() : rows[i].get(as_made));
  }
}

// False, after words, while what is asked for is refused.
bool take_options(const maker_window& m, options& o) {
  for (const number_field* field : m.fields) {
    if (field->refused()) return false;
  }
  electrode_from_name(m.probe->currentText().toStdString(), o.electrode);
  for (std::size_t i = 0; i < m.fields.size(); ++i) rows[i].set(o, m.fields[i]->value());
  const QString wrong = QString::fromStdString(validate_test_recording(o));
  m.message->setText(wrong.isEmpty() ? QString() : "This cannot be made: " + wrong);
  if (!wrong.isEmpty()) return false;
  QSettings store;
  store.setValue(kept_name("electrode"), m.probe->currentText());
  for (std::size_t i = 0; i < m.fields.size(); ++i) {
    store.setValue(kept_name(rows[i].name), m.fields[i]->value());
  }
  return true;
}

// What the worker hands back.
struct made_recording {
  std::string path;  // empty: the user has chosen none
  std::string problem;
  bool done = false;
};

void make_on_worker(session_state& session, options o, made_recording& made) {
  if (!choose_file_to_save(session, "Make test waveform", "TSF format(*.TSF)", made.path)) {
    made.path.clear();
    return;
  }
  o.n_threads = threads_now(session);
  made.done = make_test_recording(
      o, made.path,
      [&session](int percent) {
        set_progress(session, meter::saving, percent, 100);
        return !autosort_interrupted(session);
      },
      made.problem);
}

void tell_made(const shared_maker& m, const made_recording& made) {
  m->bar->setValue(made.done ? m->bar->maximum() : 0);
  const QFileInfo file(QString::fromStdString(made.path));
  if (made.path.empty()) {
    m->message->clear();
  } else if (made.done) {
    m->message->setText(QString("%1 is written; %2.truth.csv and %2.units.csv beside it have its "
                                "spikes and units")
                            .arg(file.fileName(), file.completeBaseName()));
  } else {
    m->message->setText("Nothing is written: " + QString::fromStdString(made.problem));
  }
  if (!made.done || !m->open_it->isChecked()) return;
  m->dialog->accept();
  open_recording_path(m->w, file.filePath());
}

void make_recording(const shared_maker& m) {
  options o;
  if (!take_options(*m, o)) return;
  m->message->setText("Making the recording ...");
  const auto made = std::make_shared<made_recording>();
  made->path = QFileInfo(last_directory(), "test.tsf").filePath().toStdString();
  m->dialog->run([o, made](session_state& session) { make_on_worker(session, o, *made); },
                 [m, made] { tell_made(m, *made); });
}

void interrupt_making(const maker_window& m) {
  m.w.session.operation.autosort_interrupt = true;
  m.interrupt->setEnabled(false);
  m.message->setText("Interrupting ...");
}

// Of the sort in memory, where its units are known.
void show_score(const shared_maker& m) {
  const auto text = std::make_shared<std::string>();
  m->dialog->run(
      [text](session_state& session) {
        sort_score score;
        if (score_session(session, score, *text)) *text = score_table(score);
      },
      [m, text] { m->score->setPlainText(QString::fromStdString(*text)); },
      worker_priority::normal);
}

QGroupBox* recording_section(const shared_maker& m) {
  auto* form = new QFormLayout;
  m->probe = new QComboBox;
  m->probe->setObjectName("electrode");
  m->probe->setToolTip("Where the sites stand");
  m->probe->addItems(QString::fromStdString(electrode_names()).split(", "));
  form->addRow("Probe", m->probe);
  for (const maker_row& row : rows) {
    number_field* field =
        free_number(m->dialog, row.name, row.low, row.high,
                    {.step = row.step, .decimals = row.decimals, .unit = row.unit, .tip = row.tip});
    form->addRow(row.label, field->row());
    m->fields.push_back(field);
  }
  m->open_it = new QCheckBox("Open it");
  m->open_it->setObjectName("open_recording");
  m->open_it->setToolTip("Read the recording into memory when it is written");
  m->open_it->setChecked(true);
  form->addRow(m->open_it);
  return titled_box("Recording", form);
}

QGroupBox* score_section(const shared_maker& m) {
  m->score = new QPlainTextEdit;
  m->score->setObjectName("score");
  m->score->setReadOnly(true);
  m->score->setToolTip("How the sort in memory agrees with the planted units");
  m->score->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  m->score->setLineWrapMode(QPlainTextEdit::NoWrap);
  m->score->setPlaceholderText("Open a test recording and sort it to see the score");
  // Letters of the table, and a few of its lines.
  const QFontMetrics metrics(m->score->font());
  m->score->setMinimumSize(metrics.horizontalAdvance('0') * 60, metrics.height() * 8);
  auto* layout = new QVBoxLayout;
  layout->addWidget(m->score);
  return titled_box("Score of the sort in memory", layout);
}

QDialogButtonBox* button_row(const shared_maker& m) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* make = add_button(buttons, "make", "Make", QDialogButtonBox::ActionRole,
                                 "Choose a file and write the recording");
  m->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Stop; nothing is written");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  make->setDefault(true);
  m->interrupt->setEnabled(false);
  m->dialog->disabled_while_running << make << done;
  m->dialog->enabled_while_running << m->interrupt;
  QObject::connect(make, &QPushButton::clicked, m->dialog, [m] { make_recording(m); });
  QObject::connect(m->interrupt, &QPushButton::clicked, m->dialog, [m] { interrupt_making(*m); });
  QObject::connect(done, &QPushButton::clicked, m->dialog, &QDialog::accept);
  return buttons;
}

}  // namespace

void test_waveform_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "test_waveform_dialog", "Make test waveform");
  const auto m = std::make_shared<maker_window>(maker_window{w, dialog});
  m->bar = make_bar("progress", 100);
  m->message = new QLabel;
  m->message->setObjectName("message");
  m->message->setWordWrap(true);
  auto* layout = new QVBoxLayout(dialog);
  QGroupBox* recording = recording_section(m);
  auto* columns = new QHBoxLayout;
  columns->addWidget(recording);
  // The table of the score is wide.
  columns->addWidget(score_section(m), 1);
  layout->addLayout(columns, 1);
  layout->addWidget(m->bar);
  layout->addWidget(m->message);
  layout->addWidget(button_row(m));
  dialog->disabled_while_running << inputs_of(recording);
  follow(w, dialog, {{meter::saving, m->bar}});
  load_fields(*m);
  constexpr int table_width = 1120;  // pixels, with the fields beside it
  dialog->resize(table_width, dialog->sizeHint().height());
  open_runner(w, dialog);
  if (!find_truth(w.session).empty()) show_score(m);
}

}  // namespace kestrelvane
