#include "session/run_log.h"
#include "files/safe_file.h"

#include <fmt/format.h>
#include <cerrno>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

#include "session/session_state.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t wrap_after = 100;
constexpr std::int64_t longest_line = 256;
constexpr std::int32_t most_wrapped_lines = 5;

std::string_view without_trailing_blanks(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// Where the line that starts at 0 ends: the first blank or NUL after 100
// characters, 256 at the latest. A character of several bytes is not torn.
std::size_t line_end(std::string_view text) {
  if (text.size() <= wrap_after) return text.size();
  std::size_t end = text.find_first_of(std::string_view(" \0", 2), wrap_after);
  if (end == std::string_view::npos) end = text.size();
  if (end <= longest_line) return end;
  end = longest_line;
  while (end > wrap_after && (static_cast<unsigned char>(text[end]) & 0xC0u) == 0x80u) --end;
  return end;
}

struct wrapped_text {
  std::array<std::string_view, most_wrapped_lines> lines;
  std::int32_t n_lines = 0;
};

wrapped_text wrap(std::string_view text) {
  wrapped_text wrapped;
  // At least once, as an empty message is an empty line in the log and not nothing.
  do {
    const std::size_t end = line_end(text);
    wrapped.lines[wrapped.n_lines++] = text.substr(0, end);
    const bool at_break = end < text.size() && (text[end] == ' ' || text[end] == '\0');
    text.remove_prefix(at_break ? end + 1 : end);
  } while (!text.empty() && wrapped.n_lines < most_wrapped_lines);
  return wrapped;
}

// Adds lines to the ring; the oldest make room.
void add_to_ring(run_log_table& log, const std::string_view* lines, std::int32_t n) {
  const std::int32_t excess = log.n_log_lines + n - log_line_limit;
  if (excess > 0) {
    // Moved and not turned as a ring would be: line 1 stays the oldest for all who read them, and a
    // message is rare beside what the move costs.
    std::memmove(log.log_lines.first(), log.log_lines.first() + excess,
                 static_cast<std::size_t>(log.n_log_lines - excess) * sizeof(text256));
    log.n_log_lines -= excess;
  }
  for (std::int32_t i = 0; i < n; ++i) log.log_lines[log.n_log_lines + 1 + i].assign(lines[i]);
  log.n_log_lines += n;
}

std::string local_time(const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

// The window shows the lines of the ring as well, by the time of day: when something went wrong
// at night is asked in the morning.
void tell_run_log_window(const session_state& session, const wrapped_text& wrapped) {
  if (session.ui.run_log_window == nullptr || wrapped.lines[0].empty()) return;
  const std::string time = local_time("%H:%M:%S  ");
  for (std::int32_t i = 0; i < wrapped.n_lines; ++i) {
    write_run_log_window(session, time + std::string(wrapped.lines[i]));
  }
}

// The recording's path with its extension replaced by date and time.
std::string log_path(const std::string& recording_path) {
  const std::size_t slash = recording_path.find_last_of('/');
  const std::size_t dot = recording_path.find_last_of('.');
  const bool has_extension =
      dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
  return fmt::format("{}_{}.log", recording_path.substr(0, has_extension ? dot : std::string::npos),
                     local_time("%Y-%m-%d_%H-%M"));
}

}  // namespace

std::int32_t count_log_lines(const session_state& session) {
  const std::lock_guard lock(session.log.mutex);
  return session.log.n_log_lines;
}

void log_message(const session_state& session, std::string_view text) {
  run_log_table& log = session.log;
  text = without_trailing_blanks(text);
  const wrapped_text wrapped = wrap(text);
  bool listed = false;
  {
    std::lock_guard lock(log.mutex);
    // Read with the lock that adds the lines: a dialog that opens in between would have them
    // from the ring and once more from here.
    listed = log.messages_dialog_open;
    add_to_ring(log, wrapped.lines.data(), wrapped.n_lines);
    // Whether it is wanted is settled by who opens and closes it: the preference is the dialog's,
    // and any thread logs.
    if (log.log_file_open && log.log_file != nullptr) {
      // Flushed at once: the log is wanted most after a crash. Errors are ignored.
      std::fwrite(text.data(), 1, text.size(), log.log_file);
      std::fputc('\n', log.log_file);
      std::fflush(log.log_file);
    }
  }
  // Outside the lock: a listener may wait for a thread that is logging itself.
  tell_run_log_window(session, wrapped);
  const user_interface& ui = session.ui;
  if (!listed || ui.log_line == nullptr) return;
  for (std::int32_t i = 0; i < wrapped.n_lines; ++i) {
    ui.log_line(ui.context, wrapped.lines[i]);
  }
}

void log_line(const session_state& session, std::string_view text) {
  std::lock_guard lock(session.log.mutex);
  add_to_ring(session.log, &text, 1);
}

void write_run_log_window(const session_state& session, std::string_view text) {
  const user_interface& ui = session.ui;
  if (ui.run_log_window != nullptr) ui.run_log_window(ui.context, text);
}

std::string log_failed_save(const session_state& session, const std::string& path) {
  const int error = errno;
  std::string words = "Failed to save file " + why_not_saved(path);
  log_message(session, words);
  errno = error;
  return words;
}

bool log_timing(const session_state& session) {
  return session.preferences.verbose_log && !session.log.short_menu;
}

void report_failed_check(const session_state& session, std::int32_t number) {
  write_run_log_window(session, fmt::format("Failed check {}", number));
}

void open_log_file(session_state& session) {
  run_log_table& log = session.log;
  close_log_file(session);
  const std::string path = log_path(session.recording.recording_path);
  // Appending keeps the log of a run that began in the same minute.
  std::FILE* file = std::fopen(path.c_str(), "a");
  if (file == nullptr) {
    // Off, or every further recording in a folder that cannot be written to would bring the box
    // again.
    {
      const std::lock_guard lock(session.settings_mutex);
      session.preferences.log_file_enabled = false;
    }
    log_message(session, "Failed to open logfile");
    tell(session, "Error opening logfile", "File open error");
    return;
  }
  {
    std::lock_guard lock(log.mutex);
    log.log_file = file;
    log.log_file_path = path;
    log.log_file_open = true;
  }
  log_message(session, "Opening logfile: " + path);
}

void close_log_file(const session_state& session) {
  run_log_table& log = session.log;
  std::lock_guard lock(log.mutex);
  if (log.log_file != nullptr) std::fclose(log.log_file);
  log.log_file = nullptr;
  log.log_file_open = false;
}

}  // namespace kestrelvane
