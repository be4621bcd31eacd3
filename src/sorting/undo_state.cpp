#include "sorting/undo_state.h"

#include <algorithm>

#include "clustering/templates.h"
#include "session/pair_index.h"
#include "sorting/cluster_edits.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

namespace {

// Calls visit(table of the session, table of the slot, number of elements) for all that
// lies in the same order in both. Save and restore walk the same lines.
template <typename Session, typename Slot, typename Visit>
void for_each_table(Session& session, Slot& slot, Visit&& visit) {
  const auto first = [&visit](std::int32_t n) {
    return [&visit, n](auto& of, auto& copy) { visit(of, copy, std::int64_t{n}); };
  };
  for_each_column(first(slot.events.n_events), session.events, slot.events);
  for_each_column(first(slot.clusters.n_clusters), session.clusters, slot.clusters);
  for_each_column(first(slot.clusters.n_clusters), session.templates, slot.templates);
  for_each_column(first(slot.lists.n_kv_pairs), session.lists, slot.lists);
  for_each_match_column(first(slot.lists.n_match), session.lists, slot.lists);
}

// Calls visit(elements of the session, elements of the slot, number) for each run of a
// template: its channels, and its points on every channel.
template <typename Session, typename Slot, typename Visit>
void for_each_template_run(Session& session, Slot& slot, Visit&& visit) {
  auto& templates = session.templates;
  auto& copy = slot.templates;
  const std::int32_t n_channels = slot.n_channels, n_points = slot.template_points;
  for (std::int32_t c = 1; c <= slot.clusters.n_clusters; ++c) {
    // Packed by the channels and points in use, where the session's slots have fixed strides.
    const std::int64_t before = (std::int64_t{c} - 1) * n_channels;  // channels of earlier ones
    visit(templates.channels(c) + 1, copy.template_channels.first() + before, n_channels);
    for (std::int32_t channel = 1; channel <= n_channels; ++channel) {
      const std::int64_t run = (before + channel - 1) * n_points;
      visit(templates.mean(c, channel) + 1, copy.template_mean.first() + run, n_points);
      visit(templates.sd(c, channel) + 1, copy.template_sd.first() + run, n_points);
    }
  }
}

// Counters and selections, which lie in no column. Either side may be the session's.
template <typename From, typename To>
void copy_counters(const From& from, To& to) {
  to.events.n_events = from.events.n_events;
  to.clusters.n_clusters = from.clusters.n_clusters;
  to.clusters.current_cluster = from.clusters.current_cluster;
  to.clusters.previous_cluster = from.clusters.previous_cluster;
  to.lists.n_kv_pairs = from.lists.n_kv_pairs;
  to.lists.n_match = from.lists.n_match;
}

// Whether a slot has room for the sort in memory, blocks and columns.
bool slot_holds(const session_state& session, const undo_slot& slot) {
  const std::int64_t n_clusters = session.clusters.n_clusters;
  const std::int64_t n_listed = n_clusters * session.recording.n_channels;
  const std::int64_t n_values = n_listed * session.templates.template_points;
  const std::int64_t n_pairs = std::max(session.lists.n_kv_pairs, session.lists.n_match);
  return slot.events.event_time.capacity() >= session.events.n_events &&
         slot.clusters.cluster_sigma.capacity() >= n_clusters &&
         slot.lists.kv_cluster_overlap.capacity() >= n_pairs &&
         slot.templates.template_channels.capacity() >= n_listed &&
         slot.templates.template_mean.capacity() >= n_values &&
         slot.templates.template_sd.capacity() >= n_values;
}

// Addresses for a sort that is about to grow: a split must not outgrow the slot at once.
constexpr std::int32_t spare_clusters = 16;

// The slot to be filled: the present one where it has room, since fetching its pages from the
// system would take longer than filling them.
std::unique_ptr<undo_slot> take_slot(session_state& session) {
  std::unique_ptr<undo_slot> slot = std::move(session.undo);
  if (slot && slot_holds(session, *slot)) return slot;
  // The old copy goes first: there may not be room for two.
  slot.reset();
  const std::int32_t n_clusters = session.clusters.n_clusters + spare_clusters;
  const auto n_pairs = static_cast<std::int32_t>(pair_count(n_clusters));
  return std::make_unique<undo_slot>(session.events.n_events, n_clusters,
                                     std::max(n_pairs, session.lists.n_match));
}

// Room for the packed blocks, once it is known that memory holds blocks and columns: the
// columns were reserved with the slot, which costs nothing, and are filled now.
bool reserve_blocks(const session_state& session, undo_slot& slot) {
  if (slot_holds(session, slot)) return true;
  const std::int64_t n_listed =
      std::int64_t{slot.clusters.n_clusters + spare_clusters} * slot.n_channels;
  const std::int64_t n_values = n_listed * slot.template_points;
  // Channel lists, then mean and deviation of each point.
  std::int64_t bytes = 4 * n_listed + 8 * n_values;
  bool reserved = true;
  for_each_table(session, slot, [&](const auto& of, const auto& copy, std::int64_t n) {
    bytes += n * static_cast<std::int64_t>(sizeof(of[1]));
    reserved = reserved && copy.capacity() >= n;
  });
  template_table& t = slot.templates;
  return reserved && memory_can_hold(bytes) && t.template_channels.reserve(n_listed) &&
         t.template_mean.reserve(n_values) && t.template_sd.reserve(n_values);
}

std::vector<logical> masks_of(const session_state& session) {
  const logical* masks = session.recording.chan_mask.first();
  return std::vector<logical>(masks, masks + session.recording.n_channels);
}

// A copy of the sort; false, after a log line, when memory does not hold it.
bool fill_slot(const session_state& session, undo_slot& slot) {
  slot.recording_path = session.recording.recording_path;
  slot.saved_at = std::chrono::system_clock::now();
  slot.n_channels = session.recording.n_channels;
  slot.template_points = session.templates.template_points;
  slot.masks = masks_of(session);
  copy_counters(session, slot);
  if (!reserve_blocks(session, slot)) {
    log_message(session, "Not enough memory to undo");
    return false;
  }
  for_each_table(session, slot, [](const auto& of, auto& copy, std::int64_t n) {
    std::copy_n(of.first(), n, copy.first());
  });
  for_each_template_run(
      session, slot, [](const auto* of, auto* copy, std::int64_t n) { std::copy_n(of, n, copy); });
  return true;
}

}  // namespace

