#include <fmt/format.h>

#include <QDialogButtonBox>
#include <QFile>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QStandardPaths>
#include <QVBoxLayout>
#include <cmath>

#include "session/limits.h"
#include "session/version.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/themes.h"
#include "workstation/windows/session_turn.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Bytes of the two template arrays per channel.
constexpr std::int64_t template_bytes = 4'909'312;

std::int64_t available_memory_bytes() {
  QFile file("/proc/meminfo");
  if (!file.open(QIODevice::ReadOnly)) return 0;
  const QList<QByteArray> lines = file.readAll().split('\n');
  for (const QByteArray& line : lines) {
    // What can be had without swapping; free memory alone leaves out the file cache, most of which
    // would be given up.
    if (line.startsWith("MemAvailable:")) {
      return line.simplified().split(' ').value(1).toLongLong() * 1024;
    }
  }
  return 0;
}

// What samples and templates take, to tenths of a gigabyte: most recordings are below a few.
// The store of proto-events lives for a detection run only and adds nothing here.
double allocated_gigabytes(const recording_store& r) {
  const std::int64_t bytes =
      (2 * std::int64_t{r.n_samples} + 2000) * (std::int64_t{r.n_channels} + 1) +
      template_bytes * r.n_channels;
  return std::round(static_cast<double>(bytes) / 1e8) / 10.0;
}

QGroupBox* limits_box() {
  auto* form = new QFormLayout;
  add_value(form, "limit_events", "spikes/events", QString::number(event_limit));
  add_value(form, "limit_proto_events", "protoevents", "n/a");
  add_value(form, "limit_clusters", "clusters", QString::number(cluster_limit));
  add_value(form, "limit_channels", "channels", QString::number(channel_limit));
  add_value(form, "limit_epochs", "epochs", QString::number(epoch_limit));
  add_value(form, "limit_points", "time samples in template",
            QString::number(template_point_limit));
  return titled_box("Upper limits", form);
}

QGroupBox* resources_box(workstation& w) {
  const session_state& session = w.session;
  auto* form = new QFormLayout;
  const auto gigabytes = [](double value) {
    return QString::fromStdString(fmt::format("{:.1f} GB", value));
  };
  add_value(form, "available_memory", "available memory",
            gigabytes(static_cast<double>(available_memory_bytes()) / 1e9));
  // A worker may be reading a recording in just now.
  const session_turn turn(w);
  add_value(form, "allocated_memory", "currently allocated memory (approx.)",
            turn.taken ? gigabytes(allocated_gigabytes(session.recording))
                       : QString("known after the operation"));
  add_value(form, "n_cpus", "# of CPUs", QString::number(session.n_cpus));
  add_value(form, "n_threads", "# of threads available for parallel code",
            QString::number(session.n_threads));
  return titled_box("Resources", form);
}

void show_system_information(workstation& w) {
  for (const char* tool : {"hardinfo", "gnome-system-monitor", "plasma-systemmonitor",
                           "mate-system-monitor", "xfce4-taskmanager"}) {
    const QString program = QStandardPaths::findExecutable(tool);
    // Detached: it stays open when the workstation is left.
    if (!program.isEmpty() && QProcess::startDetached(program, {})) return;
  }
  show_message(w, "Cannot find a system information tool", "About Kestrelvane", box_icon::warning);
}

void show_acknowledgements(workstation& w) {
  show_message(w,
               "Kestrelvane stands on published methods of spike sorting; each routine names "
               "its source.\n\n"
               "It is built with Qt, FFTW, Highway, fmt, CLI11 and JSON for Modern C++, and "
               "tested with GoogleTest. Thanks to all who write and keep them.\n\n"
               "Kestrelvane is free software under the GNU General Public License, version 3 "
               "or later.",
               "Acknowledgements");
}

QHBoxLayout* heading(const session_state& session) {
  auto* picture = new QLabel;
  picture->setPixmap(program_icon().pixmap(64, 64));
  auto* form = new QFormLayout;
  add_value(form, "version", "Version", QString(program_version) + ' ');
  add_value(form, "home_directory", "Home directory",
            QString::fromStdString(session.home_directory));
  auto* row = new QHBoxLayout;
  row->addWidget(picture, 0, Qt::AlignTop);
  row->addSpacing(8);
  row->addLayout(form, 1);
  return row;
}

}  // namespace

void about_command(workstation& w) {
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("about_dialog");
  dialog->setWindowTitle("About Kestrelvane");
  auto* boxes = new QHBoxLayout;
  boxes->addWidget(limits_box());
  boxes->addWidget(resources_box(w));

  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok);
  buttons->button(QDialogButtonBox::Ok)->setObjectName("ok");
  QPushButton* system = buttons->addButton("System Info", QDialogButtonBox::ActionRole);
  system->setObjectName("system_info");
  QPushButton* thanks = buttons->addButton("Acknowledgements", QDialogButtonBox::ActionRole);
  thanks->setObjectName("acknowledgements");
  QObject::connect(system, &QPushButton::clicked, dialog, [&w] { show_system_information(w); });
  QObject::connect(thanks, &QPushButton::clicked, dialog, [&w] { show_acknowledgements(w); });
  QObject::connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);

  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(heading(w.session));
  layout->addLayout(boxes);
  layout->addWidget(buttons);
  open_to_look(w, dialog);
}

}  // namespace kestrelvane
