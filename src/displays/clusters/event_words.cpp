#include "displays/clusters/event_words.h"

#include "results/exports.h"

namespace kestrelvane {

QString event_words(const session_state& session, std::int32_t event) {
  if (event < 1 || event > session.events.n_events) return {};
  const std::int32_t cluster = session.events.event_cluster[event];
  QString words =
      QString("event %1, %2 s, ").arg(event).arg(event_seconds(session, event), 0, 'f', 4);
  words += cluster > 0 ? QString("cluster %1").arg(cluster) : QString("no cluster");
  const std::int16_t label = session.events.event_subcluster[event];
  // No label is what most events have, and says nothing.
  return label == 0 ? words : words + QString(", label %1").arg(label);
}

}  // namespace kestrelvane
