#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "clustering/membership.h"
#include "files/input_file.h"
#include "results/ptcs.h"
#include "session/run_log.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

// The file, field by field. A field that is not there, or a count that the rest of the
// file cannot hold, sets failed.
struct ptcs_reading {
  const input_file& file;
  std::int64_t at = 0;
  bool failed = false;

  template <typename T>
  T take() {
    T value{};
    failed = failed || !read_at(file, at, &value, sizeof value);
    at += sizeof value;
    return value;
  }
  std::int64_t take_i64() { return take<std::int64_t>(); }
  // A count of elements of so many bytes that follow.
  std::int64_t take_count(std::int64_t element_bytes) {
    const std::int64_t n = take_i64();
    // Divided and not multiplied: no count can overflow the test.
    if (n < 0 || n > (file.size - std::min(at, file.size)) / element_bytes) failed = true;
    return failed ? 0 : n;
  }
  template <typename T>
  std::vector<T> take_array(std::int64_t n) {
    std::vector<T> values(static_cast<std::size_t>(failed ? 0 : n));
    const auto bytes = static_cast<std::int64_t>(values.size() * sizeof(T));
    failed = failed || !read_at(file, at, values.data(), bytes);
    at += bytes;
    return values;
  }
  std::string take_text() {
    const std::vector<char> text = take_array<char>(take_count(1));
    // Writers pad with zeros or with blanks.
    std::string trimmed(text.begin(), std::find(text.begin(), text.end(), '\0'));
    trimmed.resize(trimmed.find_last_not_of(' ') + 1);
    return trimmed;
  }
};

struct ptcs_header {
  std::int64_t version = 0, n_units = 0, n_sites = 0;
  std::string source;
};

struct ptcs_unit {
  std::string comment;
  double x = 0, y = 0, z = 0;
  std::vector<std::int64_t> channels;  // from 0
  std::int64_t centre = 0, n_points = 0;
  std::vector<float> mean, sd;      // µV, channel by channel
  std::vector<std::int64_t> times;  // µs
};

bool read_header(ptcs_reading& in, ptcs_header& header) {
  header.version = in.take_i64();
  in.take_text();  // description
  header.n_units = in.take_i64();
  in.take_i64();  // spikes
  in.take_i64();  // bytes of a sample
  in.take_i64();  // sample rate
  in.take_text();
  // Two coordinates to a site, of eight bytes each.
  header.n_sites = in.take_count(16);
  in.at += 16 * header.n_sites;
  in.take_i64();  // used channels
  header.source = in.take_text();
  in.take<double>();  // start
  in.take_text();     // date
  return !in.failed && header.version >= 1 && header.version <= 3 && header.n_units >= 0;
}

// The count in front of a waveform block. In version 1 bytes may stand in the place of
// elements.
bool take_waveform_count(const session_state& session, ptcs_reading& in, const ptcs_header& header,
                         std::int64_t expected) {
  const std::int64_t told = in.take_i64();
  if (told == expected) return !in.failed;
  if (header.version != 1 || told != 4 * expected) return false;
  log_message(session, "Correcting error in iformat=1 ptcs file");
  return !in.failed;
}

bool read_unit(const session_state& session, ptcs_reading& in, const ptcs_header& header,
               ptcs_unit& unit) {
  in.take_i64();  // number
  unit.comment = in.take_text();
  in.take<float>();  // signal to noise
  in.take<float>();  // noise
  unit.x = in.take<double>();
  unit.y = in.take<double>();
  unit.z = in.take<double>();
  unit.channels = in.take_array<std::int64_t>(in.take_count(8));
  unit.centre = in.take_i64();
  unit.n_points = in.take_i64();
  const std::int64_t n_sites = session.recording.n_channels;
  // Numbers of channels become places in tables, so none is believed.
  const auto on_probe = [n_sites](std::int64_t c) { return c >= 0 && c < n_sites; };
  if (in.failed || !on_probe(unit.centre) || unit.n_points < 3 ||
      unit.n_points >= template_point_limit ||
      !std::all_of(unit.channels.begin(), unit.channels.end(), on_probe)) {
    return false;
  }
  const std::int64_t expected = unit.n_points * static_cast<std::int64_t>(unit.channels.size());
  // More values than the file can hold.
  if (expected > in.file.size / 4) return false;
  if (!take_waveform_count(session, in, header, expected)) return false;
  unit.mean = in.take_array<float>(expected);
  if (!take_waveform_count(session, in, header, expected)) return false;
  unit.sd = in.take_array<float>(expected);
  unit.times = in.take_array<std::int64_t>(in.take_count(8));
  return !in.failed;
}

// --- into the session

void forget_sort(session_state& session) {
  cluster_table& clusters = session.clusters;
  // It belongs to the sort that goes.
  session.undo.reset();
  session.events.n_events = 0;
  clusters.n_clusters = clusters.current_cluster = clusters.previous_cluster = 0;
  session.lists.n_kv_pairs = 0;
}

