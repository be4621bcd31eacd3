#include <fmt/format.h>
#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <system_error>
#include <vector>

#include "files/safe_file.h"
#include "recording/event_records.h"
#include "recording/formats/blackrock/nev.h"
#include "recording/formats/blackrock/nev_layout.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t noise_unit = 255;

// The events by channel and time, so that a packet's is found without a look at them all.
struct event_index {
  std::vector<std::size_t> first;    // of each channel in events; one more behind the last
  std::vector<std::int32_t> events;  // by channel, then by time, then by number
};

event_index index_events(const session_state& session) {
  const event_table& e = session.events;
  event_index index;
  index.first.assign(static_cast<std::size_t>(session.recording.n_channels) + 2, 0);
  const auto channel_of = [&](std::int32_t event) {
    return static_cast<std::size_t>(e.event_channel[event]);
  };
  // Sizes go one place up, so that their running sum gives where each channel begins.
  for (std::int32_t i = 1; i <= e.n_events; ++i) ++index.first[channel_of(i) + 1];
  std::partial_sum(index.first.begin(), index.first.end(), index.first.begin());
  index.events.resize(static_cast<std::size_t>(e.n_events));
  std::vector<std::size_t> next = index.first;
  for (std::int32_t i = 1; i <= e.n_events; ++i) index.events[next[channel_of(i)]++] = i;
  const auto earlier = [&](std::int32_t a, std::int32_t b) {
    // Of equal times the one found first.
    return e.event_time[a] != e.event_time[b] ? e.event_time[a] < e.event_time[b] : a < b;
  };
  for (std::size_t c = 1; c + 1 < index.first.size(); ++c) {
    std::sort(index.events.begin() + static_cast<std::ptrdiff_t>(index.first[c]),
              index.events.begin() + static_cast<std::ptrdiff_t>(index.first[c + 1]), earlier);
  }
  return index;
}

// The lowest event number of a channel with a time in from..to; 0 for none.
std::int32_t find_event(const session_state& session, const event_index& index,
                        std::int32_t channel, std::int64_t from, std::int64_t to) {
  const event_table& e = session.events;
  const auto c = static_cast<std::size_t>(channel);
  // From where the channel begins to where the next one does.
  const auto end = index.events.begin() + static_cast<std::ptrdiff_t>(index.first[c + 1]);
  auto at = std::lower_bound(
      index.events.begin() + static_cast<std::ptrdiff_t>(index.first[c]), end, from,
      [&](std::int32_t event, std::int64_t time) { return e.event_time[event] < time; });
  std::int32_t found = 0;
  for (; at != end && e.event_time[*at] <= to; ++at) {
    if (found == 0 || *at < found) found = *at;
  }
  return found;
}

// Clusters of one centre channel are its units 1, 2, ...
std::vector<std::int32_t> number_units(const session_state& session) {
  std::vector<std::int32_t> unit_of(session.clusters.n_clusters + 1);
  std::vector<std::int32_t> n_units(session.recording.n_channels + 1);
  for (std::int32_t k = 1; k <= session.clusters.n_clusters; ++k) {
    const auto centre = static_cast<std::size_t>(session.templates.centre_channel(k));
    unit_of[k] = ++n_units[centre];
  }
  return unit_of;
}

// What the writer carries from packet to packet.
struct nev_writing {
  nev_layout layout;
  event_index events;
  std::vector<std::int32_t> unit_of_cluster;
  std::vector<std::int32_t> slots;        // program channel of each electrode id
  std::vector<std::int32_t> n_waveforms;  // seen so far, by slot
  std::map<std::int32_t, std::int64_t> unknown_ids;
  bool as_records = true;   // how the file was read
  std::int64_t n_kept = 0;  // waveforms whose unit number does not fit its byte
  std::int64_t n_walked = 0;
};

// Recordings treated as continuous count no records, whatever the preference says by now.
bool was_read_as_records(const session_state& session) {
  const recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.channel_event_count[c] > 0) return true;
  }
  return false;
}