std::unique_ptr<undo_slot> copy_sort(const session_state& session) {
  auto slot =
      std::make_unique<undo_slot>(session.events.n_events, session.clusters.n_clusters,
                                  std::max(session.lists.n_kv_pairs, session.lists.n_match));
  return fill_slot(session, *slot) ? std::move(slot) : nullptr;
}

bool save_undo_state(session_state& session, undo_owner owner) {
  std::unique_ptr<undo_slot> slot = take_slot(session);
  slot->owner = owner;
  if (!fill_slot(session, *slot)) return false;
  session.undo = std::move(slot);
  return true;
}

void prepare_undo(session_state& session) {
  // Nobody's: it takes the place of nothing, and nobody takes it back.
  if (!session.undo) save_undo_state(session, undo_owner::nobody);
}

bool can_undo(const session_state& session, undo_owner owner) {
  // A path and a number of channels are what the tables depend on; a recording that was closed and
  // opened again is the same one.
  return session.undo && session.undo->owner == owner &&
         session.undo->recording_path == session.recording.recording_path &&
         session.undo->n_channels == session.recording.n_channels;
}

void restore_sort(session_state& session, const undo_slot& slot) {
  cluster_change change = begin_change(session, cluster_change_kind::restored);
  copy_counters(slot, session);
  for_each_table(session, slot, [](auto& of, const auto& copy, std::int64_t n) {
    std::copy_n(copy.first(), n, of.first());
  });
  // Packed for another spike window, the waveforms have another stride and other points; of other
  // masks, they stand on channels that take no part now.
  const bool has_masks = slot.masks == masks_of(session);
  if (slot.template_points == session.templates.template_points && has_masks) {
    for_each_template_run(session, slot, [](auto* of, const auto* copy, std::int64_t n) {
      std::copy_n(copy, n, of);
    });
  } else {
    calculate_all_templates(session);
  }
  if (!has_masks) update_all_lists(session);
  change.after = all_clusters(session);
  end_change(session, change);
}

bool restore_undo_state(session_state& session, undo_owner owner) {
  if (!can_undo(session, owner)) return false;
  restore_sort(session, *session.undo);
  return true;
}

}  // namespace kestrelvane
