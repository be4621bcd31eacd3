#include "fuzz_session.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "operations/open_recording.h"
#include "recording/site_tables.h"
#include "recording/storage.h"
#include "session/settings_table.h"
#include "session/template_window.h"

namespace kestrelvane::fuzz {

namespace {

struct scratch_folder {
  std::string path;
  scratch_folder() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "kestrelvane-fuzz-XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "no folder for the input");
    path = pattern;
  }
  ~scratch_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

std::unique_ptr<session_state> start() {
  auto session = std::make_unique<session_state>();
  start_session(*session);
  // One thread: a finding must come back when its input is run again.
  set_thread_count(*session, 1);
  session->preferences.multi_threaded = false;
  session->ui.ask = [](void*, const std::string&, const std::string&) { return true; };
  return session;
}

}  // namespace

session_state& the_session() {
  static const std::unique_ptr<session_state> session = start();
  return *session;
}

void make_recording(session_state& session, const std::string& path, std::int32_t n_channels,
                    std::int32_t n_samples) {
  recording_store& r = session.recording;
  reset_session(session);
  r.recording_path = path;
  r.n_channels = n_channels;
  r.n_samples = n_samples;
  r.max_vd_samples = n_samples + 1000;
  r.sampling_frequency = 25000;
  if (r.vd.max_time() != r.max_vd_samples) r.vd.allocate(r.max_vd_samples, n_channels);
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    r.chan_y[c] = static_cast<std::int16_t>(40 * (c - 1));
    r.chan_sort_order[c] = c;
  }
  allocate_templates(session);
  build_site_tables(session);
  compute_template_points(session);
  compute_duration(session);
}

std::string scratch_path(const std::string& name) {
  static const scratch_folder folder;
  return folder.path + "/" + name;
}

void write_input(const std::string& path, const std::uint8_t* bytes, std::size_t n) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  require(file != nullptr, "the input cannot be written");
  require(std::fwrite(bytes, 1, n, file) == n && std::fclose(file) == 0,
          "the input cannot be written");
}

void require(bool condition, const std::string& words) {
  if (condition) return;
  std::fprintf(stderr, "requirement failed: %s\n", words.c_str());
  std::abort();
}

void require_sound_session(session_state& session) {
  const std::string problem = check_session(session);
  const bool bearable = problem.empty() || problem.ends_with(" has no events") ||
                        problem.find(" is centred on masked channel") != std::string::npos;
  require(bearable, problem);
}

bool open_soundly(session_state& session, const std::string& path) {
  set_default_strategy(session);  // a window that was shortened does not stay so
  // A file that is refused at first sight leaves the recording before it.
  reset_session(session);
  const bool opened = open_recording(session, path);
  require(opened || (session.recording.n_samples == 0 && session.recording.n_channels == 0 &&
                     session.events.n_events == 0 && session.clusters.n_clusters == 0),
          "a failed open leaves something behind");
  require_sound_session(session);
  return opened;
}

}  // namespace kestrelvane::fuzz
