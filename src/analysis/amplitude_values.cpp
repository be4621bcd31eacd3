// What each row of the list "use" counts.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "analysis/amplitude_distribution.h"
#include "analysis/amplitude_figures.h"
#include "clustering/membership.h"
#include "files/text_lines.h"
#include "numerics/parallel.h"
#include "session/template_window.h"
#include "signal/interpolation.h"

namespace kestrelvane {

namespace {

constexpr const char* title = "Event amplitude distribution analysis";

constexpr amplitude_source_row rows[] = {
    {"raw voltage values", false, true},           {"peak/trough values", false, true},
    {"peak/trough sharpness", false, true},        {"dv/dt", false, true},
    {"peak-trough height", false, true},           {"detected events", false, true},
    {"event free sections", false, true},          {"sorted unit", true, true},
    {"distribution test", false, false},           {"LFP values if present", false, false},
    {"Deviations from template", true, false},     {"Template deviation vs time", true, false},
    {"Event sub-event distribution", true, false}, {"Spike peak", true, false},
};

// Samples from..to, the latter not included.
struct stretch {
  std::int64_t from, to;
};
using stretches = std::vector<stretch>;

// In order and without overlap.
stretches join(stretches all) {
  std::sort(all.begin(), all.end(),
            [](const stretch& a, const stretch& b) { return a.from < b.from; });
  stretches joined;
  for (const stretch& s : all) {
    if (s.from >= s.to) continue;
    if (!joined.empty() && s.from <= joined.back().to) {
      joined.back().to = std::max(joined.back().to, s.to);
    } else {
      joined.push_back(s);
    }
  }
  return joined;
}

// Both joined.
stretches common(const stretches& a, const stretches& b) {
  stretches both;
  for (std::size_t i = 0, k = 0; i < a.size() && k < b.size();) {
    const stretch s = {std::max(a[i].from, b[k].from), std::min(a[i].to, b[k].to)};
    if (s.from < s.to) both.push_back(s);
    (a[i].to < b[k].to ? i : k) += 1;
  }
  return both;
}

stretches outside(const stretches& inner, std::int64_t from, std::int64_t to) {
  stretches rest;
  for (const stretch& s : inner) {
    if (s.from > from) rest.push_back({from, std::min(s.from, to)});
    from = std::max(from, s.to);
  }
  if (from < to) rest.push_back({from, to});
  return rest;
}

// ---------------------------------------------------------------- counting

struct counter {
  ea_histogram& histogram;
  std::int64_t n_zeros = 0;

