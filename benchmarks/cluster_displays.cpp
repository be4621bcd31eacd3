// How long a change of the current cluster takes one core, window by window, and how long it takes
// until a merge is seen.
//
// 5 million events in 1,000 clusters on 384 channels at 30 kHz, as many samples as the given
// gigabytes hold (4 unless told otherwise). Cluster after cluster becomes the current one and every
// display of it is prepared and painted to an image; the 95th percentile is what counts, of each
// and of those that are open side by side, and what a first index costs. Then pairs of clusters of
// 20,000 events are merged as Guided Merge does, with undo saved and pair lists in step, and all
// windows redrawn. Processor seconds of this thread, which does all of the work.
//
//   kestrelvane-cluster-benchmark [GB [FOLDER]]
//
// Into FOLDER the last picture of every display is written.
#include <fmt/format.h>
#include <time.h>

#include <QApplication>
#include <QImage>
#include <QPainter>
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "analysis/correlograms.h"
#include "clustering/templates.h"
#include "displays/clusters/components.h"
#include "displays/clusters/correlogram_panel.h"
#include "displays/clusters/heights.h"
#include "displays/clusters/sorted_waveforms.h"
#include "displays/clusters/spike_map.h"
#include "displays/clusters/template_image.h"
#include "numerics/parallel.h"
#include "planted_events.h"
#include "recording/site_tables.h"
#include "review/guided_merge.h"
#include "review/recorded_edit.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr std::int32_t n_channels = 384, rate = 30'000;
constexpr std::int32_t n_events = 5'000'000, n_clusters = 1'000;
// Pairs of large clusters: c with c + n_channels, which is registered on the same channel. Each of
// the ten has one event in 250.
constexpr std::int32_t n_large_pairs = 5;

// A staggered probe of four columns; noise of about 10 bits rms.
void fill_recording(session_state& session) {
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    constexpr std::int16_t columns[] = {43, 11, 59, 27};
    r.chan_x[c] = columns[(c - 1) % 4];
    r.chan_y[c] = static_cast<std::int16_t>(20 * ((c - 1) / 2));
  }
  build_site_tables(session);
  vector_random random(1);
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    std::int16_t* v = r.vd.channel(c);
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      const std::uint32_t bits = random.next() >> 8;
      v[t] = static_cast<std::int16_t>(static_cast<int>((bits & 15) + (bits >> 4 & 15)) - 15);
    }
  }
}

std::int32_t draw_cluster(vector_random& random) {
  const auto draw = static_cast<std::int32_t>(random.next() >> 8);
  const std::int32_t large = draw % 250;
  if (large < n_large_pairs) return large + 1;
  if (large < 2 * n_large_pairs) return large - n_large_pairs + 1 + n_channels;
  return 1 + draw / 250 % n_clusters;
}

double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

struct display_times {
  std::string name;
  std::function<void(QPainter& painter, std::int32_t cluster)> draw;
  QImage image;
  bool in_sum = true;  // one of the windows that are open side by side
  std::vector<double> ms{};
};

double percentile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

// What the windows keep from one change to the next.
struct open_windows {
  session_state& session;
  cluster_index index;
  cluster_theme theme;
  waveform_picture events, density, pair;
  component_values values;
  spike_picture spikes, second;
};

void draw_waveforms(open_windows& w, waveform_picture& picture, waveform_mode mode,
                    QPainter& painter, std::vector<std::int32_t> clusters) {
  waveform_view view = view_of_settings(w.session);
  view.mode = mode;
  view.clusters = std::move(clusters);
  view.width = 800;
  view.height = 700;
  prepare_waveforms(w.session, w.index, view, picture);
  paint_waveforms(painter, picture, view, w.theme);
}

void draw_components(open_windows& w, QPainter& painter, std::int32_t cluster) {
  component_view view = component_view_of_settings(w.session);
  view.clusters = {cluster};
  read_component_values(w.session, w.index, view.clusters, w.values);
  component_picture picture;
  prepare_components(w.session, w.values, view, picture);
  paint_components(painter, picture, view, w.theme);
}

