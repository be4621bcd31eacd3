// Who keeps the menus waiting.
//
// An operation keeps every entry and tool button waiting but for those that only tell; a dialog
// that stands beside the windows (open_beside in operation.h) all but those it names. Each is a
// holder in the record of the workstation, and an entry is on when every holder lets it. So none of
// them has to know what another has turned off, in whichever order they come and go. An entry that
// is off for a reason of its own, as "copy" without a selection, does not have the property "waits"
// and stays as it is. Interface thread.
#pragma once

#include <QString>
#include <QStringList>

class QAction;
class QDialog;
class QObject;

namespace kestrelvane {

struct workstation;

struct menu_hold {
  QObject* holder;
  QStringList allowed;  // objectNames of the entries that go on
};

// Entries that only tell, and go on during an operation.
inline const QStringList live_entries = {"messages", "about"};
// Windows that can be opened beside a review, and follow it.
inline const QStringList measure_entries = {"isi_plot", "spike_trains", "overlap_diagnostics"};

// A holder that holds already has its list replaced.
void hold_menus(workstation& w, QObject* holder, const QStringList& allowed = {});
// Nothing happens when it holds none.
void release_menus(workstation& w, const QObject* holder);
// Whether every holder lets the entry of this name run.
bool entry_may_run(const workstation& w, const QString& entry);
// Turns an entry or tool button on or off as the holders have it; a button goes with the
// entry that it stands for.
void settle_action(const workstation& w, QAction* action);
// The dialog on show that holds the menus and was opened last; null when there is none.
QDialog* dialog_beside(const workstation& w);

}  // namespace kestrelvane
