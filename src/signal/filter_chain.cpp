#include "signal/filter_chain.h"

#include <fmt/format.h>

#include <cmath>
#include <vector>

#include "session/run_log.h"
#include "session/settings_table.h"
#include "signal/blanking.h"
#include "signal/display_scale.h"
#include "signal/filter_progress.h"
#include "signal/frequency_filters.h"
#include "signal/noise.h"
#include "signal/time_filters.h"
#include "signal/tissue_motion.h"

namespace kestrelvane {

namespace {

struct history_entry {
  std::int32_t code = 0;
  float param1 = 0.0f, param2 = 0.0f;
};

// How much of the bar a step has.
enum class step_units { per_channel, hundred };

// An operation that a chain can do and the history can name.
struct filter_operation {
  std::int32_t code;
  const char* name;  // for the user who waits for it
  step_units units;
  bool (*run)(session_state&, filter_progress&);
  bool (*wanted)(const session_state&);            // the chain has it ticked
  void (*untick)(filter_settings&);                // after the chain
  history_entry (*entry)(const filter_settings&);  // parameters for the history
  const char* replay_line;                         // {f0} and {poles} are filled in
  // Settings of a replay; false when the entry holds none that can be used.
  bool (*reload)(filter_settings&, const history_entry&);
};

// ---------------------------------------------------------------- cells of the table

// A step that cannot fail, in the form of one that can.
template <auto Step>
bool always(session_state& session, filter_progress& progress) {
  Step(session, progress);
  return true;
}

template <logical filter_settings::*Option>
bool ticked(const session_state& session) {
  return session.filter.*Option;
}

template <logical filter_settings::*Option>
void untick(filter_settings& f) {
  f.*Option = false;
}

// Smoothing may be wanted again with the next press of the button.
void keep_ticked(filter_settings&) {}

void untick_butterworth(filter_settings& f) {
  f.do_high_pass = f.make_low_pass = f.do_one_over_f = f.do_low_pass_too = false;
}

// The settings show the filter that was last.
void untick_band_pass(filter_settings& f) {
  f.bw_f0_khz = f.low_pass_f0_khz;
  f.bw_poles = f.low_pass_poles;
  untick_butterworth(f);
}

enum class butterworth { high_pass, low_pass, both };

template <butterworth Kind>
bool butterworth_ticked(const session_state& session) {
  const filter_settings& f = session.filter;
  if (!f.do_high_pass || f.do_one_over_f) return false;
  if (f.make_low_pass) return Kind == butterworth::low_pass;
  return Kind == (f.do_low_pass_too ? butterworth::both : butterworth::high_pass);
}

history_entry no_parameters(const filter_settings&) { return {}; }

history_entry butterworth_parameters(const filter_settings& f) {
  return {0, f.bw_f0_khz, static_cast<float>(f.bw_poles)};
}

bool reload_nothing(filter_settings&, const history_entry&) { return true; }

bool is_positive(float x) { return std::isfinite(x) && x > 0.0f; }

// A notch has nothing in these slots, and the settings then show that nothing.
bool reload_slots(filter_settings& f, const history_entry& e) {
  // Histories come from files. A number of poles beyond any reason, or one that is no number, has
  // no whole number to be rounded to.
  constexpr float no_more_poles = 1000.0f;
  f.bw_f0_khz = e.param1;
  f.bw_poles =
      std::fabs(e.param2) < no_more_poles ? static_cast<std::int32_t>(std::lround(e.param2)) : 0;
  return true;
}

template <bool LowPass>
bool reload_butterworth(filter_settings& f, const history_entry& e) {
  reload_slots(f, e);
  f.make_low_pass = LowPass;
  return is_positive(f.bw_f0_khz) && f.bw_poles > 0;
}

// f0 is that of the dialog: the history has never kept it.
bool reload_phase(filter_settings& f, const history_entry& e) {
  f.phase_shift_degs_per_decade = e.param2;
  return std::isfinite(e.param2);
}

// Its low pass, the next entry, has been reloaded before.
bool reload_band_pass(filter_settings& f, const history_entry& e) {
  return reload_butterworth<false>(f, e) && is_positive(f.low_pass_f0_khz) && f.low_pass_poles > 0;
}

bool reload_compression(filter_settings& f, const history_entry& e) {
  f.compressive_75pct_uv = e.param1;
  return is_positive(e.param1);
}

// Put there by a dialog of its own and never by the chain.
bool never_wanted(const session_state&) { return false; }

template <test_data Which>
void test_data_step(session_state& session, filter_progress&) {
  make_test_data(session, Which);
}

constexpr std::int32_t low_pass_code = -5;
constexpr std::int32_t first_test_data_code = 13;  // those of the others follow in their order
constexpr const char* low_pass_line = " - applying low pass filter";

// In the order of a chain. The 1/f filter takes the place of the Butterworth filter.
// Codes are those that the history has always stored, so they do not follow this order.
constexpr filter_operation operations[] = {
    {1, "channel means", step_units::per_channel, always<zero_channel_means>,
     [](const session_state& s) { return s.filter.do_channel_means && !s.recording.means_zeroed; },
     untick<&filter_settings::do_channel_means>, no_parameters, " - making channel means zero",
     reload_nothing},
    {2, "common mean", step_units::hundred, always<remove_common_mean>,
     [](const session_state& s) {
       return s.filter.do_common_mean && !s.recording.common_mean_removed;
     },
     untick<&filter_settings::do_common_mean>, no_parameters, " - removing common mean",
     reload_nothing},
    {3, "spatial smooth", step_units::hundred, always<spatial_smooth>,
     ticked<&filter_settings::do_spatial_smooth>, keep_ticked, no_parameters,
     " - doing spatial smooth", reload_nothing},
    {4, "temporal smooth", step_units::per_channel, always<temporal_smooth>,
     ticked<&filter_settings::do_temporal_smooth>, keep_ticked, no_parameters,
     " - doing 1:2:1 temporal smooth", reload_nothing},
    {7, "phase correction", step_units::per_channel, phase_correct,
     ticked<&filter_settings::do_phase_correction>, untick<&filter_settings::do_phase_correction>,
     [](const filter_settings& f) {
       return history_entry{0, 0, f.phase_shift_degs_per_decade};
     },
     " - applying phase rotation", reload_phase},
    {5, "high-pass filter", step_units::per_channel, butterworth_filter,
     butterworth_ticked<butterworth::high_pass>, untick_butterworth, butterworth_parameters,
     " - applying high pass filter with {poles} poles and f0={f0}", reload_butterworth<false>},
    // Listed as a high pass, and then as a low pass.
    {5, "band-pass filter", step_units::per_channel, band_pass_filter,
     butterworth_ticked<butterworth::both>, untick_band_pass, butterworth_parameters,
     " - applying high pass filter with {poles} poles and f0={f0}", reload_band_pass},
    {low_pass_code, "low-pass filter", step_units::per_channel, butterworth_filter,
     butterworth_ticked<butterworth::low_pass>, untick_butterworth, butterworth_parameters,
     low_pass_line, reload_butterworth<true>},
    {9, "1/f filter", step_units::per_channel, one_over_f_filter,
     [](const session_state& s) { return s.filter.do_high_pass && s.filter.do_one_over_f; },
     untick_butterworth, no_parameters, " - applying 1/f filter", reload_nothing},
    {6, "notch filter", step_units::per_channel, notch_filter, ticked<&filter_settings::do_notch>,
     untick<&filter_settings::do_notch>, no_parameters, " - applying 60 Hz notch filter",
     reload_slots},
    {8, "compressive transform", step_units::per_channel, always<compressive_transform>,
     ticked<&filter_settings::do_compressive>, untick<&filter_settings::do_compressive>,
     [](const filter_settings& f) {
       return history_entry{0, f.compressive_75pct_uv, 0};
     },
     "- applying compressive transform", reload_compression},
    {10, "blanking of artefacts", step_units::hundred, always<blank_artefacts>,
     ticked<&filter_settings::do_blank_artefacts>, untick<&filter_settings::do_blank_artefacts>,
     no_parameters, " - blanking artefacts", reload_nothing},
    {11, "blanking of channels", step_units::hundred, always<blank_channel_artefacts>,
     ticked<&filter_settings::do_blank_channels>, untick<&filter_settings::do_blank_channels>,
     no_parameters, " - blanking artefacts on single channels", reload_nothing},
    {12, "movement of the tissue", step_units::hundred, always<correct_motion>,
     ticked<&filter_settings::do_correct_motion>, untick<&filter_settings::do_correct_motion>,
     no_parameters, " - taking out the movement of the tissue", reload_nothing},
    {first_test_data_code, "test data", step_units::hundred,
     always<test_data_step<test_data::second_gaussian>>, never_wanted, keep_ticked, no_parameters,
     " - test data: adding Gaussian events to channel 1", reload_nothing},
    {first_test_data_code + 1, "test data", step_units::hundred,
     always<test_data_step<test_data::gaussian>>, never_wanted, keep_ticked, no_parameters,
     " - test data: putting Gaussian noise on channel 1", reload_nothing},
    {first_test_data_code + 2, "test data", step_units::hundred,
     always<test_data_step<test_data::exponential>>, never_wanted, keep_ticked, no_parameters,
     " - test data: adding exponential noise events to channel 1", reload_nothing},
};

bool is_band_pass(const filter_operation& operation) { return operation.run == band_pass_filter; }

// Of entry i of the history; a band pass is two entries, and is found at the first.
const filter_operation* operation_at(const filter_history_table& history, std::int32_t i) {
  for (const filter_operation& operation : operations) {
    if (operation.code == history.code[i] &&
        is_band_pass(operation) == is_of_same_walk(history, i + 1)) {
      return &operation;
    }
  }
  return nullptr;
}

// ---------------------------------------------------------------- history

history_entry entry_of(const filter_history_table& history, std::int32_t i) {
  return {history.code[i], history.param1[i], history.param2[i]};
}

void list_operation(session_state& session, const filter_operation& operation) {
  filter_history_table& history = session.filter_history;
  const std::int32_t n_new = is_band_pass(operation) ? 2 : 1;
  if (history.n_entries + n_new > filter_history_limit) {
    log_message(session, "The filter history is full: the last step is done but not listed");
    return;
  }
  const auto list = [&](std::int32_t code, const history_entry& entry) {
    const std::int32_t i = ++history.n_entries;
    history.code[i] = code;
    history.param1[i] = entry.param1;
    history.param2[i] = entry.param2;
  };
  const filter_settings& f = session.filter;
  list(operation.code, operation.entry(f));
  if (n_new == 1) return;
  list(low_pass_code,
       {0, f.low_pass_f0_khz, static_cast<float>(f.low_pass_poles) + same_walk_mark});
}

// ---------------------------------------------------------------- beginning and end

// Noise and display scales.
constexpr std::int64_t closing_units = 2;

std::int64_t units_of(const session_state& session, const filter_operation* operation) {
  if (operation == nullptr) return 0;
  return operation->units == step_units::hundred ? 100 : session.recording.n_channels;
}

void begin_filtering(session_state& session) {
  session.multi_threaded_now = session.preferences.multi_threaded;
}

bool interrupted(const session_state& session) {
  yield_session(session);
  return session.operation.filtering_interrupted;
}

bool run_operation(filter_progress& progress, const filter_operation& operation) {
  begin_filter_step(progress, operation.name, units_of(progress.session, &operation));
  const bool done = operation.run(progress.session, progress);
  end_filter_step(progress);
  return done;
}

// The samples are other ones now, whether all steps are done or some.
void follow_samples(filter_progress& progress) {
  session_state& session = progress.session;
  begin_filter_step(progress, "noise of the channels", closing_units);
  compute_noise(session);
  autoscale_voltage_display(session);
  refresh_displays(session);
  end_filter_step(progress);
}

void say_stopped(const session_state& session, std::int64_t n_done, std::int64_t n_steps) {
  say(session, fmt::format("Filtering was stopped: {} of {} steps done", n_done, n_steps));
}

// ---------------------------------------------------------------- chain

void warn_of_sample_hold(session_state& session) {
  if (!session.filter.do_sample_hold || !session.recording.sample_hold_done) return;
  tell(session, "S&H correction already done", "NB ", box_icon::warning);
  session.filter.do_sample_hold = false;
}

std::vector<const filter_operation*> wanted_steps(const session_state& session) {
  std::vector<const filter_operation*> steps;
  for (const filter_operation& operation : operations) {
    if (operation.wanted(session)) steps.push_back(&operation);
  }
  return steps;
}

// What must not be done twice and was ticked all the same.
void untick_what_was_done(session_state& session) {
  if (session.recording.means_zeroed) session.filter.do_channel_means = false;
  if (session.recording.common_mean_removed) session.filter.do_common_mean = false;
}

// ---------------------------------------------------------------- replay

enum class replayed { done, done_with_next, left_out, failed };

void reload_low_pass_too(filter_settings& f, const history_entry& low_pass) {
  f.low_pass_f0_khz = low_pass.param1;
  f.low_pass_poles = static_cast<std::int32_t>(std::floor(low_pass.param2));
}

replayed repeat_entry(filter_progress& progress, std::int32_t i) {
  session_state& session = progress.session;
  const history_entry entry = entry_of(session.filter_history, i);
  const filter_operation* operation = operation_at(session.filter_history, i);
  const bool two_entries = is_of_same_walk(session.filter_history, i + 1);
  if (two_entries) reload_low_pass_too(session.filter, entry_of(session.filter_history, i + 1));
  // A history from a file may hold codes of other programs; the rest of it is still repeated.
  if (operation == nullptr || !operation->reload(session.filter, entry)) {
    log_message(session, fmt::format("Entry {} of the filter history cannot be repeated: code {}, "
                                     "parameters {} and {}",
                                     i, entry.code, entry.param1, entry.param2));
    return replayed::left_out;
  }
  log_message(session, fmt::format(fmt::runtime(operation->replay_line),
                                   fmt::arg("f0", session.filter.bw_f0_khz),
                                   fmt::arg("poles", session.filter.bw_poles)));
  if (!run_operation(progress, *operation)) return replayed::failed;
  session.recording.recording_filtered = true;
  if (!two_entries) return replayed::done;
  log_message(session, low_pass_line);
  untick_band_pass(session.filter);
  return replayed::done_with_next;
}

// The history goes on telling what the samples in memory have been through.
void keep_first_entries(session_state& session, std::int32_t n) {
  say_stopped(session, n, session.filter_history.n_entries);
  session.filter_history.n_entries = n;
  log_message(session, fmt::format("The filter history keeps {} entries", n));
}

// ---------------------------------------------------------------- corners

bool corner_is_possible_at(const session_state& session, float f0_khz) {
  const std::int32_t rate = session.recording.sampling_frequency;
  // Without samples every step runs through with no effect.
  if (session.recording.n_samples == 0 || 2000.0 * f0_khz < rate) return true;
  tell(session,
       fmt::format("A corner of {} kHz is not possible: with {} Hz it must be below {} kHz, half "
                   "the sampling frequency",
                   f0_khz, rate, rate / 2000.0),
       "Transform voltage waveform", box_icon::warning);
  return false;
}

}  // namespace

bool corner_is_possible(const session_state& session) {
  const filter_settings& f = session.filter;
  const bool two_corners = butterworth_ticked<butterworth::both>(session);
  return corner_is_possible_at(session, f.bw_f0_khz) &&
         (!two_corners || corner_is_possible_at(session, f.low_pass_f0_khz));
}

void untick_all_filters(filter_settings& f) {
  f.do_channel_means = f.do_common_mean = f.do_spatial_smooth = f.do_temporal_smooth = false;
  f.do_phase_correction = f.do_notch = f.do_compressive = f.do_sample_hold = false;
  f.do_blank_artefacts = f.do_blank_channels = f.do_correct_motion = false;
  untick_butterworth(f);
}

bool run_filter_steps(session_state& session) {
  begin_filtering(session);
  settle_settings(session);
  const filter_settings& wanted = session.filter;
  // Before the first step: all or nothing of what was asked for.
  if (wanted.do_high_pass && !wanted.do_one_over_f && !corner_is_possible(session)) return false;
  warn_of_sample_hold(session);
  // Decided before the first of them runs, for that one changes what is asked.
  const std::vector<const filter_operation*> steps = wanted_steps(session);
  filter_progress progress{session};
  for (const filter_operation* step : steps) progress.range += units_of(session, step);
  progress.range += closing_units;

  std::int64_t n_done = 0;
  const auto n_steps = static_cast<std::int64_t>(steps.size());
  for (const filter_operation* step : steps) {
    // No memory and an interrupt end the chain alike: with what was done until then.
    if (interrupted(session) || !run_operation(progress, *step)) break;
    list_operation(session, *step);
    step->untick(session.filter);
    session.recording.recording_filtered = true;
    ++n_done;
  }
  untick_what_was_done(session);
  follow_samples(progress);
  if (n_done < n_steps) {
    say_stopped(session, n_done, n_steps);
    return false;
  }
  // A chain without a single step counts as filtering, too.
  session.recording.recording_filtered = true;
  return true;
}

void put_test_data(session_state& session, test_data which) {
  if (session.recording.n_samples == 0) return;
  make_test_data(session, which);
  const std::int32_t code = first_test_data_code + static_cast<std::int32_t>(which);
  for (const filter_operation& operation : operations) {
    if (operation.code == code) list_operation(session, operation);
  }
  session.recording.recording_filtered = true;
}

bool run_filter_chain(session_state& session) {
  if (!run_filter_steps(session)) return false;
  tell(session, "Finished transforming", "Done!", box_icon::information);
  return true;
}

bool repeat_filtering(session_state& session) {
  begin_filtering(session);
  const filter_history_table& history = session.filter_history;
  filter_progress progress{session};
  for (std::int32_t i = 1; i <= history.n_entries; ++i) {
    if (is_of_same_walk(history, i)) continue;
    progress.range += units_of(session, operation_at(history, i));
  }
  progress.range += closing_units;

  log_message(session, "Repeating previous filtering:");
  bool all_done = true;
  std::int32_t n_passed = 0;
  while (n_passed < history.n_entries && !interrupted(session)) {
    const replayed outcome = repeat_entry(progress, n_passed + 1);
    if (outcome == replayed::failed) break;
    all_done = all_done && outcome != replayed::left_out;
    n_passed += outcome == replayed::done_with_next ? 2 : 1;
  }
  // Entries have turned the low-pass switch on their way.
  untick_butterworth(session.filter);
  follow_samples(progress);
  if (n_passed < history.n_entries) {
    keep_first_entries(session, n_passed);
    return false;
  }
  tell(session, "Finished filtering!", "Done!", box_icon::information);
  return all_done;
}

}  // namespace kestrelvane
