// Controls of what the windows of a pair show, shared by the dialogs beside them.
//
// Each control sets a field of the shared views (windows/cluster_displays.h), or opens a window,
// and redraws; what the mouse changes in a window, the controls follow. A dialog takes the rows
// that it has room for; controls of other rows stay null. Interface thread.
#pragma once

#include <QList>
#include <QPointer>
#include <cstdint>
#include <memory>

class QCheckBox;
class QComboBox;
class QLabel;
class QLayout;
class QPushButton;
class QRadioButton;
class QScrollBar;
class QSlider;

namespace kestrelvane {

class graph_surface;
class number_field;
class operation_dialog;
struct settings_form;
struct workstation;

struct display_controls {
  workstation& w;
  operation_dialog* dialog;
  std::int32_t a = 0, b = 0;  // the pair on show; 0: none yet
  bool swapped = false;       // the first of the two on top
  bool tiled = false;         // the windows have been put beside the dialog

  QCheckBox *with_correlograms = nullptr, *with_times = nullptr, *with_overlap = nullptr;
  QCheckBox *error_bars = nullptr, *autoscale = nullptr;
  QComboBox* measure = nullptr;
  QRadioButton *templates = nullptr, *waveforms = nullptr;
  number_field *n_items = nullptr, *pixels_per_uv = nullptr;
  QSlider *rotate = nullptr, *pc_scale = nullptr, *zoom = nullptr, *offset = nullptr;
  QScrollBar *gain = nullptr, *position = nullptr;
  QLabel* voltage_scale = nullptr;  // the dialog's own: follows the window

  QList<QPointer<graph_surface>> followed;  // windows whose changes the controls follow

  display_controls(workstation& of, operation_dialog* d) : w(of), dialog(d) {}
};
using shared_displays = std::shared_ptr<display_controls>;

// "Swap display", the correlograms under the label of the dialog, the diagnostics of the overlap,
// and the plot against time.
QLayout* window_rows(const shared_displays& d, settings_form& form, const char* correlograms);
// "Templates" or "Waveforms: number". Words about a number go where the dialog puts them.
QLayout* waveform_row(const shared_displays& d);
// "rotate", "PC scale", "zoom", "offset", "pixels/µV" and "Error bars".
QLayout* scale_rows(const shared_displays& d);
// The scroll bars of the waveforms: upright for the voltage scale, level for the position in the
// set.
QScrollBar* gain_bar(const shared_displays& d);
QScrollBar* position_bar(const shared_displays& d);

// PC display scale of a slider position, 0 to 200, and back.
float pc_scale_of(int position);
int pc_position_of(float scale);
// The components are drawn at it, rather than so that all of them fit.
void use_pc_scale(workstation& w, int position);

// The windows of a pair, with those that are ticked; windows that come new are tiled with the
// others. Nothing happens for a pair that is none: the windows keep what they show.
void show_pair_displays(const shared_displays& d, std::int32_t a, std::int32_t b);

}  // namespace kestrelvane
