#include "session/settings_files.h"
#include "session/run_log.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "files/safe_file.h"
#include "session/settings_table.h"

namespace kestrelvane {

namespace {

constexpr std::size_t largest_file = 524;
static_assert(parameters_file_bytes <= largest_file && preferences_file_bytes <= largest_file);

struct file_bytes {
  std::array<char, largest_file> bytes{};
  std::size_t n = 0;
};

// False with errno.
bool load(const std::string& path, file_bytes& in) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  // What a longer file holds beyond is nothing that this program knows; a shorter one keeps the
  // values of what it lacks. Neither is refused.
  in.n = std::fread(in.bytes.data(), 1, in.bytes.size(), file);
  const int error = std::ferror(file) != 0 ? errno : 0;
  std::fclose(file);
  errno = error;
  return error == 0;
}

// The file in home_directory. One that is there and cannot be read, on a disk that has failed
// for a moment or for lack of permission, is told of and remembered: to save the defaults in its
// place would lose what the user has set.
bool load_own(session_state& session, setting_file which, const std::string& path, file_bytes& in) {
  bool& unread = session.unread_settings.at(static_cast<std::size_t>(which));
  unread = false;
  if (load(path, in)) return true;
  if (errno == ENOENT || errno == ENOTDIR) return false;
  unread = true;
  const std::string words = "Failed to read file " + why_not_saved(path);
  log_message(session, words);
  set_status(session, status_field::message, words);
  return false;
}

// Takes each field that is there in full; what the file lacks keeps its value. True
// when the file holds every field that is used.
bool take_fields(session_state& session, setting_file which, const file_bytes& in) {
  std::size_t at = 0;
  for (const setting_row& row : settings_of(which)) {
    for (std::int32_t i = 0; i < row.count; ++i, at += 4) {
      // A field that is cut in the middle is none. Rows without a use at the end need not be there.
      if (at + 4 > in.n) return row.address == nullptr;
      if (row.reading == setting_reading::dropped) continue;
      char* to = static_cast<char*>(row.address(session)) + 4 * i;
      std::memcpy(to, in.bytes.data() + at, 4);
      if (row.type == setting_type::logical_word) {
        // One form for true, whatever the file's writer thought of it.
        store_setting(session, row, i, setting_value(session, row, i));
      }
    }
  }
  return true;
}

bool tell_of_failed_save(session_state& session, const std::string& path) {
  const int error = errno;
  set_status(session, status_field::message, log_failed_save(session, path));
  errno = error;
  return false;
}

bool write_fields(session_state& session, setting_file which, const std::string& path) {
  if (session.unread_settings.at(static_cast<std::size_t>(which))) {
    errno = EPERM;
    return tell_of_failed_save(session, path);
  }
  safe_file out;
  open_safe_file(out, path);
  // Into memory: the file's own buffer holds all of it, and nobody waits here for a disk.
  std::unique_lock lock(session.settings_mutex);
  for (const setting_row& row : settings_of(which)) {
    if (row.address == nullptr) {
      for (std::int32_t i = 0; i < row.count; ++i) {
        write_value(out, static_cast<std::int32_t>(row.default_value));
      }
    } else {
      write_bytes(out, row.address(session), 4u * static_cast<std::size_t>(row.count));
    }
  }
  lock.unlock();
  return finish_safe_file(out) || tell_of_failed_save(session, path);
}

void correct_parameters(session_state& session) {
  // Written so that a value that is not a number is put right too.
  float& scale = session.display.vd_voltage_scale;
  if (!(scale >= 0.0001f && scale <= 10.0f)) scale = 1.0f;
  if (session.review.match_method < 0) session.review.match_method = match_correlation;
  if (session.detection.detection_method >= method_teager) {
    session.detection.detection_method = method_dynamic_multiphasic;
    session.detection.use_lockout = false;
  }
}

void take_parameters(session_state& session, const file_bytes& in) {
  take_fields(session, setting_file::parameters, in);
  correct_parameters(session);
  apply_settings(session);
}

std::string parameters_path(const session_state& session) {
  return session.home_directory + "/kv_parameters.sav";
}

std::string preferences_path(const session_state& session) {
  return session.home_directory + "/kv_prefs.sav";
}

}  // namespace

bool read_parameters(session_state& session) {
  file_bytes in;
  if (session.home_directory.empty() ||
      !load_own(session, setting_file::parameters, parameters_path(session), in)) {
    return false;
  }
  take_parameters(session, in);
  return true;
}

bool read_parameters_file(session_state& session, const std::string& path) {
  file_bytes in;
  if (!load(path, in)) return false;
  take_parameters(session, in);
  return true;
}

bool write_parameters(session_state& session) {
  return !session.home_directory.empty() &&
         write_fields(session, setting_file::parameters, parameters_path(session));
}

bool read_preferences(session_state& session) {
  file_bytes in;
  if (session.home_directory.empty() ||
      !load_own(session, setting_file::preferences, preferences_path(session), in)) {
    return false;
  }
  if (take_fields(session, setting_file::preferences, in)) {
    session.multi_threaded_now = session.preferences.multi_threaded;
  }
  return true;
}

bool write_preferences(session_state& session) {
  return !session.home_directory.empty() &&
         write_fields(session, setting_file::preferences, preferences_path(session));
}

bool read_settings_files(session_state& session) {
  const bool found = read_preferences(session);
  // Preferences are read first: one of them says whether parameters are to be remembered at all.
  if (session.preferences.sticky_parameters) read_parameters(session);
  return found;
}

}  // namespace kestrelvane
