#include "review/cluster_marks.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include "clustering/clustering_runs.h"
#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "review/alignment_score.h"
#include "review/event_reading.h"
#include "review/recorded_edit.h"
#include "review/review_guards.h"
#include "session/template_window.h"
#include "signal/interpolation.h"
#include "sorting/cluster_edits.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

// The current cluster and its events; 0 when there is none.
struct reviewed_cluster {
  std::int32_t number = 0;
  std::vector<std::int32_t> list;
};

reviewed_cluster current_of(const session_state& session) {
  const std::int32_t c = session.clusters.current_cluster;
  if (!is_cluster(session, c)) return {};
  return {c, list_cluster_events(session, c)};
}

void clear_labels(session_state& session, const std::vector<std::int32_t>& list) {
  for (const std::int32_t e : list) session.events.event_subcluster[e] = 0;
}

// What an edit of a cluster's members begins with.
void prepare_edit(session_state& session, std::int32_t cluster) {
  save_undo_state(session, undo_owner::cluster_review);
  // Drawn round events in the plane of their components, which is another after the edit.
  session.clusters.cluster_ellipse[cluster] = {};
}

}  // namespace

bool begin_cluster_review(session_state& session) {
  if (!can_review(session, cluster_review_title)) return false;
  prepare_history(session);
  // Of an earlier visit: "Undo" would take back what the user has long since built upon.
  if (session.undo && session.undo->owner == undo_owner::cluster_review) session.undo.reset();
  session.clusters.current_cluster =
      std::clamp(session.clusters.current_cluster, 1, session.clusters.n_clusters);
  return true;
}

bool undo_cluster_review(session_state& session) {
  if (!restore_recorded(session, undo_owner::cluster_review)) return false;
  refresh_displays(session);
  return true;
}

// ---------------------------------------------------------------- marking by measure

mark_parameters mark_parameters_of(const session_state& session) {
  const review_settings& review = session.review;
  return {review.clean_method, review.clean_channels, review.clean_threshold};
}

