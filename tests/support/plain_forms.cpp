#include "support/plain_forms.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "numerics/plain_jacobi.h"
#include "numerics/sort.h"
#include "session/template_window.h"
#include "signal/interpolation.h"
#include "support/small_session.h"

namespace kestrelvane::test {

// ---------------------------------------------------------------- clustering

namespace {

struct plain_scouts {
  std::int32_t m = 0, dimensions = 0;
  std::vector<float> at;  // row by row
  std::vector<char> stopped;
  std::vector<std::int32_t> stall;
};

void remove_row(plain_scouts& scouts, std::int32_t j) {
  const std::int32_t d = scouts.dimensions;
  scouts.at.erase(scouts.at.begin() + j * d, scouts.at.begin() + (j + 1) * d);
  scouts.stopped.erase(scouts.stopped.begin() + j);
  scouts.stall.erase(scouts.stall.begin() + j);
  --scouts.m;
}

bool within(const plain_scouts& scouts, std::int32_t i, std::int32_t j, float h,
            bool second_inclusive) {
  const float* a = &scouts.at[i * scouts.dimensions];
  const float* b = &scouts.at[j * scouts.dimensions];
  if (!(std::fabs(a[0] - b[0]) < h)) return false;
  const float second = scouts.dimensions > 1 ? std::fabs(a[1] - b[1]) : 0.0f;
  if (second_inclusive ? !(second <= h) : !(second < h)) return false;
  float squared = 0.0f;
  for (std::int32_t c = 0; c < scouts.dimensions; ++c) squared += (a[c] - b[c]) * (a[c] - b[c]);
  return squared < h * h;
}

void merge_at_once(plain_scouts& scouts, float h, std::vector<std::int32_t>& labels) {
  for (std::int32_t i = 0; i < scouts.m; ++i) {
    for (std::int32_t j = i + 1; j < scouts.m; ++j) {
      if (!within(scouts, i, j, h, true)) continue;
      for (std::int32_t& label : labels) {
        if (label == j + 1) {
          label = i + 1;
        } else if (label > j + 1) {
          --label;
        }
      }
      remove_row(scouts, j);
    }
  }
}

void merge_marked(plain_scouts& scouts, float h, std::vector<std::int32_t>& labels) {
  std::vector<std::int32_t> target(scouts.m + 1, 0), removed_up_to(scouts.m + 1, 0);
  for (std::int32_t i = 0; i < scouts.m; ++i) {
    if (target[i + 1] != 0) continue;
    for (std::int32_t j = i + 1; j < scouts.m; ++j) {
      if (target[j + 1] == 0 && within(scouts, i, j, h, false)) target[j + 1] = i + 1;
    }
  }
  for (std::int32_t k = 1; k <= scouts.m; ++k) {
    removed_up_to[k] = removed_up_to[k - 1] + (target[k] != 0);
  }
  for (std::int32_t& label : labels) {
    if (target[label] != 0) label = target[label];
    label -= removed_up_to[label];
  }
  plain_scouts kept;
  kept.dimensions = scouts.dimensions;
  for (std::int32_t k = 0; k < scouts.m; ++k) {
    if (target[k + 1] != 0) continue;
    kept.at.insert(kept.at.end(), scouts.at.begin() + k * scouts.dimensions,
                   scouts.at.begin() + (k + 1) * scouts.dimensions);
    kept.stopped.push_back(scouts.stopped[k]);
    kept.stall.push_back(scouts.stall[k]);
    ++kept.m;
  }
  scouts = kept;
}

void merge(plain_scouts& scouts, float h, std::vector<std::int32_t>& labels) {
  if (scouts.m <= 2000) {
    merge_at_once(scouts, h, labels);
  } else {
    merge_marked(scouts, h, labels);
  }
}

// One step of scout k; true when it still goes.
bool step(const session_state& session, const std::vector<float>& points, std::int32_t n,
          std::int32_t q, float stop_step, plain_scouts& scouts, std::int32_t k) {
  const std::int32_t d = scouts.dimensions;
  float* s = &scouts.at[k * d];
  std::vector<double> moment(d, 0.0);
  double weight = 0.0;
  for (std::int32_t j = 0; j < n; j += q) {
    const float* p = &points[j * d];
    const bool beside = d > 1 && std::fabs(p[1] - s[1]) > 3.0f;
    if (beside || std::fabs(p[0] - s[0]) > 3.0f) continue;
    float squared = 0.0f;
    for (std::int32_t c = 0; c < d; ++c) squared += (p[c] - s[c]) * (p[c] - s[c]);
    const auto index = static_cast<std::int64_t>(squared * 500.0f);
    const float w = index <= 10000 ? session.tables.gac_table[index] : 0.0f;
    for (std::int32_t c = 0; c < d; ++c) moment[c] += static_cast<double>((p[c] - s[c]) * w);
    weight += static_cast<double>(w);
  }
  if (weight <= 0.0) {
    scouts.stopped[k] = 1;
    return false;
  }
  const auto f = static_cast<float>(static_cast<double>(session.strategy.gac_gain) / weight);
  double length = 0.0;
  for (std::int32_t c = 0; c < d; ++c) {
    const auto delta = static_cast<float>(moment[c] * static_cast<double>(f));
    s[c] += delta;
    length += static_cast<double>(delta * delta);
  }
  if (std::sqrt(length) < static_cast<double>(stop_step)) ++scouts.stall[k];
  if (scouts.stall[k] > session.strategy.gac_stall_limit) scouts.stopped[k] = 1;
  return scouts.stopped[k] == 0;
}

void relabel(std::int32_t m, std::vector<std::int32_t>& labels) {
  std::vector<std::int32_t> count(m + 1, 0);
  for (const std::int32_t label : labels) count[label] += label <= 10000;
  for (std::int32_t i = 1; i < m; ++i) {
    const auto best = static_cast<std::int32_t>(
        std::max_element(count.begin() + i + 1, count.end()) - count.begin());
    if (count[best] <= count[i]) continue;
    std::swap(count[best], count[i]);
    for (std::int32_t& label : labels) {
      if (label == i) {
        label = best;
      } else if (label == best) {
        label = i;
      }
    }
  }
}

}  // namespace

void plain_gac_stage(const session_state& session, const gac_points& points, std::int32_t s,
                     gac_tables& tables) {
  const sorting_strategy_settings& strategy = session.strategy;
  const auto g = static_cast<float>(std::pow(static_cast<double>(1.1f), s - 1));
  std::vector<float> scaled(points.values.size());
  for (std::size_t i = 0; i < scaled.size(); ++i) scaled[i] = points.values[i] / g;
  const float h = strategy.gac_merge_radius / g * 0.5f;
  plain_scouts scouts{points.n, points.dimensions, scaled, std::vector<char>(points.n, 0),
                      std::vector<std::int32_t>(points.n, 0)};
  std::vector<std::int32_t>& labels = tables.stage_labels[s];
  labels.resize(points.n);
  for (std::int32_t i = 0; i < points.n; ++i) labels[i] = i + 1;
  merge(scouts, h, labels);
  const std::int32_t q = strategy.gac_subsample ? points.n / 5000 + 1 : 1;
  std::int32_t iterations = 0, going = 0;
  do {
    going = 0;
    for (std::int32_t k = 0; k < scouts.m; ++k) {
      if (scouts.stopped[k]) continue;
      going += step(session, scaled, points.n, q, strategy.gac_stop_step / g, scouts, k);
    }
    merge(scouts, h, labels);
    ++iterations;
  } while (going > 0 && iterations < strategy.gac_max_iterations);
  relabel(scouts.m, labels);
  tables.scouts_left[s] = scouts.m;
  tables.iterations[s] = iterations;
}

// ---------------------------------------------------------------- detection

std::vector<trigger> plain_find_triggers(session_state& session, std::int32_t first,
                                         std::int32_t last) {
  std::vector<trigger_test> tests(session.recording.n_channels + 1);
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    tests[c] = make_trigger_test(session, c, false);
  }
  std::vector<trigger> found;
  for (std::int32_t t = first; t <= last; ++t) {
    for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
      if (session.recording.chan_mask[c]) continue;
      if (sample_triggers(tests[c], session.recording.vd.channel(c) + t)) found.push_back({t, c});
    }
  }
  return found;
}

