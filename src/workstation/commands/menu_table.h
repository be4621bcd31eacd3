// The menus and the tool bar, as tables of rows.
//
// Labels, order and tool-tips stand there and nowhere else. A row's name is the
// objectName of its action; the tool bar refers to actions by it. Rows marked full show
// when short_menu is false, or when the user has asked for the research tools. No entry is
// ever greyed: each operation tests for what it needs and says what is missing. The one
// exception is an entry that waits for a running operation or for a dialog beside the
// windows (workstation/menu_holds.h).
#pragma once

#include <QKeySequence>
#include <span>

class QMenuBar;
class QToolBar;

namespace kestrelvane {

struct workstation;

struct menu_row {
  const char* menu;      // label of the top-level menu
  const char* label;     // of the entry
  const char* name;      // objectName of the action
  const char* shortcut;  // "" for none
  const char* hint;      // what it does, in the status bar
  bool full;             // only in the full menu
  bool separator_before;
  void (*run)(workstation& w);
};

struct toolbar_row {
  int identifier;
  const char* tool_tip;
  const char* icon;    // file name in the icons folder, without its extension
  const char* action;  // the menu entry it stands for; "" for one of its own
  void (*run)(workstation& w);
};

std::span<const menu_row> menu_table();
// In identifier order; toolbar_order gives the order on the bar.
std::span<const toolbar_row> toolbar_table();
std::span<const int> toolbar_order();

// Fills the menu bar, and the tool bar with it.
void build_menus(workstation& w);
// Shows or hides the rows marked full, as short_menu and the user's wish have it.
void show_full_entries(workstation& w);
// The numbered entries of recent recordings.
void rebuild_recent_menu(workstation& w);

}  // namespace kestrelvane
