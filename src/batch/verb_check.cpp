// check: faulty channels, by the correlation of their background with that of the others.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "batch/verbs.h"
#include "files/safe_file.h"
#include "recording/channel_masks.h"
#include "signal/channel_check.h"

namespace kestrelvane {

namespace {

using json = nlohmann::ordered_json;

const char* name_of(channel_fault fault) {
  return fault == channel_fault::shorted         ? "shorted"
         : fault == channel_fault::needs_masking ? "needs masking"
                                                 : "mislocalised";
}

// A line of the list, and in a column of its own what is known of it.
std::string describe_as_text(const channel_check& check) {
  if (check.problem_list.empty()) return std::string(channels_seem_ok) + "\n";
  std::size_t width = 0;
  for (const channel_problem& problem : check.problem_list) {
    width = std::max(width, problem.text.size());
  }
  std::string text;
  for (const channel_problem& problem : check.problem_list) {
    text += fmt::format("{:<{}}  {}\n", problem.text, width, judgement_of(problem));
  }
  return text + count_problems(check) + "\n";
}

std::string describe_as_json(const channel_check& check) {
  json problems = json::array(), channels = json::array();
  for (const channel_problem& problem : check.problem_list) {
    problems.push_back({{"channel", problem.channel},
                        {"fault", name_of(problem.fault)},
                        {"text", problem.text},
                        {"borne_out", problem.borne_out}});
  }
  for (const checked_channel& c : check.channels) {
    channels.push_back({{"channel", c.channel},
                        {"rms_deviation", c.rms_deviation},
                        {"signed_deviation", c.signed_deviation}});
  }
  const json all = {{"cutoff_um", check.check_cutoff_um},
                    {"pairs", check.channel_pairs.size()},
                    {"curve", {check.p[1], check.p[2], check.p[3]}},
                    {"silent", check.silent},
                    {"to_mask", channels_to_mask(check)},
                    {"problems", problems},
                    {"found", check.n_found},
                    {"borne_out", check.n_borne_out},
                    {"channels", channels}};
  return all.dump(2) + "\n";
}

batch_status write_mask_option(batch_session& batch, const channel_check& check) {
  const std::string& path = batch.options.mask_out;
  if (path.empty()) return batch_status::done;
  for (const std::int32_t c : channels_to_mask(check)) batch.session->recording.chan_mask[c] = true;
  if (write_masks(*batch.session, path)) return batch_status::done;
  return fail_batch(batch, "Failed to save file " + why_not_saved(path));
}

batch_status check_recording(batch_session& batch) {
  // It has said what is missing.
  if (!can_check_channels(*batch.session)) return batch_status::failed;
  channel_check check;
  if (!compute_pair_correlations(*batch.session, check)) {
    return fail_batch(batch, "The channel check was interrupted");
  }
  judge_channels(*batch.session, check, batch.options.check_masked);
  const batch_status status = write_mask_option(batch, check);
  if (status != batch_status::done) return status;
  return print_result(batch,
                      batch.options.json ? describe_as_json(check) : describe_as_text(check));
}

}  // namespace

batch_status run_check(const batch_options& options) {
  batch_session batch;
  batch_status status = start_batch(batch, options, "check");
  if (status == batch_status::wrong_usage) return status;
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) status = check_recording(batch);
  return finish_batch(batch, status);
}

}  // namespace kestrelvane