void plain_build_proto_neighbours(const session_state& session, proto_event_table& p) {
  const std::int32_t reach = 10 * session.recording.n_channels;
  std::int64_t end = 0;
  for (std::int32_t i = 1; i <= p.n_proto_events; ++i) {
    const std::int64_t head = ++end;
    for (std::int32_t j = std::max(1, i - reach); j <= std::min(p.n_proto_events, i + reach); ++j) {
      const float dx = p.pe_x0[i] - p.pe_x0[j], dy = p.pe_y0[i] - p.pe_y0[j];
      const double dt = p.pe_t0[i] - p.pe_t0[j];
      if (static_cast<double>(dx * dx + dy * dy) + dt * dt < 6.25) p.pe_table[++end] = j;
    }
    p.pe_table[head] = static_cast<std::int32_t>(end - head);
    p.pe_head[i] = head;
    p.pe_done[i] = end - head <= 1;
  }
}

void plain_cluster_proto_events(const session_state& session, proto_event_table& p) {
  std::int32_t quiet = 0;
  for (p.n_rounds = 0; p.n_rounds < 500 && quiet < 25;) {
    ++p.n_rounds;
    for (std::int32_t i = 1; i <= p.n_proto_events; ++i) {
      if (p.pe_head[i] == 0 || p.pe_done[i]) continue;
      float sx = 0, sy = 0, st = 0, sw = 0;
      for (std::int32_t k = 1; k <= p.pe_table[p.pe_head[i]]; ++k) {
        const std::int32_t j = p.pe_table[p.pe_head[i] + k];
        const float dx = p.pe_x0[j] - p.pe_x[i], dy = p.pe_y0[j] - p.pe_y[i];
        const double dt = p.pe_t0[j] - p.pe_t[i];
        const double scaled = 500.0 * (static_cast<double>(dx * dx + dy * dy) + dt * dt);
        const float w =
            (scaled < 10001.0 ? session.tables.gac_table[static_cast<int>(scaled)] : 0.0f) *
            static_cast<float>(std::abs(int{p.pe_volts[j]}));
        sx += w * dx;
        sy += w * dy;
        st += w * static_cast<float>(dt);
        sw += w;
      }
      const float f = session.detection.pe_step / sw;
      p.pe_x[i] += f * sx;
      p.pe_y[i] += f * sy;
      p.pe_t[i] += static_cast<double>(f * st);
    }
    std::int32_t merges = 0;
    for (std::int32_t i = 1; i <= p.n_proto_events; ++i) {
      for (std::int32_t j = i + 1; j <= std::min(i + 100, p.n_proto_events); ++j) {
        if (p.pe_head[i] == 0) break;
        if (p.pe_head[j] == 0) continue;
        const float dx = p.pe_x[i] - p.pe_x[j], dy = p.pe_y[i] - p.pe_y[j];
        const auto dt = static_cast<float>(p.pe_t[i] - p.pe_t[j]);
        if (!(dx * dx + dy * dy + dt * dt < 0.25f)) continue;
        const std::int32_t old_label = p.pe_label[j];
        p.pe_head[j] = 0;
        p.pe_label[j] = p.pe_label[i];
        for (std::int32_t k = i; k <= std::min(i + 50, p.n_proto_events); ++k) {
          if (p.pe_label[k] == old_label) p.pe_label[k] = p.pe_label[i];
        }
        ++merges;
      }
    }
    quiet = merges == 0 ? quiet + 1 : 0;
  }
}

