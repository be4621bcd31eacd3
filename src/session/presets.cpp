#include "session/presets.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <mutex>

#include "session/settings_table.h"

namespace kestrelvane {

namespace {

// A wide band: what a spike has below 1 kHz and above 3 tells units apart.
constexpr const char* wide_band[] = {"highpass:0.3:2", "lowpass:6:2"};

// Either sign of a swing, and half the threshold that the multiphasic test comes to.
constexpr preset_setting sensitive_settings[] = {
    {"detection_method", method_bipolar},
    {"threshold_mode", threshold_variable},
    {"variable_multiplier", 5},
    {"use_lockout", 1},
    {"lockout_ms", 0.3},
};

// Sensitive's, in front of them what would otherwise cost units or make false ones, and the pass
// that finds the spikes which no threshold can. Small clusters are let in, since the pass tells
// which of them are units.
constexpr preset_setting thorough_settings[] = {
    {"mask_bad_channels", 1},
    {"remove_common_noise", 1},
    {"blank_artefacts", 1},
    {"correct_motion", 1},
    {"template_pass", 1},
    {"detection_method", method_bipolar},
    {"threshold_mode", threshold_variable},
    {"variable_multiplier", 5},
    {"use_lockout", 1},
    {"lockout_ms", 0.3},
    {"min_cluster_size", 30},
};

constexpr sort_preset presets[] = {
    {"Standard",
     "What is stored: the filters that you run, and the settings of the dialogs.",
     {},
     {}},
    {"Sensitive",
     "Weak units too: filters, and lets a peak or trough pass the threshold by itself.", wide_band,
     sensitive_settings},
    {"Thorough",
     "Most units: Sensitive, cleaned first, and spikes reclaimed by templates at the end.",
     wide_band, thorough_settings},
};

bool same_word(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  });
}

}  // namespace

std::span<const sort_preset> sort_presets() { return presets; }

const sort_preset* find_preset(std::string_view name) {
  for (const sort_preset& preset : presets) {
    if (same_word(name, preset.name)) return &preset;
  }
  return nullptr;
}

std::string preset_names() {
  std::string names;
  for (const sort_preset& preset : presets) {
    names += (names.empty() ? "" : ", ") + std::string(preset.name);
  }
  return names;
}

preset_hold hold_preset(session_state& session, const sort_preset& preset) {
  const std::lock_guard lock(session.settings_mutex);
  preset_hold hold;
  for (const preset_setting& setting : preset.settings) {
    const setting_row* row = find_setting(setting.name);
    const double before = setting_value(session, *row);
    store_setting(session, *row, 0, setting.value);
    // Read back: the value as the setting holds it, in 32 bits.
    hold.values.push_back({row, before, setting_value(session, *row)});
  }
  return hold;
}

void release_preset(session_state& session, preset_hold& hold) {
  const std::lock_guard lock(session.settings_mutex);
  for (const preset_hold::kept_value& kept : hold.values) {
    if (setting_value(session, *kept.row) != kept.during) continue;
    store_setting(session, *kept.row, 0, kept.before);
  }
  hold.values.clear();
}

std::string describe_preset(const sort_preset& preset) {
  std::string filters, settings;
  for (const char* filter : preset.filters) {
    filters += (filters.empty() ? ": " : ", ") + std::string(filter);
  }
  for (const preset_setting& s : preset.settings) {
    const bool is_logical = find_setting(s.name)->type == setting_type::logical_word;
    settings += fmt::format("{}{}=", settings.empty() ? "; " : ", ", s.name);
    settings += is_logical ? (s.value != 0 ? "true" : "false") : fmt::format("{}", s.value);
  }
  return fmt::format("Preset {}{}{}", preset.name, filters, settings);
}

}  // namespace kestrelvane
