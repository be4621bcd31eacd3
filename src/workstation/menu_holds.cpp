#include "workstation/menu_holds.h"

#include <QAction>
#include <QDialog>
#include <algorithm>

#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Erases the holder; false when it was none.
bool forget_holder(workstation& w, const QObject* holder) {
  return std::erase_if(w.menu_holds, [=](const menu_hold& hold) { return hold.holder == holder; }) >
         0;
}

// The entry whose name the holders know an action by.
QString entry_of(const QAction& action) {
  const QString entry = action.property("stands_for").toString();
  return entry.isEmpty() ? action.objectName() : entry;
}

}  // namespace

void hold_menus(workstation& w, QObject* holder, const QStringList& allowed) {
  // Held anew with other entries, it is still one hold.
  forget_holder(w, holder);
  w.menu_holds.push_back({holder, allowed});
  w.frame->settle_actions();
}

void release_menus(workstation& w, const QObject* holder) {
  // A dialog that goes with the frame comes here when the frame's actions are half gone; the
  // frame has forgotten all holders by then.
  if (forget_holder(w, holder)) w.frame->settle_actions();
}

bool entry_may_run(const workstation& w, const QString& entry) {
  return std::all_of(w.menu_holds.begin(), w.menu_holds.end(),
                     [&](const menu_hold& hold) { return hold.allowed.contains(entry); });
}

void settle_action(const workstation& w, QAction* action) {
  if (action->property("waits").toBool()) action->setEnabled(entry_may_run(w, entry_of(*action)));
}

QDialog* dialog_beside(const workstation& w) {
  for (auto hold = w.menu_holds.rbegin(); hold != w.menu_holds.rend(); ++hold) {
    auto* dialog = qobject_cast<QDialog*>(hold->holder);
    // One that is being closed is hidden before it gives its hold back.
    if (dialog && dialog->isVisible()) return dialog;
  }
  return nullptr;
}

}  // namespace kestrelvane