void draw_heights(open_windows& w, QPainter& painter, std::int32_t cluster) {
  height_view view;
  view.clusters = {cluster};
  height_picture picture;
  prepare_heights(w.session, w.index, nullptr, view, picture);
  paint_heights(painter, picture, view, w.theme);
}

void draw_template(open_windows& w, QPainter& painter, std::int32_t cluster) {
  template_image_view view;
  view.cluster = cluster;
  template_image_picture picture;
  prepare_template_image(w.session, view, picture);
  paint_template_image(painter, picture, view, w.theme);
}

void draw_spikes(open_windows& w, QPainter& painter, std::int32_t cluster, double minutes) {
  spike_view view;
  view.clusters = {cluster};
  view.to_minutes = minutes;
  spike_picture& picture = minutes > 0 ? w.second : w.spikes;
  prepare_spikes(w.session, w.index, view, picture);
  paint_spikes(painter, picture, view, w.theme);
}

void draw_probe(open_windows& w, QPainter& painter, std::int32_t cluster) {
  probe_view view;
  view.clusters = {cluster};
  probe_picture picture;
  prepare_probe(w.session, w.index, view, picture);
  paint_probe(painter, picture, view, w.theme);
}

void draw_correlograms(open_windows& w, QPainter& painter, std::int32_t a, std::int32_t b) {
  const QRectF all(0, 0, 800, 500);
  paint_correlogram_matrix(painter, all, w.session, {a, b}, w.session.review.correlogram_bin_ms,
                           w.theme);
}

std::vector<display_times> displays_of(open_windows& w) {
  return {
      {"waveforms, 100 events and template",
       [&](QPainter& p, std::int32_t c) {
         draw_waveforms(w, w.events, waveform_mode::events, p, {c});
       },
       QImage(800, 700, QImage::Format_RGB32)},
      {"waveforms of a pair, 200 events",
       [&](QPainter& p, std::int32_t c) {
         draw_waveforms(w, w.pair, waveform_mode::events, p,
                        {c, c % w.session.clusters.n_clusters + 1});
       },
       QImage(800, 700, QImage::Format_RGB32), false},
      {"waveforms, density, first part",
       [&](QPainter& p, std::int32_t c) {
         draw_waveforms(w, w.density, waveform_mode::density, p, {c});
       },
       QImage(800, 700, QImage::Format_RGB32), false},
      {"principal components", [&](QPainter& p, std::int32_t c) { draw_components(w, p, c); },
       QImage(500, 500, QImage::Format_RGB32)},
      {"heights", [&](QPainter& p, std::int32_t c) { draw_heights(w, p, c); },
       QImage(800, 300, QImage::Format_RGB32)},
      {"template image", [&](QPainter& p, std::int32_t c) { draw_template(w, p, c); },
       QImage(500, 600, QImage::Format_RGB32)},
      {"spikes, whole recording", [&](QPainter& p, std::int32_t c) { draw_spikes(w, p, c, 0); },
       QImage(1000, 600, QImage::Format_RGB32)},
      {"spikes, a second in view",
       [&](QPainter& p, std::int32_t c) { draw_spikes(w, p, c, 1.0 / 60); },
       QImage(1000, 600, QImage::Format_RGB32), false},
      {"probe", [&](QPainter& p, std::int32_t c) { draw_probe(w, p, c); },
       QImage(300, 700, QImage::Format_RGB32)},
      {"correlograms of a pair",
       [&](QPainter& p, std::int32_t c) {
         draw_correlograms(w, p, c, c % w.session.clusters.n_clusters + 1);
       },
       QImage(800, 500, QImage::Format_RGB32)},
  };
}

void print_times(const std::string& name, const std::vector<double>& ms) {
  fmt::print("{:<38} median {:>7.1f} ms   95th percentile {:>7.1f} ms\n", name, percentile(ms, 0.5),
             percentile(ms, 0.95));
}