  void add(std::int32_t value) {
    n_zeros += value == 0;
    const std::int32_t bin = ea_bin(value, histogram.width);
    if (bin < -ea_bin_limit || bin > ea_bin_limit) return;
    ++histogram.at(bin);
    ++histogram.n_values;
  }
};

// A plateau is an extremum at its first sample.
bool is_peak(const std::int16_t* v, std::int64_t t) { return v[t] > v[t - 1] && v[t] >= v[t + 1]; }
bool is_trough(const std::int16_t* v, std::int64_t t) {
  return v[t] < v[t - 1] && v[t] <= v[t + 1];
}

// The largest drop after a peak, or rise after a trough.
std::int32_t swing_after(const std::int16_t* v, std::int64_t t, std::int64_t last) {
  const auto [low, high] = std::minmax_element(v + t + 1, v + last + 1);
  return is_peak(v, t) ? *low - v[t] : *high - v[t];
}

// What a row takes of a stretch of one channel; n is the recording's last sample. The ends of the
// recording have no neighbours.
void count_stretch(const amplitude_request& request, std::int32_t reach, const std::int16_t* v,
                   std::int64_t n, const stretch& s, counter& c) {
  const std::int32_t source = request.ea_source;
  const bool plain = source != ea_extrema && source != ea_sharpness && source != ea_slope &&
                     source != ea_peak_to_trough;
  const std::int64_t from =
      plain || source == ea_slope ? s.from : std::max<std::int64_t>(2, s.from);
  const std::int64_t to = plain ? s.to : std::min(n, s.to);
  for (std::int64_t t = from; t < to; ++t) {
    if (plain) {
      c.add(v[t]);
    } else if (source == ea_slope) {
      c.add(v[t + 1] - v[t]);
    } else if (is_peak(v, t) || is_trough(v, t)) {
      if (source == ea_extrema) c.add(v[t]);
      if (source == ea_sharpness) c.add(v[t + 1] + v[t - 1] - 2 * v[t]);
      if (source != ea_peak_to_trough) continue;
      const std::int32_t swing = swing_after(v, t, std::min(n, t + reach));
      if (swing != 0) c.add(swing);
    }
  }
}

// ---------------------------------------------------------------- stretches of a channel

stretch window_of(const session_state& session, std::int32_t event) {
  const std::int64_t first =
      std::int64_t{session.events.event_time[event]} + window_first_sample(session);
  return {std::max<std::int64_t>(1, first),
          std::min<std::int64_t>(first + session.templates.template_points,
                                 session.recording.n_samples + 1)};
}

// The windows of all events that are seen on a channel: of a cluster's events on the channels of
// its template, of the others on their own.
stretches windows_on(const session_state& session, std::int32_t channel) {
  const template_table& t = session.templates;
  std::vector<bool> seen(static_cast<std::size_t>(session.clusters.n_clusters) + 1);
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const std::int32_t* first = t.channels(c) + 1;
    const std::int32_t* last = first + t.template_n_channels[c];
    seen[static_cast<std::size_t>(c)] = std::find(first, last, channel) != last;
  }
  stretches windows;
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    const std::int32_t cluster = session.events.event_cluster[e];
    const bool here = is_cluster(session, cluster) && seen[static_cast<std::size_t>(cluster)];
    if (here || session.events.event_channel[e] == channel) {
      windows.push_back(window_of(session, e));
    }
  }
  return join(std::move(windows));
}

stretches windows_of_unit(const session_state& session, std::int32_t unit) {
  stretches windows;
  for (const std::int32_t e : list_cluster_events(session, unit)) {
    windows.push_back(window_of(session, e));
  }
  return join(std::move(windows));
}

stretches chosen_time(const session_state& session, const amplitude_request& request) {
  const recording_store& r = session.recording;
  const std::int64_t end = std::int64_t{r.n_samples} + 1;
  if (request.use_only.empty()) return {{1, end}};
  stretches chosen;
  const double rate = r.sampling_frequency;
  for (const tagged_stretch& s : request.use_only) {
    // Time index 1 stands at 0 s.
    const double from = std::clamp(s.from * rate + 1, 1.0, static_cast<double>(end));
    const double to = std::clamp(s.to * rate + 1, 1.0, static_cast<double>(end));
    chosen.push_back({static_cast<std::int64_t>(from), static_cast<std::int64_t>(to)});
  }
  return join(std::move(chosen));
}

stretches used_samples(const session_state& session, const amplitude_request& request,
                       std::int32_t channel, const stretches& time) {
  if (request.ea_source == ea_unit) return common(time, windows_of_unit(session, request.unit));
  const bool inside = request.ea_source == ea_events;
  if (!inside && !request.masked) return time;
  const stretches windows = windows_on(session, channel);
  if (inside) return common(time, windows);
  return common(time, outside(windows, 1, std::int64_t{session.recording.n_samples} + 1));
}

std::vector<std::int32_t> channels_of(const session_state& session,
                                      const amplitude_request& request) {
  const recording_store& r = session.recording;
  if (amplitude_sources()[request.ea_source - 1].of_unit) {
    return {session.templates.centre_channel(request.unit)};
  }
  if (!request.all_channels) return {std::clamp(request.channel, 1, r.n_channels)};
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) channels.push_back(c);
  }
  return channels;
}

void add_counts(ea_histogram& to, const ea_histogram& more) {
  for (std::size_t i = 0; i < to.counts.size(); ++i) to.counts[i] += more.counts[i];
  to.n_values += more.n_values;
}

// Half of the zeros of each channel go.
void correct_zeros(ea_histogram& histogram, std::int64_t n_zeros) {
  histogram.at(0) -= n_zeros / 2;
  histogram.n_values -= n_zeros / 2;
}

