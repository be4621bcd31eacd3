#include "results/phy_folder.h"

#include <fmt/format.h>
#include <cerrno>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <vector>

#include "analysis/unit_quality.h"
#include "clustering/templates.h"
#include "files/input_file.h"
#include "files/npy_file.h"
#include "files/safe_file.h"
#include "files/safe_folder.h"
#include "numerics/jacobi.h"
#include "numerics/parallel.h"
#include "recording/acquisition_facts.h"
#include "results/long_products.h"
#include "results/spike_times.h"
#include "session/run_log.h"
#include "session/template_window.h"
#include "sorting/unit_table.h"

namespace kestrelvane {

namespace {

constexpr const char* box_title = "Save sorted spikes";
constexpr const char* samples_name = "recording.dat";
constexpr std::int32_t n_components = 3;         // principal components per channel
constexpr std::size_t most_local_channels = 12;  // channels with features, per template
constexpr std::size_t most_similar = 16;         // templates that a spike is compared with
constexpr std::size_t most_sample_spikes = 200;  // extracted waveforms per cluster
constexpr std::size_t n_per_piece = 4096;        // rows worked on between two writes
constexpr std::size_t piece_limit = 4 << 20;     // and bytes, but for a single row

// What all files of the folder are made from.
struct phy_export {
  const session_state& session;
  std::string folder;                                 // with its last slash
  std::vector<std::int32_t> channels;                 // unmasked, program numbers
  std::vector<std::int32_t> events;                   // sorted ones in order of time
  std::vector<std::vector<std::int32_t>> local;       // of each template, places in channels
  std::vector<float> similarity;                      // template by template
  std::vector<std::vector<std::int32_t>> neighbours;  // of each template, most similar first
  std::vector<double> components;                     // component, point
  std::vector<double> local_values;                   // template, place in local, point; bits
  std::vector<double> local_squares;                  // of each template: those, squared and summed

  std::size_t n_templates() const { return static_cast<std::size_t>(session.clusters.n_clusters); }
  std::size_t n_points() const {
    return static_cast<std::size_t>(session.templates.template_points);
  }
  std::size_t n_local() const { return std::min(most_local_channels, channels.size()); }
  // The template of a spike, from 0.
  std::size_t template_of(std::int32_t event) const {
    return static_cast<std::size_t>(session.events.event_cluster[event]) - 1;
  }
  // Samples of a spike's window on the channel at a place of channels.
  const std::int16_t* window(std::int32_t event, std::int32_t place) const {
    return session.recording.vd.channel(channels[place]) + session.events.event_time[event] +
           window_first_sample(session);
  }
  // A template on the k-th of its own channels.
  const double* local_template(std::size_t t, std::size_t k) const {
    return local_values.data() + (t * n_local() + k) * n_points();
  }
};

// --- files

template <typename T>
bool write_array(const phy_export& x, const std::string& name, const std::string& type,
                 const std::vector<std::int64_t>& shape, const std::vector<T>& values) {
  safe_file out;
  if (!open_safe_file(out, x.folder + name + ".npy")) return false;
  write_text(out, npy_header_text(type, shape));
  write_bytes(out, values.data(), values.size() * sizeof(T));
  return finish_safe_file(out);
}

// An array of one row per spike or whatever else has numbers, worked out in pieces; fill writes the
// row of one, on several threads by its own choice.
template <typename T>
bool write_rows(const phy_export& x, const std::string& name, const std::string& type,
                const std::vector<std::int64_t>& row_shape,
                const std::vector<std::int32_t>& numbers,
                const std::function<void(std::int32_t number, T* row)>& fill) {
  std::vector<std::int64_t> shape = {static_cast<std::int64_t>(numbers.size())};
  shape.insert(shape.end(), row_shape.begin(), row_shape.end());
  const auto row_size = static_cast<std::size_t>(std::accumulate(
      row_shape.begin(), row_shape.end(), std::int64_t{1}, std::multiplies<std::int64_t>()));
  safe_file out;
  if (!open_safe_file(out, x.folder + name + ".npy")) return false;
  write_text(out, npy_header_text(type, shape));
  std::vector<T> piece;
  const std::size_t per_piece = std::clamp<std::size_t>(
      piece_limit / std::max<std::size_t>(row_size * sizeof(T), 1), 1, n_per_piece);
  for (std::size_t first = 0; first < numbers.size() && !out.failed; first += per_piece) {
    const std::size_t n = std::min(per_piece, numbers.size() - first);
    // Zeros for what fill does not set.
    piece.assign(n * row_size, T{});
    parallel_for(threads_now(x.session), 0, static_cast<std::int64_t>(n) - 1,
                 [&](std::int64_t i, std::int32_t) {
                   const auto row = static_cast<std::size_t>(i);
                   fill(numbers[first + row], piece.data() + row * row_size);
                 });
    write_bytes(out, piece.data(), piece.size() * sizeof(T));
  }
  return finish_safe_file(out);
}

bool write_text_file(const phy_export& x, const std::string& name, const std::string& text) {
  safe_file out;
  if (!open_safe_file(out, x.folder + name)) return false;
  write_text(out, text);
  return finish_safe_file(out);
}

// --- what is derived from the sort

void list_events(phy_export& x) {
  const event_table& e = x.session.events;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] > 0) x.events.push_back(i);
  }
  std::vector<std::int64_t> times(static_cast<std::size_t>(e.n_events) + 1);
  for (const std::int32_t i : x.events) times[i] = clock_sample(x.session, i);
  // Events at one time stay in the order in which they were found.
  std::stable_sort(x.events.begin(), x.events.end(),
                   [&times](std::int32_t a, std::int32_t b) { return times[a] < times[b]; });
}

