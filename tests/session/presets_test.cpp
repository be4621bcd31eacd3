#include "session/presets.h"

#include <gtest/gtest.h>

#include "session/settings_table.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

// Each row names settings that there are, with values that a user could give, and one that was
// changed on top of it stays changed.
TEST(Presets, HoldForARunAlone) {
  EXPECT_EQ(find_preset("sensitive"), find_preset("Sensitive"));
  EXPECT_EQ(find_preset("Sens"), nullptr);
  EXPECT_TRUE(sort_presets()[0].settings.empty() && sort_presets()[0].filters.empty());
  for (const sort_preset& preset : sort_presets()) {
    SCOPED_TRACE(preset.name);
    test::small_session session;
    session->detection.lockout_ms = 0.75f;
    std::vector<std::string> before;
    for (const setting_row& row : settings_table()) {
      if (row.address != nullptr) before.push_back(setting_text(*session, row));
    }
    preset_hold hold = hold_preset(*session, preset);
    for (const preset_setting& s : preset.settings) {
      const setting_row* row = find_setting(s.name);
      ASSERT_NE(row, nullptr) << s.name;
      EXPECT_TRUE(setting_in_range(*row, s.value)) << s.name;
      EXPECT_FLOAT_EQ(static_cast<float>(setting_value(*session, *row)),
                      static_cast<float>(s.value));
    }
    release_preset(*session, hold);
    std::size_t at = 0;
    for (const setting_row& row : settings_table()) {
      if (row.address == nullptr) continue;
      EXPECT_EQ(setting_text(*session, row), before[at++]) << row.name;
    }
    if (preset.settings.empty()) continue;
    preset_hold again = hold_preset(*session, preset);
    session->detection.variable_multiplier = 6.5f;
    release_preset(*session, again);
    EXPECT_EQ(session->detection.variable_multiplier, 6.5f);
    EXPECT_EQ(session->detection.lockout_ms, 0.75f);
  }
}

}  // namespace
}  // namespace kestrelvane
