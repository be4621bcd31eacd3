#include "support/recovery_victim.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <numeric>

#include "support/small_session.h"
#include "support/work_file_fixture.h"

namespace kestrelvane::test {

namespace {

std::int32_t cluster_after(std::int32_t event, std::int64_t change) {
  return 1 + static_cast<std::int32_t>((event + change) % 3);
}

std::string comment_after(std::int64_t change) { return fmt::format("after change {}", change); }

}  // namespace

victim_notes* map_notes(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
  if (file < 0 || ftruncate(file, sizeof(victim_notes)) != 0) return nullptr;
  void* page = mmap(nullptr, sizeof(victim_notes), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  return page == MAP_FAILED ? nullptr : static_cast<victim_notes*>(page);
}

void unmap_notes(victim_notes* notes) { munmap(notes, sizeof(victim_notes)); }

std::int64_t steady_ns() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

void make_change(session_state& session, std::int64_t k) {
  event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    events.event_detected_time[e] = static_cast<std::int32_t>(k);
  }
  session.clusters.cluster_comment[1].assign(comment_after(k));
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    events.event_cluster[e] = cluster_after(e, k);
  }
}

std::int64_t change_of(const session_state& session) {
  const event_table& events = session.events;
  if (events.n_events != victim_events) return -1;
  const std::int64_t k = events.event_detected_time[1];
  if (session.clusters.cluster_comment[1].view() != comment_after(k)) return -1;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_detected_time[e] != k || events.event_cluster[e] != cluster_after(e, k)) {
      return -1;
    }
  }
  return k;
}

void write_first_state(const std::string& path, const std::string& recording) {
  work_file_content content;
  content.recording_path = recording;
  content.n_filters = 0;
  content.scalars["recording_filtered"] = 0;
  content.comments = {{1, comment_after(1)}};
  content.event_time.resize(victim_events);
  std::iota(content.event_time.begin(), content.event_time.end(), 1);
  content.event_channel.assign(victim_events, 2);
  content.event_shift.assign(victim_events, 0.25f);
  content.event_detected_time.assign(victim_events, 1);
  content.event_cluster.resize(victim_events);
  for (std::int32_t e = 1; e <= victim_events; ++e) {
    content.event_cluster[static_cast<std::size_t>(e - 1)] = cluster_after(e, 1);
  }
  write_bytes(path, make_work_file(content).bytes);
}

}  // namespace kestrelvane::test
