// Positions from files of other tools, and texts that are no literals.
#include "recording/probe_files.h"

#include <gtest/gtest.h>

#include "files/literal_text.h"
#include "operations/open_recording.h"
#include "recording/electrode_config.h"
#include "support/interleaved_fixture.h"
#include "support/samples.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct probe_files_test : testing::Test {
  temporary_directory folder;
  std::vector<wired_contact> contacts;
  std::string problem;

  bool read(const std::string& name, const std::string& text) {
    write_bytes(folder.file(name), {text.begin(), text.end()});
    return read_probe_file(folder.file(name), contacts, problem);
  }
  bool read_json(const std::string& probes) {
    return read("p.json", R"({"specification":"probeinterface","version":"0.2.21","probes":[)" +
                              probes + "]}");
  }
};

constexpr const char* square =
    R"({"ndim":2,"si_units":"um","contact_positions":[[0,0],[0,20],[20,0],[20,20]])";

TEST_F(probe_files_test, contacts_go_to_the_channels_they_are_wired_to) {
  ASSERT_TRUE(read_json(square + std::string(R"(,"device_channel_indices":[3,2,-1,0]})")))
      << problem;
  ASSERT_EQ(contacts.size(), 3u);
  EXPECT_EQ(contacts[0].file_channel, 1);
  EXPECT_EQ(contacts[0].x, 20);
  EXPECT_EQ(contacts[1].file_channel, 3);
  EXPECT_EQ(contacts[1].y, 20);
  EXPECT_EQ(contacts[2].file_channel, 4);

  // Without wiring in order; lengths in mm; a second probe stands aside.
  ASSERT_TRUE(read_json(square + std::string("},") +
                        R"({"ndim":2,"si_units":"mm","contact_positions":[[0.01,0.5]]})"));
  ASSERT_EQ(contacts.size(), 5u);
  EXPECT_EQ(contacts[4].file_channel, 5);
  EXPECT_EQ(contacts[4].x, 1010);
  EXPECT_EQ(contacts[4].y, 500);
}

