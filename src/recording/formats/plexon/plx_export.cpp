// The recording in memory as a new ".plx" file, and the save path of the format.
#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "files/safe_file.h"
#include "recording/formats/plexon/plx.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t spike_words = 26;
constexpr std::int32_t words_before_spike = 12;
constexpr std::int32_t slow_words = 120;
constexpr const char* title = "Export data";
constexpr const char* options_title = "Save plexon file options";

template <std::size_t N>
void put_text(char (&to)[N], const std::string& text) {
  // The rest of the field stays zero, and so the text has an end.
  text.copy(to, N - 1);
}

std::int32_t centre_or_own_channel(const session_state& session, std::int32_t event) {
  const std::int32_t cluster = session.events.event_cluster[event];
  const std::int32_t centre = cluster > 0 ? session.templates.centre_channel(cluster) : 0;
  // A template that is flat on every channel has no centre.
  return centre > 0 ? centre : session.events.event_channel[event];
}

// Events of every cluster under its channel and unit, as far as the tables go.
void count_units(const session_state& session, const std::vector<std::int16_t>& units,
                 plx_file_header& h) {
  for (std::int32_t i = 1; i <= session.events.n_events; ++i) {
    const std::int32_t cluster = session.events.event_cluster[i];
    if (cluster <= 0) continue;
    const std::int16_t unit = units[cluster];
    const std::int32_t channel = session.templates.centre_channel(cluster);
    // The tables of the header are of fixed size; the blocks tell the rest.
    if (unit >= plx_counted_units || channel > plx_counted_channels) continue;
    ++h.ts_counts[channel][unit];
    ++h.wf_counts[channel][unit];
  }
}

plx_file_header make_file_header(const session_state& session,
                                 const std::vector<std::int16_t>& units) {
  const recording_store& r = session.recording;
  plx_file_header h{};
  h.magic = plx_magic;
  h.version = 105;
  put_text(h.comment, "Plexon file exported by Kestrelvane");
  h.ad_frequency = h.waveform_freq = r.sampling_frequency;
  h.n_dsp_channels = h.n_slow_channels = r.n_channels;
  h.n_points_wave = spike_words;
  h.n_points_pre_thr =
      static_cast<std::int32_t>(static_cast<float>(r.sampling_frequency) *
                                session.strategy.template_window_start_ms / -1000.0f);
  // Readers take the date for one of the calendar; the first of 1970 stands for none.
  const bool dated = r.record_date[0] > 0;
  h.year = dated ? r.record_date[0] : 1970;
  h.month = dated ? r.record_date[1] : 1;
  h.day = dated ? r.record_date[2] : 1;
  h.second = r.record_time[0];
  h.minute = r.record_time[1];
  h.hour = r.record_time[2];
  h.last_timestamp = r.n_samples;
  h.trodalness = r.electrode_type == electrode_tetrode ? 4 : 1;
  h.data_trodalness = 1;
  h.bits_per_spike_sample = h.bits_per_slow_sample = 16;
  h.spike_max_magnitude_mv = 3000;
  h.slow_max_magnitude_mv = 5000;
  h.spike_preamp_gain = 500;
  count_units(session, units, h);
  return h;
}

std::string channel_name(std::int32_t channel) { return fmt::format("sig{:03}", channel); }

void write_channel_headers(const session_state& session, safe_file& out) {
  std::vector<std::int32_t> n_units(std::size_t{channel_limit} + 1);
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    ++n_units[session.templates.centre_channel(c)];
  }
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    plx_channel_header h{};
    put_text(h.name, channel_name(c));
    put_text(h.sig_name, channel_name(c));
    h.channel = h.sig = h.ref = c;
    h.wf_rate = 100;
    h.gain = 5;
    h.filter = 4;
    h.threshold = 122;
    h.method = 1;
    h.n_units = n_units[c];
    h.sort_width = spike_words;
    write_value(out, h);
  }
}

// The gain that gives vscale_HP back, to the nearest gain below it; 1 at least.
std::int32_t slow_gain(float vscale_HP) {
  const double gain = 5000.0 * 1000.0 / (double{vscale_HP} * 32768.0);
  // Held to what the field takes, however fine the scale.
  constexpr double most = std::numeric_limits<std::int32_t>::max();
  return gain >= 1.0 ? static_cast<std::int32_t>(std::min(gain, most)) : 1;
}

void write_slow_headers(const recording_store& r, safe_file& out) {
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    plx_slow_header h{};
    put_text(h.name, channel_name(c));
    h.channel = c - 1;
    h.ad_freq = r.sampling_frequency;
    h.gain = slow_gain(r.vscale_HP);
    h.enabled = 1;
    h.preamp_gain = 1;
    h.spike_channel = c;
    put_text(h.comment, fmt::format("XPOS={}  YPOS={}", r.chan_x[c], r.chan_y[c]));
    write_value(out, h);
  }
}

