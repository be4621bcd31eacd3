#include "displays/clusters/cluster_theme.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "displays/display_colours.h"

namespace kestrelvane {

QColor mix_colours(const QColor& a, const QColor& b, double of_b) {
  const auto channel = [&](int from, int to) {
    return static_cast<int>(std::lround(from + of_b * (to - from)));
  };
  return QColor(channel(a.red(), b.red()), channel(a.green(), b.green()),
                channel(a.blue(), b.blue()));
}

cluster_theme make_cluster_theme(const preferences_record& preferences, bool dark) {
  cluster_theme theme;
  theme.background = dark ? QColor(0x16, 0x18, 0x1b) : QColor(Qt::white);
  theme.text = dark ? QColor(0xe4, 0xe4, 0xe4) : QColor(Qt::black);
  theme.axes = mix_colours(theme.text, theme.background, 0.4);
  theme.grid = mix_colours(theme.background, theme.text, 0.12);
  theme.neutral = mix_colours(theme.background, theme.text, 0.55);
  theme.selected = dark ? QColor(0xff, 0xd5, 0x4a) : QColor(0xd0, 0x00, 0x6f);
  for (std::size_t i = 0; i < theme.colours.size(); ++i) {
    QColor colour = colour_of_word(static_cast<std::uint32_t>(preferences.subcluster_colours[i]));
    // In steps, so that a colour keeps as much of its hue as can be seen.
    for (int step = 0; step < 5; ++step) {
      // Of 255: about where thin lines begin to be told from their ground.
      if (std::abs(qGray(colour.rgb()) - qGray(theme.background.rgb())) >= 70) break;
      colour = mix_colours(colour, theme.text, 0.2);
    }
    theme.colours[i] = colour;
  }
  return theme;
}

QColor colour_of_mark(const cluster_theme& theme, std::int32_t mark) {
  // What belongs nowhere has no colour that could be taken for a cluster's.
  if (mark < 1 || mark == outlier_label) return theme.neutral;
  // The preferences hold ten; marks ten apart share one.
  return theme.colours[static_cast<std::size_t>((mark - 1) % 10)];
}

mark_source find_mark_source(const session_state& session,
                             const std::vector<std::span<const std::int32_t>>& lists,
                             std::size_t n_clusters) {
  std::size_t n_events = 0, n_labelled = 0;
  for (const std::span<const std::int32_t> events : lists) {
    n_events += events.size();
    n_labelled +=
        static_cast<std::size_t>(std::count_if(events.begin(), events.end(), [&](std::int32_t e) {
          return session.events.event_subcluster[e] != 0;
        }));
  }
  // Who reviews a pair labels all of it. A few marks are left from looking at one cluster, and
  // would hide which of the two the others are of.
  if (n_clusters == 2) {
    return n_labelled > 0 && n_labelled == n_events ? mark_source::labels : mark_source::places;
  }
  return n_labelled > 0 ? mark_source::labels : mark_source::clusters;
}

std::int16_t mark_of_event(const session_state& session, mark_source source, std::int32_t event,
                           std::size_t place) {
  switch (source) {
    case mark_source::labels:
      return session.events.event_subcluster[event];
    case mark_source::places:
      return static_cast<std::int16_t>(place + 1);
    case mark_source::clusters:
      break;
  }
  return mark_of_cluster(session.events.event_cluster[event]);
}

}  // namespace kestrelvane
