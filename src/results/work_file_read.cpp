#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <sstream>
#include <vector>

#include "results/work_file.h"
#include "results/work_file_blocks.h"
#include "results/work_file_match.h"
#include "results/work_file_rows.h"
#include "results/work_file_settle.h"
#include "results/work_file_source.h"
#include "session/template_window.h"

namespace kestrelvane {

namespace {

// Why a count of the file cannot be right, or an empty text.
std::string count_problem(const session_state& session, row_count rule, std::int64_t n) {
  const auto within = [n](std::int64_t low, std::int64_t high) {
    return n >= low && n <= high ? std::string{}
                                 : fmt::format("is {}, beyond {}..{}", n, low, high);
  };
  switch (rule) {
    case per_event:
      return within(0, event_limit);
    case per_cluster:
      return within(0, session.max_clusters);
    case per_point:
      // Clusters have templates, and those need three points at least.
      return within(session.clusters.n_clusters > 0 ? 3 : 0, template_point_limit);
    case per_pair:
      return within(0, pair_limit);
    case per_log_line:
      return within(0, log_line_limit);
    case per_filter:
      return within(0, filter_history_limit);
    // A sort of other channels cannot be laid over this recording.
    case per_channel:
      if (n == session.recording.n_channels) return {};
      return fmt::format("is {}, but the recording has {} channels", n,
                         session.recording.n_channels);
    case per_file:
    case n_row_counts:
      break;
  }
  return {};
}

bool read_counter(work_file_source& in, session_state& session, const work_file_row& row) {
  std::int32_t value = 0;
  if (!read_bytes(in, &value, sizeof value)) return false;
  const std::string problem = count_problem(session, row.rule, value);
  if (!problem.empty()) return fail(in, problem);
  in.counts.of[row.rule] = value;
  // At once: the rows that follow are as long as it says.
  if (row.stored) *static_cast<std::int32_t*>(row.first(session)) = value;
  if (row.rule == per_point) shorten_template_rows(session);
  return true;
}

bool read_templates(work_file_source& in, const session_state& session, table<float>& blocks) {
  template_planes planes = template_planes_of(session, in.counts);
  if (planes.plane_size() == 0) return true;
  for (std::int32_t first = 1; first <= planes.n_points; first += planes.chunk) {
    const std::int32_t n = std::min(planes.chunk, planes.n_points + 1 - first);
    const std::size_t bytes = sizeof(float) * planes.plane_size() * static_cast<std::size_t>(n);
    if (!read_bytes(in, planes.buffer.data(), static_cast<std::int64_t>(bytes))) return false;
    scatter_planes(planes, blocks.base(), first, n);
  }
  return true;
}

bool read_channel_lists(work_file_source& in, session_state& session) {
  // Both counts were checked when their counters were read.
  const std::int64_t n_clusters = in.counts.of[per_cluster];
  std::vector<std::int32_t> slots(static_cast<std::size_t>(n_clusters));
  for (std::int64_t k = 1; k <= in.counts.of[per_channel]; ++k) {
    if (!read_bytes(in, slots.data(), 4 * n_clusters)) return false;
    for (std::int32_t c = 1; c <= n_clusters; ++c) {
      session.templates.channels(c)[k] = slots[c - 1];
    }
  }
  return true;
}

bool read_positions(work_file_source& in, session_state& session) {
  const std::int64_t n_clusters = in.counts.of[per_cluster];
  std::vector<float> pairs(static_cast<std::size_t>(2 * n_clusters));
  if (!read_bytes(in, pairs.data(), 8 * n_clusters)) return false;
  for (std::int32_t c = 1; c <= n_clusters; ++c) {
    const std::size_t i = static_cast<std::size_t>(2 * (c - 1));
    session.templates.template_x[c] = pairs[i];
    session.templates.template_y[c] = pairs[i + 1];
  }
  return true;
}

// A name that this version does not know says nothing.
void read_label(session_state& session, std::int64_t cluster, std::string_view name) {
  for (const unit_label_name& known : unit_label_names) {
    if (name == known.name) session.clusters.cluster_label[cluster] = known.label;
  }
}

// Amplitudes and gains of all events.
bool read_amplitudes(work_file_source& in, session_state& session, std::int32_t length) {
  const std::int64_t bytes = 4 * in.counts.of[per_event];
  if (length != 2 * bytes) return fail(in, fmt::format("has amplitudes of {} bytes", length));
  return read_bytes(in, session.events.event_amplitude.first(), bytes) &&
         read_bytes(in, session.events.event_gain.first(), bytes);
}

bool read_note(work_file_source& in, session_state& session, std::int32_t length) {
  if (length < 0 || length > remaining(in)) {
    return fail(in, fmt::format("has a note of {} characters", length));
  }
  std::string& note = session.autosort.stage_note;
  note.resize(static_cast<std::size_t>(length));
  return read_bytes(in, note.data(), length);
}

// Words that name no two clusters of the file propose nothing.
void take_proposal(session_state& session, std::int32_t n_clusters, const std::string& words) {
  cluster_table& clusters = session.clusters;
  std::istringstream text(words);
  std::int32_t a = 0, b = 0;
  std::string why;
  text >> a >> b >> std::ws;
  std::getline(text, why);
  const auto is_free = [&](std::int32_t c) {
    return c >= 1 && c <= n_clusters && clusters.cluster_proposal[c] == 0;
  };
  if (a == b || !is_free(a) || !is_free(b) || why.empty()) return;
  clusters.proposal_reasons.push_back(why);
  clusters.cluster_proposal[a] = clusters.cluster_proposal[b] =
      static_cast<std::int32_t>(clusters.proposal_reasons.size());
}

bool read_proposal(work_file_source& in, session_state& session, std::int32_t length) {
  constexpr std::int32_t longest = 1000;  // characters
  if (length < 0 || length > longest || length > remaining(in)) {
    return fail(in, fmt::format("has a proposal of {} characters", length));
  }
  std::string words(static_cast<std::size_t>(length), ' ');
  if (!read_bytes(in, words.data(), length)) return false;
  take_proposal(session, static_cast<std::int32_t>(in.counts.of[per_cluster]), words);
  return true;
}

bool read_comments(work_file_source& in, session_state& session) {
  while (remaining(in) > 0) {
    std::int32_t length = 0, cluster = 0;
    if (!read_bytes(in, &length, 4) || !read_bytes(in, &cluster, 4)) return false;
    if (cluster == stage_note_number) {
      if (!read_note(in, session, length)) return false;
      continue;
    }
    if (cluster == proposal_number) {
      if (!read_proposal(in, session, length)) return false;
      continue;
    }
    if (cluster == 0) {
      if (!read_amplitudes(in, session, length)) return false;
      continue;
    }
    // The length is that of the field in memory; the number becomes a place in the table.
    const std::int64_t number = std::abs(std::int64_t{cluster});
    if (length < 0 || length > 256 || number < 1 || number > in.counts.of[per_cluster]) {
      return fail(in, fmt::format("has {} characters for cluster {}", length, cluster));
    }
    char text[256];
    if (!read_bytes(in, text, length)) return false;
    const std::string_view words(text, static_cast<std::size_t>(length));
    if (cluster > 0) {
      session.clusters.cluster_comment[cluster].assign(words);
    } else {
      read_label(session, number, words);
    }
  }
  return true;
}

bool read_row(work_file_source& in, session_state& session, const work_file_row& row) {
  const std::int64_t bytes = row_bytes(row, in.counts);
  if (row.form == row_form::counter) return read_counter(in, session, row);
  // Before any byte of the row is stored.
  if (bytes > remaining(in)) return fail(in, "ends early");
  if (!row.stored) return pass_over(in, bytes);
  void* first = row.first == nullptr ? nullptr : row.first(session);
  switch (row.form) {
    case row_form::text:
      return read_padded(in, *static_cast<std::string*>(first), bytes);
    case row_form::words:
      return read_bytes(in, first, bytes);
    case row_form::templates:
      return read_templates(in, session, *static_cast<table<float>*>(first));
    case row_form::channel_lists:
      return read_channel_lists(in, session);
    case row_form::positions:
      return read_positions(in, session);
    case row_form::comments:
      return read_comments(in, session);
    case row_form::label:
    case row_form::counter:
      break;
  }
  return true;
}

bool read_rows(work_file_source& in, session_state& session) {
  in.position = 0;
  for (const work_file_row& row : work_file_rows()) {
    // Rows that this version does not have take no bytes of the file.
    if (!row_is_in(row, in.version)) continue;
    std::unique_lock log_lock(session.log.mutex, std::defer_lock);
    if (row.rule == per_log_line) log_lock.lock();
    if (!read_row(in, session, row)) {
      // The name of the row tells where in the file the damage is.
      in.problem = fmt::format("Work file is damaged: {} {}", row.name, in.problem);
      return false;
    }
  }
  return true;
}

// 1 to 8, or 0 for a label that is none.
std::int32_t version_of_label(const std::array<char, work_file_label_length>& label) {
  const std::string_view text(label.data(), label.size());
  // The first version filled its label with a zero and blanks.
  if (text == std::string_view("Kestrelvane work file\0  ", 24)) return 1;
  for (std::int32_t v = 2; v <= work_file_version; ++v) {
    if (text == fmt::format("Kestrelvane work file V{}", v)) return v;
  }
  return 0;
}

bool read_header(work_file_source& in, std::string& saved_path) {
  std::array<char, work_file_label_length> label;
  if (!read_bytes(in, label.data(), work_file_label_length)) {
    in.problem = "Work file ends before its label";
    return false;
  }
  in.version = version_of_label(label);
  if (in.version == 0) return fail(in, "File is not a Kestrelvane work file");
  if (!read_padded(in, saved_path, work_file_path_length)) {
    in.problem = "Work file ends before the name of its recording";
    return false;
  }
  return true;
}

bool read_version(work_file_source& in, session_state& session, const std::string& path) {
  log_message(session, fmt::format("Reading Version {:2} workfile", in.version));
  if (in.version < oldest_readable_version) {
    return fail(in, fmt::format("Work files of version {} are too old to be read", in.version));
  }
  log_message(session, fmt::format("Reading V{} work file {}", in.version, path));
  // Before the first row: what the file spoils comes back from here.
  const kept_settings before = keep_settings(session);
  prepare_for_work_file(session);
  bool read = read_rows(in, session);
  // After a read that failed, too: the settings that came before the fault stay.
  settle_settings(session, before);
  if (read) {
    log_message(session, fmt::format("# of events = {}", session.events.n_events));
    log_message(session, fmt::format("# of clusters = {}", session.clusters.n_clusters));
    const std::string problem = settle_sort(session, in.version);
    read = problem.empty() || fail(in, "Work file is damaged: " + problem);
  }
  if (!read) forget_sort(session, before);
  return read;
}

// Only lengths are looked at, and of the counts whether they can be one.
bool pass_over_row(work_file_source& in, const work_file_row& row) {
  if (row.form != row_form::counter) return pass_over(in, row_bytes(row, in.counts));
  std::int32_t value = 0;
  if (!read_bytes(in, &value, sizeof value) || value < 0) return false;
  in.counts.of[row.rule] = value;
  return true;
}

}  // namespace

bool read_work_file_facts(const std::string& path, work_file_facts& facts) {
  work_file_source in;
  if (!open_source(in, path) || !read_header(in, facts.recording_path)) return false;
  if (in.version < oldest_readable_version) return false;
  in.position = 0;
  for (const work_file_row& row : work_file_rows()) {
    if (row_is_in(row, in.version) && !pass_over_row(in, row)) return false;
    // Their product could not be told from a sensible length.
    if (in.counts.of[per_event] > event_limit || in.counts.of[per_cluster] > cluster_limit ||
        in.counts.of[per_channel] > channel_limit ||
        in.counts.of[per_point] > template_point_limit) {
      return false;
    }
  }
  facts.n_events = static_cast<std::int32_t>(in.counts.of[per_event]);
  facts.n_clusters = static_cast<std::int32_t>(in.counts.of[per_cluster]);
  return true;
}

bool read_work_file(session_state& session, const std::string& path, bool& wrong_file) {
  wrong_file = false;
  work_file_source in;
  std::string saved_path;
  bool read = open_source(in, path) && read_header(in, saved_path);
  if (read && !belongs_to_recording(session, in, saved_path)) {
    wrong_file = in.problem.empty();
    if (!wrong_file) log_message(session, in.problem);
    return false;
  }
  read = read && read_version(in, session, path);
  if (!read) log_message(session, in.problem);
  return read;
}

}  // namespace kestrelvane
