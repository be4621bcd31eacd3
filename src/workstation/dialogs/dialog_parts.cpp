#include "workstation/dialogs/dialog_parts.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QScreen>
#include <QScrollArea>
#include <QStyle>
#include <QTimer>
#include <QVBoxLayout>
#include <cmath>
#include <memory>
#include <utility>

#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/workstation.h"

namespace kestrelvane {

QGroupBox* titled_box(const QString& title, QLayout* layout) {
  auto* box = new QGroupBox(title);
  box->setLayout(layout);
  return box;
}

number_field* add_number(QFormLayout* rows, settings_form& form, const QString& label,
                         const char* setting, const number_options& options) {
  number_field* field = number_control(form, setting, options);
  rows->addRow(label, field->row());
  return field;
}

QLabel* add_value(QFormLayout* rows, const char* object_name, const QString& label,
                  const QString& value, const char* tip) {
  auto* text = new QLabel(value);
  text->setObjectName(object_name);
  text->setToolTip(tip);
  // Figures and paths are copied into notes and messages.
  text->setTextInteractionFlags(Qt::TextSelectableByMouse);
  rows->addRow(label, text);
  return text;
}

QPushButton* add_button(QDialogButtonBox* box, const char* object_name, const QString& label,
                        QDialogButtonBox::ButtonRole role, const char* tip) {
  QPushButton* button = box->addButton(label, role);
  button->setObjectName(object_name);
  button->setToolTip(tip);
  // The others may get the focus while the default button is off during a run; Return stays with
  // that one.
  const bool closes = role == QDialogButtonBox::AcceptRole || role == QDialogButtonBox::RejectRole;
  if (!closes) button->setAutoDefault(false);
  return button;
}

QPushButton* make_button(const char* object_name, const QString& label, const char* tip) {
  auto* button = new QPushButton(label);
  button->setObjectName(object_name);
  button->setToolTip(tip);
  // Return belongs to the default button, whichever button was pressed last.
  button->setAutoDefault(false);
  return button;
}

std::vector<std::pair<QString, int>> mode_entries(mode_labels labels) {
  std::vector<std::pair<QString, int>> rows;
  for (const mode_label& row : labels) rows.emplace_back(row.label, row.value);
  return rows;
}

QList<QWidget*> inputs_of(const QWidget* widget) {
  QList<QWidget*> inputs;
  const QList<QWidget*> children = widget->findChildren<QWidget*>();
  for (QWidget* child : children) {
    // By class: what merely shows a result has none of these.
    if (qobject_cast<QAbstractSpinBox*>(child) || qobject_cast<QComboBox*>(child) ||
        qobject_cast<QAbstractButton*>(child) || qobject_cast<QAbstractSlider*>(child) ||
        qobject_cast<QAbstractItemView*>(child)) {
      inputs << child;
    }
  }
  return inputs;
}

QSize screen_room(const QWidget* widget) {
  // Pixels for the frame and the title, which no toolkit tells before a window is shown.
  constexpr QSize decoration(16, 48);
  return widget->screen()->availableGeometry().size() - decoration;
}

namespace {

// Shows all of its page where there is room, and asks for no more than a corner of it.
class page_area : public QScrollArea {
 public:
  explicit page_area(QWidget* page) {
    setObjectName("page_area");
    setFrameShape(QFrame::NoFrame);
    setWidgetResizable(true);
    setWidget(page);
  }
  QSize sizeHint() const override {
    // Room for a bar from the start: one that appears later would bring the other with it.
    const int bar = style()->pixelMetric(QStyle::PM_ScrollBarExtent);
    return widget()->sizeHint() + QSize(bar + 2, 2);
  }
};

// Moves an entry of a layout to another one.
void move_entry(QBoxLayout* from, int index, QBoxLayout* to) {
  const int stretch = from->stretch(index);
  QLayoutItem* entry = from->takeAt(index);
  if (QLayout* layout = entry->layout()) {
    to->addLayout(layout, stretch);
  } else if (QWidget* widget = entry->widget()) {
    to->addWidget(widget, stretch);
    // The item alone; its widget has gone to the other layout.
    delete entry;
  } else {
    to->addItem(entry);
  }
}

void make_scroll(QBoxLayout* column) {
  int n_fixed = 1;  // the buttons
  const int above = column->count() - 2;
  // Words about what was typed or what runs, which Start and OK may be waiting for.
  if (above >= 0 && qobject_cast<QLabel*>(column->itemAt(above)->widget())) ++n_fixed;
  auto* page = new QWidget;
  auto* inside = new QVBoxLayout(page);
  inside->setContentsMargins(0, 0, 0, 0);
  while (column->count() > n_fixed) move_entry(column, 0, inside);
  column->insertWidget(0, new page_area(page), 1);
}

}  // namespace

void fit_to_screen(QDialog* dialog) {
  const QSize room = screen_room(dialog);
  auto* column = qobject_cast<QVBoxLayout*>(dialog->layout());
  // Dialogs of the toolkit see to their own size.
  if (column == nullptr) return;
  const QSize least = column->totalMinimumSize();
  if (least.width() > room.width() || least.height() > room.height()) make_scroll(column);
  // One that was given a size keeps it as far as it goes.
  const bool sized = dialog->testAttribute(Qt::WA_Resized);
  dialog->resize((sized ? dialog->size() : dialog->sizeHint()).boundedTo(room));
}

QProgressBar* make_bar(const char* object_name, int range) {
  auto* bar = new QProgressBar;
  bar->setObjectName(object_name);
  bar->setRange(0, range);
  bar->setValue(0);
  return bar;
}

void follow(workstation& w, const QDialog* dialog, std::vector<followed_meter> bars,
            std::vector<followed_field> fields) {
  QObject::connect(w.desk, &interface_desk::progressed, dialog,
                   [bars = std::move(bars)](meter which, int value, int range) {
                     for (const followed_meter& row : bars) {
                       if (row.which != which) continue;
                       // The range first: a value beyond the old one would be dropped.
                       row.bar->setRange(0, range);
                       row.bar->setValue(value);
                     }
                   });
  QObject::connect(w.desk, &interface_desk::status_changed, dialog,
                   [fields = std::move(fields)](status_field which, const QString& text) {
                     for (const followed_field& row : fields) {
                       if (row.which == which) row.label->setText(text);
                     }
                   });
}

void follow_clock(const operation_dialog* dialog, QLabel* minutes) {
  constexpr int tick_ms = 600;  // a hundredth of a minute
  auto* ticks = new QTimer(minutes);
  const auto since = std::make_shared<QElapsedTimer>();
  const auto worked = std::make_shared<qint64>(0);  // ms
  const auto written = std::make_shared<QString>();
  QObject::connect(dialog, &operation_dialog::running_changed, ticks, [=](bool running) {
    since->start();
    *worked = 0;
    *written = minutes->text();
    running ? ticks->start(tick_ms) : ticks->stop();
  });
  QObject::connect(ticks, &QTimer::timeout, minutes, [=] {
    const qint64 passed = since->restart();
    if (QApplication::activeModalWidget() != nullptr) return;
    if (minutes->text() != *written) {
      // From what the operation has told the clock goes on.
      *worked = std::llround(minutes->text().toDouble() * 60'000);
      *written = minutes->text();
      return;
    }
    *worked += passed;
    // Cut, not rounded, as the operation cuts it.
    const qint64 hundredths = *worked / tick_ms;
    *written = QString::number(static_cast<double>(hundredths) / 100.0, 'f', 2);
    minutes->setText(*written);
  });
}

void fill_bars_at_end(workstation& w, const operation_dialog* dialog,
                      std::vector<QProgressBar*> bars) {
  QObject::connect(dialog, &operation_dialog::running_changed, dialog,
                   [&w, bars = std::move(bars)](bool running) {
                     const bool at_end = !running && !w.session.operation.autosort_interrupt &&
                                         w.session.clusters.n_clusters > 0;
                     if (!at_end) return;
                     for (QProgressBar* bar : bars) bar->setValue(bar->maximum());
                   });
}

std::vector<followed_meter> every_meter(QProgressBar* bar) {
  std::vector<followed_meter> rows;
  for (int which = 0; which <= static_cast<int>(meter::template_pass); ++which) {
    rows.push_back({static_cast<meter>(which), bar});
  }
  return rows;
}

}  // namespace kestrelvane
