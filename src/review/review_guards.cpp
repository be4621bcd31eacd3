#include "review/review_guards.h"

#include "sorting/status_lists.h"

namespace kestrelvane {

bool can_review(const session_state& session, const char* title) {
  // The recording first: without samples clusters of a file cannot be looked at either.
  if (session.recording.n_samples == 0) {
    tell(session, "No recording data in memory", "Error ");
    return false;
  }
  if (session.clusters.n_clusters == 0) {
    tell(session, "There are no clusters", title, box_icon::warning);
    return false;
  }
  return true;
}

bool can_review_pairs(session_state& session, const char* title) {
  if (!can_review(session, title)) return false;
  // A single cluster has no pair; its lists are empty and complete.
  if (session.lists.n_kv_pairs > 0 || session.clusters.n_clusters == 1) return true;
  if (!ask(session,
           "The clusters have not been compared with each other yet. Make the status lists now?",
           title)) {
    return false;
  }
  build_status_lists(session);
  return true;
}

}  // namespace kestrelvane
