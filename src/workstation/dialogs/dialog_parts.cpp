#include "workstation/dialogs/dialog_parts.h"

#include <utility>

#include "workstation/interface_desk.h"
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
  text->setTextInteractionFlags(Qt::TextSelectableByMouse);
  rows->addRow(label, text);
  return text;
}

QPushButton* add_button(QDialogButtonBox* box, const char* object_name, const QString& label,
                        QDialogButtonBox::ButtonRole role, const char* tip) {
  QPushButton* button = box->addButton(label, role);
  button->setObjectName(object_name);
  button->setToolTip(tip);
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
        qobject_cast<QAbstractButton*>(child) || qobject_cast<QAbstractSlider*>(child)) {
      inputs << child;
    }
  }
  return inputs;
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

std::vector<followed_meter> every_meter(QProgressBar* bar) {
  std::vector<followed_meter> rows;
  for (int which = 0; which <= static_cast<int>(meter::filtering); ++which) {
    rows.push_back({static_cast<meter>(which), bar});
  }
  return rows;
}

}  // namespace kestrelvane