bool count_samples(const session_state& session, const amplitude_request& request,
                   amplitude_values& values) {
  const recording_store& r = session.recording;
  const std::vector<std::int32_t> channels = channels_of(session, request);
  const stretches time = chosen_time(session, request);
  if (time.empty()) return true;
  log_message(session, fmt::format("Sample limits = {} {}", time.front().from, time.back().to - 1));
  const bool masks = request.masked || request.ea_source == ea_events;
  if (masks) log_message(session, "Getting mask");
  const auto n = static_cast<std::int64_t>(channels.size());
  const std::int32_t n_threads = threads_now(session);
  // Between two of them the user may stop it.
  for (std::int64_t from = 0; from < n; from += n_threads) {
    if (autosort_interrupted(session)) return false;
    const std::int64_t to = std::min<std::int64_t>(n, from + n_threads);
    std::vector<ea_histogram> of(static_cast<std::size_t>(to - from), values.histogram);
    for (ea_histogram& h : of) h = {.width = request.ea_bin_width, .uv_per_bit = r.vscale_HP};
    parallel_for_dealt(n_threads, from, to - 1, [&](std::int64_t i, std::int32_t) {
      counter c{of[static_cast<std::size_t>(i - from)]};
      const std::int32_t reach = std::max(1, session.detection.window_samples);
      for (const stretch& s : used_samples(session, request, channels[i], time)) {
        count_stretch(request, reach, r.vd.channel(channels[i]), r.n_samples, s, c);
      }
      if (request.correct_truncation) correct_zeros(c.histogram, c.n_zeros);
    });
    for (const ea_histogram& h : of) add_counts(values.histogram, h);
    set_progress(session, meter::clusters, static_cast<std::int32_t>(to),
                 static_cast<std::int32_t>(n));
  }
  if (masks) log_message(session, "Finished Getting mask");
  values.channel = n == 1 ? channels[0] : 0;
  return true;
}

// ---------------------------------------------------------------- other rows

// A Gaussian core of 30 bits in flanks that fall off as an exponential of 80.
void count_formula(amplitude_values& values) {
  constexpr double core = 20'000, sigma = 30, flank = 300, length = 80;
  ea_histogram& h = values.histogram;
  for (std::int32_t v = -1000; v <= 1000; ++v) {
    const double x = v;
    const double height =
        core * std::exp(-x * x / (2 * sigma * sigma)) + flank * std::exp(-std::fabs(x) / length);
    const std::int32_t bin = ea_bin(v, h.width);
    if (bin < -ea_bin_limit || bin > ea_bin_limit) continue;
    h.at(bin) += std::llround(height);
    h.n_values += std::llround(height);
  }
}

bool refuse(const session_state& session, const char* words) {
  tell(session, words, title, box_icon::warning);
  return false;
}

bool count_lfp(const session_state& session, const amplitude_request& request,
               amplitude_values& values) {
  const lfp_store& lfp = session.recording.stimulus.lfp;
  if (lfp.n_lfp_samples == 0) return refuse(session, "There are no LFP values in memory");
  // Systems that record them have ten inputs for them.
  constexpr std::int32_t most_channels = 10;
  std::vector<const std::vector<std::int16_t>*> recorded;
  for (const std::vector<std::int16_t>& samples : lfp.samples) {
    if (!samples.empty()) recorded.push_back(&samples);
  }
  const auto n = static_cast<std::int32_t>(recorded.size());
  if (!request.all_channels && request.channel > std::min(n, most_channels)) {
    return refuse(session, "Can't analyse");
  }
  values.histogram.uv_per_bit = lfp.vscale_LFP;
  counter c{values.histogram};
  for (std::int32_t k = 1; k <= n; ++k) {
    if (!request.all_channels && k != request.channel) continue;
    for (const std::int16_t v : *recorded[static_cast<std::size_t>(k - 1)]) c.add(v);
  }
  if (request.correct_truncation) correct_zeros(c.histogram, c.n_zeros);
  values.channel = request.all_channels ? 0 : request.channel;
  return true;
}

std::int32_t largest_point(const session_state& session, std::int32_t unit, std::int32_t channel) {
  const float* mean = session.templates.mean(unit, channel);
  std::int32_t best = 1;
  for (std::int32_t p = 2; p <= session.templates.template_points; ++p) {
    if (std::fabs(mean[p]) > std::fabs(mean[best])) best = p;
  }
  return best;
}

