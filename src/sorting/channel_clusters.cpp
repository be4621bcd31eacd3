#include "sorting/channel_clusters.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "sorting/cluster_edits.h"

namespace kestrelvane {

namespace {

// Gives a number to the events that belong; returns how many there are.
template <typename Belongs>
std::int32_t assign_events(session_state& session, std::int32_t cluster, Belongs&& belongs) {
  event_table& events = session.events;
  std::int32_t count = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (!belongs(events.event_channel[e])) continue;
    events.event_cluster[e] = cluster;
    ++count;
  }
  return count;
}

void unassign_events(session_state& session, std::int32_t cluster) {
  event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] == cluster) events.event_cluster[e] = 0;
  }
}

void form_tetrode_clusters(session_state& session) {
  cluster_table& clusters = session.clusters;
  const recording_store& r = session.recording;
  for (std::int32_t g = 1; g <= r.n_tetrodes; ++g) {
    const std::int32_t c = clusters.current_cluster + 1;
    const std::int32_t count = assign_events(
        session, c, [&](std::int32_t channel) { return r.tetrode_of_channel[channel] == g; });
    if (count < least_cluster_size(session)) {
      unassign_events(session, c);
    } else {
      clear_cluster_record(session, c);
      clusters.current_cluster = c;
    }
  }
  clusters.n_clusters = clusters.current_cluster;
  // For its box alone: so many tetrodes may have filled the table.
  cluster_can_grow(session);
}

void form_single_channel_clusters(session_state& session) {
  cluster_table& clusters = session.clusters;
  for (std::int32_t ch = 1; ch <= session.recording.n_channels; ++ch) {
    if (session.recording.chan_mask[ch]) continue;
    const std::int32_t c = clusters.current_cluster + 1;
    const std::int32_t count =
        assign_events(session, c, [&](std::int32_t channel) { return channel == ch; });
    // A channel without events is passed over in silence; one that had some is worth a line.
    if (count > 0 && count < least_cluster_size(session)) {
      unassign_events(session, c);
      log_message(session, fmt::format("channel {} has too few events: {}", ch, count));
    } else if (count > 0) {
      clear_cluster_record(session, c);
      clusters.current_cluster = c;
    }
    clusters.n_clusters = clusters.current_cluster;
    // The slots above max_clusters are the scratch templates of the threads.
    if (clusters.n_clusters == session.max_clusters) {
      tell(session, "Stopping conversion as maximum number of clusters has been reached",
           "Convert channels to clusters", box_icon::warning);
      return;
    }
  }
}

// Unclusters events whose channel is not on their cluster's template.
std::int32_t drop_far_events(session_state& session) {
  event_table& events = session.events;
  const template_table& templates = session.templates;
  std::int32_t dropped = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t c = events.event_cluster[e];
    if (c < 1) continue;
    const std::int32_t* channels = templates.channels(c) + 1;
    const std::int32_t* end = channels + templates.template_n_channels[c];
    if (std::find(channels, end, events.event_channel[e]) != end) continue;
    events.event_cluster[e] = 0;
    ++dropped;
  }
  return dropped;
}

void delete_small_channel_clusters(session_state& session) {
  const std::int32_t deleted = delete_small_clusters(session, least_cluster_size(session));
  log_message(session, fmt::format("{} subthreshold sized clusters deleted as a result", deleted));
}

}  // namespace

void form_channel_clusters(session_state& session) {
  cluster_table& clusters = session.clusters;
  log_message(session, "");
  log_message(session, "Forming clusters based on initial channel assignments of events");
  clusters.current_cluster = 0;
  // A recording whose channels are all masked makes none.
  clusters.n_clusters = 0;
  session.events.event_cluster.clear();
  clusters.cluster_sigma.clear();
  clusters.cluster_reserved.clear();
  blank_cluster_comments(session);
  // From here on there are no lists, so the deletions below have none to keep in step.
  session.lists.n_kv_pairs = 0;
  if (session.recording.electrode_type == electrode_tetrode &&
      session.strategy.force_one_cluster_per_tetrode) {
    form_tetrode_clusters(session);
  } else {
    form_single_channel_clusters(session);
  }
  realign_all_clusters(session);
  const std::int32_t far_events = drop_far_events(session);
  log_message(session, fmt::format("# of events far from their template channel ={}", far_events));
  if (far_events > 0) {
    log_message(session, "deleting these events");
    delete_small_channel_clusters(session);
  }
  clusters.current_cluster = 1;
  if (clusters.n_clusters == 0) clusters.current_cluster = 0;
  cluster_change change = begin_change(session, cluster_change_kind::rebuilt);
  change.after = all_clusters(session);
  end_change(session, change);
  refresh_displays(session);
}

void convert_channels_to_clusters(session_state& session) {
  if (session.recording.n_samples == 0) {
    tell(session, "No recording data in memory", "Error ");
    return;
  }
  if (session.events.n_events == 0) {
    tell(session, "There are no events to cluster!", "Error");
    return;
  }
  if (session.clusters.n_clusters > 0 &&
      !ask(session,
           "Converting channels to clusters will overwrite all current cluster assignments!",
           "Are you sure?")) {
    return;
  }
  session.events.event_subcluster.clear();
  blank_cluster_comments(session);
  session.multi_threaded_now = session.preferences.multi_threaded;
  form_channel_clusters(session);
  const std::int32_t n = session.clusters.n_clusters;
  if (n > 0) {
    tell(session,
         fmt::format("Events clustered by channel, {} {} found.", n,
                     n == 1 ? "cluster" : "clusters"),
         "Done!", box_icon::information);
  }
}

}  // namespace kestrelvane
