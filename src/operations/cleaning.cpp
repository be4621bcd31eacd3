#include "operations/cleaning.h"

#include <fmt/format.h>

#include <string>

#include "session/presets.h"
#include "session/run_log.h"
#include "signal/blanking.h"
#include "signal/channel_faults.h"
#include "signal/filter_chain.h"
#include "signal/tissue_motion.h"

namespace kestrelvane {

namespace {

// One step, whatever is ticked in the filter dialog, which has its ticks back afterwards.
bool run_step(session_state& session, logical filter_settings::*step) {
  const filter_settings kept = session.filter;
  untick_all_filters(session.filter);
  session.filter.*step = true;
  const bool done = run_filter_steps(session);
  session.filter = kept;
  return done;
}

// Offers are made to whoever sorts by a preset that changes the samples as it is.
bool may_offer(const session_state& session) {
  const sort_preset* preset = session.autosort.preset;
  return preset != nullptr && !preset->filters.empty();
}

// ---------------------------------------------------------------- channels

void lift_masks(session_state& session) {
  for (const std::int32_t c : session.recording.masked_by_sort) {
    session.recording.chan_mask[c] = false;
  }
  session.recording.masked_by_sort.clear();
}

void mask_bad_channels(session_state& session) {
  std::string list;
  for (const bad_channel& bad : find_bad_channels(session)) {
    session.recording.chan_mask[bad.channel] = true;
    session.recording.masked_by_sort.push_back(bad.channel);
    list += fmt::format("{}{} ({:.2f} times the median)", list.empty() ? "" : ", ", bad.channel,
                        bad.ratio);
  }
  if (list.empty()) return say(session, "No channel stands out by its noise");
  say(session, "Channels masked for this sort by their noise: " + list);
}

// ---------------------------------------------------------------- common noise

bool common_mean_is_wanted(const session_state& session, double noise) {
  if (session.cleaning.remove_common_noise) return true;
  const std::string question =
      fmt::format("Noise on all channels at once is {:.2f} of their own", noise);
  return ask(session, question + ". Take the mean of all channels out of each?", "Common noise");
}

bool clean_common_noise(session_state& session) {
  if (session.recording.common_mean_removed) return true;
  if (!session.cleaning.remove_common_noise && !may_offer(session)) return true;
  const double noise = common_noise(session);
  const bool much = noise > common_noise_limit;
  log_message(session, fmt::format("Noise on all channels at once: {:.2f} of their own{}", noise,
                                   much ? ", which is much" : ""));
  if (!much || !common_mean_is_wanted(session, noise)) return true;
  return run_step(session, &filter_settings::do_common_mean);
}

// ---------------------------------------------------------------- artefacts

std::int32_t count_channels_in_use(const session_state& session) {
  const recording_store& r = session.recording;
  std::int32_t n = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) n += !r.chan_mask[c];
  return n;
}

bool channels_are_to_be_blanked(const session_state& session) {
  if (session.cleaning.blank_by_channel) return true;
  if (!session.cleaning.blank_artefacts) return false;
  // Too few to tell an artefact by their number: each for itself is all that can be done.
  if (count_channels_in_use(session) < artefact_channels) return true;
  if (!may_offer(session)) return false;
  const std::vector<blanked_stretch> found = find_channel_artefacts(session);
  if (found.empty()) return false;
  return ask(session,
             fmt::format("There seem to be artefacts on single channels, in {} stretches. Blank "
                         "them, channel by channel? Dense firing may look the same.",
                         found.size()),
             "Artefacts");
}

bool clean_artefacts(session_state& session) {
  if (session.cleaning.blank_artefacts && count_channels_in_use(session) >= artefact_channels &&
      !run_step(session, &filter_settings::do_blank_artefacts)) {
    return false;
  }
  return !channels_are_to_be_blanked(session) ||
         run_step(session, &filter_settings::do_blank_channels);
}

// ---------------------------------------------------------------- movement

// Last of all: artefacts have places, too.
bool follow_tissue(session_state& session) {
  recording_store& r = session.recording;
  if (!session.cleaning.correct_motion || r.motion.corrected) return true;
  if (!can_follow_motion(session)) {
    log_message(session, "Movement of the tissue cannot be seen with these sites");
    return true;
  }
  r.motion = measure_motion(session);
  log_message(session,
              fmt::format("Tissue along the probe: {:.1f} um from end to end, spikes {:.3f} "
                          "more alike{}",
                          r.motion.range, r.motion.gain, r.motion.moved ? "" : ", which is none"));
  return !r.motion.moved || run_step(session, &filter_settings::do_correct_motion);
}

}  // namespace

bool clean_recording(session_state& session) {
  lift_masks(session);
  if (!session.recording.is_continuous) return true;
  const cleaning_settings& c = session.cleaning;
  const bool any = c.mask_bad_channels || c.remove_common_noise || c.blank_artefacts ||
                   c.blank_by_channel || c.correct_motion;
  if (!any && !may_offer(session)) return true;
  begin_stage(session, "cleaning");
  set_status(session, status_field::message, "Cleaning the recording ...");
  if (c.mask_bad_channels) mask_bad_channels(session);
  return clean_common_noise(session) && clean_artefacts(session) && follow_tissue(session);
}

}  // namespace kestrelvane