// A template, from 0, as readers have it: all channels of a point, point by point. Made where it is
// needed, since the templates of thousands of clusters on hundreds of channels are too much to hold
// twice. A line of the cache at a time.
void copy_template(const phy_export& x, std::size_t t, float* row) {
  const std::size_t n_points = x.n_points(), n_channels = x.channels.size();
  constexpr std::size_t at_once = 16;
  const float* means[at_once];
  for (std::size_t first = 0; first < n_channels; first += at_once) {
    const std::size_t n = std::min(at_once, n_channels - first);
    for (std::size_t c = 0; c < n; ++c) {
      means[c] = x.session.templates.mean(static_cast<std::int32_t>(t) + 1, x.channels[first + c]);
    }
    for (std::size_t p = 0; p < n_points; ++p) {
      float* to = row + p * n_channels + first;
      for (std::size_t c = 0; c < n; ++c) to[c] = means[c][p + 1];
    }
  }
}

// The channels on which a template is largest, largest first; of equals the lower.
void list_local_channels(phy_export& x) {
  for (std::size_t k = 0; k < x.n_templates(); ++k) {
    std::vector<float> heights;
    for (const std::int32_t c : x.channels) {
      heights.push_back(template_peak_to_peak(x.session, static_cast<std::int32_t>(k) + 1, c));
    }
    std::vector<std::int32_t> places(x.channels.size());
    std::iota(places.begin(), places.end(), 0);
    // Stable, so that of equals the lower comes first.
    std::stable_sort(places.begin(), places.end(),
                     [&](std::int32_t a, std::int32_t b) { return heights[a] > heights[b]; });
    places.resize(x.n_local());
    x.local.push_back(places);
  }
}

