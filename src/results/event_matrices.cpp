#include "results/event_matrices.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>
#include <vector>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "files/input_file.h"
#include "files/npy_file.h"
#include "files/safe_file.h"
#include "files/safe_folder.h"
#include "numerics/parallel.h"
#include "session/template_window.h"
#include "signal/interpolation.h"

namespace kestrelvane {

namespace {

constexpr const char* title = "Export data";

template <typename T>
bool write_npy(const std::string& path, const char* type, const std::vector<std::int64_t>& shape,
               const std::vector<T>& values) {
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  write_text(out, npy_header_text(type, shape));
  write_bytes(out, values.data(), values.size() * sizeof(T));
  return finish_safe_file(out, file_flush::later);
}

bool write_numbers(const std::string& path, const std::vector<std::int32_t>& numbers) {
  return write_npy(path, "<i4", {static_cast<std::int64_t>(numbers.size())}, numbers);
}

// What another sort has left there would be mixed with this one's.
bool may_fill(const session_state& session, const std::string& folder, const char* last) {
  return !file_exists(folder + last) ||
         ask(session, folder + " holds such an export already. Replace it?", "File already exists");
}

bool tell_failure(const session_state& session, const std::string& folder) {
  tell(session, "Error saving folder " + why_not_saved(folder), title);
  return false;
}

// ---------------------------------------------------------------- noise

struct unit_noise {
  std::int32_t unit = 0;
  std::vector<std::int32_t> events, channels;
  std::int64_t points = 0;
  std::int64_t row_size() const { return points * static_cast<std::int64_t>(channels.size()); }
};

// Events at the rims of the recording have no whole waveform.
unit_noise list_noise(const session_state& session, std::int32_t unit,
                      std::span<const std::int32_t> events) {
  const template_table& t = session.templates;
  unit_noise noise{unit, {}, {}, t.template_points};
  const std::int32_t* channels = t.channels(unit) + 1;
  noise.channels.assign(channels, channels + t.template_n_channels[unit]);
  const std::int64_t taps = session.tables.width;
  for (const std::int32_t e : events) {
    const std::int64_t first = std::int64_t{session.events.event_time[e]} + t.first_sample;
    if (first - taps >= 1 && first + t.template_points + taps <= session.recording.n_samples) {
      noise.events.push_back(e);
    }
  }
  return noise;
}

void fill_noise(const session_state& session, const unit_noise& noise, std::int32_t event,
                float* row) {
  const template_table& t = session.templates;
  const std::int64_t first = std::int64_t{session.events.event_time[event]} + t.first_sample;
  const std::int32_t step = interp_step(session, session.events.event_shift[event]);
  for (const std::int32_t channel : noise.channels) {
    const float* mean = t.mean(noise.unit, channel);
    for (std::int32_t p = 1; p <= t.template_points; ++p) {
      const float bits = interp_voltage(session, first + p - 1, channel, step) - mean[p];
      *row++ = bits * session.recording.vscale_HP;
    }
  }
}

void fill_rows(const session_state& session, const unit_noise& noise,
               const std::vector<std::int32_t>& events, std::vector<float>& rows) {
  rows.resize(events.size() * static_cast<std::size_t>(noise.row_size()));
  parallel_for(threads_now(session), 0, static_cast<std::int64_t>(events.size()) - 1,
               [&](std::int64_t i, std::int32_t) {
                 fill_noise(session, noise, events[i], rows.data() + i * noise.row_size());
               });
}

bool write_rows(const session_state& session, const unit_noise& noise, const std::string& path) {
  constexpr std::size_t per_piece = 2048;
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  write_text(out, npy_header_text(
                      "<f4", {static_cast<std::int64_t>(noise.events.size()),
                              static_cast<std::int64_t>(noise.channels.size()), noise.points}));
  std::vector<float> rows;
  for (std::size_t from = 0; from < noise.events.size() && !out.failed; from += per_piece) {
    if (autosort_interrupted(session)) return false;
    const std::size_t to = std::min(noise.events.size(), from + per_piece);
    fill_rows(session, noise,
              {noise.events.begin() + static_cast<std::ptrdiff_t>(from),
               noise.events.begin() + static_cast<std::ptrdiff_t>(to)},
              rows);
    write_bytes(out, rows.data(), rows.size() * sizeof(float));
  }
  return finish_safe_file(out, file_flush::later);
}

// Each row of the matrix on a thread of its own, sums in the order of the events.
bool write_covariance(const session_state& session, const unit_noise& noise,
                      const std::string& path) {
  constexpr std::size_t most = 2000;
  const std::size_t n = std::min(most, noise.events.size());
  std::vector<std::int32_t> events;
  for (std::size_t i = 0; i < n; ++i) events.push_back(noise.events[i * noise.events.size() / n]);
  std::vector<float> rows;
  fill_rows(session, noise, events, rows);
  const std::int64_t size = noise.row_size();
  std::vector<float> covariance(static_cast<std::size_t>(size * size));
  parallel_for_dealt(threads_now(session), 0, size - 1, [&](std::int64_t k, std::int32_t) {
    std::vector<double> sums(static_cast<std::size_t>(size));
    for (std::size_t e = 0; e < n; ++e) {
      const float* row = rows.data() + static_cast<std::int64_t>(e) * size;
      for (std::int64_t j = 0; j < size; ++j) sums[j] += double{row[k]} * double{row[j]};
    }
    for (std::int64_t j = 0; j < size; ++j) {
      covariance[k * size + j] = static_cast<float>(sums[j] / static_cast<double>(n));
    }
  });
  return write_npy(path, "<f4", {size, size}, covariance);
}

bool write_unit_noise(const session_state& session, const unit_noise& noise,
                      const std::string& folder) {
  const std::string stem = fmt::format("{}/noise_unit_{}", folder, noise.unit);
  return write_rows(session, noise, stem + ".npy") &&
         write_numbers(stem + "_events.npy", noise.events) &&
         write_numbers(stem + "_channels.npy", noise.channels) &&
         write_covariance(session, noise, stem + "_covariance.npy");
}

// False, without words, when it was stopped between two of n items.
bool goes_on(const session_state& session, std::int32_t item, std::int32_t n) {
  set_progress(session, meter::saving, 100 * item / n, 100);
  if (!autosort_interrupted(session)) return true;
  log_message(session, "The export was interrupted");
  return false;
}

}  // namespace

bool has_matrices(const session_state& session) {
  if (session.clusters.n_clusters == 0) {
    tell(session, "There are no clusters to export", title);
    return false;
  }
  if (!templates_are_outdated(session)) return true;
  tell(session, "Templates are those of another spike window: recalculate them first", title);
  return false;
}

bool write_event_noise(const session_state& session, const std::string& folder) {
  if (!has_matrices(session) || !may_fill(session, folder, "/units.npy")) return false;
  safe_folder out;
  if (!open_safe_folder(out, folder)) return tell_failure(session, folder);
  cluster_event_lists lists;
  list_all_events(session, lists);
  std::vector<std::int32_t> units;
  const std::int32_t n = session.clusters.n_clusters;
  for (std::int32_t c = 1; c <= n; ++c) {
    if (!goes_on(session, c - 1, n)) return false;
    const unit_noise noise = list_noise(session, c, lists.of(c));
    if (noise.events.empty() || noise.channels.empty()) continue;
    if (!write_unit_noise(session, noise, out.temporary)) {
      return goes_on(session, c, n) && tell_failure(session, folder);
    }
    units.push_back(c);
  }
  const auto is_of_earlier = [](const std::string& name) {
    return name.starts_with("noise_unit_");
  };
  if (!write_numbers(out.temporary + "/units.npy", units) ||
      !finish_safe_folder(out, is_of_earlier, file_flush::later)) {
    return tell_failure(session, folder);
  }
  set_progress(session, meter::saving, 100, 100);
  tell(session, fmt::format("Event noise of {} units saved", units.size()), title,
       box_icon::information);
  return true;
}

bool write_feature_matrices(const session_state& session, const std::string& folder) {
  if (!has_matrices(session) || !may_fill(session, folder, "/clusters.npy")) return false;
  safe_folder out;
  if (!open_safe_folder(out, folder)) return tell_failure(session, folder);
  cluster_event_lists lists;
  list_all_events(session, lists);
  std::vector<std::int32_t> events, clusters;
  std::vector<float> features;
  const std::int64_t dimensions = pc_parameters_of(session).dimensions;
  const std::int32_t n = session.clusters.n_clusters;
  for (std::int32_t c = 1; c <= n; ++c) {
    if (!goes_on(session, c - 1, n)) return false;
    const std::span<const std::int32_t> list = lists.of(c);
    gac_points points;
    if (!list.empty()) cluster_pc_values(session, c, points);
    events.insert(events.end(), list.begin(), list.end());
    clusters.insert(clusters.end(), list.size(), c);
    features.insert(features.end(), points.values.begin(), points.values.end());
  }
  const auto n_events = static_cast<std::int64_t>(events.size());
  const auto none_goes = [](const std::string&) { return false; };
  if (!write_npy(out.temporary + "/features.npy", "<f4", {n_events, dimensions}, features) ||
      !write_numbers(out.temporary + "/events.npy", events) ||
      !write_numbers(out.temporary + "/clusters.npy", clusters) ||
      !finish_safe_folder(out, none_goes, file_flush::later)) {
    return tell_failure(session, folder);
  }
  set_progress(session, meter::saving, 100, 100);
  tell(session, fmt::format("Features of {} events saved", n_events), title, box_icon::information);
  return true;
}

}  // namespace kestrelvane