void note_event(const session_state& session, std::int32_t event, float uv,
                amplitude_values& values) {
  const double rate = session.recording.sampling_frequency;
  values.minutes.push_back(static_cast<float>(session.events.event_time[event] / rate / 60));
  values.event_uv.push_back(uv);
  values.labels.push_back(session.events.event_subcluster[event]);
}

// Labels by falling frequency, of equal ones the smaller first; a histogram for each of the four.
void begin_split(const session_state& session, std::span<const std::int32_t> events,
                 amplitude_values& values) {
  constexpr std::size_t most = 4;
  std::map<std::int16_t, std::int32_t> sizes;
  for (const std::int32_t e : events) ++sizes[session.events.event_subcluster[e]];
  std::vector<std::pair<std::int16_t, std::int32_t>> order(sizes.begin(), sizes.end());
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  order.resize(std::min(most, order.size()));
  for (const auto& [label, size] : order) values.split_labels.push_back(label);
  values.split.assign(order.size(), ea_histogram{.width = values.histogram.width,
                                                 .uv_per_bit = values.histogram.uv_per_bit});
}

bool count_deviations(const session_state& session, const amplitude_request& request,
                      amplitude_values& values) {
  const template_table& t = session.templates;
  const std::int32_t channel = t.centre_channel(request.unit);
  const std::vector<std::int32_t> events = list_cluster_events(session, request.unit);
  if (request.ea_source == ea_sub_events) begin_split(session, events, values);
  const float* mean = t.mean(request.unit, channel);
  const std::int32_t peak = largest_point(session, request.unit, channel);
  counter all{values.histogram};
  std::int32_t n = 0;
  for (const std::int32_t e : events) {
    constexpr std::int32_t between_polls = 10'000;
    if (++n % between_polls == 0 && autosort_interrupted(session)) return false;
    const std::int64_t first = std::int64_t{session.events.event_time[e]} + t.first_sample;
    // Events at the rims have no whole waveform.
    const std::int64_t taps = session.tables.width;
    if (first - taps < 1 || first + t.template_points + taps > session.recording.n_samples)
      continue;
    const std::int32_t step = interp_step(session, session.events.event_shift[e]);
    const auto label = std::find(values.split_labels.begin(), values.split_labels.end(),
                                 session.events.event_subcluster[e]);
    for (std::int32_t p = 1; p <= t.template_points; ++p) {
      const float away = interp_voltage(session, first + p - 1, channel, step) - mean[p];
      const auto value = static_cast<std::int32_t>(std::lround(away));
      all.add(value);
      if (label != values.split_labels.end()) {
        counter{values.split[static_cast<std::size_t>(label - values.split_labels.begin())]}.add(
            value);
      }
      if (p == peak) note_event(session, e, away * session.recording.vscale_HP, values);
    }
  }
  return true;
}

void count_peaks(const session_state& session, const amplitude_request& request,
                 amplitude_values& values) {
  const std::int32_t channel = session.templates.centre_channel(request.unit);
  const std::vector<std::int32_t> events = list_cluster_events(session, request.unit);
  const std::vector<float> heights = measure_heights(session, request.unit, events);
  const float at_peak =
      session.templates.mean(request.unit, channel)[largest_point(session, request.unit, channel)];
  counter c{values.histogram};
  for (std::size_t i = 0; i < heights.size(); ++i) {
    // Heights grow in the direction of the template; a voltage has its own sign.
    const float uv = at_peak < 0 ? -heights[i] : heights[i];
    c.add(static_cast<std::int32_t>(std::lround(uv / values.histogram.uv_per_bit)));
    note_event(session, events[i], uv, values);
  }
}

// The voltage of every event of the channels in use, at its own time.
void count_event_peaks(const session_state& session, const amplitude_request& request,
                       amplitude_values& values) {
  values.events = {.width = request.ea_bin_width, .uv_per_bit = session.recording.vscale_HP};
  counter c{values.events};
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    const std::int32_t channel = session.events.event_channel[e];
    if (channel < 1 || channel > session.recording.n_channels) continue;
    if (values.channel != 0 && channel != values.channel) continue;
    c.add(session.recording.vd.channel(channel)[session.events.event_time[e]]);
  }
}

