#include "workstation/windows/cluster_windows.h"

#include <QDialog>
#include <QMdiArea>
#include <algorithm>

#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/workstation.h"

namespace kestrelvane {

void forget_cluster_displays(workstation& w) {
  if (!w.cluster_windows) return;
  cluster_displays& d = *w.cluster_windows;
  forget_cluster_index(d.index);
  d.values_valid = false;
  d.single.picture = {};
  d.pair.picture = {};
}

void tile_cluster_windows(workstation& w, const QDialog* dialog) {
  const QWidget* viewport = w.frame->area()->viewport();
  const QPoint corner = viewport->mapToGlobal(QPoint());
  // The side of the dialog that has more room.
  const int left = dialog->frameGeometry().left() - corner.x();
  const int right = viewport->width() - (dialog->frameGeometry().right() - corner.x());
  const int width = std::min(std::max(left, right), viewport->width());
  const int origin = left >= right ? 0 : viewport->width() - width;
  constexpr int least_width = 480;  // of two windows side by side that can still be read
  // The windows stay where the user has them.
  if (width < least_width) return;
  const auto place = [&](graph_kind kind, double x, double y, double wide, double high) {
    graph_window* window = graph_of(w, kind);
    if (window == nullptr) return;
    const int height = viewport->height();
    window->setGeometry(origin + static_cast<int>(x * width), static_cast<int>(y * height),
                        static_cast<int>(wide * width), static_cast<int>(high * height));
  };
  place(graph_kind::cluster_waveforms, 0, 0, 0.55, 1);
  place(graph_kind::waveform_comparison, 0, 0, 0.55, 1);
  const bool something_below = graph_of(w, graph_kind::correlograms) != nullptr ||
                               graph_of(w, graph_kind::amplitude_vs_time) != nullptr;
  place(graph_kind::principal_components, 0.55, 0, 0.45, something_below ? 0.55 : 1);
  place(graph_kind::correlograms, 0.55, 0.55, 0.45, 0.45);
  place(graph_kind::amplitude_vs_time, 0.55, 0.55, 0.45, 0.45);
}

void show_cluster_windows(workstation& w) {
  displays_of(w);
  const std::int32_t current = w.session.clusters.current_cluster;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::cluster_waveforms, QString("Cluster %1 waveforms").arg(current));
}

void show_pair_windows(workstation& w, std::int32_t a, std::int32_t b) {
  cluster_displays& d = displays_of(w);
  d.a = a;
  d.b = b;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::waveform_comparison);
}

void follow_cluster_change(workstation& w, const cluster_change& change) {
  if (!w.cluster_windows) return;
  cluster_displays& d = *w.cluster_windows;
  d.a = number_after(change, d.a);
  d.b = number_after(change, d.b);
  // A merge makes both one number: no pair is left to show.
  if (d.a == 0 || d.b == 0 || d.a == d.b) d.a = d.b = 0;
}

void forget_pair(workstation& w) {
  cluster_displays& d = displays_of(w);
  d.a = d.b = 0;
  refresh_windows(w);
}

// ---------------------------------------------------------------- menu entries

void sorted_waveforms_command(workstation& w) {
  if (can_review(w.session, "Sorted waveforms")) show_cluster_windows(w);
}

void template_image_command(workstation& w) {
  if (can_review(w.session, "Template image")) open_graph(w, graph_kind::template_image);
}

void spike_view_command(workstation& w) {
  if (needs_recording(w)) open_graph(w, graph_kind::spike_view);
}

}  // namespace kestrelvane