// ---------------------------------------------------------------- templates

void plain_template_values(const session_state& session, std::int32_t cluster,
                           std::vector<float>& mean, std::vector<float>& sd) {
  const recording_store& r = session.recording;
  std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  const std::int32_t n = thin_event_list(list, session.strategy.template_max_events);
  const std::int32_t points = session.templates.template_points;
  mean.assign(static_cast<std::size_t>(r.n_channels) * points, 0.0f);
  sd.assign(mean.size(), 0.0f);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    std::int64_t sum[template_point_limit] = {}, squares[template_point_limit] = {};
    for (const std::int32_t e : list) {
      std::int32_t p = 0;
      for (std::int32_t k = window_first_sample(session);
           k <= window_last_sample(session) && p < points; ++k, ++p) {
        const float v = interp_voltage(session, session.events.event_time[e] + k, c,
                                       interp_step(session, session.events.event_shift[e]));
        sum[p] = static_cast<std::int64_t>(static_cast<float>(sum[p]) + v);
        squares[p] = static_cast<std::int64_t>(static_cast<float>(squares[p]) + v * v);
      }
    }
    for (std::int32_t p = 0; p < points; ++p) {
      const double exact = static_cast<double>(sum[p]) / n;
      const auto residual =
          static_cast<float>(static_cast<double>(squares[p]) - static_cast<double>(sum[p]) * exact);
      const std::size_t at = static_cast<std::size_t>(c - 1) * points + p;
      mean[at] = static_cast<float>(exact);
      sd[at] = residual <= 0.0f || n < 2 ? 8.0f / r.vscale_HP
                                         : std::sqrt(residual / static_cast<float>(n - 1));
    }
  }
}