namespace {

// A point of the template at which events are compared.
struct tested_point {
  float mean = 0, sd = 0;  // bits
  float weight = 1;        // of its square in the mean
  std::int32_t channel = 0;
  std::int32_t offset = 0;  // samples from the event's time
};

std::vector<std::int32_t> tested_channels(const session_state& session, std::int32_t cluster,
                                          std::int32_t choice) {
  const recording_store& r = session.recording;
  const std::int32_t* channels = session.templates.channels(cluster);
  const std::int32_t n = session.templates.template_n_channels[cluster];
  if (n < 1) return {};
  if (choice == clean_on_centre) return {channels[1]};
  // The masked template tests all channels of it, too, and leaves points out.
  if (choice != clean_on_neighbours) return {channels + 1, channels + n + 1};
  std::vector<std::int32_t> tested{channels[1]};
  const std::int32_t* neighbours = r.neighbours(channels[1]);
  for (std::int32_t i = 1; i <= neighbours[0]; ++i) {
    // A masked channel says nothing of a spike.
    if (!r.chan_mask[neighbours[i]]) tested.push_back(neighbours[i]);
  }
  return tested;
}

// Whether point t of a template enters, and with which weight.
bool point_enters(const mark_parameters& parameters, const float* mean, std::int32_t t,
                  float vscale, float& weight) {
  // µV: below it a template is mostly baseline, where every event is noise and tells nothing.
  if (parameters.channels == clean_on_masked && !(std::fabs(mean[t] * vscale) > 25.0f)) {
    return false;
  }
  if (parameters.method == clean_by_troughs) return mean[t] < mean[t - 1] && mean[t] < mean[t + 1];
  if (parameters.method == clean_by_curvature) {
    // The second difference: the sharp parts of a spike, where a wrong event differs most.
    weight = std::fabs(mean[t - 1] - 2.0f * mean[t] + mean[t + 1]);
  }
  return true;
}

// Channel outer, point inner: the order of the sums.
std::vector<tested_point> tested_points(const session_state& session,
                                        const mark_parameters& parameters, std::int32_t cluster) {
  const template_table& templates = session.templates;
  const std::int32_t start = window_first_sample(session);
  std::vector<tested_point> points;
  for (const std::int32_t channel : tested_channels(session, cluster, parameters.channels)) {
    const float* mean = templates.mean(cluster, channel);
    const float* sd = templates.sd(cluster, channel);
    // The outermost points have a neighbour on one side only.
    for (std::int32_t t = 2; t <= templates.template_points - 1; ++t) {
      tested_point point{mean[t], sd[t], 1.0f, channel, start - 1 + t};
      const float vscale = session.recording.vscale_HP;
      // A channel of another tetrode has no template, and no spread.
      if (!(sd[t] > 0.0f) || !point_enters(parameters, mean, t, vscale, point.weight)) continue;
      points.push_back(point);
    }
  }
  return points;
}

// The square of the distance at a point, in units of the s.d. Samples are taken as they are
// stored: a reading between them would smooth away what makes an event an outlier.
float squared_deviation(const session_state& session, const tested_point& point,
                        std::int32_t time) {
  const float v = session.recording.vd.channel(point.channel)[time + point.offset];
  const float z = (point.mean - v) / point.sd;
  return z * z;
}

float weighted_rms(const session_state& session, const std::vector<tested_point>& points,
                   std::int32_t time) {
  float sum = 0.0f, weights = 0.0f;
  for (const tested_point& point : points) {
    sum += point.weight * squared_deviation(session, point, time);
    weights += point.weight;
  }
  // Without a point no distance is known, and comparing with it marks nobody.
  return weights > 0.0f ? std::sqrt(sum / weights) : std::numeric_limits<float>::quiet_NaN();
}

// Ten largest values that differ; fewer are divided by ten all the same.
float outlier_rms(const session_state& session, const std::vector<tested_point>& points,
                  std::int32_t time) {
  if (points.empty()) return std::numeric_limits<float>::quiet_NaN();
  std::array<float, 10> largest{};  // falling
  for (const tested_point& point : points) {
    const float value = squared_deviation(session, point, time);
    // What equals one of the list stops in front of it, as zeros do at the end.
    const auto place = std::find_if(largest.begin(), largest.end(),
                                    [value](float known) { return !(known > value); });
    if (place == largest.end() || *place == value) continue;
    std::move_backward(place, largest.end() - 1, largest.end());
    *place = value;
  }
  float sum = 0.0f;
  for (const float value : largest) sum += value;
  return std::sqrt(sum / 10.0f);
}

}  // namespace

bool measure_events(const session_state& session, const mark_parameters& parameters,
                    std::int32_t cluster, const std::vector<std::int32_t>& list,
                    std::vector<float>& values, block_meter meters) {
  if (parameters.method == clean_by_alignment) {
    return measure_alignment(session, cluster, list, values, meters);
  }
  const std::vector<tested_point> points = tested_points(session, parameters, cluster);
  values.assign(list.size(), 0.0f);
  return for_each_block(session, list.size(), meters, [&](std::size_t first, std::size_t end) {
    parallel_for(threads_now(session), static_cast<std::int64_t>(first),
                 static_cast<std::int64_t>(end) - 1, [&](std::int64_t i, std::int32_t) {
                   const std::int32_t time = session.events.event_time[list[i]];
                   values[i] = parameters.method == clean_by_outliers
                                   ? outlier_rms(session, points, time)
                                   : weighted_rms(session, points, time);
                 });
  });
}

bool mark_events(session_state& session, const mark_parameters& parameters) {
  const auto [cluster, list] = current_of(session);
  if (cluster == 0) return false;
  const bool by_alignment = parameters.method == clean_by_alignment;
  // The score is that of the fit, which uses the template's channels whatever the list says; the
  // dialog then shows what was done.
  if (by_alignment) session.review.clean_channels = clean_on_template;
  std::vector<float> values;
  if (!measure_events(session, parameters, cluster, list, values, block_meter::moves)) return false;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const bool bad =
        by_alignment ? values[i] < parameters.threshold : values[i] > parameters.threshold;
    session.events.event_subcluster[list[i]] = bad ? 1 : 0;
  }
  refresh_displays(session);
  return true;
}

void invert_marks(session_state& session) {
  for (const std::int32_t e : current_of(session).list) {
    std::int16_t& label = session.events.event_subcluster[e];
    // Sub-clusters above 1 are no marks and have no opposite.
    if (label == 0 || label == 1) label = static_cast<std::int16_t>(1 - label);
  }
  refresh_displays(session);
}