// What a row takes is there; a unit without a centre or templates of another window have no say.
bool can_count(const session_state& session, const amplitude_request& request) {
  const amplitude_source_row& row = rows[request.ea_source - 1];
  if (session.recording.n_samples == 0) return refuse(session, "No recording data in memory");
  // No acquisition system that is read marks stretches in a channel of their own.
  if (request.ea_source == ea_event_free) {
    return refuse(session,
                  "The recording has no flag channel, which marks sections without events");
  }
  if (row.of_unit && session.clusters.n_clusters > 0 && templates_are_outdated(session)) {
    return refuse(session, "Templates are those of another spike window: recalculate them first");
  }
  const std::int64_t bytes =
      std::int64_t{session.events.n_events} * static_cast<std::int64_t>(sizeof(stretch));
  if ((request.masked || request.ea_source == ea_events) && !memory_can_hold(bytes)) {
    return refuse(session, "Cannot allocate memory for used_sample array");
  }
  return true;
}

bool has_unit(const session_state& session, std::int32_t unit) {
  if (!is_cluster(session, unit)) return false;
  const std::int32_t channel = session.templates.centre_channel(unit);
  return channel >= 1 && channel <= session.recording.n_channels;
}

bool count_row(const session_state& session, const amplitude_request& request,
               amplitude_values& values) {
  const amplitude_source_row& row = rows[request.ea_source - 1];
  // Left empty, without a word: the graph says how many values there are.
  if (row.of_unit && !has_unit(session, request.unit)) return true;
  if (row.of_samples) return count_samples(session, request, values);
  if (row.of_unit) values.channel = session.templates.centre_channel(request.unit);
  switch (request.ea_source) {
    case ea_formula:
      count_formula(values);
      return true;
    case ea_lfp:
      return count_lfp(session, request, values);
    case ea_spike_peak:
      count_peaks(session, request, values);
      return true;
    default:
      return count_deviations(session, request, values);
  }
}

}  // namespace

std::span<const amplitude_source_row> amplitude_sources() { return rows; }

std::int32_t ea_bin(std::int32_t value, std::int32_t width) {
  if (width % 2 == 0) return value >= 0 ? value / width : (value + 1) / width - 1;
  // An odd width has no two nearest.
  const std::int32_t half = width / 2;
  return value >= 0 ? (value + half) / width : -((half - value) / width);
}

bool analyse_dataset(const session_state& session, const amplitude_request& request,
                     amplitude_values& values) {
  values = {};
  if (!can_count(session, request)) return false;
  log_message(session, "Analysing dataset");
  values.histogram.width = request.ea_bin_width;
  values.histogram.uv_per_bit = session.recording.vscale_HP;
  if (!count_row(session, request, values)) return false;
  if (request.add_events) count_event_peaks(session, request, values);
  log_message(session, fmt::format("max_ea_bins= {}", ea_bin_limit));
  log_message(session, fmt::format("n_samples in histogram= {}", values.histogram.n_values));
  return true;
}

bool read_tagged_stretches(const std::string& path, std::vector<tagged_stretch>& stretches) {
  stretches.clear();
  text_lines lines;
  if (!load_text(lines, path)) return false;
  std::string_view line;
  while (next_line(lines, line)) {
    const std::vector<double> numbers = leading_numbers(line, 2);
    if (numbers.size() < 2 || !(numbers[1] > numbers[0]) || numbers[0] < 0) continue;
    constexpr const char* between = " \t,;";
    tagged_stretch found{numbers[0], numbers[1], {}};
    // The tag is the third word, as it stands; none is a tag, too.
    std::size_t at = line.find_first_not_of(between);
    for (int word = 0; word < 2 && at != line.npos; ++word) {
      at = line.find_first_of(between, at);
      if (at != line.npos) at = line.find_first_not_of(between, at);
    }
    if (at != line.npos) {
      const std::size_t end = line.find_first_of(between, at);
      found.tag = line.substr(at, end == line.npos ? line.npos : end - at);
    }
    stretches.push_back(std::move(found));
  }
  return !stretches.empty();
}

}  // namespace kestrelvane