double draw_display(display_times& display, std::int32_t cluster) {
  const double begin = processor_seconds();
  QPainter painter(&display.image);
  display.draw(painter, cluster);
  painter.end();
  return 1e3 * (processor_seconds() - begin);
}

void time_displays(std::vector<display_times>& displays, const std::string& folder) {
  std::vector<double> together;
  for (std::int32_t c = 1; c <= n_clusters; c += 17) {
    double all = 0;
    for (display_times& display : displays) {
      display.ms.push_back(draw_display(display, c));
      if (display.in_sum) all += display.ms.back();
    }
    together.push_back(all);
  }
  for (const display_times& display : displays) {
    print_times(display.name, display.ms);
    if (!folder.empty()) {
      display.image.save(QString::fromStdString(folder + "/" + display.name + ".png"));
    }
  }
  print_times("windows side by side", together);
}

double time_undo_save(session_state& session) {
  const double begin = processor_seconds();
  save_undo_state(session, undo_owner::guided_merge);
  return 1e3 * (processor_seconds() - begin);
}

// From the press of "Merge" until all windows show what the two became.
void time_merges(open_windows& w, std::vector<display_times>& displays) {
  session_state& session = w.session;
  use_threads(session, 4);
  build_status_lists(session);
  use_threads(session, 1);
  double begin = processor_seconds();
  prepare_undo(session);
  prepare_history(session);
  fmt::print("{:<38} {:.1f} ms\n", "for undo and history, at opening",
             1e3 * (processor_seconds() - begin));
  std::vector<double> saves, merges, redraws, seen;
  // From the top down, so that the numbers of the pairs to come stay as they are.
  for (std::int32_t a = n_large_pairs; a >= 1; --a) {
    guided_walk walk;
    walk.pair = {a, a + n_channels};
    label_pair(session, walk.pair);
    begin = processor_seconds();
    decide_pair(session, walk, guided_merge);
    merges.push_back(1e3 * (processor_seconds() - begin));
    begin = processor_seconds();
    forget_cluster_index(w.index);
    update_cluster_index(session, w.index);
    redraws.push_back(1e3 * (processor_seconds() - begin));
    for (display_times& display : displays) {
      if (display.in_sum) redraws.back() += draw_display(display, a);
    }
    seen.push_back(merges.back() + redraws.back());
    saves.push_back(time_undo_save(session));
  }
  print_times("a merge of 2 x 20,000 is seen", seen);
  print_times("  the merge, with undo and lists", merges);
  print_times("  of this the undo saved", saves);
  print_times("  index and windows side by side", redraws);
  fmt::print("{:<38} {:.1f} ms\n", "the longest of them",
             *std::max_element(seen.begin(), seen.end()));
}

void run_all(double gigabytes, const std::string& folder) {
  small_session session;
  const auto n_samples = static_cast<std::int32_t>(gigabytes * 1e9 / 2 / n_channels);
  make_recording(*session, n_channels, n_samples, rate, 1.0f);
  fill_recording(*session);
  plant_events(*session, {n_events, n_clusters, 4, 0, draw_cluster});
  use_threads(*session, 4);
  calculate_all_templates(*session);
  use_threads(*session, 1);
  fmt::print("{} events, {} clusters, {} channels, {:.0f} s\n", n_events, n_clusters, n_channels,
             n_samples / double(rate));
  open_windows w{*session, {}, make_cluster_theme(session->preferences, false), {}, {}, {}, {},
                 {},       {}};
  const double before = processor_seconds();
  update_cluster_index(*session, w.index);
  fmt::print("{:<38} {:.1f} ms\n", "index of all events", 1e3 * (processor_seconds() - before));
  std::vector<display_times> displays = displays_of(w);
  time_displays(displays, folder);
  time_merges(w, displays);
}

}  // namespace
}  // namespace kestrelvane::test

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  const QApplication application(argc, argv);
  kestrelvane::flush_denormals();
  kestrelvane::test::run_all(argc > 1 ? std::atof(argv[1]) : 4.0, argc > 2 ? argv[2] : "");
}