void unmark_events(session_state& session) {
  clear_labels(session, current_of(session).list);
  refresh_displays(session);
}

// ---------------------------------------------------------------- marking by clustering

std::int32_t nearest_stage(const session_state& session, float sigma_uv) {
  const double ratio = double{sigma_uv} / double{session.strategy.gac_start_sigma};
  // No logarithm of what is not positive; the narrowest stage is the nearest to it.
  if (!(ratio > 0)) return 1;
  // The bandwidth grows by a tenth from stage to stage.
  const double steps = std::log(ratio) / std::log(1.1);
  return 1 + static_cast<std::int32_t>(std::lround(std::clamp(steps, 0.0, gac_stage_limit - 1.0)));
}

bool fixed_split(session_state& session, float sigma_uv) {
  const auto [cluster, list] = current_of(session);
  if (list.empty() || autosort_interrupted(session)) return false;
  const gac_parameters parameters = gac_parameters_of(session);
  gac_points points;
  cluster_pc_values(session, cluster, points);
  const std::int32_t s = nearest_stage(session, sigma_uv);
  const auto tables = std::make_unique<gac_tables>();
  tables->n = points.n;
  gac_stage(parameters, points, s, *tables);
  count_stage_sizes(parameters, *tables, s);
  std::vector<std::int32_t>& labels = tables->stage_labels[s];
  compact_subcluster_labels(labels.data(), tables->n, tables->as_cl_sizes[s]);
  for (std::size_t i = 0; i < list.size(); ++i) {
    session.events.event_subcluster[list[i]] = static_cast<std::int16_t>(labels[i]);
  }
  refresh_displays(session);
  return true;
}

// ---------------------------------------------------------------- marking by shapes

namespace {

bool crosses_window(const session_state& session, std::int32_t event,
                    const waveform_window& window) {
  // As the window draws it: the user marks what he sees, and the stored samples lie beside that by
  // part of a sample.
  float waveform[waveform_room];
  read_event_waveform(session, event, window.channel, waveform);
  const std::int32_t first = std::max(window.first_point, 1);
  const std::int32_t last = std::min(window.last_point, session.templates.template_points);
  // Drawn upwards or downwards, as the hand went.
  const auto [low, high] = std::minmax(window.low_uv, window.high_uv);
  // -1 below the window, 1 above; a line from one to the other passes through it.
  std::int32_t side = 0;
  for (std::int32_t t = first; t <= last; ++t) {
    const float uv = waveform[t - 1];
    if (uv >= low && uv <= high) return true;
    const std::int32_t now = uv < low ? -1 : 1;
    if (side != 0 && now != side) return true;
    side = now;
  }
  return false;
}

// Gives the label to the events of the current cluster for which found(place in the list).
template <typename Found>
bool add_label(session_state& session, const std::vector<std::int32_t>& list, Found&& found,
               std::int16_t label = 1) {
  std::vector<char> marked(list.size(), 0);
  const bool finished = for_each_block(
      session, list.size(), block_meter::moves, [&](std::size_t first, std::size_t end) {
        parallel_for(threads_now(session), static_cast<std::int64_t>(first),
                     static_cast<std::int64_t>(end) - 1,
                     [&](std::int64_t i, std::int32_t) { marked[i] = found(i) ? 1 : 0; });
      });
  // Nothing is marked before all have been looked at: an interrupt leaves the labels as they were.
  if (!finished) return false;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (marked[i] != 0) session.events.event_subcluster[list[i]] = label;
  }
  refresh_displays(session);
  return true;
}

}  // namespace

bool mark_by_windows(session_state& session, const std::vector<waveform_window>& windows) {
  const std::vector<std::int32_t> list = current_of(session).list;
  const std::int32_t n_channels = session.recording.n_channels;
  const bool drawn = std::all_of(windows.begin(), windows.end(), [&](const waveform_window& w) {
    return w.channel >= 1 && w.channel <= n_channels;
  });
  if (list.empty() || windows.empty() || !drawn) return false;
  return add_label(session, list, [&](std::int64_t i) {
    // A spike of the unit passes through all of them; one that misses any is marked.
    return !std::all_of(windows.begin(), windows.end(), [&](const waveform_window& w) {
      return crosses_window(session, list[i], w);
    });
  });
}

