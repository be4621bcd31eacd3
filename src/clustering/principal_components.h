// Principal components of a cluster or of a pair of clusters.
//
// Clustering works on the first few principal components of the voltages at a
// chosen set of (time offset, channel) points. Selection ranks points of the
// template; rows hold one event's voltages at the points; the covariance of at
// most about 5000 rows gives the axes; all events are projected, without
// subtracting a mean, since only differences matter.
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/gradient_ascent.h"
#include "numerics/failure_log.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int32_t pc_candidate_limit = 5000;

// Chosen points: offset in samples from the event's time, and channel.
struct pc_point {
  std::int32_t time_offset;
  std::int32_t channel;
};

// Voltages of events at points, row by row; rows are padded to whole lanes.
struct pc_rows {
  std::int32_t n_rows = 0;
  std::int32_t n_points = 0;
  std::int32_t stride = 0;
  std::vector<float> values;
  void resize(std::int32_t rows, std::int32_t points);
  float* row(std::int64_t e) { return values.data() + e * stride; }
  const float* row(std::int64_t e) const { return values.data() + e * stride; }
};

// Where an event is read: its aligned time, perhaps moved.
struct aligned_event {
  std::int32_t time;
  float shift;
};

// Which points enter and what is kept of them. The defaults are those of the settings.
struct pc_parameters {
  std::int32_t selection = pc_voltage_plus_gradient;  // pc_selection: the score of a point
  std::int32_t point_limit = 50;                      // most points, 1..100
  std::int32_t dimensions = 2;                        // components, 2..5
  bool equal_numbers = true;  // a pair's covariance takes as many events of either cluster
};
pc_parameters pc_parameters_of(const session_state& session);

// Points of a template slot, highest score first. entropy_events: where "max entropy"
// reads its histograms. An unknown selection is logged and taken as "max variance".
std::vector<pc_point> select_pc_points(const session_state& session,
                                       const pc_parameters& parameters, std::int32_t slot,
                                       const std::vector<aligned_event>& entropy_events);

// Rows of interpolated voltages, bits times scale.
void fill_pc_rows(const session_state& session, const std::vector<pc_point>& points,
                  const std::vector<aligned_event>& events, float scale, pc_rows& rows);

// Axes from the covariance of every q-th row, q = n / 5000 + 1. axes[d * n_points
// + p]: component p of axis d, by falling magnitude of eigenvalue. log: where a
// decomposition that does not converge is told.
void find_axes(const pc_rows& rows, std::vector<float>& axes, const failure_log& log = {});
failure_log session_failure_log(const session_state& session);

// out[e * dimensions + d], without subtracting a mean.
void project_rows(const pc_rows& rows, const std::vector<float>& axes, std::int32_t dimensions,
                  std::vector<float>& out);

// Where the events of a cluster lie: points and axes, found from its own events, by which any
// event can be projected.
struct pc_space {
  std::int32_t dimensions = 0;
  std::vector<pc_point> points;
  std::vector<float> axes;  // find_axes
};
// The space of a cluster, and the values of its events in list order: clustering units.
void make_pc_space(const session_state& session, std::int32_t cluster, pc_space& space,
                   gac_points& values);
// The same values for any events.
void project_events(const session_state& session, const pc_space& space,
                    const std::vector<std::int32_t>& list, gac_points& values);

// The whole road for a cluster's events in list order, in clustering units.
void cluster_pc_values(const session_state& session, std::int32_t cluster, gac_points& points);
// The same for both clusters of a pair in event order, the shifted member read at
// the pair's stored shift. Overwrites the scratch template n_clusters + 1 + rank.
void pair_pc_values(session_state& session, std::int32_t a, std::int32_t b, std::int32_t rank,
                    gac_points& points);

// Points that may enter, with their scores.
struct pc_candidates {
  std::vector<pc_point> points;
  std::vector<float> scores;
  bool full() const { return static_cast<std::int32_t>(points.size()) >= pc_candidate_limit; }
};

// The values of cluster_pc_values and pair_pc_values a stretch of events at a time, for whoever
// must not work for long at once. The session must stay as it is until all are there.
struct pc_projection {
  std::vector<aligned_event> events;  // in the order of their values
  float scale = 0;
  pc_space space;
  gac_points values;        // of n_done events so far
  std::int32_t n_done = 0;  // of events
  // While points of a cluster are still being chosen by their entropy: the channel that comes next,
  // 0 when they have been.
  std::int32_t next_channel = 0, cluster = 0;
  std::vector<aligned_event> entropy_events;
  pc_candidates candidates;
};
// Chooses points and finds axes, or begins to; values are still to come. list: the cluster's
// events.
void begin_projection(session_state& session, std::int32_t cluster,
                      const std::vector<std::int32_t>& list, pc_projection& projection);
// Of a pair; writes the scratch template that pair_pc_values does.
void begin_pair_projection(session_state& session, std::int32_t a, std::int32_t b,
                           std::int32_t rank, pc_projection& projection);
// The points of the next channel, or the values of the next n events. True when all are there.
bool project_on(session_state& session, std::int32_t n, pc_projection& projection);

// Bits to clustering units: µV divided by sqrt(2) times the starting sigma.
float compute_pc_scale(const session_state& session);

// Merged template of a pair in a scratch slot, its channel list with it; the
// shifted cluster is read at t - shift. Only on the channels within the centre's radius
// is it sure to be whole: the others are left out where they are too small to be the centre.
void make_pair_template(session_state& session, std::int32_t a, std::int32_t b, float shift,
                        std::int32_t n_shift, std::int32_t n_a, std::int32_t n_b,
                        std::int32_t slot);

// A template read at a fractional point: t + shift for t = 1..template_points, by
// sinc interpolation of the template; points above template_points read as 0.
float shifted_template_value(const session_state& session, const float* values, float position);

// How many events of clusters of n_a and n_b enter a sample of 2000.
struct pair_sample {
  std::int32_t n_a, n_b;
};
pair_sample proportional_sample(std::int32_t n_a, std::int32_t n_b);

// Member number (from 1) of the i-th of m taken evenly out of n.
std::int32_t stride_member(std::int32_t i, std::int32_t n, std::int32_t m);

// Aligned events of a list; those of the shifted cluster moved by shift.
std::vector<aligned_event> read_events(const session_state& session,
                                       const std::vector<std::int32_t>& list, bool shifted,
                                       float shift);
// m of them, taken evenly.
std::vector<aligned_event> stride_events(const std::vector<aligned_event>& events, std::int32_t m);

// The sample of a pair for the covariance, a's events before b's.
std::vector<aligned_event> covariance_sample(const pc_parameters& parameters,
                                             const std::vector<aligned_event>& a,
                                             const std::vector<aligned_event>& b);

}  // namespace kestrelvane