// What spikes are compared with, side by side: in the template's own order two points of a channel
// lie as far apart as there are channels.
void gather_local_templates(phy_export& x) {
  for (std::size_t t = 0; t < x.n_templates(); ++t) {
    double square = 0;
    for (const std::int32_t place : x.local[t]) {
      const float* mean = x.session.templates.mean(static_cast<std::int32_t>(t) + 1,
                                                   x.channels[static_cast<std::size_t>(place)]);
      for (std::size_t p = 0; p < x.n_points(); ++p) {
        const double value = mean[p + 1];
        x.local_values.push_back(value);
        square += value * value;
      }
    }
    x.local_squares.push_back(square);
  }
}

// Cosine of the angle between two templates over all channels.
void compare_templates(phy_export& x) {
  const std::size_t n = x.n_templates();
  const auto copy = [&x](std::size_t t, float* row) { copy_template(x, t, row); };
  x.similarity = find_cosines({n, x.n_points() * x.channels.size(), copy}, threads_now(x.session));
  for (std::size_t a = 0; a < n; ++a) {
    std::vector<std::int32_t> order(n);
    std::iota(order.begin(), order.end(), 0);
    const auto likeness = [&](std::int32_t b) {
      // Above every cosine: a template is most like itself.
      return static_cast<std::size_t>(b) == a ? 2.0f
                                              : x.similarity[a * n + static_cast<std::size_t>(b)];
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](std::int32_t b, std::int32_t c) { return likeness(b) > likeness(c); });
    order.resize(std::min(most_similar, n));
    x.neighbours.push_back(order);
  }
}

// The sign of a direction is arbitrary. Readers weigh the channels of a spike by the part of
// its first component above 0 and take its depth from that, so the waveform that the units
// have in common on their largest channels is given positive parts.
void turn_components(phy_export& x, std::int32_t n) {
  const std::size_t points = x.n_points();
  std::vector<double> common(points);
  for (std::size_t k = 0; k < x.n_templates(); ++k) {
    for (std::size_t p = 0; p < points; ++p) common[p] += x.local_template(k, 0)[p];
  }
  for (std::int32_t component = 0; component < std::min(n_components, n); ++component) {
    double* direction = x.components.data() + static_cast<std::size_t>(component) * points;
    if (std::inner_product(common.begin(), common.end(), direction, 0.0) >= 0) continue;
    std::transform(direction, direction + points, direction, std::negate<>());
  }
}

// The directions in which waveforms of the templates differ most.
void find_components(phy_export& x) {
  const auto n = static_cast<std::int32_t>(x.n_points());
  const std::size_t points = x.n_points();
  std::vector<float> covariance(points * points), values(points), vectors(points * points);
  std::vector<double> sums(points * points);
  for (std::size_t k = 0; k < x.n_templates(); ++k) {
    for (std::size_t c = 0; c < x.n_local(); ++c) {
      const double* values = x.local_template(k, c);
      for (std::size_t p = 0; p < points; ++p) {
        for (std::size_t q = 0; q < points; ++q) sums[p * points + q] += values[p] * values[q];
      }
    }
  }
  const double largest = *std::max_element(sums.begin(), sums.end());
  // Scaled while still in 64 bits; the directions do not depend on it.
  for (std::size_t i = 0; i < sums.size(); ++i) {
    covariance[i] = static_cast<float>(largest > 0 ? sums[i] / largest : 0);
  }
  std::int32_t n_rotations = 0;
  eigen_decomposition(covariance.data(), n, n, values.data(), vectors.data(), n_rotations);
  x.components.assign(vectors.begin(),
                      vectors.begin() + static_cast<long>(points) * std::min(n_components, n));
  turn_components(x, n);
  // A window of fewer points than components has zeros for the rest.
  x.components.resize(static_cast<std::size_t>(n_components) * points);
}

// --- rows of a spike

