// "View, clean and split clusters": its window, which two sources build. What is marked, split and
// reclaimed is in view_clusters_dialog.cpp, what the windows beside it show in
// view_clusters_display.cpp.
#pragma once

#include <QCheckBox>
#include <QComboBox>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QList>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

#include "review/cluster_marks.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/operation.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

inline constexpr int n_labels = 5;  // 0..4, each with its buttons; what is above is "others"

// One cluster, and the labels of its events. Tools label; only "Split", "Delete" and "Reclaim"
// change who belongs to the cluster, and one undo takes the last of them back.
struct view_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  label_sizes labels;           // of the current cluster
  std::vector<unit_row> units;  // for the list
  std::int32_t restored = -1;   // by the last "Reclaim" of this cluster; -1: there was none

  number_field* cluster = nullptr;
  QLabel *n_clusters = nullptr, *channel = nullptr, *n_events = nullptr, *comment = nullptr;
  std::array<QLabel*, n_labels> size{};
  std::array<QRadioButton*, n_labels> label{};
  std::array<QPushButton*, n_labels> split{}, remove{};
  std::array<QCheckBox*, n_labels> shows{};
  QCheckBox *view_all = nullptr, *or_select = nullptr, *shows_others = nullptr;
  std::array<QPushButton*, 4> shapes{};  // by shape_rows
  number_field* n_waveforms = nullptr;
  std::vector<number_field*> numbers;  // whose words stand in one line
  QScrollBar* position = nullptr;
  QCheckBox* with_times = nullptr;
  QComboBox *measure = nullptr, *mode = nullptr;
  QLabel *others = nullptr, *n_restored = nullptr, *message = nullptr;
  std::array<QRadioButton*, 3> selectivity{};  // from low to high
  QProgressBar* bar = nullptr;
  QCheckBox* with_correlograms = nullptr;
  QPushButton *undo = nullptr, *interrupt = nullptr;
  unit_list* list = nullptr;
  QList<QPointer<graph_window>> followed;  // plots whose closing unticks their box

  view_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_view = std::shared_ptr<view_window>;

// ---------------------------------------------------------------- tools

// Works on current_cluster; returns what to say of it, or nothing.
using tool = std::function<QString(session_state& session)>;

// Runs a tool on the worker when it is pressed, by hand or by key.
QPushButton* tool_button(const shared_view& v, const char* name, const QString& label,
                         const char* tip, tool routine);

// For routines that say themselves what there is to say.
template <typename Routine>
tool silent(Routine routine) {
  return [routine](session_state& session) {
    routine(session);
    return QString();
  };
}

// ---------------------------------------------------------------- parts

// The widgets from the left, and a stretch.
QHBoxLayout* row_of(std::initializer_list<QWidget*> widgets);
// As wide as its words ask for, and not as a button of its own is: several stand in a row.
void make_narrow(QWidget* button, const char* words);
QLabel* value_label(const char* name, const char* tip);

// ---------------------------------------------------------------- what is shown

// The labels with their sizes, Split and Delete, and which of them the waveforms are of.
QGroupBox* labels_box(const shared_view& v);
// Whether correlograms and heights against time stand beside the dialog.
QLayout* display_row(const shared_view& v);
void show_autocorrelogram(const view_window& v, bool on);
// The boxes of the plots say which of them are open.
void follow_plots(const shared_view& v);

}  // namespace kestrelvane
