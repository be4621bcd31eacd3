#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "files/safe_file.h"
#include "results/work_file.h"
#include "results/work_file_blocks.h"
#include "results/work_file_rows.h"

namespace kestrelvane {

namespace {

void write_padded(safe_file& out, const std::string& text, std::int64_t length) {
  // A longer path is cut; the reader compares both sides cut.
  std::string padded = text.substr(0, static_cast<std::size_t>(length));
  padded.resize(static_cast<std::size_t>(length), ' ');
  write_text(out, padded);
}

void write_templates(safe_file& out, const session_state& session, const work_file_counts& counts,
                     const table<float>& blocks) {
  template_planes planes = template_planes_of(session, counts);
  for (std::int32_t first = 1; first <= planes.n_points && !out.failed; first += planes.chunk) {
    const std::int32_t n = std::min(planes.chunk, planes.n_points + 1 - first);
    gather_planes(planes, blocks.base(), first, n);
    write_bytes(out, planes.buffer.data(), sizeof(float) * planes.plane_size() * n);
  }
}

// Slots beyond a cluster's count hold what an earlier owner of the slot left, so
// they are written as 0: the file then depends on the sort alone.
void write_channel_lists(safe_file& out, const session_state& session) {
  const std::int32_t n_clusters = session.clusters.n_clusters;
  const template_table& t = session.templates;
  std::vector<std::int32_t> slots(static_cast<std::size_t>(n_clusters));
  for (std::int32_t k = 1; k <= session.recording.n_channels; ++k) {
    for (std::int32_t c = 1; c <= n_clusters; ++c) {
      slots[c - 1] = k <= t.template_n_channels[c] ? t.channels(c)[k] : 0;
    }
    write_bytes(out, slots.data(), sizeof(std::int32_t) * slots.size());
  }
}

void write_positions(safe_file& out, const session_state& session) {
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    write_value(out, session.templates.template_x[c]);
    write_value(out, session.templates.template_y[c]);
  }
}

// Those whose two clusters there still are.
void write_proposals(safe_file& out, const session_state& session) {
  const cluster_table& clusters = session.clusters;
  const auto n = static_cast<std::int32_t>(clusters.proposal_reasons.size());
  for (std::int32_t number = 1; number <= n; ++number) {
    std::vector<std::int32_t> pair;
    for (std::int32_t c = 1; c <= clusters.n_clusters; ++c) {
      if (clusters.cluster_proposal[c] == number) pair.push_back(c);
    }
    if (pair.size() != 2) continue;
    const std::string text =
        fmt::format("{} {} {}", pair[0], pair[1], clusters.proposal_reasons[number - 1]);
    write_value(out, static_cast<std::int32_t>(text.size()));
    write_value(out, proposal_number);
    write_text(out, text);
  }
}

void write_comments(safe_file& out, const session_state& session) {
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const std::string_view comment = session.clusters.cluster_comment[c].view();
    if (comment.empty()) continue;
    write_value(out, static_cast<std::int32_t>(comment.size()));
    write_value(out, c);
    write_text(out, comment);
  }
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const unit_label label = session.clusters.cluster_label[c];
    if (label == unit_label::unsorted) continue;
    const std::string_view name = name_of(label).name;
    write_value(out, static_cast<std::int32_t>(name.size()));
    write_value(out, -c);
    write_text(out, name);
  }
  write_proposals(out, session);
  if (!has_amplitudes(session.events)) return;
  const std::size_t bytes = 4u * static_cast<std::size_t>(session.events.n_events);
  write_value(out, static_cast<std::int32_t>(2 * bytes));
  write_value(out, std::int32_t{0});
  write_bytes(out, session.events.event_amplitude.first(), bytes);
  write_bytes(out, session.events.event_gain.first(), bytes);
}

void write_row(safe_file& out, const session_state& session, const work_file_row& row,
               const work_file_counts& counts) {
  // The reader stores through the same address; here it is only read.
  const void* first =
      row.first == nullptr ? nullptr : row.first(const_cast<session_state&>(session));
  switch (row.form) {
    case row_form::label:
    case row_form::text:
      write_padded(out, *static_cast<const std::string*>(first), row_bytes(row, counts));
      break;
    case row_form::counter:
      write_value(out, static_cast<std::int32_t>(counts.of[row.rule]));
      break;
    case row_form::words:
      write_bytes(out, first, static_cast<std::size_t>(row_bytes(row, counts)));
      break;
    case row_form::templates:
      write_templates(out, session, counts, *static_cast<const table<float>*>(first));
      break;
    case row_form::channel_lists:
      write_channel_lists(out, session);
      break;
    case row_form::positions:
      write_positions(out, session);
      break;
    case row_form::comments:
      write_comments(out, session);
      break;
  }
}