// How much of each of some templates a spike is, on the template's channels.
std::vector<double> spike_scales(const phy_export& x, std::int32_t event,
                                 const std::vector<std::int32_t>& templates) {
  std::vector<product_chain> chains(templates.size());
  for (std::size_t c = 0; c < x.n_local(); ++c) {
    for (std::size_t k = 0; k < chains.size(); ++k) {
      const auto t = static_cast<std::size_t>(templates[k]);
      chains[k].values = x.local_template(t, c);
      chains[k].samples = x.window(event, x.local[t][c]);
    }
    add_products(chains, static_cast<std::int32_t>(x.n_points()));
  }
  std::vector<double> scales;
  for (std::size_t k = 0; k < chains.size(); ++k) {
    const double square = x.local_squares[static_cast<std::size_t>(templates[k])];
    // A flat template is no measure of anything.
    scales.push_back(square > 0 ? chains[k].sum / square : 0);
  }
  return scales;
}

// The components of a spike on its template's channels: component, channel.
void fill_components(const phy_export& x, std::int32_t event, float* row) {
  std::vector<product_chain> chains;
  for (std::int32_t k = 0; k < n_components; ++k) {
    const double* component = x.components.data() + static_cast<std::size_t>(k) * x.n_points();
    for (const std::int32_t place : x.local[x.template_of(event)]) {
      chains.push_back({component, x.window(event, place)});
    }
  }
  add_products(chains, static_cast<std::int32_t>(x.n_points()));
  for (const product_chain& chain : chains) *row++ = static_cast<float>(chain.sum);
}

bool write_spikes(const phy_export& x) {
  const event_table& e = x.session.events;
  const auto& spikes = x.events;
  return write_rows<std::int64_t>(
             x, "spike_times", "<i8", {}, spikes,
             [&](std::int32_t i, std::int64_t* row) { *row = clock_sample(x.session, i); }) &&
         write_rows<std::int32_t>(
             x, "spike_templates", "<i4", {}, spikes,
             [&](std::int32_t i, std::int32_t* row) { *row = e.event_cluster[i] - 1; }) &&
         write_rows<std::int32_t>(
             x, "spike_clusters", "<i4", {}, spikes,
             [&](std::int32_t i, std::int32_t* row) { *row = e.event_cluster[i]; }) &&
         write_rows<double>(x, "amplitudes", "<f8", {}, spikes, [&](std::int32_t i, double* row) {
           const float matched = e.event_amplitude[i];
           *row = matched != 0.0f ? static_cast<double>(matched)
                                  : spike_scales(x, i, {e.event_cluster[i] - 1})[0];
         });
}

bool write_features(const phy_export& x) {
  const auto n_local = static_cast<std::int64_t>(x.n_local());
  const auto n_templates = static_cast<std::int64_t>(x.n_templates());
  std::vector<std::uint32_t> places, similar;
  const std::size_t n_similar = std::min(most_similar, x.n_templates());
  for (std::size_t t = 0; t < x.n_templates(); ++t) {
    for (const std::int32_t place : x.local[t]) places.push_back(static_cast<std::uint32_t>(place));
    for (const std::int32_t k : x.neighbours[t]) similar.push_back(static_cast<std::uint32_t>(k));
  }
  return write_array(x, "pc_feature_ind", "<u4", {n_templates, n_local}, places) &&
         write_rows<float>(x, "pc_features", "<f4", {n_components, n_local}, x.events,
                           [&](std::int32_t i, float* row) { fill_components(x, i, row); }) &&
         write_array(x, "template_feature_ind", "<u4",
                     {n_templates, static_cast<std::int64_t>(n_similar)}, similar) &&
         write_rows<float>(
             x, "template_features", "<f4", {static_cast<std::int64_t>(n_similar)}, x.events,
             [&](std::int32_t i, float* row) {
               for (const double scale : spike_scales(x, i, x.neighbours[x.template_of(i)])) {
                 *row++ = static_cast<float>(scale);
               }
             });
}

