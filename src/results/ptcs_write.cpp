#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "clustering/templates.h"
#include "files/input_file.h"
#include "files/safe_file.h"
#include "results/exports.h"
#include "results/ptcs.h"
#include "results/ptcs_layout.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr const char* box_title = "Save sorted spikes";

// What goes into one file: the whole recording, or an epoch of it.
struct ptcs_stretch {
  std::string_view description = ptcs_description;
  std::int64_t first = 1, last = 0;  // time indices; spike times count from the first
  double days = 0;                   // from the start of the recording to that of the stretch
};

void write_i64(safe_file& out, std::int64_t value) { write_value(out, value); }

void write_padded(safe_file& out, std::string text, std::int64_t bytes) {
  // Cuts as well as pads.
  text.resize(static_cast<std::size_t>(bytes), ' ');
  write_text(out, text);
}

std::vector<std::int32_t> unmasked_channels(const recording_store& r) {
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) channels.push_back(c);
  }
  return channels;
}

// Spike times of every cluster in µs, ascending; element c is cluster c.
std::vector<std::vector<std::int64_t>> list_spike_times(const session_state& session,
                                                        const ptcs_stretch& stretch) {
  const event_table& e = session.events;
  std::vector<std::vector<std::int64_t>> times(
      static_cast<std::size_t>(session.clusters.n_clusters) + 1);
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    const std::int64_t t = e.event_time[i];
    if (e.event_cluster[i] < 1 || t < stretch.first || t > stretch.last) continue;
    times[e.event_cluster[i]].push_back(
        // The first sample of the stretch stands at one step and not at 0; cut to whole µs.
        (t - stretch.first + 1) * 1'000'000 / session.recording.sampling_frequency);
  }
  for (std::vector<std::int64_t>& of_cluster : times) {
    std::sort(of_cluster.begin(), of_cluster.end());
  }
  return times;
}

// Days since 30 December 1899, as the acquisition system counts them; 0 for no date.
double recording_days(const recording_store& r) {
  if (r.record_date[0] == 0) return 0;
  // Days from civil, with March as the first month of the year.
  const std::int32_t month = (r.record_date[1] + 9) % 12;
  const std::int64_t year = r.record_date[0] - (r.record_date[1] <= 2 ? 1 : 0);
  const std::int64_t days = year * 365 + year / 4 - year / 100 + year / 400 +
                            (month * 306 + 5) / 10 + r.record_date[2] - 1;
  constexpr std::int64_t days_to_1899 = 693'899;
  const double seconds = r.record_time[0] + 60.0 * r.record_time[1] + 3600.0 * r.record_time[2];
  return static_cast<double>(days - days_to_1899) + seconds / 86'400;
}

std::string date_text(const recording_store& r) {
  return fmt::format("{:02}/{:02}/{:04} {:02}:{:02}:{:02}", r.record_date[2], r.record_date[1],
                     r.record_date[0], r.record_time[2], r.record_time[1], r.record_time[0]);
}

void write_header(const session_state& session, safe_file& out, const ptcs_stretch& stretch,
                  std::int64_t n_spikes, std::int64_t n_used) {
  const recording_store& r = session.recording;
  write_i64(out, ptcs_version);
  write_i64(out, static_cast<std::int64_t>(stretch.description.size()) + 1);
  write_text(out, stretch.description);
  write_value(out, '\0');
  write_i64(out, session.clusters.n_clusters);
  write_i64(out, n_spikes);
  write_i64(out, ptcs_sample_bytes);
  write_i64(out, r.sampling_frequency);
  write_i64(out, ptcs_text_bytes);
  write_padded(out, "", ptcs_text_bytes);
  write_i64(out, r.n_channels);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    write_value(out, static_cast<double>(r.chan_x[c]));
    write_value(out, static_cast<double>(r.chan_y[c]));
  }
  write_i64(out, n_used);
  const std::string path = source_file_path(session);
  // Whole words of eight bytes, with one blank at the end at least.
  const std::int64_t path_bytes = (static_cast<std::int64_t>(path.size()) / 8 + 1) * 8;
  write_i64(out, path_bytes);
  write_padded(out, path, path_bytes);
  write_value(out, recording_days(r) + stretch.days);
  write_i64(out, ptcs_date_bytes);
  write_padded(out, date_text(r), ptcs_date_bytes);
}

