// The voltage record's window, "Event display", and its dialog.
//
// The window shows what displays/voltage/voltage_record.h draws from session.view; every move or
// change of scale redraws it. The wheel goes through time, with Ctrl it zooms time, with
// Shift it scales voltage; cursor and page keys move, a click reads out, a double click
// opens the dialog.
#pragma once

#include <QDialog>
#include <QPointer>
#include <QSize>
#include <memory>

#include "displays/voltage/peak_summary.h"
#include "displays/voltage/voltage_readout.h"
#include "displays/voltage/voltage_record.h"

namespace kestrelvane {

struct graph_routines;
struct voltage_controls;  // dialogs/voltage_dialog.cpp
struct workstation;

struct voltage_state {
  peak_summary peaks;
  drawn_events drawn;       // by the last redraw
  voltage_reading reading;  // under the pointer
  bool shows_reading = false;
  QPointer<QDialog> dialog;
  std::shared_ptr<voltage_controls> controls;  // of the dialog, and good for as long as it is
};

// The window with a drawing area of that size; without one as large as the preferences say,
// or as the frame allows where they say nothing.
void open_voltage_window(workstation& w, QSize size = {});
// White traces on black where pictures are dark, and the other way round; the user may turn it
// in the dialog until the theme changes.
void follow_picture_theme(workstation& w);
// What page, cursor, Home and End keys do to the view; false when it is none of them. The
// caller has a turn at the session.
bool press_voltage_key(workstation& w, int key);
// Redraws the open window and brings the dialog in step; after a move or a change of scale.
void redraw_voltage_display(workstation& w);

// --- for the window's row in the table
graph_routines voltage_routines(workstation& w);
// Drops the peaks and the read-out: samples or events have changed.
void forget_voltage_display(workstation& w);
QDialog* voltage_dialog_of(const workstation& w);

// dialogs/voltage_dialog.cpp: brings its controls in step with the view.
void update_voltage_dialog(workstation& w);

}  // namespace kestrelvane