// The time index at which a waveform was stored, or -1 for one that was left out.
std::int64_t stored_index(const session_state& session, nev_writing& writing,
                          const nev_packet& packet, std::int32_t slot) {
  const nev_layout& layout = writing.layout;
  if (!writing.as_records) {
    return ticks_to(ticks_of(layout, packet.stamp), layout.sample_rate, layout.resolution);
  }
  std::int32_t& record = writing.n_waveforms[slot];
  // The reader left it out, and the unit that stands there is not ours to change.
  if (record == session.recording.channel_event_count[slot]) return -1;
  return record_index(++record, session.recording.samples_per_event);
}

// The unit of a waveform now, given the one that it has.
std::int32_t unit_now(const session_state& session, nev_writing& writing, const nev_packet& packet,
                      std::int32_t slot) {
  const recording_store& r = session.recording;
  const std::int64_t from = stored_index(session, writing, packet, slot);
  if (from < 0) return packet.unit;
  const std::int64_t to = from + r.samples_per_event;
  const std::int32_t event = find_event(session, writing.events, slot, from, to);
  // A waveform without an event has been removed from the sort: it is noise.
  if (event == 0) {
    // An event that the reader has left unclassified is registered to the electrode's number.
    const bool elsewhere = packet.id != slot && packet.id <= r.n_channels && packet.unit == 0 &&
                           find_event(session, writing.events, packet.id, from, to) != 0;
    return elsewhere ? packet.unit : noise_unit;
  }
  const std::int32_t cluster = session.events.event_cluster[event];
  // Unclustered events keep what the file says; so do those of clusters beyond the channels.
  if (cluster < 1 || cluster > r.n_channels) return packet.unit;
  const std::int32_t unit = writing.unit_of_cluster[cluster];
  // 255 means noise, so that 254 units are the most that a byte can tell.
  if (unit < noise_unit) return unit;
  ++writing.n_kept;
  return packet.unit;
}

void classify_packet(const session_state& session, nev_writing& writing, char* bytes) {
  const nev_packet packet = nev_packet_at(writing.layout, bytes);
  if (packet.id == 0) return;
  if (packet.id > writing.layout.n_file_channels) {
    if (++writing.unknown_ids[packet.id] == 1) {
      log_message(session, fmt::format("Unrecognised packet id = {}", packet.id));
    }
    return;
  }
  const std::int32_t slot = writing.slots[packet.id];
  if (slot == 0) return;
  bytes[writing.layout.unit_at()] = static_cast<char>(unit_now(session, writing, packet, slot));
}

// Names this program in the comment, behind what the user has written there.
void sign_comment(nev_layout& layout) {
  constexpr std::string_view signature = "Created by Kestrelvane";
  std::string comment(layout.comment);
  if (comment.find("d by Ke") != std::string::npos) return;
  if (!comment.empty()) comment += ' ';
  // The user's words are cut rather than the signature.
  comment.resize(std::min(comment.size(), nev_comment_bytes - 1 - signature.size()));
  comment += signature;
  comment.resize(nev_comment_bytes, '\0');
  std::memcpy(layout.basic.data() + nev_comment_at, comment.data(), nev_comment_bytes);
}

bool copy_range(safe_file& out, const input_file& file, std::int64_t from, std::int64_t to) {
  // Headers and the tail are short; packets go in blocks.
  const std::vector<char> bytes = read_block(file, from, to - from);
  return std::ssize(bytes) == to - from && write_bytes(out, bytes.data(), bytes.size());
}

bool copy_headers(const session_state& session, const input_file& file, safe_file& out,
                  nev_layout& layout) {
  const auto on_unknown = [&](std::int64_t header) {
    log_message(session, fmt::format("Unrecognised extended header {}", header));
  };
  if (!scan_nev_electrodes(
          file, layout, [](const nev_electrode&) {}, on_unknown))
    return false;
  sign_comment(layout);
  return write_bytes(out, layout.basic.data(), layout.basic.size()) &&
         copy_range(out, file, nev_basic_bytes, layout.header_bytes);
}