namespace {

// Scores of one event at every offset of the multiplicative or rms fit.
std::vector<float> plain_scores(const session_state& session, std::int32_t cluster,
                                std::int32_t event, std::int32_t w, bool multiplicative) {
  const template_table& templates = session.templates;
  const std::int32_t start = window_first_sample(session);
  const std::int32_t step = multiplicative ? 2 : 1;
  std::vector<float> scores;
  for (std::int32_t d = -w; d <= w; ++d) {
    float sum = 0.0f, terms = 0.0f;
    for (std::int32_t k = 1; k <= templates.template_n_channels[cluster]; ++k) {
      const std::int32_t c = templates.channels(cluster)[k];
      for (std::int32_t t = 1; t <= templates.template_points; t += step) {
        const auto v = static_cast<float>(
            session.recording.vd.channel(c)[session.events.event_time[event] + start - 1 + t + d]);
        const float m = templates.mean(cluster, c)[t];
        sum += multiplicative ? v * m : (m - v) * (m - v);
        terms += 1.0f;
      }
    }
    if (multiplicative) {
      sum = -sum;
      if (sum < 0.0f) {
        sum = -std::sqrt(-sum);
      } else if (sum > 0.0f) {
        sum = std::sqrt(sum);
      }
    }
    scores.push_back(sum * session.recording.vscale_HP / terms);
  }
  return scores;
}

float plain_fit(session_state& session, std::int32_t cluster, std::int32_t event, std::int32_t w,
                bool multiplicative) {
  const std::vector<float> all = plain_scores(session, cluster, event, w, multiplicative);
  const float* s = all.data() + w;
  const auto curvature = [&](std::int32_t d) { return 2.0f * s[d] - s[d - 1] - s[d + 1]; };
  std::int32_t best = INT32_MIN;
  for (std::int32_t d = -w + 1; d <= w - 1; ++d) {
    if (!(s[d] < s[d - 1] && s[d] < s[d + 1])) continue;
    if (best == INT32_MIN || (multiplicative ? s[d] < s[best] : curvature(d) < curvature(best))) {
      best = d;
    }
  }
  if (best == INT32_MIN) {
    if (!multiplicative) return 0.0f;
    best = static_cast<std::int32_t>(std::min_element(all.begin(), all.end()) - all.begin()) - w;
    if (best == -w || best == w) return 0.0f;
  }
  const float c = curvature(best);
  const float v =
      c == 0.0f || std::abs(best) >= 50 ? 0.0f : -0.5f * (s[best - 1] - s[best + 1]) / c;
  float u = v + 0.5f / static_cast<float>(session.tables.depth);
  if (u < 0.0f) {
    --best;
    u += 1.0f;
  } else if (u >= 1.0f) {
    ++best;
    u -= 1.0f;
  }
  const float moved = (u - session.events.event_shift[event]) + static_cast<float>(best);
  session.events.event_shift[event] = u;
  session.events.event_time[event] += best;
  return moved;
}

}  // namespace