// Up to a few hundred waveforms per cluster, so that views need not go to the samples.
bool write_sample_spikes(const phy_export& x) {
  std::vector<std::vector<std::int64_t>> of_template(x.n_templates());
  for (std::size_t s = 0; s < x.events.size(); ++s) {
    of_template[x.template_of(x.events[s])].push_back(static_cast<std::int64_t>(s));
  }
  std::vector<std::int64_t> chosen;
  for (const std::vector<std::int64_t>& all : of_template) {
    const std::size_t n = std::min(all.size(), most_sample_spikes);
    // Evenly over the recording, as its shape may drift.
    for (std::size_t k = 0; k < n; ++k) chosen.push_back(all[k * all.size() / n]);
  }
  // Readers look spikes up in the order of the spikes.
  std::sort(chosen.begin(), chosen.end());
  std::vector<std::int32_t> events;
  for (const std::int64_t s : chosen) events.push_back(x.events[s]);
  const auto n_local = static_cast<std::int64_t>(x.n_local());
  const auto n_points = static_cast<std::int64_t>(x.n_points());
  return write_array(x, "_phy_spikes_subset.spikes", "<i8",
                     {static_cast<std::int64_t>(chosen.size())}, chosen) &&
         write_rows<std::int64_t>(x, "_phy_spikes_subset.channels", "<i8", {n_local}, events,
                                  [&](std::int32_t i, std::int64_t* row) {
                                    const auto& local = x.local[x.template_of(i)];
                                    std::copy(local.begin(), local.end(), row);
                                  }) &&
         write_rows<float>(x, "_phy_spikes_subset.waveforms", "<f4", {n_points, n_local}, events,
                           [&](std::int32_t i, float* row) {
                             const auto& local = x.local[x.template_of(i)];
                             for (std::size_t c = 0; c < local.size(); ++c) {
                               const std::int16_t* samples = x.window(i, local[c]);
                               for (std::size_t p = 0; p < x.n_points(); ++p) {
                                 row[p * local.size() + c] = samples[p];
                               }
                             }
                           });
}

// --- channels, templates, clusters

std::vector<double> identity(std::size_t n) {
  std::vector<double> matrix(n * n, 0.0);
  for (std::size_t i = 0; i < n; ++i) matrix[i * n + i] = 1.0;
  return matrix;
}

bool write_channels(const phy_export& x) {
  const recording_store& r = x.session.recording;
  const auto n = static_cast<std::int64_t>(x.channels.size());
  std::vector<std::int32_t> places, shanks, probes;
  std::vector<double> positions;
  for (const std::int32_t c : x.channels) {
    // Rows of the samples count from 0, masked channels included.
    places.push_back(c - 1);
    // No tetrode is shank 0.
    shanks.push_back(std::max(r.tetrode_of_channel[c] - 1, 0));
    probes.push_back(0);
    positions.push_back(r.chan_x[c]);
    positions.push_back(r.chan_y[c]);
  }
  // The samples are not whitened, so that the way back is that of no change.
  const std::vector<double> matrix = identity(x.channels.size());
  return write_array(x, "channel_map", "<i4", {n}, places) &&
         write_array(x, "channel_positions", "<f8", {n, 2}, positions) &&
         write_array(x, "channel_shanks", "<i4", {n}, shanks) &&
         write_array(x, "channel_probe", "<i4", {n}, probes) &&
         write_array(x, "whitening_mat", "<f8", {n, n}, matrix) &&
         write_array(x, "whitening_mat_inv", "<f8", {n, n}, matrix);
}

bool write_templates(const phy_export& x) {
  const auto n = static_cast<std::int64_t>(x.n_templates());
  std::vector<std::int32_t> all(x.n_templates());
  std::iota(all.begin(), all.end(), 0);
  return write_rows<float>(x, "templates", "<f4",
                           {static_cast<std::int64_t>(x.n_points()),
                            static_cast<std::int64_t>(x.channels.size())},
                           all,
                           [&](std::int32_t t, float* row) {
                             copy_template(x, static_cast<std::size_t>(t), row);
                           }) &&
         write_array(x, "similar_templates", "<f4", {n, n}, x.similarity);
}

