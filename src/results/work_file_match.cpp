#include "results/work_file_match.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "recording/acquisition_facts.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// What a file says of the recording that it was saved from.
struct saved_facts {
  std::int32_t n_channels = 0;  // 0: unknown
  std::int32_t last_time = 0;   // of its events
  std::string rate;             // as the log has it, Hz; empty: unknown
};

constexpr std::string_view rate_words = "Sampling frequency = ";

// Saved paths may have the separators of another system.
std::string name_without_folders(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

bool read_last_time(work_file_source& in, std::int64_t n_events, std::int32_t& last) {
  constexpr std::int64_t piece = 1 << 18;  // events, a megabyte
  std::vector<std::int32_t> times;
  for (std::int64_t e = 0; e < n_events; e += piece) {
    times.resize(static_cast<std::size_t>(std::min(piece, n_events - e)));
    if (!read_bytes(in, times.data(), 4 * static_cast<std::int64_t>(times.size()))) return false;
    last = std::max(last, *std::max_element(times.begin(), times.end()));
  }
  return true;
}

// Opening a recording logs its rate; the last such line is of the recording that was in memory
// when the file was saved.
bool read_rate(work_file_source& in, std::int64_t bytes, std::string& rate) {
  std::string log(static_cast<std::size_t>(std::min(bytes, remaining(in))), '\0');
  if (!read_bytes(in, log.data(), static_cast<std::int64_t>(log.size()))) return false;
  const std::size_t at = log.rfind(rate_words);
  if (at == std::string::npos) return true;
  const std::size_t begin = at + rate_words.size();
  rate = log.substr(begin, log.find(' ', begin) - begin);
  return true;
}

bool read_fact(work_file_source& in, const work_file_row& row, saved_facts& facts) {
  const std::string_view name = row.name;
  if (row.form == row_form::counter) {
    std::int32_t n = 0;
    if (!read_bytes(in, &n, sizeof n) || n < 0) return false;
    in.counts.of[row.rule] = n;
    if (row.rule == per_channel) facts.n_channels = n;
    return true;
  }
  if (name == "event_time") return read_last_time(in, in.counts.of[per_event], facts.last_time);
  if (name == "log_lines") return read_rate(in, row_bytes(row, in.counts), facts.rate);
  return pass_over(in, row_bytes(row, in.counts));
}

// Of a damaged file as far as it goes, since the read itself tells of the damage.
saved_facts read_facts(work_file_source& in) {
  saved_facts facts;
  const std::int64_t position = std::exchange(in.position, 0);
  for (const work_file_row& row : work_file_rows()) {
    if (row_is_in(row, in.version) && !read_fact(in, row, facts)) break;
  }
  in.position = position;
  in.problem.clear();
  return facts;
}

std::vector<std::string> find_differences(const session_state& session, const saved_facts& facts) {
  const recording_store& r = session.recording;
  std::vector<std::string> lines;
  if (facts.last_time > r.n_samples) {
    lines.push_back(
        fmt::format("Its last event is at sample {}, after the end of the recording "
                    "in memory, which has {}.",
                    facts.last_time, r.n_samples));
  }
  if (!facts.rate.empty() && facts.rate != rate_text(r)) {
    lines.push_back(
        fmt::format("It was saved at a sampling frequency of {} Hz, that in memory is "
                    "{} Hz.",
                    facts.rate, rate_text(r)));
  }
  return lines;
}

}  // namespace

bool belongs_to_recording(const session_state& session, work_file_source& in,
                          const std::string& saved_path) {
  // The file cuts paths at its field's length, so both sides are compared cut.
  const std::string path = session.recording.recording_path.substr(0, work_file_path_length);
  const std::string saved = name_without_folders(saved_path);
  const std::string loaded = name_without_folders(path);
  const saved_facts facts = read_facts(in);
  // No question: a sort of other channels cannot be laid over this recording.
  if (facts.n_channels != 0 && facts.n_channels != session.recording.n_channels) {
    return fail(in, fmt::format("Work file is of another recording: n_channels is {}, but the "
                                "recording has {} channels",
                                facts.n_channels, session.recording.n_channels));
  }
  std::vector<std::string> lines = find_differences(session, facts);
  if (saved != loaded) {
    log_message(session, "Saved filename: " + saved);
    log_message(session, "data filename: " + loaded);
    lines.insert(lines.begin(),
                 fmt::format("The work file was saved from {}, in memory is {}.", saved, loaded));
  }
  if (lines.empty()) return true;
  for (const std::string& line : lines) log_message(session, line);
  return ask(session, fmt::format("{}\n\nContinue reading work file?", fmt::join(lines, "\n")),
             saved != loaded ? "Warning: filename mismatch" : "Warning: recording mismatch");
}

}  // namespace kestrelvane