void store_template(session_state& session, const ptcs_unit& unit, std::int32_t cluster) {
  template_table& t = session.templates;
  const float scale = session.recording.vscale_HP;
  t.template_x[cluster] = static_cast<float>(unit.x);
  t.template_y[cluster] = static_cast<float>(unit.y);
  t.template_z[cluster] = static_cast<float>(unit.z);
  t.template_n_channels[cluster] = 1;
  t.channels(cluster)[1] = static_cast<std::int32_t>(unit.centre) + 1;
  const auto points = static_cast<std::size_t>(unit.n_points);
  for (std::size_t k = 0; k < unit.channels.size(); ++k) {
    const auto channel = static_cast<std::int32_t>(unit.channels[k]) + 1;
    for (std::size_t p = 0; p < points; ++p) {
      // The file has µV, memory bits. What is no number would spread through everything made from
      // it.
      const float mean = unit.mean[k * points + p] / scale, sd = unit.sd[k * points + p] / scale;
      t.mean(cluster, channel)[p + 1] = std::isfinite(mean) ? mean : 0.0f;
      t.sd(cluster, channel)[p + 1] = std::isfinite(sd) ? sd : 0.0f;
    }
  }
}

// The count of spikes that lie outside the recording and are left out.
std::int64_t append_events(session_state& session, const ptcs_unit& unit, std::int32_t cluster) {
  event_table& e = session.events;
  const recording_store& r = session.recording;
  std::int64_t n_outside = 0;
  for (const std::int64_t us : unit.times) {
    // In 128 bits: a time from a file, times the rate, may leave 64.
    const auto t =
        static_cast<std::int64_t>(static_cast<__int128>(us) * r.sampling_frequency / 1'000'000);
    if (us < 0 || t < 1 || t > r.n_samples || e.n_events == event_limit) {
      ++n_outside;
      continue;
    }
    const std::int32_t i = ++e.n_events;
    e.event_time[i] = e.event_detected_time[i] = static_cast<std::int32_t>(t);
    e.event_shift[i] = 0;
    e.event_channel[i] = static_cast<std::int32_t>(unit.centre) + 1;
    e.event_cluster[i] = cluster;
    e.event_subcluster[i] = 0;
  }
  return n_outside;
}

// Units come one after the other; the rest of the program takes events in order of time.
void sort_events_by_time(session_state& session) {
  event_table& e = session.events;
  std::vector<std::int32_t> order(static_cast<std::size_t>(e.n_events));
  std::iota(order.begin(), order.end(), 1);
  std::stable_sort(order.begin(), order.end(), [&e](std::int32_t a, std::int32_t b) {
    return e.event_time[a] < e.event_time[b];
  });
  permute_events(e, order);
}

void read_units(session_state& session, ptcs_reading& in, const ptcs_header& header) {
  recording_store& r = session.recording;
  std::int64_t n_outside = 0;
  const std::vector<logical> masks(r.chan_mask.first(), r.chan_mask.first() + r.n_channels);
  bool lists_channels = false;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) r.chan_mask[c] = true;
  for (std::int32_t c = 1; c <= header.n_units; ++c) {
    ptcs_unit unit;
    if (!read_unit(session, in, header, unit)) {
      // What was read before the fault stays.
      log_message(session, fmt::format("Error reading unit {} of ptcs file", c));
      break;
    }
    // The first unit sets the window for all.
    if (c == 1) {
      session.templates.template_points = static_cast<std::int32_t>(unit.n_points);
      shorten_template_rows(session);
      log_message(session, fmt::format("n_template_points={}", unit.n_points));
    }
    for (const std::int64_t channel : unit.channels) {
      r.chan_mask[static_cast<std::int32_t>(channel) + 1] = false;
      lists_channels = true;
    }
    // A unit without a spike in this recording would be a cluster without events.
    const std::int32_t cluster = session.clusters.n_clusters + 1;
    const std::int32_t n_before = session.events.n_events;
    n_outside += append_events(session, unit, cluster);
    if (session.events.n_events == n_before) {
      log_message(session, fmt::format("Unit {} has no spikes in this recording", c));
      continue;
    }
    session.clusters.n_clusters = session.clusters.current_cluster = cluster;
    clear_cluster_record(session, cluster);
    session.clusters.cluster_comment[cluster].assign(unit.comment);
    store_template(session, unit, cluster);
    set_progress(session, meter::reading, static_cast<std::int32_t>(100 * c / header.n_units), 115);
  }
  // Without a unit there is nothing to mask by.
  if (!lists_channels) std::copy(masks.begin(), masks.end(), r.chan_mask.first());
  if (n_outside > 0) {
    log_message(session, fmt::format("{} events outside the recording were left out", n_outside));
  }
}

}  // namespace

bool import_ptcs(session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  constexpr const char* title = "Open PTCS File";
  input_file file;
  ptcs_header header;
  ptcs_reading in{file};
  // Nothing of the session is touched before the header has been read whole.
  if (!open_input_file(file, path) || !read_header(in, header)) {
    tell(session, "Error opening file", title);
    return false;
  }
  log_message(session, fmt::format("format in file = {}", header.version));
  log_message(session, "Reading spike times sorted from surf file " + header.source);
  if (header.n_sites != r.n_channels || header.n_units > session.max_clusters) {
    tell(session,
         fmt::format("The file holds {} units on {} sites, the recording has {} channels",
                     header.n_units, header.n_sites, r.n_channels),
         title);
    return false;
  }
  forget_sort(session);
  read_units(session, in, header);
  // After the units, which number their events one after the other.
  sort_events_by_time(session);
  log_message(session, "Finished reading ptcs file");
  note_unsaved(session, unsaved_results::run);
  refresh_displays(session);
  return true;
}

bool import_ptcs_dialog(session_state& session) {
  std::string path;
  return choose_file_to_open(session, "Open PTCS File", "PTCS files(*.PTCS)", path) &&
         import_ptcs(session, path);
}

}  // namespace kestrelvane
