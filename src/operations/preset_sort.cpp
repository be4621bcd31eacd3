#include "operations/preset_sort.h"

#include <vector>

#include "operations/autosort.h"
#include "operations/planned_filters.h"
#include "session/run_log.h"
#include "signal/filter_chain.h"

namespace kestrelvane {

namespace {

bool filter_by_preset(session_state& session, const sort_preset& preset) {
  std::vector<planned_filter> filters;
  std::string problem;
  // A table's own filters go together.
  add_preset_filters(preset, filters, problem);
  drop_idle_preset_filters(session, filters);
  if (filters.empty()) return true;
  begin_stage(session, "filtering");
  set_status(session, status_field::message, "Filtering ...");
  // What is ticked in the filter dialog is for its own button.
  const filter_settings kept = session.filter;
  const bool done = run_planned_filters(session, filters, run_filter_steps);
  session.filter = kept;
  return done;
}

}  // namespace

bool autosort_by_preset(session_state& session, const sort_preset& preset, preset_hold& hold) {
  log_message(session, describe_preset(preset));
  session.autosort.preset = &preset;
  const bool done = filter_by_preset(session, preset) && autosort(session);
  session.autosort.preset = nullptr;
  release_preset(session, hold);
  return done;
}

}  // namespace kestrelvane
