// What a recording says of itself.
#include "recording/acquisition_facts.h"

#include <gtest/gtest.h>

#include "recording/site_tables.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(acquisition_facts, a_continuous_recording) {
  small_session session;
  make_recording(*session, 3, 50000, 25000, 0.25f);
  recording_store& r = session->recording;
  r.chan_y[3] = 140;  // 0, 40, 140
  build_site_tables(*session);
  r.chan_mask[2] = true;
  r.record_date[0] = 2024, r.record_date[1] = 3, r.record_date[2] = 9;
  r.record_time[0] = 18, r.record_time[1] = 30, r.record_time[2] = 14;
  acquisition_facts facts = list_acquisition_facts(*session);
  EXPECT_EQ(facts.config_file, "none");
  EXPECT_EQ(facts.n_channels + " " + facts.n_masked, "3 1");
  EXPECT_EQ(facts.spacing_from + " " + facts.spacing_to, "40 100");
  EXPECT_EQ(facts.date, "9/3/2024");
  EXPECT_EQ(facts.time, "14/30/18");
  EXPECT_EQ(facts.decimal_time, "14.5050");
  EXPECT_EQ(facts.duration, "0.033");
  EXPECT_EQ(facts.recording_type + ", " + facts.treated_as + ", " + facts.samples_per_event,
            "continuous, n/a, n/a");
  EXPECT_EQ(facts.sampling_frequency, "25000");
  EXPECT_EQ(facts.voltage_scaling, "0.25");
  r.no_config_file = false;
  r.config_path = "shank.cfg";
  r.sampling_frequency_exact = 30000.1234567;
  facts = list_acquisition_facts(*session);
  EXPECT_EQ(facts.config_file, "shank.cfg");
  EXPECT_EQ(facts.sampling_frequency, "30000.1234567");
}

TEST(acquisition_facts, stored_records_and_electrodes) {
  small_session session;
  make_recording(*session, 8, 1000);
  recording_store& r = session->recording;
  r.is_continuous = false;
  r.samples_per_event = 32;
  session->preferences.treat_as_continuous = false;
  EXPECT_EQ(list_acquisition_facts(*session).treated_as, "event based");
  session->preferences.treat_as_continuous = true;
  const acquisition_facts facts = list_acquisition_facts(*session);
  EXPECT_EQ(facts.date + facts.time + facts.decimal_time, "n/an/an/a");
  session->recording.record_date[0] = 2024;
  EXPECT_EQ(list_acquisition_facts(*session).decimal_time, "0.0000") << "midnight";
  EXPECT_EQ(facts.recording_type, "event based");
  EXPECT_EQ(facts.treated_as, "continuous");
  EXPECT_EQ(facts.samples_per_event, "32");
  r.electrode_type = electrode_tetrode;
  r.n_tetrodes = 1;
  EXPECT_EQ(electrode_type_text(r), "tetrode");
  r.n_tetrodes = 2;
  EXPECT_EQ(electrode_type_text(r), "multi tetrode");
  r.electrode_type = 7;
  EXPECT_EQ(electrode_type_text(r), "");
}

TEST(acquisition_facts, single_sites_and_display_places) {
  small_session session;
  make_recording(*session, 1, 1000);
  EXPECT_EQ(list_acquisition_facts(*session).spacing_from, "n/a");
  small_session column;
  make_recording(*column, 3, 1000);
  sort_channels(*column, -90.0f);  // from the top down
  EXPECT_EQ(display_position(column->recording, 1), 3);
  EXPECT_EQ(display_position(column->recording, 3), 1);
  column->recording.chan_sort_order[1] = 2;
  EXPECT_EQ(display_position(column->recording, 3), 0);
}

}  // namespace
}  // namespace kestrelvane::test