void plain_align_events(session_state& session, std::int32_t cluster) {
  const bool multiplicative = session.strategy.multiplicative_matching;
  const auto w = std::min(
      50, static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                    session.strategy.realign_window_ms / 1000.0f));
  for (const std::int32_t e : list_cluster_events(session, cluster)) {
    const std::int32_t old_time = session.events.event_time[e];
    std::int32_t calls = 0;
    float moved = 0.0f;
    do {
      moved = plain_fit(session, cluster, e, w, multiplicative);
      ++calls;
    } while (std::fabs(moved) > 0.1f && calls < 5);
    if (calls == 5 || std::fabs(moved) > 0.8f) session.events.event_time[e] = old_time;
  }
}

// ---------------------------------------------------------------- overlap

void plain_status_lists(session_state& session) {
  status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  for_each_column([](auto& list) { list.clear(); }, lists);
  lists.n_kv_pairs = n * (n - 1) / 2;
  for (std::int32_t a = 1, k = 0; a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      ++k;
      lists.kv_templates_dont_overlap[k] = true;
      lists.kv_cluster_overlap[k] = -1.0f;
      lists.kv_n_shift_template[k] = b;
      if (n_common_channels(session, a, b) == 0) continue;
      const pair_shift shift = template_shift(session, a, b, count_cluster_events(session, a),
                                              count_cluster_events(session, b));
      const template_overlap match = templates_dont_overlap(session, a, b, shift);
      lists.kv_template_correlation[k] = match.correlation;
      if (match.dont_overlap) continue;
      lists.kv_templates_dont_overlap[k] = false;
      lists.rms_template_shift[k] = shift.shift;
      lists.kv_n_shift_template[k] = shift.n_shift;
      lists.kv_cluster_overlap[k] = cluster_overlap(session, a, b, n + 1, shift);
    }
  }
}

float plain_doublet_value(const session_state& session, std::int32_t a, std::int32_t b,
                          float window_ms) {
  const event_table& events = session.events;
  const auto span = static_cast<std::int32_t>(static_cast<float>(session.clusters.n_clusters) *
                                              50.0f * window_ms / 1000.0f);
  std::int32_t after = 0, before = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    for (std::int32_t o = 1; o <= events.n_events; ++o) {
      if (events.event_cluster[e] != a || events.event_cluster[o] != b) continue;
      if (std::abs(o - e) > std::max(50, span)) continue;
      const float dt = static_cast<float>(events.event_time[o] - events.event_time[e]) * 1000.0f /
                       static_cast<float>(session.recording.sampling_frequency);
      after += dt <= window_ms && dt > 1.0f;
      before += dt >= -window_ms && dt < -1.0f;
    }
  }
  const std::int32_t channel = session.templates.centre_channel(b);
  const float height_a = template_peak_to_peak(session, a, channel);
  const float height_b = template_peak_to_peak(session, b, channel);
  const float value =
      static_cast<float>(after - before) /
      static_cast<float>(count_cluster_events(session, height_a <= height_b ? a : b));
  return height_a >= height_b ? value : -value;
}

