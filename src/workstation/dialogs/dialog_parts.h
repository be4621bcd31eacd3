// Pieces that the dialogs share, so that they look alike.
#pragma once

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QString>

#include "session/modes.h"
#include "workstation/dialogs/setting_controls.h"

namespace kestrelvane {

// A titled box around a layout.
QGroupBox* titled_box(const QString& title, QLayout* layout);

// A number bound to a setting as a row of a form: label, field, unit, words of refusal.
number_field* add_number(QFormLayout* rows, settings_form& form, const QString& label,
                         const char* setting, const number_options& options = {});

// A read-only value as a row of a form; its objectName is how tests and updates find it.
QLabel* add_value(QFormLayout* rows, const char* object_name, const QString& label,
                  const QString& value = {}, const char* tip = "");

// A button of a dialog's row of buttons.
QPushButton* add_button(QDialogButtonBox* box, const char* object_name, const QString& label,
                        QDialogButtonBox::ButtonRole role, const char* tip = "");

// A push button with its name and tool-tip.
QPushButton* make_button(const char* object_name, const QString& label, const char* tip);

// The entries of a list of modes.
std::vector<std::pair<QString, int>> mode_entries(mode_labels labels);

// The fields, lists and boxes below a widget: what is off while an operation runs, so that
// results beside them stay readable.
QList<QWidget*> inputs_of(const QWidget* widget);

// A bar from 0 to range.
QProgressBar* make_bar(const char* object_name, int range);

}  // namespace kestrelvane