// The words of settings, masks and selections as they are at one moment, by row; empty for other
// rows.
std::vector<std::vector<char>> copy_settings(const session_state& session,
                                             const work_file_counts& counts) {
  std::vector<std::vector<char>> copies;
  const std::lock_guard lock(session.settings_mutex);
  for (const work_file_row& row : work_file_rows()) {
    std::vector<char>& copy = copies.emplace_back();
    const bool set_by_dialogs = row.rule == per_file || row.rule == per_channel;
    if (row.form != row_form::words || !set_by_dialogs || row.first == nullptr) continue;
    // Read only, as in write_row.
    const auto* first = static_cast<const char*>(row.first(const_cast<session_state&>(session)));
    copy.assign(first, first + row_bytes(row, counts));
  }
  return copies;
}

void write_rows(safe_file& out, const session_state& session) {
  // Other threads may be logging, and do nothing else: lines are counted once, so that
  // one added meanwhile cannot tear the file, and wait while theirs are written.
  // In this order: whoever stores a setting may log meanwhile.
  std::unique_lock settings_lock(session.settings_mutex);
  std::unique_lock log_lock(session.log.mutex);
  const work_file_counts counts = count_session(session);
  log_lock.unlock();
  settings_lock.unlock();
  const std::vector<std::vector<char>> settings = copy_settings(session, counts);
  auto copy = settings.begin();
  for (const work_file_row& row : work_file_rows()) {
    const std::vector<char>& words = *copy++;
    // Rows that only older versions had.
    if (!row_is_in(row, work_file_version)) continue;
    if (row.rule == per_log_line) log_lock.lock();
    if (words.empty()) {
      write_row(out, session, row, counts);
    } else {
      write_bytes(out, words.data(), words.size());
    }
    if (log_lock.owns_lock()) log_lock.unlock();
  }
}

// Bytes of a file, or more. Comments, labels and amplitudes have no row that tells.
std::int64_t most_bytes(const session_state& session, const std::string& note) {
  std::unique_lock log_lock(session.log.mutex);
  const work_file_counts counts = count_session(session);
  log_lock.unlock();
  constexpr std::int64_t most_log_lines = log_line_limit;
  std::int64_t sum = 256 * most_log_lines + static_cast<std::int64_t>(note.size()) + 64;
  for (const work_file_row& row : work_file_rows()) sum += row_bytes(row, counts);
  return sum + 8 * counts.of[per_event] + 600 * counts.of[per_cluster];
}

}  // namespace

bool write_work_file(const session_state& session, const std::string& path,
                     const std::string& temporary) {
  session.operation.work_save_busy = true;
  safe_file out;
  if (open_safe_file(out, path, temporary)) write_rows(out, session);
  const bool written = finish_safe_file(out);
  session.operation.work_save_busy = false;
  return written;
}

bool write_work_image(const session_state& session, const std::string& note, work_image& image) {
  image = {};
  image.bytes = std::make_unique<table<char>>(most_bytes(session, note));
  const auto append = [](void* to, const char* bytes, std::size_t n) -> ssize_t {
    work_image& grown = *static_cast<work_image*>(to);
    if (grown.size + n > static_cast<std::size_t>(grown.bytes->capacity())) return 0;
    std::memcpy(grown.bytes->first() + grown.size, bytes, n);
    grown.size += n;
    return static_cast<ssize_t>(n);
  };
  cookie_io_functions_t into_image{};
  into_image.write = append;
  safe_file out;
  out.file = fopencookie(&image, "w", into_image);
  if (out.file == nullptr) return false;
  write_rows(out, session);
  // Where a comment of a cluster would stand that no file has.
  write_value(out, static_cast<std::int32_t>(note.size()));
  write_value(out, stage_note_number);
  write_text(out, note);
  const bool whole = std::fclose(std::exchange(out.file, nullptr)) == 0 && !out.failed;
  if (!whole) image = {};
  return whole;
}

}  // namespace kestrelvane
