#include "recording/probe_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>

#include "files/input_file.h"
#include "files/literal_text.h"
#include "session/limits.h"

namespace kestrelvane {

namespace {

using json = nlohmann::json;

// Far more than any probe needs, and little enough to be parsed.
constexpr std::int64_t most_bytes = 16 << 20;
constexpr double farthest = 32767;       // µm
constexpr double probe_distance = 1000;  // µm, between probes whose positions overlap

bool has_extension(const std::string& path, std::string_view extension) {
  if (path.size() < extension.size()) return false;
  // Case does not matter in an extension; the pattern is in lower case.
  return std::equal(extension.begin(), extension.end(), path.end() - extension.size(),
                    [](char a, char b) { return a == (b | 0x20) || a == b; });
}

std::string load(const std::string& path) {
  input_file file;
  if (!open_input_file(file, path)) return {};
  const std::vector<char> bytes = read_block(file, 0, most_bytes);
  return {bytes.begin(), bytes.end()};
}

std::optional<double> number_in(const json& list, std::size_t i) {
  if (!list.is_array() || i >= list.size() || !list[i].is_number()) return std::nullopt;
  const double value = list[i].get<double>();
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

// A pair of coordinates; false for anything else.
bool take_position(const json& pair, double scale, wired_contact& contact) {
  const std::optional<double> x = number_in(pair, 0), y = number_in(pair, 1);
  if (!x || !y || pair.size() != 2) return false;
  contact.x = std::round(*x * scale);
  contact.y = std::round(*y * scale);
  // What is no number was refused above; what is too far has no place in 16 bits.
  return std::abs(contact.x) <= farthest && std::abs(contact.y) <= farthest;
}

// --- probeinterface

bool take_probe(const json& probe, double shift, std::vector<wired_contact>& contacts,
                std::string& problem) {
  const json none;
  const auto member = [&](const char* key) -> const json& {
    const auto at = probe.find(key);
    return at == probe.end() ? none : *at;
  };
  if (!member("ndim").is_number() || member("ndim").get<double>() != 2) {
    problem = "only probes of two dimensions can be read";
    return false;
  }
  const json& units = member("si_units");
  const double scale = units == "mm" ? 1000 : 1;
  if (units != "mm" && units != "um") {
    problem = "the unit of length is neither um nor mm";
    return false;
  }
  const json& positions = member("contact_positions");
  const json& wiring = member("device_channel_indices");
  const bool wired = wiring.is_array() && !wiring.empty();
  if (!positions.is_array() || (wired && wiring.size() != positions.size())) {
    problem = "the lists of contacts differ in length";
    return false;
  }
  const std::size_t n_before = contacts.size();
  for (std::size_t i = 0; i < positions.size(); ++i) {
    wired_contact contact;
    const double channel =
        wired ? number_in(wiring, i).value_or(-1) : static_cast<double>(n_before + i);
    // A contact that is wired to nothing, which the format marks by -1.
    if (channel < 0) continue;
    if (channel >= channel_limit || !take_position(positions[i], scale, contact)) {
      problem = fmt::format("contact {} has no sound channel and position", i);
      return false;
    }
    contact.file_channel = static_cast<std::int32_t>(channel) + 1;
    // The probes after the first stand to its right, as far as positions reach.
    contact.x = std::min(contact.x + shift, farthest);
    contacts.push_back(contact);
  }
  return true;
}

bool read_probes(const std::string& text, std::vector<wired_contact>& contacts,
                 std::string& problem) {
  // Depth is bounded, or nesting could exhaust the stack.
  const json::parser_callback_t shallow = [](int depth, json::parse_event_t, json&) {
    return depth < 16;
  };
  const json all = json::parse(text, shallow, false);
  const bool known = all.is_object() && all.value("specification", json()) == "probeinterface" &&
                     all.contains("probes") && all["probes"].is_array();
  if (!known) {
    problem = "not a probeinterface file";
    return false;
  }
  double shift = 0;
  for (const json& probe : all["probes"]) {
    if (!probe.is_object() || !take_probe(probe, shift, contacts, problem)) {
      if (problem.empty()) problem = "a probe is no object";
      return false;
    }
    shift += probe_distance;
  }
  return true;
}

// --- channel groups

// Position of the i-th channel of a group: by its number, or by its place in the list.
const json* find_geometry(const json& geometry, double channel, std::size_t i) {
  if (geometry.is_array()) return i < geometry.size() ? &geometry[i] : nullptr;
  const auto at = geometry.find(fmt::format("{}", channel));
  return at == geometry.end() ? nullptr : &*at;
}

bool take_group(const json& group, double shift, std::vector<wired_contact>& contacts,
                std::string& problem) {
  const bool sound = group.is_object() && group.contains("channels") &&
                     group["channels"].is_array() && group.contains("geometry") &&
                     (group["geometry"].is_object() || group["geometry"].is_array());
  if (!sound) {
    problem = "a group has no channels with geometry";
    return false;
  }
  const json& channels = group["channels"];
  for (std::size_t i = 0; i < channels.size(); ++i) {
    wired_contact contact;
    const double channel = number_in(channels, i).value_or(-1);
    const json* position = find_geometry(group["geometry"], channel, i);
    if (channel < 0 || channel >= channel_limit || position == nullptr ||
        !take_position(*position, 1, contact)) {
      problem = fmt::format("channel {} has no sound position", channel);
      return false;
    }
    contact.file_channel = static_cast<std::int32_t>(channel) + 1;
    // As for probes: to the right of the groups before it.
    contact.x = std::min(contact.x + shift, farthest);
    contacts.push_back(contact);
  }
  return true;
}

bool positions_repeat(std::vector<wired_contact> contacts) {
  const auto place = [](const wired_contact& c) { return std::pair(c.x, c.y); };
  std::sort(contacts.begin(), contacts.end(),
            [&](const auto& a, const auto& b) { return place(a) < place(b); });
  return std::adjacent_find(contacts.begin(), contacts.end(), [&](const auto& a, const auto& b) {
           return place(a) == place(b);
         }) != contacts.end();
}

bool take_groups(const json& groups, double distance, std::vector<wired_contact>& contacts,
                 std::string& problem) {
  double shift = 0;
  contacts.clear();
  for (const json& group : groups) {
    if (!take_group(group, shift, contacts, problem)) return false;
    shift += distance;
  }
  return true;
}

bool read_channel_groups(const std::string& text, std::vector<wired_contact>& contacts,
                         std::string& problem) {
  json values;
  if (!parse_literal_assignments(text, values, problem)) return false;
  const auto groups = values.find("channel_groups");
  if (groups == values.end() || !(groups->is_object() || groups->is_array())) {
    problem = "there are no channel_groups";
    return false;
  }
  if (!take_groups(*groups, 0, contacts, problem)) return false;
  // Tetrodes and shanks are often described each from its own origin.
  // The second round places them side by side; the first has shown that it must.
  return !positions_repeat(contacts) || take_groups(*groups, probe_distance, contacts, problem);
}

bool check_channels(std::vector<wired_contact>& contacts, std::string& problem) {
  const auto channel = [](const wired_contact& c) { return c.file_channel; };
  std::sort(contacts.begin(), contacts.end(),
            [&](const auto& a, const auto& b) { return channel(a) < channel(b); });
  const auto twice =
      std::adjacent_find(contacts.begin(), contacts.end(),
                         [&](const auto& a, const auto& b) { return channel(a) == channel(b); });
  if (contacts.empty()) problem = "no contact is wired to a channel";
  // Told as the file counts, from 0.
  if (twice != contacts.end()) {
    problem = fmt::format("channel {} stands there twice", twice->file_channel - 1);
  }
  return problem.empty();
}

}  // namespace

bool is_probe_file(const std::string& path) {
  return has_extension(path, ".json") || has_extension(path, ".prb");
}

bool describes_probes(const std::string& path) {
  // Only looked for: what the file says otherwise is for the reader to judge.
  return load(path).find("\"probeinterface\"") != std::string::npos;
}

bool read_probe_file(const std::string& path, std::vector<wired_contact>& contacts,
                     std::string& problem) {
  contacts.clear();
  problem.clear();
  const std::string text = load(path);
  const bool good = has_extension(path, ".prb") ? read_channel_groups(text, contacts, problem)
                                                : read_probes(text, contacts, problem);
  if (good && check_channels(contacts, problem)) return true;
  // No half of a probe.
  contacts.clear();
  return false;
}

}  // namespace kestrelvane
