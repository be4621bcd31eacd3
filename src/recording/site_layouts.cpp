#include "recording/site_layouts.h"

#include <algorithm>
#include <cmath>

#include "session/run_log.h"

namespace kestrelvane {

namespace {

// clang-format off
// The polytrodes of the acquisition system, site by site.
constexpr polytrode_site map54_1a[] = {
    {-56, 1170}, {-56, 1105}, {-56, 1040}, {-56, 975}, {-56, 910}, {-56, 845}, {-56, 585},
    {-56, 455}, {-56, 325}, {-56, 195}, {-56, 65}, {-56, 130}, {-56, 260}, {-56, 390}, {-56, 520},
    {-56, 650}, {-56, 715}, {-56, 780}, {0, 1072}, {0, 942}, {0, 812}, {0, 682}, {0, 552},
    {0, 422}, {0, 162}, {0, 97}, {0, 292}, {0, 227}, {0, 357}, {0, 487}, {0, 617}, {0, 747},
    {0, 877}, {0, 1007}, {0, 1137}, {0, 1202}, {56, 780}, {56, 650}, {56, 520}, {56, 390},
    {56, 260}, {56, 130}, {56, 65}, {56, 195}, {56, 325}, {56, 455}, {56, 585}, {56, 715},
    {56, 845}, {56, 910}, {56, 975}, {56, 1105}, {56, 1170}, {56, 1040},
};
constexpr polytrode_site map54_1b[] = {
    {-43, 900}, {-43, 850}, {-43, 800}, {-43, 750}, {-43, 700}, {-43, 650}, {-43, 600},
    {-43, 550}, {-43, 500}, {-43, 450}, {-43, 400}, {-43, 350}, {-43, 300}, {-43, 250},
    {-43, 200}, {-43, 150}, {-43, 50}, {-43, 100}, {0, 900}, {0, 800}, {0, 700}, {0, 600},
    {0, 500}, {0, 400}, {0, 200}, {0, 100}, {0, 300}, {0, 50}, {0, 150}, {0, 250}, {0, 350},
    {0, 450}, {0, 550}, {0, 650}, {0, 750}, {0, 850}, {43, 200}, {43, 100}, {43, 50}, {43, 150},
    {43, 250}, {43, 300}, {43, 350}, {43, 400}, {43, 450}, {43, 500}, {43, 550}, {43, 600},
    {43, 650}, {43, 700}, {43, 750}, {43, 850}, {43, 900}, {43, 800},
};
constexpr polytrode_site map54_1c[] = {
    {-65, 1251}, {-65, 1101}, {-65, 951}, {-65, 801}, {-65, 651}, {-65, 501}, {-65, 351},
    {-65, 201}, {-65, 51}, {-65, 126}, {-65, 276}, {-65, 426}, {-65, 576}, {-65, 726}, {-65, 876},
    {-65, 1026}, {-65, 1176}, {-65, 1326}, {0, 1364}, {0, 1214}, {0, 1064}, {0, 914}, {0, 764},
    {0, 614}, {0, 314}, {0, 164}, {0, 464}, {0, 89}, {0, 239}, {0, 389}, {0, 539}, {0, 689},
    {0, 839}, {0, 989}, {0, 1139}, {0, 1289}, {65, 1326}, {65, 1251}, {65, 1176}, {65, 1026},
    {65, 876}, {65, 726}, {65, 576}, {65, 426}, {65, 276}, {65, 126}, {65, 51}, {65, 201},
    {65, 351}, {65, 501}, {65, 651}, {65, 951}, {65, 1101}, {65, 801},
};
constexpr polytrode_site map54_2a[] = {
    {-28, 1235}, {-28, 1170}, {-28, 1105}, {-28, 1040}, {-28, 975}, {-28, 910}, {-28, 845},
    {-28, 780}, {-28, 715}, {-28, 650}, {-28, 585}, {-28, 520}, {-28, 455}, {-28, 390},
    {-28, 325}, {-28, 260}, {-28, 195}, {-28, 130}, {-28, 65}, {-28, 1300}, {-28, 1365},
    {-28, 1430}, {-28, 1495}, {-28, 1560}, {-28, 1690}, {-28, 1755}, {-28, 1625}, {28, 1722},
    {28, 1657}, {28, 1592}, {28, 1527}, {28, 1462}, {28, 1397}, {28, 1332}, {28, 32}, {28, 97},
    {28, 162}, {28, 227}, {28, 292}, {28, 357}, {28, 422}, {28, 487}, {28, 552}, {28, 617},
    {28, 682}, {28, 747}, {28, 812}, {28, 877}, {28, 942}, {28, 1007}, {28, 1072}, {28, 1202},
    {28, 1267}, {28, 1137},
};
constexpr polytrode_site map54_2b[] = {
    {-25, 1275}, {-25, 1175}, {-25, 1075}, {-25, 975}, {-25, 875}, {-25, 775}, {-25, 725},
    {-25, 675}, {-25, 625}, {-25, 575}, {-25, 525}, {-25, 475}, {-25, 425}, {-25, 375},
    {-25, 325}, {-25, 275}, {-25, 225}, {-25, 175}, {-25, 125}, {-25, 75}, {-25, 25}, {-25, 825},
    {-25, 925}, {-25, 1025}, {-25, 1225}, {-25, 1325}, {-25, 1125}, {25, 1300}, {25, 1200},
    {25, 1100}, {25, 1000}, {25, 900}, {25, 0}, {25, 50}, {25, 100}, {25, 150}, {25, 200},
    {25, 250}, {25, 300}, {25, 350}, {25, 400}, {25, 450}, {25, 500}, {25, 550}, {25, 600},
    {25, 650}, {25, 700}, {25, 750}, {25, 800}, {25, 850}, {25, 950}, {25, 1150}, {25, 1250},
    {25, 1050},
};
constexpr polytrode_site pt16b_hs27[] = {
    {-27, 155}, {-27, 93}, {-27, 217}, {-27, 341}, {-27, 31}, {-27, 279}, {-27, 403}, {-27, 465},
    {-27, 650}, {-27, 700}, {27, 650}, {27, 700}, {27, 434}, {27, 372}, {27, 248}, {27, 0},
    {27, 310}, {27, 186}, {27, 62}, {27, 124},
};
// clang-format on

constexpr std::int32_t pt16b_grounded[] = {9, 10, 11, 12};

constexpr polytrode_map maps[] = {
    {"Map54_1a", map54_1a, {}}, {"Map54_1b", map54_1b, {}},
    {"Map54_1c", map54_1c, {}}, {"Map54_2a", map54_2a, {}},
    {"Map54_2b", map54_2b, {}}, {"pt16b_HS27", pt16b_hs27, pt16b_grounded},
};

void place(recording_store& r, std::int32_t c, std::int32_t x, std::int32_t y) {
  // Beyond the range of a position channels share the outermost place.
  constexpr std::int32_t farthest = 32767;
  r.chan_x[c] = static_cast<std::int16_t>(std::min(x, farthest));
  r.chan_y[c] = static_cast<std::int16_t>(std::min(y, farthest));
}

void warn_of_positions(const session_state& session) {
  log_message(session, "Warning: missing config file: assigning default channel positions");
  log_message(session, "NB these will not support proper sorting");
}

}  // namespace

void place_channels_in_line(session_state& session) {
  recording_store& r = session.recording;
  warn_of_positions(session);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) place(r, c, 0, 100 * (c - 1));
  r.site_columns = 1;
}