bool copy_packets(const session_state& session, const input_file& file, safe_file& out,
                  nev_writing& writing) {
  const nev_layout& layout = writing.layout;
  const bool walked = walk_nev_packets(file, layout, [&](char* bytes, std::int64_t n) {
    for (std::int64_t p = 0; p < n; ++p) {
      classify_packet(session, writing, bytes + p * layout.packet_bytes);
    }
    writing.n_walked += n;
    const auto bar = static_cast<std::int32_t>(100 * writing.n_walked / layout.n_packets);
    set_progress(session, meter::saving, bar, 100);
    return write_bytes(out, bytes, static_cast<std::size_t>(n * layout.packet_bytes));
  });
  // What follows the last whole packet.
  return walked &&
         copy_range(out, file, layout.header_bytes + layout.n_packets * layout.packet_bytes,
                    file.size);
}

// Where the loaded file stands while it is written anew.
std::string aside_path(const std::string& path) { return replace_extension(path, ".___tmp"); }

bool copy_classified(const session_state& session, const std::string& from, const std::string& to) {
  input_file file;
  errno = 0;  // a file that is refused for what it holds has no words of the system
  if (!open_input_file(file, from)) {
    log_message(session, "Failed to Open NEV file");
    return false;
  }
  nev_writing writing;
  safe_file out;
  if (!read_nev_layout(session, file, writing.layout) || !open_safe_file(out, to)) return false;
  // Over itself, where nothing stands under its name for now.
  if (from == aside_path(to)) take_permissions(out, from);
  if (!copy_headers(session, file, out, writing.layout)) return false;
  writing.events = index_events(session);
  writing.unit_of_cluster = number_units(session);
  writing.slots = list_nev_slots(session, writing.layout.n_file_channels);
  writing.n_waveforms.assign(static_cast<std::size_t>(session.recording.n_channels) + 1, 0);
  writing.as_records = was_read_as_records(session);
  if (!copy_packets(session, file, out, writing)) return false;
  std::int64_t n_unknown = 0;
  for (const auto& [id, n] : writing.unknown_ids) n_unknown += n;
  if (n_unknown > 0) {
    log_message(session, fmt::format("{} packets have an unrecognised id", n_unknown));
  }
  if (writing.n_kept > 0) {
    log_message(session, fmt::format("{} waveforms keep their unit: the channel has more than {}",
                                     writing.n_kept, noise_unit - 1));
  }
  return finish_safe_file(out);
}

// Over the loaded file itself, whose bytes stand under another name until the copy is whole.
bool replace_classified(const session_state& session, const std::string& path) {
  const std::string kept = aside_path(path);
  // A file of that name may be the only copy of something.
  if (file_exists(kept) || std::rename(path.c_str(), kept.c_str()) != 0) {
    log_message(session, "Can't rename file " + path);
    return false;
  }
  if (copy_classified(session, kept, path)) {
    std::remove(kept.c_str());
    return true;
  }
  if (std::rename(kept.c_str(), path.c_str()) != 0) {
    log_message(session, "Can't rename file " + kept);
  }
  return false;
}

// The path without links and detours; empty when there is no such file.
std::string resolved(const std::string& path) {
  std::error_code failure;
  const std::filesystem::path canonical = std::filesystem::canonical(path, failure);
  return failure ? std::string() : canonical.string();
}

}  // namespace

bool write_nev_with_units(const session_state& session, const std::string& path) {
  const std::string& input = session.recording.recording_path;
  const std::string target = resolved(path);
  // Links may lead to the same file under another name.
  const bool over_itself = !target.empty() && target == resolved(input);
  const bool written =
      over_itself ? replace_classified(session, target) : copy_classified(session, input, path);
  if (written) {
    tell(session, "Blackrock .nev recording data saved", "Save sorted spikes",
         box_icon::information);
  } else {
    tell(session, "Error saving Blackrock .nev data " + why_not_saved(path), "Export sorted data");
  }
  return written;
}

}  // namespace kestrelvane
