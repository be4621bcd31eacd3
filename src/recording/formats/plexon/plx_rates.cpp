// Slow channels of several rates: a recording has one, so one of them is chosen.
#include <fmt/format.h>

#include <algorithm>

#include "recording/formats/plexon/plx.h"
#include "recording/formats/plexon/plx_reading.h"
#include "recording/header_checks.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// The slow channels of one rate.
struct slow_group {
  std::int32_t hz = 0;
  std::vector<std::int64_t> channels;  // of the file, from 1, that have a program channel
};

std::vector<slow_group> list_groups(const session_state& session, const plx_headers& headers) {
  std::vector<slow_group> groups;
  const std::int32_t offset = plx_slow_offset(headers);
  for (const plx_slow_header& slow : headers.slow) {
    const std::int64_t channel = std::int64_t{slow.channel} + offset;
    if (plx_program_channel(session, channel) == 0) continue;
    auto at = std::find_if(groups.begin(), groups.end(),
                           [&](const slow_group& g) { return g.hz == slow.ad_freq; });
    if (at == groups.end()) at = groups.insert(at, {slow.ad_freq, {}});
    at->channels.push_back(channel);
  }
  return groups;
}

// Which file channels have samples, by the blocks: the counts of the header end early, and
// foreign systems leave them 0.
std::vector<bool> find_recorded(const session_state& session, const input_file& file,
                                const plx_plan& plan) {
  std::vector<bool> recorded(std::size_t{channel_limit} + 1);
  const std::int32_t offset = plx_slow_offset(plan.headers);
  plx_block_stream in = plx_stream(file, plan);
  plx_block block;
  while (next_scanned_block(session, in, block)) {
    const std::int32_t channel = block.header.channel + offset;
    if (block.header.type != plx_slow_block || block.n_there == 0) continue;
    if (channel >= 1 && channel <= channel_limit) recorded[channel] = true;
  }
  return recorded;
}

std::string describe(const slow_group& group) {
  return fmt::format("{} slow channel{} at {} Hz", group.channels.size(),
                     group.channels.size() == 1 ? "" : "s", group.hz);
}

// Null after the words for why there is none.
const slow_group* choose_group(const session_state& session, const std::vector<slow_group>& groups,
                               const std::string& wanted) {
  for (std::size_t i = 0; i < groups.size() && groups.size() > 1; ++i) {
    log_message(session, fmt::format("Stream {}: {}", i + 1, describe(groups[i])));
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    const bool chosen =
        wanted.empty()
            ? groups.size() == 1 ||
                  ask(session, fmt::format("Read {}?", describe(groups[i])), "Choose a stream")
            // Rates are far above the numbers of the list.
            : wanted == std::to_string(groups[i].hz) || wanted == std::to_string(i + 1);
    if (chosen) return &groups[i];
  }
  if (wanted.empty()) {
    log_message(session, "No stream was chosen");
  } else {
    refuse_file(session, fmt::format("There is no stream {}", wanted));
  }
  return nullptr;
}

// Without a program channel nothing is read of a channel, and nothing of it is replaced in a
// file that is written again.
void leave_out(session_state& session, const slow_group& group) {
  log_message(session, fmt::format("Left out: {}", describe(group)));
  for (const std::int64_t channel : group.channels) session.recording.channel_map[channel] = 0;
}

}  // namespace

bool choose_plx_rate(session_state& session, const input_file& file, const plx_plan& plan,
                     const std::string& wanted, std::int32_t& hz) {
  std::vector<slow_group> groups = list_groups(session, plan.headers);
  if (groups.size() > 1) {
    const std::vector<bool> recorded = find_recorded(session, file, plan);
    if (session.operation.reading_interrupted) return false;
    // A channel that is listed and was never recorded has no say, and stays where it is.
    for (slow_group& group : groups) {
      std::erase_if(group.channels, [&](std::int64_t c) { return !recorded[c]; });
    }
    std::erase_if(groups, [](const slow_group& group) { return group.channels.empty(); });
  }
  if (groups.empty()) {
    return refuse_file(session, "No samples were found for the channels of the configuration");
  }
  const slow_group* chosen = choose_group(session, groups, wanted);
  if (chosen == nullptr) return false;
  hz = chosen->hz;
  for (const slow_group& group : groups) {
    if (&group != chosen) leave_out(session, group);
  }
  return true;
}

}  // namespace kestrelvane