float plain_nearest_neighbour_overlap(const std::vector<float>& xyz, std::int32_t dimensions,
                                      std::int32_t n_a, std::int32_t n_b) {
  const std::int32_t n = n_a + n_b;
  const std::int32_t first = n_a < n_b ? 0 : n_a, last = n_a < n_b ? n_a : n;
  std::int32_t same = 0;
  for (std::int32_t i = first; i < last; ++i) {
    float best = 3.0e38f;
    std::int32_t nearest = -1;
    for (std::int32_t j = 0; j < n; ++j) {
      if (j == i) continue;
      float d = 0.0f;
      for (std::int32_t c = 0; c < std::min(dimensions, 3); ++c) {
        const float x = xyz[j * dimensions + c] - xyz[i * dimensions + c];
        d += x * x;
      }
      if (d < best) {
        best = d;
        nearest = j;
      }
    }
    same += nearest >= first && nearest < last;
  }
  const auto smaller = static_cast<float>(last - first);
  return (1.0f - static_cast<float>(same) / smaller) / (1.0f - smaller / static_cast<float>(n));
}

namespace {

std::vector<float> plain_rows(const session_state& session, const std::vector<pc_point>& points,
                              const std::vector<aligned_event>& events) {
  std::vector<float> rows;
  for (const aligned_event& e : events) {
    for (const pc_point& p : points) {
      rows.push_back(interp_voltage(session, e.time + p.time_offset, p.channel,
                                    interp_step(session, e.shift)));
    }
  }
  return rows;
}

std::vector<float> plain_axes(const std::vector<float>& rows, std::int32_t m) {
  const auto k = static_cast<std::int32_t>(rows.size()) / m;
  std::vector<float> covariance(static_cast<std::size_t>(m) * m);
  for (std::int32_t p = 0; p < m; ++p) {
    for (std::int32_t r = p; r < m; ++r) {
      double sum_p = 0, sum_r = 0, product = 0;
      for (std::int32_t e = 0; e < k; ++e) {
        sum_p += static_cast<double>(rows[e * m + p]);
        sum_r += static_cast<double>(rows[e * m + r]);
        product += static_cast<double>(rows[e * m + p] * rows[e * m + r]);
      }
      covariance[p * m + r] = covariance[r * m + p] =
          static_cast<float>((product - sum_p * sum_r / k) / k);
    }
  }
  const plain_eigen eigen = plain_jacobi(covariance, m);
  std::vector<float> keys(m);
  for (std::int32_t d = 0; d < m; ++d) keys[d] = -std::fabs(eigen.values[d]);
  std::vector<std::int32_t> order(m);
  index_sort(m, keys.data(), order.data());
  std::vector<float> axes(static_cast<std::size_t>(m) * m);
  for (std::int32_t d = 0; d < m; ++d) {
    for (std::int32_t p = 0; p < m; ++p) axes[d * m + p] = eigen.vectors[p * m + order[d] - 1];
  }
  return axes;
}

}  // namespace

float plain_cluster_overlap(session_state& session, std::int32_t a, std::int32_t b,
                            std::int32_t scratch_slot, pair_shift shift) {
  const auto read = [&](std::int32_t cluster) {
    return read_events(session, list_cluster_events(session, cluster), shift.n_shift == cluster,
                       shift.shift);
  };
  const std::vector<aligned_event> events_a = read(a), events_b = read(b);
  const auto n_a = static_cast<std::int32_t>(events_a.size());
  const auto n_b = static_cast<std::int32_t>(events_b.size());
  make_pair_template(session, a, b, shift.shift, shift.n_shift, n_a, n_b, scratch_slot);
  const pc_parameters parameters = pc_parameters_of(session);
  const std::vector<aligned_event> sample = covariance_sample(parameters, events_a, events_b);
  const std::vector<pc_point> points = select_pc_points(session, parameters, scratch_slot, sample);
  const auto m = static_cast<std::int32_t>(points.size());
  const std::vector<float> axes = plain_axes(plain_rows(session, points, sample), m);
  const pair_sample sizes = proportional_sample(n_a, n_b);
  std::vector<aligned_event> test = stride_events(events_a, sizes.n_a);
  const std::vector<aligned_event> rest = stride_events(events_b, sizes.n_b);
  test.insert(test.end(), rest.begin(), rest.end());
  const std::vector<float> rows = plain_rows(session, points, test);
  const std::int32_t d = std::min(parameters.dimensions, 3);
  std::vector<float> projected;
  for (std::size_t e = 0; e < test.size(); ++e) {
    for (std::int32_t axis = 0; axis < d; ++axis) {
      float sum = 0.0f;
      for (std::int32_t p = 0; p < m; ++p) sum += rows[e * m + p] * axes[axis * m + p];
      projected.push_back(sum);
    }
  }
  return plain_nearest_neighbour_overlap(projected, d, sizes.n_a, sizes.n_b);
}