// Mean or deviation on every unmasked channel, time fastest, in µV.
void write_waveforms(const session_state& session, safe_file& out, std::int32_t cluster,
                     const std::vector<std::int32_t>& used, bool of_mean) {
  const template_table& t = session.templates;
  const float scale = session.recording.vscale_HP;
  write_i64(out, std::int64_t{t.template_points} * static_cast<std::int64_t>(used.size()));
  std::vector<float> row(static_cast<std::size_t>(t.template_points));
  for (const std::int32_t c : used) {
    const float* values = of_mean ? t.mean(cluster, c) : t.sd(cluster, c);
    for (std::size_t p = 0; p < row.size(); ++p) row[p] = values[p + 1] * scale;
    write_bytes(out, row.data(), row.size() * sizeof(float));
  }
}

void write_unit(const session_state& session, safe_file& out, std::int32_t cluster,
                const std::vector<std::int32_t>& used, const std::vector<std::int64_t>& times) {
  const template_table& t = session.templates;
  const float scale = session.recording.vscale_HP;
  const std::string comment(session.clusters.cluster_comment[cluster].view());
  // A template that is flat on every channel has no centre.
  const std::int32_t centre = std::max(t.centre_channel(cluster), 1);
  const float noise = template_sd_rms(session, cluster);
  const float peak = template_peak_to_peak(session, cluster, centre);
  write_i64(out, cluster);
  write_i64(out, static_cast<std::int64_t>(comment.size()));
  write_text(out, comment);
  // -1 stands for none.
  write_value(out, noise > 0 ? peak / noise : -1.0f);
  write_value(out, noise * scale);
  for (const float place : {t.template_x[cluster], t.template_y[cluster], t.template_z[cluster]}) {
    write_value(out, static_cast<double>(place));
  }
  write_i64(out, static_cast<std::int64_t>(used.size()));
  for (const std::int32_t c : used) write_i64(out, c - 1);
  write_i64(out, centre - 1);
  write_i64(out, t.template_points);
  write_waveforms(session, out, cluster, used, true);
  write_waveforms(session, out, cluster, used, false);
  write_i64(out, static_cast<std::int64_t>(times.size()));
  write_bytes(out, times.data(), times.size() * sizeof(std::int64_t));
}

bool write_stretch(const session_state& session, const std::string& path,
                   const ptcs_stretch& stretch) {
  const std::vector<std::int32_t> used = unmasked_channels(session.recording);
  const std::vector<std::vector<std::int64_t>> times = list_spike_times(session, stretch);
  std::int64_t n_spikes = 0;
  for (const std::vector<std::int64_t>& of_cluster : times) {
    n_spikes += static_cast<std::int64_t>(of_cluster.size());
  }
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  write_header(session, out, stretch, n_spikes, static_cast<std::int64_t>(used.size()));
  const std::int32_t n_clusters = session.clusters.n_clusters;
  for (std::int32_t c = 1; c <= n_clusters && !out.failed; ++c) {
    write_unit(session, out, c, used, times[c]);
    set_progress(session, meter::saving, 20 + 60 * c / n_clusters, 100);
  }
  return finish_safe_file(out);
}

// --- epochs

ptcs_stretch stretch_of_epoch(const recording_store& r, std::int32_t epoch) {
  constexpr double seconds_per_day = 86'400;
  ptcs_stretch stretch;
  stretch.description = ptcs_epoch_description;
  stretch.first = r.epoch_first_index[epoch];
  // Without the blank second that separates the epochs in memory.
  stretch.last = stretch.first + r.epoch_samples[epoch] - 1;
  // Stamps of epochs are in seconds.
  stretch.days = static_cast<double>(r.epoch_start[epoch] - r.epoch_start[1]) / seconds_per_day;
  return stretch;
}

