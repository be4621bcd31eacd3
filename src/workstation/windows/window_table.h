// The windows of the workstation as a table: what each is called, where it stands, how large
// it is, and what it does.
//
// Opening, placing, refreshing, keeping the layout and closing walk this table
// (graph_windows.h); a new window is a new row. A row whose surface is empty has no drawing
// routine yet: its window can be opened and stays white.
#pragma once

#include <QDialog>
#include <QFont>
#include <QSize>
#include <optional>

#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

// What the preferences hold of a window's layout; sizes and places are pairs.
enum window_slot : int {
  slot_cluster_waveforms,
  slot_waveform_comparison,
  slot_principal_components,
  slot_correlograms,
  slot_fifth,  // its place is the amplitudes', its size that of sorted waveforms
  slot_voltage_record,
  slot_count,
  no_slot = -1,
};

struct window_row {
  graph_kind kind;
  const char* object_name;
  const char* title;  // unless the opener has one, with numbers
  const char* font;   // of its texts, as display_fonts.h reads it; null: the routine's own
  QSize size;         // of the drawing area where the preferences have none
  int size_slot = no_slot;
  int origin_slot = no_slot;             // without one it stands where a cascade leads
  bool fills_frame = false;              // until the user gives it a size
  const char* placed_message = nullptr;  // for the run log

  // What its drawing area does.
  graph_routines (*surface)(workstation& w) = nullptr;
  // The session has changed: forgets what was kept of it between two pictures.
  void (*forget)(workstation& w) = nullptr;
  // The dialog that stands beside it, null when it is closed; and brings it in step.
  QDialog* (*companion)(const workstation& w) = nullptr;
  void (*follow)(workstation& w) = nullptr;
  // Where it places itself, rather than by a slot or a cascade.
  void (*place)(workstation& w) = nullptr;
};

constexpr int window_count = static_cast<int>(graph_kind::count);

// Row of a kind; the table is in the order of the kinds.
const window_row& window_row_of(graph_kind kind);

// Width and height, and x and y, in the preferences.
std::int32_t* size_in(preferences_record& preferences, int size_slot);
std::int32_t* origin_in(preferences_record& preferences, int origin_slot);

// The font that a window's row names, for its opener to read once; none when it names none,
// or one that cannot be read, which is logged.
std::optional<QFont> read_window_font(session_state& session, graph_kind kind);

}  // namespace kestrelvane