// The columns that the curator sees beside those that readers work out for themselves. "group"
// is the curator's word: there is none of units that nobody has looked at yet.
struct cluster_column {
  const char* name;
  std::string (*cell)(const session_state& session, const unit_row& unit);
};

constexpr cluster_column cluster_columns[] = {
    {"Amplitude",
     [](const session_state&, const unit_row& u) { return fmt::format("{:.1f}", u.peak_to_peak); }},
    // 0 stands for noise that was not measured.
    {"snr",
     [](const session_state&, const unit_row& u) {
       return u.snr > 0 ? fmt::format("{:.2f}", u.snr) : std::string();
     }},
    {"firing_rate",
     [](const session_state&, const unit_row& u) { return fmt::format("{:.3f}", u.rate); }},
    // Distinct from every other unit, or not; not known without lists of pairs.
    {"stability",
     [](const session_state&, const unit_row& u) {
       return std::string(u.status == cluster_status::stable     ? "stable"
                          : u.status == cluster_status::unstable ? "unstable"
                                                                 : "");
     }},
    // Splitting found no more parts in it, which says nothing of its quality.
    {"signed_off",
     [](const session_state& session, const unit_row& u) {
       return std::string(session.clusters.cluster_signed_off[u.cluster] ? "yes" : "no");
     }},
    {"group",
     [](const session_state& session, const unit_row& u) {
       const unit_label label = session.clusters.cluster_label[u.cluster];
       return std::string(label == unit_label::unsorted ? "" : name_of(label).name);
     }},
    {"comment",
     [](const session_state& session, const unit_row& u) {
       std::string comment(session.clusters.cluster_comment[u.cluster].view());
       // A tab would begin another column.
       std::replace(comment.begin(), comment.end(), '\t', ' ');
       return comment;
     }},
};

// One line for every cluster that has a value. Readers stumble over a table without lines:
// there is none then.
std::string file_of_column(const char* column) { return fmt::format("cluster_{}.tsv", column); }

bool write_column(const phy_export& x, const char* column, const std::string& lines) {
  if (lines.empty()) return true;
  return write_text_file(x, file_of_column(column),
                         fmt::format("cluster_id\t{}\n", column) + lines);
}

// Figures of units whose waveforms can be compared with their templates.
bool write_quality(const phy_export& x) {
  std::vector<unit_quality> units;
  if (!templates_are_outdated(x.session)) units = measure_quality(x.session);
  for (const quality_figure& figure : further_quality_figures()) {
    std::string lines;
    for (const unit_quality& unit : units) {
      const double value = unit.*figure.value;
      if (std::isfinite(value)) lines += fmt::format("{}\t{:.6g}\n", unit.unit, value);
    }
    if (!write_column(x, figure.name, lines)) return false;
  }
  return true;
}

bool write_clusters(const phy_export& x) {
  const std::vector<unit_row> units = make_unit_table(x.session);
  for (const cluster_column& column : cluster_columns) {
    std::string lines;
    for (const unit_row& unit : units) {
      const std::string cell = column.cell(x.session, unit);
      if (!cell.empty()) lines += fmt::format("{}\t{}\n", unit.cluster, cell);
    }
    if (!write_column(x, column.name, lines)) return false;
  }
  return write_quality(x);
}

// --- the samples