void place_channels_in_columns(session_state& session) {
  recording_store& r = session.recording;
  warn_of_positions(session);
  constexpr std::int32_t pitch = 200;
  // One column of up to 16, then as many as keep the array about square.
  const std::int32_t columns =
      r.n_channels <= 16 ? 1 : static_cast<std::int32_t>(std::ceil(std::sqrt(r.n_channels)));
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    place(r, c, pitch * ((c - 1) % columns), pitch * ((c - 1) / columns));
  }
  r.site_columns = columns;
}

void set_tetrode_map(session_state& session) {
  recording_store& r = session.recording;
  constexpr std::int32_t side = 25, distance = 300;
  r.electrode_type = electrode_tetrode;
  r.n_tetrodes = std::max(r.n_channels / 4, 1);  // two or three channels are one, too
  r.site_columns = 2;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const std::int32_t tetrode = (c - 1) / 4, site = (c - 1) % 4;
    // In rows of 64, so that the last of them still has a position.
    place(r, c, side * (site % 2) + distance * (tetrode % 64),
          side * (site / 2) + distance * (tetrode / 64));
    r.tetrode_of_channel[c] = tetrode + 1;
  }
}

const polytrode_map* find_polytrode_map(std::string_view name) {
  // A micro sign of one byte (code page 1252) or of two (UTF-8), or a "u" for it.
  for (const std::string_view sign : {"\xC2\xB5", "\xB5", "u"}) {
    if (!name.starts_with(sign)) continue;
    name.remove_prefix(sign.size());
    break;
  }
  for (const polytrode_map& map : maps) {
    if (name == map.name) return &map;
  }
  return nullptr;
}

}  // namespace kestrelvane
