#include "recording/channel_masks.h"
#include "session/run_log.h"

#include <fmt/format.h>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "files/text_lines.h"

namespace kestrelvane {

namespace {

constexpr std::size_t mask_column = 6;  // from 0

std::string mask_path(const session_state& session) {
  return replace_extension(session.recording.recording_path, ".msk");
}

}  // namespace

void read_mask_file(session_state& session) {
  recording_store& r = session.recording;
  const std::string path = mask_path(session);
  if (!file_exists(path)) return;
  if (!ask(session, "Read associated mask file (.msk)?", "Channel mask file exists")) return;
  // Channels beyond the end of the file are unmasked, whatever they were before.
  r.chan_mask.clear();
  text_lines lines;
  if (!load_text(lines, path)) return;
  std::string_view line;
  for (std::int32_t c = 1; c <= r.n_channels && next_line(lines, line); ++c) {
    // A line too short for the word masks nothing.
    const char word = line.size() > mask_column ? line[mask_column] : 'F';
    r.chan_mask[c] = word == 'T' || word == 't';
  }
}

bool write_masks(const session_state& session, const std::string& path) {
  const recording_store& r = session.recording;
  safe_file out;
  open_safe_file(out, path);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    write_text(out, fmt::format("{:6}{}\n", c, r.chan_mask[c] ? 'T' : 'F'));
  }
  if (finish_safe_file(out)) return true;
  log_failed_save(session, path);
  return false;
}

bool write_mask_file(const session_state& session) {
  if (!ask(session, "Save/replace mask file (.msk)?", "Channel masks have changed")) return false;
  return write_masks(session, mask_path(session));
}

}  // namespace kestrelvane