TEST_F(probe_files_test, files_that_describe_no_sound_probe_are_refused_in_words) {
  const std::pair<std::string, const char*> bad[] = {
      {square + std::string(R"(,"device_channel_indices":[3,2,0]})"),
       "the lists of contacts differ in length"},
      {square + std::string(R"(,"device_channel_indices":[3,2,2,0]})"),
       "channel 2 stands there twice"},
      {square + std::string(R"(,"device_channel_indices":[-1,-1,-1,-1]})"),
       "no contact is wired to a channel"},
      {square + std::string(R"(,"device_channel_indices":[1e300,0,1,2]})"),
       "contact 0 has no sound channel and position"},
      {R"({"ndim":3,"si_units":"um","contact_positions":[[0,0,0]]})",
       "only probes of two dimensions can be read"},
      {R"({"ndim":2,"si_units":"inch","contact_positions":[[0,0]]})",
       "the unit of length is neither um nor mm"},
      {R"({"ndim":2,"si_units":"mm","contact_positions":[[1e9,0]]})",
       "contact 0 has no sound channel and position"},
      {R"({"ndim":2,"si_units":"um","contact_positions":[["a",0]]})",
       "contact 0 has no sound channel and position"},
      {"5", "a probe is no object"},
  };
  for (const auto& [probe, words] : bad) {
    EXPECT_FALSE(read_json(probe)) << probe;
    EXPECT_EQ(problem, words);
    EXPECT_TRUE(contacts.empty());
  }
  for (const char* text : {"", "{", "[]", R"({"specification":"other","probes":[]})"}) {
    EXPECT_FALSE(read("p.json", text));
    EXPECT_EQ(problem, "not a probeinterface file");
  }
  EXPECT_FALSE(read("p.json", std::string(200'000, '[')));
}

TEST_F(probe_files_test, channel_groups_are_read_as_literals) {
  ASSERT_TRUE(read("p.prb", R"(# two shanks
total_nb_channels = 6
radius = 100
channel_groups = {
    0: {'channels': list(range(0, 3)) + [5],
        'graph': [(0, 1), (1, 2)],
        'geometry': {0: (0, 0), 1: [0.0, 20], 2: (0, 4e1), 5: (-10, 60,)}},
    "b": {"channels": range(3, 5), "geometry": [(500, 0), (500, 25)],
          'label': None, 'used': True},  # trailing comma
}
)")) << problem;
  ASSERT_EQ(contacts.size(), 6u);
  EXPECT_EQ(contacts[5].file_channel, 6);
  EXPECT_EQ(contacts[5].x, -10);
  EXPECT_EQ(contacts[4].y, 25);
  // Groups each from its own origin stand apart.
  ASSERT_TRUE(read("p.prb",
                   "channel_groups = {0: {'channels': [0], 'geometry': {0: (5, 5)}},"
                   " 1: {'channels': [1], 'geometry': {1: (5, 5)}}}"));
  EXPECT_EQ(contacts[1].x, 1005);
}

TEST_F(probe_files_test, nothing_is_run) {
  const std::pair<const char*, const char*> bad[] = {
      {"import os\n", "line 1: not an assignment of a literal"},
      {"a = 1\nchannel_groups = __import__('os')", "line 2: __import__ is not a literal"},
      {"channel_groups = {0: {'channels': [n for n in range(3)]}}", "line 1: n is not a literal"},
      {"channel_groups = {0: {'channels': list(range(0, 1000000000))}}",
       "line 1: too many elements"},
      {"channel_groups = {0: {'channels': [0, 1}", "line 1: a comma or an end is missing"},
      {"channel_groups = 'abc", "line 1: a text without an end"},
      {"channel_groups = 5", "there are no channel_groups"},
      {"channel_groups = {0: {'channels': [0]}}", "a group has no channels with geometry"},
      {"channel_groups = {0: {'channels': [0], 'geometry': {}}}",
       "channel 0 has no sound position"},
      {"x = 1", "there are no channel_groups"},
  };
  for (const auto& [text, words] : bad) {
    EXPECT_FALSE(read("p.prb", text)) << text;
    EXPECT_EQ(problem, words) << text;
  }
  EXPECT_FALSE(read("p.prb", "a = " + std::string(100'000, '(')));
  EXPECT_FALSE(read("p.prb", "a = " + std::string(100'000, '[')));
}

TEST_F(probe_files_test, a_recording_is_opened_with_the_probe_beside_it) {
  small_session session;
  neuroscope_fixture f;
  const std::string path = write_neuroscope(folder.path, f);
  read("base.json", R"({"some":"other tool"})");  // not taken for a probe
  read("electrode.prb",
       "channel_groups = {0: {'channels': [4, 1],"
       " 'geometry': {4: (0, 80), 1: (0, 20)}}}");
  ASSERT_TRUE(open_recording(*session, path));
  EXPECT_EQ(session->recording.n_channels, 2);
  EXPECT_EQ(session->recording.vd.channel(1)[1], interleaved_sample(1, 0));
  EXPECT_EQ(session->recording.vd.channel(2)[1], interleaved_sample(4, 0));
  EXPECT_EQ(session->recording.chan_y[2], 80);
  EXPECT_TRUE(session.user.logged("Reading channel configuration file electrode.prb"));
  EXPECT_EQ(session->recording.electrode_name, "electrode");
}

TEST_F(probe_files_test, a_real_description_of_a_probe) {
  const std::string path = sample_path("probeinterface/probe_format_example.json");
  if (path.empty()) GTEST_SKIP() << "no samples";
  ASSERT_TRUE(read_probe_file(path, contacts, problem)) << problem;
  EXPECT_EQ(contacts.size(), 8u);
}

}  // namespace
}  // namespace kestrelvane::test
