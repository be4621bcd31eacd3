#include "operations/high_pass_offer.h"

#include <fmt/format.h>

#include "files/input_file.h"
#include "session/run_log.h"
#include "signal/filter_chain.h"
#include "signal/slow_waves.h"

namespace kestrelvane {

namespace {

constexpr float corner_khz = 0.5f;
constexpr std::int32_t n_poles = 4;

// One step, whatever is ticked in the filter dialog, which has its ticks back afterwards.
bool high_pass(session_state& session) {
  const filter_settings kept = session.filter;
  untick_all_filters(session.filter);
  set_offered_high_pass(session.filter);
  const bool done = run_filter_steps(session);
  session.filter = kept;
  return done;
}

}  // namespace

void set_offered_high_pass(filter_settings& filter) {
  filter.do_high_pass = true;
  filter.bw_f0_khz = corner_khz;
  filter.bw_poles = n_poles;
}

std::string unfiltered_words(const session_state& session) {
  return file_name_of(session.recording.recording_path) + " looks unfiltered: ";
}

bool offer_high_pass(session_state& session) {
  recording_store& r = session.recording;
  if (r.high_pass_offered || !looks_unfiltered(session)) return true;
  r.high_pass_offered = true;
  const std::string question = unfiltered_words(session) + "high pass it first?";
  log_message(session, question);
  if (!ask(session,
           fmt::format("{}\n\nMost of its power lies below 300 Hz, where spikes have none, and "
                       "thresholds follow it. Yes filters at {} kHz.",
                       question, corner_khz),
           "Unfiltered recording")) {
    return true;
  }
  say(session, fmt::format("High pass at {} kHz", corner_khz));
  return high_pass(session);
}

}  // namespace kestrelvane