// A name that a folder can hold, and that no earlier epoch has.
std::string file_stem(const recording_store& r, std::int32_t epoch) {
  const auto plain = [&r](std::int32_t e) {
    std::string name = r.epoch_name[e].empty() ? fmt::format("epoch_{}", e) : r.epoch_name[e];
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
  };
  const std::string stem = plain(epoch);
  for (std::int32_t e = 1; e < epoch; ++e) {
    if (plain(e) == stem) return fmt::format("{}_{}", stem, epoch);
  }
  return stem;
}

// Digital values of the epoch as pairs of time stamp and value, the facts of the epoch, and
// the scripts of its stimuli.
bool write_stimulus_files(const session_state& session, const std::string& stem,
                          std::int32_t epoch) {
  const recording_store& r = session.recording;
  const std::int64_t rate = r.sampling_frequency;
  const std::int64_t begin = (r.epoch_first_index[epoch] - 1) * 1'000'000 / rate;
  const std::int64_t end = begin + r.epoch_samples[epoch] * 1'000'000 / rate;
  const auto inside = [&](std::int64_t timestamp) { return timestamp >= begin && timestamp < end; };
  safe_file values, facts, scripts;
  bool good = open_safe_file(values, stem + ".din") && open_safe_file(facts, stem + ".stt") &&
              open_safe_file(scripts, stem + ".textheader");
  if (!good) return false;
  for (const digital_value& v : r.stimulus.digital_values) {
    if (!inside(v.timestamp)) continue;
    write_i64(values, v.timestamp);
    write_i64(values, v.value);
  }
  write_text(facts,
             fmt::format("epoch {}\ncode {}{}\nstart {}\nsamples {}\nsampling frequency {}\n",
                         epoch, r.epoch_code[epoch][0], r.epoch_code[epoch][1],
                         r.epoch_start[epoch], r.epoch_samples[epoch], rate));
  for (const stimulus_header& header : r.stimulus.headers) {
    if (inside(header.timestamp)) write_text(scripts, header.script + "\n");
  }
  // All three are closed, also after one has failed.
  for (safe_file* file : {&values, &facts, &scripts}) good = finish_safe_file(*file) && good;
  return good;
}

bool export_epochs(const session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  std::error_code ignored;
  std::string folder = std::filesystem::is_directory(path, ignored) ? path + "/" : folder_of(path);
  std::int32_t n_saved = 0;
  for (std::int32_t e = 1; e <= r.n_epochs; ++e) {
    const std::string stem = file_stem(r, e);
    const std::string target = folder + stem + ".ptcs";
    if (file_exists(target) && !ask(session, target + "\nReplace it?", "File already exists")) {
      continue;
    }
    log_message(session,
                fmt::format("Exporting {} from epoch {} to directory {}", stem, e, folder));
    if (!write_stretch(session, target, stretch_of_epoch(r, e)) ||
        !write_stimulus_files(session, folder + stem + "_exp_", e)) {
      tell(session, "Error saving file " + why_not_saved(target), box_title);
      return false;
    }
    ++n_saved;
  }
  tell(session, fmt::format("Spike data from {} recording epochs saved", n_saved), box_title,
       box_icon::information);
  return true;
}

}  // namespace

bool export_ptcs(const session_state& session, const std::string& path) {
  // One file per epoch, so that times of each count from its own start.
  if (session.recording.n_epochs > 1) return export_epochs(session, path);
  ptcs_stretch whole;
  whole.last = session.recording.n_samples;
  if (!write_stretch(session, path, whole)) {
    tell(session, "Error saving file " + why_not_saved(path), box_title);
    return false;
  }
  tell(session, fmt::format("Spike data from {} units saved", session.clusters.n_clusters),
       box_title, box_icon::information);
  return true;
}

}  // namespace kestrelvane
