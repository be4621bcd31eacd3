// The workstation: the window shell over one session.
//
// One record holds what the windows share: the session, the frame, the desk where notices
// of the engine arrive, the worker that runs operations, the timed recovery save. main
// creates it; every command and dialog gets it as its first argument.
//
// The interface thread owns all widgets and never works on the session for long: reading,
// filtering, sorting and writing run on the worker (operation.h), which holds the session
// gate. While it runs, menus and controls that could disturb it are disabled, and windows
// show the picture they had; where it pauses or refreshes displays, they draw a new one
// (windows/session_turn.h).
#pragma once

#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "operations/home_lock.h"
#include "operations/program_run.h"
#include "operations/recovery.h"
#include "session/session_state.h"
#include "workstation/menu_holds.h"
#include "workstation/operation.h"

class QAction;
class QPlainTextEdit;

namespace kestrelvane {

class graph_window;
class interface_desk;
class main_frame;
class messages_dialog;
struct channel_check_state;
struct cluster_displays;
struct amplitude_state;
struct interval_heights;
struct kept_quality;
struct power_spectrum;
struct correlogram_state;
struct review_workspace;
struct voltage_state;

// The windows in the frame's area; rows of the table in windows/window_table.h.
enum class graph_kind {
  voltage_record,
  autocorrelation_vs_time,
  intervals,
  interval_heights,
  amplitude_vs_time,
  overlap,
  principal_components,
  template_image,
  correlograms,
  spike_trains,
  channel_analysis,
  channel_deviations,
  waveform_comparison,
  cluster_waveforms,
  spike_view,
  hp_spectrum,
  amplitude_distribution,
  run_log,
  count,
};

struct workstation {
  session_state& session;
  interface_desk* desk = nullptr;
  main_frame* frame = nullptr;
  QPlainTextEdit* run_log = nullptr;  // the "Kestrelvane run log" window
  QPointer<messages_dialog> messages;
  QPointer<graph_window> graphs[static_cast<int>(graph_kind::count)];  // by kind
  std::shared_ptr<voltage_state> voltage;  // of the voltage record's window; voltage_window.h
  std::shared_ptr<correlogram_state> correlograms;    // likewise; correlogram_window.h
  std::shared_ptr<channel_check_state> channels;      // windows/channel_windows.h; null: none
  std::shared_ptr<power_spectrum> spectrum;           // windows/analysis_windows.h; null: none
  std::shared_ptr<amplitude_state> amplitudes;        // likewise
  std::shared_ptr<interval_heights> heights;          // likewise
  std::shared_ptr<kept_quality> quality;              // the worker's (dialogs/review_parts.h)
  std::shared_ptr<cluster_displays> cluster_windows;  // windows/cluster_displays.h
  std::shared_ptr<review_workspace> workspace;        // windows/cluster_windows.h
  home_lock lock;  // of the number in the names of the state files
  operation_worker worker;
  std::vector<menu_hold> menu_holds;  // in the order of their coming; menu_holds.h
  bool reads_recording = false;       // the running operation has begun to read one
  bool paused = false;                // the worker waits at a pause point
  bool redraw_planned = false;        // for when the session is free again, while paused
  int held_drawings = 0;              // windows/graph_windows.h: drawing_hold
  autorecover_timer autorecover;
  bool autorecover_running = false;
  std::optional<exit_way> exit_wanted;  // once the operation that runs has ended
  bool exit_begun = false;              // the exit path runs
  bool leaving = false;                 // and has come to its end

  explicit workstation(session_state& of) : session(of) {}
};

// What the command line asks for.
struct start_request {
  QString recording;          // "" for none
  QString work_file;          // read over the recording; "" for none
  bool show_voltage = false;  // and the voltage record is opened
};

// --- start-up and exit (start_up.cpp)
// Builds desk, frame, run log window and menus, reads the settings files, and ends in
// the event loop's first turn with the recording of the command line or the offer to
// resume or recover.
void start_workstation(workstation& w, const start_request& request);
// The close request from any source: asks, saves, closes. While an operation runs it asks
// whether to stop that, and goes on when it has ended. False as long as the program stays.
bool request_exit(workstation& w, exit_way way = exit_way::frame);

// After the operation that was stopped for it.
void go_on_leaving(workstation& w);

// --- small services
// A message box that does not wait.
void show_message(workstation& w, const QString& text, const QString& title,
                  box_icon icon = box_icon::information);
// A Yes/No question that does not wait; then gets the answer.
void ask_then(workstation& w, const QString& text, const QString& title,
              std::function<void(bool yes)> then);
// Redraws every graph window from the session, as far as it can be had, after a change of
// what is shown of it.
void refresh_graphs(workstation& w);
// The run log window along the lower edge of the frame's area.
void place_run_log(workstation& w);
// True when a recording is in memory; says "No recording data in memory" otherwise.
bool needs_recording(workstation& w);
// The directory of the last file dialog, kept from run to run.
QString last_directory();
void remember_directory(const QString& path_of_file);

}  // namespace kestrelvane
