// Pieces that the dialogs share, so that they look alike.
#pragma once

#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QString>
#include <vector>

#include "session/modes.h"
#include "session/user_interface.h"
#include "workstation/dialogs/setting_controls.h"

namespace kestrelvane {

class operation_dialog;
struct workstation;

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

// Room for a window on the screen of a widget, its title and borders taken off.
QSize screen_room(const QWidget* widget);

// A dialog that is about to be shown gets a size that its screen has room for. Where that is
// less than it needs, all above its buttons and the message over them scrolls, so that the
// buttons are always in sight. Its layout has to be a column that ends in its buttons.
void fit_to_screen(QDialog* dialog);

// What a dialog shows of the worker's progress, in rows. Several meters may share a bar.
struct followed_meter {
  meter which;
  QProgressBar* bar;
};
struct followed_field {
  status_field which;
  QLabel* label;
};

// For as long as the dialog lives, bars and labels show the latest of their meter or field.
void follow(workstation& w, const QDialog* dialog, std::vector<followed_meter> bars,
            std::vector<followed_field> fields = {});
// A clock in minutes that goes while the dialog's operation does, and stands still under a box.
// What the operation itself tells of its time counts.
void follow_clock(const operation_dialog* dialog, QLabel* minutes);
// When a run of Autosort has come to clusters and to its end, its bars have, too: the last
// steps may be too few to be reported, or a stage has had nothing to do.
void fill_bars_at_end(workstation& w, const operation_dialog* dialog,
                      std::vector<QProgressBar*> bars);
// The rows of a bar that shows whatever is reported.
std::vector<followed_meter> every_meter(QProgressBar* bar);

}  // namespace kestrelvane