float event_minutes(const session_state& session, std::int32_t event) {
  const recording_store& r = session.recording;
  const std::int32_t time = session.events.event_time[event];
  if (!r.is_continuous && !session.preferences.treat_as_continuous) {
    const std::int32_t channel = session.events.event_channel[event];
    return static_cast<float>(static_cast<double>(event_record_time_ms(session, time, channel)) /
                              60000.0);
  }
  // The exact rate, as hours at a rounded one are off by seconds.
  const double rate = r.sampling_frequency_exact > 0 ? r.sampling_frequency_exact
                                                     : static_cast<double>(r.sampling_frequency);
  return rate > 0 ? static_cast<float>(time / (rate * 60.0)) : 0.0f;
}

std::vector<shape_point> events_in_plane(session_state& session, mark_plane plane) {
  const reviewed_cluster current = current_of(session);
  const std::vector<std::int32_t>& list = current.list;
  std::vector<shape_point> places(list.size());
  if (list.empty()) return places;
  if (plane == mark_plane::components) {
    gac_points points;
    cluster_pc_values(session, current.number, points);
    for (std::size_t i = 0; i < list.size(); ++i) {
      const float* row = points.row(static_cast<std::int64_t>(i));
      places[i] = {row[0], row[1]};
    }
    return places;
  }
  // A flat template has no centre, and its events no height.
  const bool has_centre = session.templates.template_n_channels[current.number] > 0;
  const std::int32_t centre = session.templates.centre_channel(current.number);
  parallel_for(threads_now(session), 0, static_cast<std::int64_t>(list.size()) - 1,
               [&](std::int64_t i, std::int32_t) {
                 places[i] = {event_minutes(session, list[i]),
                              has_centre ? event_height_uv(session, list[i], centre) : 0.0f};
               });
  return places;
}

bool mark_in_ellipse(session_state& session) {
  const auto [cluster, list] = current_of(session);
  if (list.empty()) return false;
  const cluster_ellipse_record ellipse = session.clusters.cluster_ellipse[cluster];
  if (!(ellipse.semi_axis_1 > 0.0f && ellipse.semi_axis_2 > 0.0f)) {
    tell(session, "There is no ellipse: draw one in the principal components display first.",
         cluster_review_title, box_icon::information);
    return false;
  }
  const std::vector<shape_point> places = events_in_plane(session, mark_plane::components);
  return add_label(session, list,
                   [&](std::int64_t i) { return ellipse_holds(ellipse, places[i]); });
}

bool mark_in_rectangle(session_state& session, shape_point a, shape_point b) {
  const std::vector<std::int32_t> list = current_of(session).list;
  const std::vector<shape_point> places = events_in_plane(session, mark_plane::heights);
  if (list.empty()) return false;
  return add_label(session, list, [&](std::int64_t i) { return rectangle_holds(a, b, places[i]); });
}

bool mark_in_lasso(session_state& session, mark_plane plane, const shape_polygon& polygon,
                   std::int16_t label) {
  const std::vector<std::int32_t> list = current_of(session).list;
  if (list.empty() || polygon.size() < 3) return false;
  const std::vector<shape_point> places = events_in_plane(session, plane);
  return add_label(
      session, list, [&](std::int64_t i) { return polygon_holds(polygon, places[i]); }, label);
}

bool mark_anew(session_state& session, drawn_marks& marks, const std::function<bool()>& mark) {
  const std::vector<std::int32_t> list = current_of(session).list;
  const auto labels_now = [&] {
    std::vector<std::int16_t> labels;
    for (const std::int32_t e : list) labels.push_back(session.events.event_subcluster[e]);
    return labels;
  };
  const auto put = [&](const std::vector<std::int16_t>& labels) {
    for (std::size_t i = 0; i < list.size(); ++i) {
      session.events.event_subcluster[list[i]] = labels[i];
    }
  };
  const std::vector<std::int16_t> found = labels_now();
  // Whoever has labelled an event since has drawn a line under what was before.
  const bool adjusts = marks.events == list && marks.after == found;
  if (!adjusts) marks = {list, found, found};
  put(marks.before);
  if (!mark()) {
    put(found);
    return false;
  }
  marks.after = labels_now();
  return true;
}

