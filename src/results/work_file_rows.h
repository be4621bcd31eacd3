// The layout of the work file: one row per field, in file order.
//
// The writer and the reader walk this table and nothing else. A version holds the
// rows whose span of versions includes it. The stream is little-endian, without
// markers or padding; every element is a 4-byte word except in texts and comments.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <span>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int32_t work_file_version = 8;  // written
constexpr std::int32_t oldest_readable_version = 4;
constexpr std::int64_t work_file_label_length = 24;  // bytes
constexpr std::int64_t work_file_path_length = 256;  // bytes
// In the place of a cluster's number among the comments: the note of an unfinished sort.
constexpr std::int32_t stage_note_number = std::numeric_limits<std::int32_t>::min();
// Likewise: two clusters that are proposed to Guided Merge, and the reason: "3 17 in turn, ...".
constexpr std::int32_t proposal_number = stage_note_number + 1;

// What the number of elements of a row grows with.
enum row_count : std::int32_t {
  per_file,
  per_event,
  per_cluster,
  per_channel,
  per_point,  // of a template
  per_pair,
  per_log_line,
  per_filter,
  n_row_counts,
};

enum class row_form {
  label,          // 24 characters
  text,           // std::string in 256 characters, blank-padded
  counter,        // a count that later rows need; checked before it is stored
  words,          // a contiguous run of 4-byte words
  templates,      // cluster fastest, then channel, then time
  channel_lists,  // for each slot 1..n_channels, every cluster in turn
  positions,      // template_x, template_y of each cluster
  // To the end of the file: length, cluster, text. Of a negative number the text is the label of
  // the unit, by its name; the two numbers above have texts of the sort. Of number 0 it is no text:
  // event_amplitude and event_gain of all events, where the template pass has measured them.
  comments,
};

struct work_file_row {
  const char* name;
  row_form form;
  row_count rule;
  std::int32_t times;  // elements per counted item
  // The string, the counter, the first word, or the table of the templates.
  void* (*first)(session_state& session);
  std::int32_t from_version, to_version;
  bool stored;  // false: the reader passes over it
};

// The counts of one file, indexed by row_count; of[per_file] is 1.
struct work_file_counts {
  std::array<std::int64_t, n_row_counts> of{};
};

std::span<const work_file_row> work_file_rows();

inline bool row_is_in(const work_file_row& row, std::int32_t version) {
  return row.from_version <= version && version <= row.to_version;
}

// Bytes of a row; 0 for comments, which end with the file.
std::int64_t row_bytes(const work_file_row& row, const work_file_counts& counts);

// The counts of the session as it stands.
work_file_counts count_session(const session_state& session);

}  // namespace kestrelvane