// Blocks of all channels in turn; the last round holds what is left, or nothing.
void write_samples(const session_state& session, safe_file& out) {
  const recording_store& r = session.recording;
  plx_block_header h{};
  h.type = plx_slow_block;
  h.n_waveforms = 1;
  const std::int32_t n_rounds = r.n_samples / slow_words + 1;
  for (std::int32_t k = 0; k < n_rounds && !out.failed; ++k) {
    const std::int32_t from = k * slow_words;
    const std::int32_t n = std::min(slow_words, r.n_samples - from);
    set_plx_time(h, from);
    h.n_words = static_cast<std::int16_t>(n);
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      h.channel = static_cast<std::int16_t>(c - 1);
      write_value(out, h);
      write_bytes(out, r.vd.channel(c) + from + 1, 2 * static_cast<std::size_t>(n));
    }
    set_progress(session, meter::saving,
                 static_cast<std::int32_t>(2 + 90 * std::int64_t{k} / n_rounds), 100);
  }
}

// In event order. An unclustered event keeps the unit field of the one before it.
void write_spikes(const session_state& session, const std::vector<std::int16_t>& units,
                  safe_file& out) {
  const recording_store& r = session.recording;
  const event_table& e = session.events;
  plx_block_header h{};
  h.type = plx_spike_block;
  h.n_waveforms = 1;
  h.n_words = spike_words;
  for (std::int32_t i = 1; i <= e.n_events && !out.failed; ++i) {
    const std::int32_t channel = centre_or_own_channel(session, i);
    h.channel = static_cast<std::int16_t>(channel);
    if (e.event_cluster[i] > 0) h.unit = units[e.event_cluster[i]];
    set_plx_time(h, e.event_time[i]);
    write_value(out, h);
    std::int16_t words[spike_words] = {};
    for (std::int32_t k = 0; k < spike_words; ++k) {
      // A waveform that reaches over an end is filled up with zeros.
      const std::int64_t t = std::int64_t{e.event_time[i]} - words_before_spike + k;
      if (t >= 1 && t <= r.n_samples) words[k] = r.vd.channel(channel)[t];
    }
    write_value(out, words);
  }
}

// The file that the recording came from. A work file may have brought the path of another
// machine.
std::string source_of(const recording_store& r) {
  // The path that the recording was read from is as good.
  return file_exists(r.plx_path) ? r.plx_path : r.recording_path;
}

// Spikes that the file holds on sorted channels are cut out anew at the events, from the
// continuous channels: what the acquisition system stored of them, often at a higher rate, is
// in no other file of ours. A file that cannot be read is for the rewrite to report.
bool may_replace_spikes(const session_state& session) {
  plx_stored_spikes stored;
  if (!count_plx_stored_spikes(session, source_of(session.recording), stored)) return true;
  if (stored.n_kept > 0) {
    log_message(session, fmt::format("{} spikes of channels that were not sorted stay as they are",
                                     stored.n_kept));
  }
  if (stored.n_replaced == 0) return true;
  const std::string counts = fmt::format("{} spikes stored in the file, {} events of this sort",
                                         stored.n_replaced, session.events.n_events);
  log_message(session, "Sorted channels: " + counts);
  return ask(session,
             "On the sorted channels the new file has the second for the first: " + counts +
                 ".\nReplace them?",
             options_title);
}

}  // namespace

bool export_plx(const session_state& session, const std::string& path) {
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  const std::vector<std::int16_t> units = number_plx_units(session, false);
  write_value(out, make_file_header(session, units));
  write_channel_headers(session, out);
  write_slow_headers(session.recording, out);
  write_samples(session, out);
  write_spikes(session, units, out);
  set_progress(session, meter::saving, 100, 100);
  return finish_safe_file(out);
}

bool save_plx(const session_state& session, const std::string& path) {
  tell(session, "Creating new Plexon file", title, box_icon::information);
  const bool again = session.recording.file_type == file_type_plx;
  if (again && !may_replace_spikes(session)) {
    tell(session, "Plexon recording data not saved: its own spikes would be gone", title);
    return false;
  }
  const bool saved =
      again ? rewrite_plx(session, source_of(session.recording), path,
                          ask(session, "Overwrite voltage records with new ones?", options_title))
            : export_plx(session, path);
  if (!saved) {
    const std::string why = why_not_saved(path);
    log_message(session, "Error opening unit 20");
    tell(session, "Error saving Plexon data " + why, title);
    return false;
  }
  tell(session, "Plexon recording data saved", title, box_icon::information);
  return true;
}

}  // namespace kestrelvane
