#include "sorting/realign_steps.h"

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "session/template_window.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

event_times_copy copy_event_times(const session_state& session, std::int32_t cluster) {
  event_times_copy copy;
  copy.cluster = cluster;
  for (const std::int32_t e : list_cluster_events(session, cluster)) {
    copy.event_time.push_back(session.events.event_time[e]);
    copy.event_shift.push_back(session.events.event_shift[e]);
  }
  return copy;
}

void realign_cluster_template(session_state& session, std::int32_t cluster, std::int32_t mode) {
  session.strategy.template_align_mode = mode;
  if (!is_cluster(session, cluster)) return;
  align_template(session, cluster);
  calculate_template(session, cluster);
  calculate_template_centre(session, cluster);
  update_lists_for_cluster(session, cluster);
}

void realign_cluster_events(session_state& session, std::int32_t cluster, std::int32_t mode) {
  session.strategy.event_align_mode = mode;
  if (!is_cluster(session, cluster)) return;
  realign_events(session, cluster);
  calculate_template(session, cluster);
  update_lists_for_cluster(session, cluster);
}

void realign_every_template(session_state& session, std::int32_t mode) {
  session.strategy.template_align_mode = mode;
  realign_all_clusters(session);
  update_all_lists(session);
}

void realign_every_event(session_state& session, std::int32_t mode) {
  session.strategy.event_align_mode = mode;
  realign_all_events(session);
  update_all_lists(session);
}

bool put_back_event_times(session_state& session, const event_times_copy& copy) {
  if (!is_cluster(session, copy.cluster)) return false;
  const std::vector<std::int32_t> list = list_cluster_events(session, copy.cluster);
  // Places count in the list of now; with another number of events they mean other events.
  if (list.size() != copy.event_time.size()) return false;
  for (std::size_t i = 0; i < list.size(); ++i) {
    session.events.event_time[list[i]] = copy.event_time[i];
    session.events.event_shift[list[i]] = copy.event_shift[i];
  }
  calculate_template(session, copy.cluster);
  calculate_template_centre(session, copy.cluster);
  update_lists_for_cluster(session, copy.cluster);
  return true;
}

double template_sd_uv(const session_state& session, std::int32_t cluster) {
  if (!is_cluster(session, cluster)) return 0;
  // A template that is flat on every channel has no centre.
  const std::int32_t centre = session.templates.centre_channel(cluster);
  if (centre < 1 || centre > session.recording.n_channels) return 0;
  return double{template_sd_rms(session, cluster)} * session.recording.vscale_HP;
}

double mean_template_sd_uv(const session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  double sum = 0;
  for (std::int32_t c = 1; c <= n; ++c) sum += template_sd_uv(session, c);
  return n > 0 ? sum / n : 0;
}

bool renew_outdated_templates(session_state& session) {
  if (!templates_are_outdated(session)) return false;
  log_message(session, "Recalculating templates and realigning");
  realign_all_clusters(session);
  update_all_lists(session);
  return true;
}

void renew_masked_templates(session_state& session) {
  if (session.clusters.n_clusters == 0) return;
  calculate_all_templates(session);
  update_all_lists(session);
}

bool recalculate_all_templates(session_state& session) {
  if (session.recording.n_samples == 0) {
    tell(session, "No recording data in memory", "Error ");
    return false;
  }
  if (session.clusters.n_clusters == 0) {
    tell(session, "There are no clusters", "Recalculate templates", box_icon::warning);
    return false;
  }
  renew_masked_templates(session);
  log_message(session, " finished");
  tell(session, "Templates recalculated", "Done!", box_icon::information);
  return true;
}

}  // namespace kestrelvane