void label_events(session_state& session, const std::vector<std::int32_t>& list,
                  std::int16_t label) {
  const std::int32_t cluster = current_of(session).number;
  for (const std::int32_t e : list) {
    // The list comes from a picture, and the events on it may have gone elsewhere since.
    if (cluster > 0 && session.events.event_cluster[e] == cluster) {
      session.events.event_subcluster[e] = label;
    }
  }
  refresh_displays(session);
}

// ---------------------------------------------------------------- labels

label_sizes count_labels(const session_state& session) {
  label_sizes sizes;
  for (const std::int32_t e : current_of(session).list) {
    const std::int16_t label = session.events.event_subcluster[e];
    ++sizes.n_events;
    if (label >= 0 && label <= 4) {
      ++sizes.size[label];
    } else {
      ++sizes.others;
    }
  }
  return sizes;
}

namespace {

std::vector<std::int32_t> events_of_label(const session_state& session,
                                          const std::vector<std::int32_t>& list,
                                          std::int32_t label) {
  std::vector<std::int32_t> found;
  for (const std::int32_t e : list) {
    if (session.events.event_subcluster[e] == label) found.push_back(e);
  }
  return found;
}

bool delete_whole_cluster(session_state& session, std::int32_t cluster) {
  if (!ask(session, "There will be no points left: delete the whole cluster?",
           "What do you want to do?")) {
    return false;
  }
  recorded_edit edit(session, "delete_clusters");
  edit.record.clusters = {cluster};
  prepare_edit(session, cluster);
  delete_cluster(session, cluster);
  log_message(session, fmt::format("View clusters: user deleted cluster {}", cluster));
  refresh_displays(session);
  return true;
}

}  // namespace

bool split_label(session_state& session, std::int32_t label) {
  const auto [cluster, list] = current_of(session);
  const std::vector<std::int32_t> leaving = events_of_label(session, list, label);
  if (leaving.empty()) return false;
  if (leaving.size() == list.size()) {
    tell(session, "all events have this label", cluster_review_title, box_icon::warning);
    return false;
  }
  // Before anything is saved: a refusal must not cost the user what could be taken back.
  if (!cluster_can_grow(session)) return false;
  recorded_edit edit(session, "split");
  edit.record.clusters = {cluster};
  edit.record.events = leaving;
  prepare_edit(session, cluster);
  if (label == 0) {
    // What stays was marked to stay. The marks go first, and those who leave get one.
    for (const std::int32_t e : list) {
      std::int16_t& mark = session.events.event_subcluster[e];
      mark = mark == 0 ? 1 : 0;
    }
    label = 1;
  }
  split_marked_to_new_cluster(session, label);
  return true;
}

bool delete_label(session_state& session, std::int32_t label) {
  const auto [cluster, list] = current_of(session);
  const std::vector<std::int32_t> leaving = events_of_label(session, list, label);
  if (leaving.empty()) return false;
  // A cluster without events cannot be.
  if (leaving.size() == list.size()) return delete_whole_cluster(session, cluster);
  recorded_edit edit(session, "remove_and_realign");
  edit.record.clusters = {cluster};
  edit.record.events = leaving;
  prepare_edit(session, cluster);
  remove_events(session, leaving, template_renewal::realigned);
  refresh_displays(session);
  return true;
}

bool delete_current_cluster(session_state& session) {
  const std::int32_t cluster = current_of(session).number;
  return cluster > 0 && delete_whole_cluster(session, cluster);
}

bool realign_current_cluster(session_state& session) {
  const std::int32_t cluster = current_of(session).number;
  if (cluster == 0) return false;
  recorded_edit edit(session, "realign");
  edit.record.clusters = {cluster};
  prepare_edit(session, cluster);
  renew_clusters(session, {cluster}, template_renewal::realigned);
  refresh_displays(session);
  return true;
}

void annotate_current_cluster(session_state& session, const std::string& comment) {
  const std::int32_t cluster = current_of(session).number;
  if (cluster == 0) return;
  recorded_edit edit(session, "comment");
  edit.record.clusters = {cluster};
  edit.record.text = comment;
  session.clusters.cluster_comment[cluster].assign(comment);
  // No cluster changes, which would be noted by itself.
  note_unsaved(session, unsaved_results::edits);
}

}  // namespace kestrelvane
