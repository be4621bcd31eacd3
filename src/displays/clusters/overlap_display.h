// Why two clusters overlap as much as they do: the points that the overlap is counted from, in
// the components of the pair, with rings round those that have a neighbour of the other cluster,
// and the measures of the pair in words.
#pragma once

#include <QPainter>
#include <cstdint>
#include <string>
#include <vector>

#include "displays/clusters/cluster_theme.h"
#include "review/pair_values.h"
#include "sorting/pair_measures.h"

namespace kestrelvane {

struct overlap_picture {
  pair_values pair;  // of the two, the lower first; a = 0: there are no two
  pair_shift shift;
  template_overlap templates{};
  overlap_points points;           // empty where no channel is common to both
  std::vector<std::string> words;  // lines of measures
};

// The partner whose overlap with a cluster is the largest in the lists, of equals the first;
// without lists the one whose centre lies nearest. 0 for a cluster alone.
std::int32_t find_overlap_partner(const session_state& session, std::int32_t cluster);

// Counts anew, whatever the lists hold; with the shift of the lists where there are any.
// Overwrites the scratch template of a pair, as pair_pc_values does. Numbers that are no pair give
// a picture that says so.
void prepare_overlap(session_state& session, std::int32_t a, std::int32_t b,
                     overlap_picture& picture);
// Two planes side by side where neighbours are looked for in three components; the words below.
void paint_overlap(QPainter& painter, const QRectF& rect, const overlap_picture& picture,
                   const cluster_theme& theme);

// "Overlap diagnostics for Clusters 3 and 7".
std::string overlap_title(const overlap_picture& picture);

}  // namespace kestrelvane