// All channels, channel fastest, as they are in memory. Stored records end to end are no
// stretch of time that a spike's time could be a place in: readers then show the waveforms of
// the spikes, and no traces.
bool write_samples(const phy_export& x) {
  if (!has_unbroken_time(x.session)) return true;
  const recording_store& r = x.session.recording;
  const auto n_channels = static_cast<std::size_t>(r.n_channels);
  constexpr std::int64_t points_per_piece = 4096;
  std::vector<std::int16_t> piece;
  safe_file out;
  if (!open_safe_file(out, x.folder + samples_name)) return false;
  for (std::int64_t first = 1; first <= r.n_samples && !out.failed; first += points_per_piece) {
    const auto n =
        static_cast<std::size_t>(std::min<std::int64_t>(points_per_piece, r.n_samples - first + 1));
    piece.resize(n * n_channels);
    parallel_for(threads_now(x.session), 1, r.n_channels, [&](std::int64_t c, std::int32_t) {
      const std::int16_t* samples = r.vd.channel(static_cast<std::int32_t>(c)) + first;
      // Each thread writes every n-th value of the piece, so that no two meet.
      std::int16_t* to = piece.data() + (c - 1);
      for (std::size_t p = 0; p < n; ++p) to[p * n_channels] = samples[p];
    });
    write_bytes(out, piece.data(), piece.size() * sizeof(std::int16_t));
    set_progress(x.session, meter::saving, static_cast<std::int32_t>(50 * first / r.n_samples) + 20,
                 100);
  }
  return finish_safe_file(out);
}

bool write_params(const phy_export& x) {
  const recording_store& r = x.session.recording;
  return write_text_file(
      x, "params.py",
      fmt::format("dat_path = {}\nn_channels_dat = {}\n"
                  "dtype = 'int16'\noffset = 0\nsample_rate = {}\n"
                  "hp_filtered = {}\n",
                  has_unbroken_time(x.session) ? fmt::format("'{}'", samples_name) : "[]",
                  r.n_channels, exact_rate(r), r.recording_filtered ? "True" : "False"));
}

// What an earlier sort has left in the folder, where this one does not write it: what was decided
// of its clusters means nothing for these, and its samples may be of another recording.
bool belongs_to_old_sort(const std::string& name) {
  if (name == samples_name || name == "cluster_info.tsv") return true;
  const auto is_of = [&](const auto& column) { return name == file_of_column(column.name); };
  const auto figures = further_quality_figures();
  return std::any_of(std::begin(cluster_columns), std::end(cluster_columns), is_of) ||
         std::any_of(figures.begin(), figures.end(), is_of);
}

bool write_folder(phy_export& x) {
  list_events(x);
  list_local_channels(x);
  gather_local_templates(x);
  compare_templates(x);
  find_components(x);
  // params.py makes a folder of it, so it comes last.
  return write_samples(x) && write_channels(x) && write_templates(x) && write_spikes(x) &&
         write_features(x) && write_sample_spikes(x) && write_clusters(x) && write_params(x);
}

}  // namespace

bool export_phy(const session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  phy_export x{session, path + "/", {}, {}, {}, {}, {}, {}, {}, {}};
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) x.channels.push_back(c);
  }
  if (session.clusters.n_clusters == 0 || x.channels.empty()) {
    tell(session, "There are no clusters to export", box_title);
    return false;
  }
  // What somebody has curated there would be gone.
  if (file_exists(x.folder + "params.py") &&
      !ask(session, path + " holds a sort already. Replace it?", "File already exists")) {
    return false;
  }
  // Asked before the tables are made, which would end the program where there is no room: the
  // likeness of all pairs, and the templates on their own channels.
  const std::size_t of_template =
      sizeof(float) * x.n_templates() + sizeof(double) * x.n_local() * x.n_points();
  const auto bytes = static_cast<std::int64_t>(x.n_templates() * of_template);
  if (!memory_can_hold(bytes)) {
    tell(session, "Not enough memory for the templates of the folder", box_title);
    return false;
  }
  safe_folder out;
  const bool opened = open_safe_folder(out, path);
  x.folder = out.temporary + "/";
  if (!opened || !write_folder(x) || !finish_safe_folder(out, belongs_to_old_sort)) {
    tell(session, "Error saving Phy folder " + why_not_saved(path), box_title);
    return false;
  }
  tell(session, "Phy folder saved", box_title, box_icon::information);
  return true;
}

}  // namespace kestrelvane
