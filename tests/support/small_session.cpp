#include "support/small_session.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "recording/site_tables.h"
#include "recording/storage.h"
#include "session/template_window.h"

namespace kestrelvane::test {

small_session::small_session() {
  start_session(*state);
  user.attach(*state);
}

void make_recording(session_state& session, std::int32_t n_channels, std::int32_t n_samples,
                    std::int32_t sampling_frequency, float vscale) {
  recording_store& r = session.recording;
  r.n_channels = n_channels;
  r.n_samples = n_samples;
  r.max_vd_samples = n_samples + 1000;
  r.sampling_frequency = sampling_frequency;
  r.vscale_HP = vscale;
  r.is_continuous = true;
  r.electrode_type = electrode_polytrode;
  r.recording_path = "small.tsf";
  r.vd.allocate(n_samples + 1000, n_channels);
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    r.chan_x[c] = 0;
    r.chan_y[c] = static_cast<std::int16_t>(40 * (c - 1));
    r.chan_sort_order[c] = c;
  }
  allocate_templates(session);
  build_site_tables(session);
  compute_template_points(session);
  compute_duration(session);
}

void put_samples(session_state& session, std::int32_t channel, std::int32_t first,
                 const std::vector<int>& values) {
  std::int16_t* v = session.recording.vd.channel(channel);
  for (std::size_t i = 0; i < values.size(); ++i) {
    v[first + static_cast<std::int32_t>(i)] = static_cast<std::int16_t>(values[i]);
  }
}

void use_threads(session_state& session, std::int32_t n) {
  session.n_threads = n;
  session.multi_threaded_now = n > 1;
}

temporary_directory::temporary_directory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrelvane-XXXXXX").string();
  path = mkdtemp(pattern.data());
}

temporary_directory::~temporary_directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

std::vector<std::string> partial_files(const std::string& path) {
  const std::filesystem::path target(path);
  const std::string beginning = target.filename().string() + '.';
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(target.parent_path())) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(beginning) && name.ends_with(".tmp")) found.push_back(entry.path());
  }
  return found;
}

std::vector<char> read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_bytes(const std::string& path, const std::vector<char>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace kestrelvane::test