// ---------------------------------------------------------------- data

namespace {

// Roughly normal, from the sum of four uniform numbers.
float noise(vector_random& random, float sd) {
  float sum = 0.0f;
  for (int i = 0; i < 4; ++i) sum += static_cast<float>((random.next() >> 11) % 2048) / 2048.0f;
  return (sum - 2.0f) * 1.732f * sd;
}

}  // namespace

void make_busy_recording(session_state& session, std::int32_t n_channels, std::int32_t n_samples,
                         std::uint32_t seed) {
  make_recording(session, n_channels, n_samples, 25000, 0.25f);
  vector_random random(seed);
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    std::int16_t* v = session.recording.vd.channel(c);
    for (std::int32_t t = 1; t <= n_samples; ++t) {
      v[t] = static_cast<std::int16_t>(noise(random, 24.0f));
    }
  }
  const float shape[] = {0,    0.1f, 0.3f,  0.1f, -0.4f, -0.9f, -1,   -0.7f, -0.2f,
                         0.2f, 0.4f, 0.45f, 0.4f, 0.3f,  0.2f,  0.1f, 0.05f};
  event_table& events = session.events;
  const std::int32_t n_units = n_channels + 2;
  events.n_events = 0;
  for (std::int32_t t = 200; t < n_samples - 200;
       t += 40 + static_cast<int>((random.next() >> 16) % 120)) {
    const auto unit = static_cast<std::int32_t>((random.next() >> 16) % n_units);
    const std::int32_t centre = unit % n_channels + 1;
    // The two extra units share a channel with another but are smaller and wider.
    const float height = (unit < n_channels ? 420.0f + 30.0f * static_cast<float>(unit) : 250.0f) +
                         noise(random, 15.0f);
    const std::int32_t width = unit < n_channels ? 1 : 2;
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      const float gain = height / (1.0f + 2.0f * static_cast<float>(std::abs(c - centre)));
      std::int16_t* v = session.recording.vd.channel(c);
      for (std::int32_t i = 0; i < 17 * width; ++i) {
        v[t - 6 * width + i] = static_cast<std::int16_t>(v[t - 6 * width + i] +
                                                         static_cast<int>(gain * shape[i / width]));
      }
    }
    const std::int32_t e = ++events.n_events;
    events.event_time[e] = t + static_cast<int>((random.next() >> 16) % 3) - 1;
    events.event_shift[e] = static_cast<float>((random.next() >> 16) % 10) / 10.0f;
    events.event_detected_time[e] = events.event_time[e];
    events.event_channel[e] = centre;
    events.event_cluster[e] = unit + 1;
  }
  session.clusters.n_clusters = n_units;
  session.clusters.current_cluster = 1;
}

gac_points make_clouds(std::int32_t n, std::int32_t dimensions, std::uint32_t seed) {
  vector_random random(seed);
  gac_points points;
  points.n = n;
  points.dimensions = dimensions;
  for (std::int32_t i = 0; i < n; ++i) {
    const auto cloud = static_cast<float>((random.next() >> 16) % 7);
    for (std::int32_t d = 0; d < dimensions; ++d) {
      const float centre = d == 0   ? 6.0f * cloud
                           : d == 1 ? 5.0f * static_cast<float>(int(cloud) % 3)
                                    : 2.0f * cloud;
      points.values.push_back(centre + noise(random, 1.0f + 0.3f * cloud));
    }
  }
  return points;
}

}  // namespace kestrelvane::test
