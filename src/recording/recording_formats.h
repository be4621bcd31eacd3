// The format table: one row per recording format.
//
// Classification, the open dialog, the worker and the batch command read these rows
// and nothing else.
//
// Contract of a reader. It is called on the worker with what was asked for and the session
// empty (reset_session) but for file_type, and may log and drive meter::reading up to 100 of
// 115. It fills n_channels, n_samples, sampling_frequency, vscale_HP, positions, electrode_type
// and is_continuous, allocates vd and templates (storage.h, or for itself), and leaves in vd
// bits at time index 1 and on. It writes no setting: what the file demands of one it leaves in
// recording_store. Distance tables, row distance and, where the file has none, the display
// order are made by the worker afterwards, and so are the templates of clusters it brings. It
// tests every count of the file against limits and the file's size before it allocates or
// loops. It returns false after saying why; what it has filled by then the worker resets, and
// the row's failure text follows.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

using recording_reader = bool (*)(session_state& session, const recording_request& request);

// What the worker does about an electrode configuration before it calls a reader. The
// reader finds the outcome in no_config_file, channel_map and n_mapped_channels.
enum class config_use {
  none,     // the file carries positions, or the reader looks for itself
  wanted,   // one is looked for; the reader goes on without
  asked,    // likewise, and the user may give up when there is none
  offered,  // as asked, but one that merely lies beside the recording needs the user's Yes
};

// What sets few formats apart.
struct format_habits {
  bool one_tetrode = false;          // waveforms of a single tetrode, which displays suit
  bool is_container = false;         // a tree, in which the user walks to the samples
  bool announces_templates = false;  // the log tells when templates of its clusters are made
  bool reads_mask_file = true;       // masks beside the recording are taken
};

// How every file of a format begins, as far as that can be told from its first bytes.
struct format_beginning {
  std::int64_t least_bytes = 1;                 // of its fixed header
  std::array<std::string_view, 3> labels = {};  // one of them stands first; none: no telling
};

struct recording_format {
  std::int32_t code;         // file_type_code
  const char* extensions;    // lower case, separated by blanks; '#' is a digit from 1 to 9
  const char* filter_label;  // in the open dialog, as "Label(*.EXT)"
  const char* banner;        // logged before the read; "" for none
  recording_reader read;     // null: not supported yet
  const char* failure_text;  // box after a failed read; "" for none
  const char* failure_title;
  config_use configuration;
  // The path that the reader leaves for what the recording goes by from then on; null: the
  // path that was opened.
  std::string recording_store::*source_path = nullptr;
  format_habits habits = {};
  format_beginning begins = {};
};

// In the order in which extensions are tested.
std::span<const recording_format> recording_formats();

// The row of a code; null for 0 or an unknown one.
const recording_format* find_recording_format(std::int32_t code);

// Those of the recording in memory; the usual ones without it.
format_habits habits_of(const recording_store& recording);

// Why a file cannot be one of the format, as words that follow its name ("is empty"); empty when
// it may be one. Reads its first bytes only.
std::string why_no_such_file(const recording_format& format, const std::string& path);

// Code for the extension of a path, wholly in upper or wholly in lower case; mixed case
// counts only with any_case. 0 for none of the table's.
std::int32_t classify_extension(std::string_view path, bool any_case = false);

}  // namespace kestrelvane
