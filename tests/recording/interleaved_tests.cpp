// Formats whose samples stand channel fastest: the spreading itself, SpikeGLX, Neuroscope and
// Open Ephys.
#include "recording/interleaved.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "operations/open_recording.h"
#include "recording/formats/neuroscope.h"
#include "recording/formats/spikeglx/spikeglx_meta.h"
#include "session/settings_files.h"
#include "session/settings_table.h"
#include "support/interleaved_fixture.h"
#include "support/samples.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr const char* no_config = "Cannot find electrode configuration file, continue anyway?";

struct interleaved_test : testing::Test {
  temporary_directory folder;
  small_session session;
  std::string stream;  // named by the user

  recording_store& recording() { return session->recording; }

  bool open(const std::string& path) {
    session.user.boxes.clear();
    session.user.lines.clear();
    session.user.questions.clear();
    session.user.answers[overwrite_question] = true;
    set_interrupts(session->operation, false);
    const auto request = prepare_open_recording(*session, {.path = path, .stream = stream});
    return request && open_recording_worker(*session, *request);
  }

  void write(const std::string& name, const std::string& text) {
    write_bytes(folder.file(name), {text.begin(), text.end()});
  }

  void expect_empty() {
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_FALSE(recording().vd.is_allocated());
    EXPECT_EQ(recording().recording_path, "No data file");
    EXPECT_EQ(check_session(*session), "");
  }

  std::int16_t sample(std::int32_t channel, std::int64_t t) {
    return recording().vd.channel(channel)[t];
  }
  // Points 0 to n - 1 of a value stand at time indices 1 to n of a channel.
  void expect_run(std::int32_t channel, std::int64_t value, std::int64_t n_points) {
    for (std::int64_t p = 0; p < n_points; ++p) {
      ASSERT_EQ(sample(channel, p + 1), interleaved_sample(value, p)) << channel << " " << p;
    }
  }
};

// --- spreading

// The plain form: one sample after the other.
TEST_F(interleaved_test, any_number_of_channels_and_points_at_any_number_of_threads) {
  for (const std::int32_t n_values : {1, 3, 8, 15, 16, 33, 385}) {
    for (const std::int64_t n_points : {1, 7, 8, 500, 3001}) {
      const std::string path = folder.file("points");
      write_bytes(path, interleaved_bytes(n_values, n_points, 1));
      input_file file;
      ASSERT_TRUE(open_input_file(file, path));
      make_recording(*session, n_values, static_cast<std::int32_t>(n_points) + 10);
      interleaved_channels channels;
      channels.target.resize(static_cast<std::size_t>(n_values));
      // In backward order, every seventh left out.
      for (std::int32_t v = 0; v < n_values; ++v) {
        channels.target[static_cast<std::size_t>(v)] = v % 7 == 5 ? 0 : n_values - v;
      }
      for (const std::int32_t threads : {1, 3}) {
        use_threads(*session, threads);
        for (std::int32_t c = 1; c <= n_values; ++c)
          std::fill_n(recording().vd.channel(c), n_points + 10, std::int16_t{0});
        ASSERT_EQ(read_interleaved(*session, file, channels, {0, n_points, 4}), read_end::whole);
        for (std::int32_t v = 0; v < n_values; ++v) {
          const std::int32_t c = n_values - v;
          for (std::int64_t p = 0; p < n_points; ++p) {
            ASSERT_EQ(sample(c, p + 4), v % 7 == 5 ? 0 : interleaved_sample(v, p))
                << n_values << " " << n_points << " " << threads;
          }
          ASSERT_EQ(sample(c, 3), 0);
          ASSERT_EQ(sample(c, n_points + 4), 0);
        }
      }
    }
  }
}

TEST_F(interleaved_test, a_run_beyond_the_file_ends_early_and_an_interrupt_stops_it) {
  const std::string path = folder.file("points");
  write_bytes(path, interleaved_bytes(4, 200'000));
  input_file file;
  ASSERT_TRUE(open_input_file(file, path));
  make_recording(*session, 4, 200'010);
  const interleaved_channels channels{{1, 2, 3, 4}, {}};
  EXPECT_EQ(read_interleaved(*session, file, channels, {0, 200'001, 1}), read_end::early_end);
  session->operation.polls = 0;
  session->operation.interrupt_at_poll = 1;
  EXPECT_EQ(read_interleaved(*session, file, channels, {0, 200'000, 1}), read_end::interrupted);
}

// --- SpikeGLX

TEST_F(interleaved_test, spike_channels_of_a_probe_are_stored_and_the_others_dropped) {
  spikeglx_fixture f;
  f.further = "snsChanMap=(8,0,1)(AP0;0:0)\r\n";
  f.n_bytes = 150'001;
  ASSERT_TRUE(open(write_spikeglx(folder.path, f)));
  EXPECT_EQ(recording().n_channels, 8);
  EXPECT_EQ(recording().sampling_frequency, 30000);
  EXPECT_EQ(recording().sampling_frequency_exact, 30000.25);
  EXPECT_TRUE(session.user.logged("Sampling frequency = 30000.25 Hz"));
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.91552734f);
  EXPECT_EQ(recording().record_date[0], 2020);
  EXPECT_EQ(recording().record_time[2], 10);
  EXPECT_EQ(recording().chan_x[3], 11);
  EXPECT_EQ(recording().chan_y[8], 60);
  EXPECT_TRUE(session.user.logged("Site geometry file read correctly"));
  EXPECT_TRUE(session.user.boxes.empty());
  // The size over the spike channels; of the file three whole blocks are read.
  EXPECT_EQ(recording().n_samples, 150'001 / 16);
  const std::int64_t n_values = 75'000;
  for (std::int32_t c = 1; c <= 8; ++c) {
    const std::int64_t n = n_values / 9 + (c <= n_values % 9 ? 1 : 0);
    expect_run(c, c - 1, n);
    EXPECT_EQ(sample(c, n + 1), 0);
  }
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(interleaved_test, of_a_file_one_byte_over_a_block_one_block_is_read) {
  spikeglx_fixture f;
  f.n_saved = f.n_ap = 5;
  f.n_bytes = 50'001;
  ASSERT_TRUE(open(write_spikeglx(folder.path, f)));
  EXPECT_EQ(recording().n_samples, 5000);
  expect_run(5, 4, 5000);
}

TEST_F(interleaved_test, what_is_wrong_with_the_files_of_a_probe_is_told) {
  spikeglx_fixture f;
  f.told_bytes = 77;
  f.geometry = "1 2\n3 4\n";
  EXPECT_TRUE(open(write_spikeglx(folder.path, f)));
  EXPECT_TRUE(session.user.told(
      "Number of channels in geometry.txt is less than number given in .meta file", "Warning"));
  EXPECT_TRUE(
      session.user.told("Size of recording file does not match number of bytes in meta file"));
  EXPECT_TRUE(session.user.logged("   in .meta file: 77"));
  EXPECT_TRUE(session.user.logged("     actual file: 100000"));

  f = {};
  f.has_geometry = false;
  std::filesystem::remove(folder.file("geometry.txt"));
  EXPECT_FALSE(open(write_spikeglx(folder.path, f)));
  EXPECT_TRUE(session.user.logged("Error reading Site geometry file"));
  expect_empty();

  f = {};
  f.has_meta = false;
  EXPECT_FALSE(open(write_spikeglx(folder.path, f, "other")));
  EXPECT_TRUE(session.user.logged("Matching .meta file not found, cancelling read"));
  EXPECT_TRUE(
      session.user.told("Missing matching .meta file, cancelling read", ".meta file not found"));
  expect_empty();
}

TEST_F(interleaved_test, counts_and_rates_of_the_meta_file_that_cannot_be_are_refused) {
  const auto refused = [&](const spikeglx_fixture& f) {
    const bool opened = open(write_spikeglx(folder.path, f));
    expect_empty();
    return !opened && !session.user.boxes.empty();
  };
  spikeglx_fixture f;
  for (const std::int32_t n : {0, -8, 10, 4097, std::numeric_limits<std::int32_t>::max()}) {
    f = {};
    f.n_ap = n;
    EXPECT_TRUE(refused(f)) << n;
  }
  for (const char* rate : {"0", "-1", "nan", "1e9", "", "rate"}) {
    f = {};
    f.rate = rate;
    EXPECT_TRUE(refused(f)) << rate;
  }
  f = {};
  f.stream = "typeThis=nidq";
  EXPECT_TRUE(refused(f));
  EXPECT_TRUE(session.user.logged("describes a nidq recording"));
  f = {};
  f.n_bytes = 0;
  EXPECT_TRUE(refused(f));
}

TEST_F(interleaved_test, an_LF_file_is_read_by_its_second_count) {
  spikeglx_fixture f;
  f.n_ap = 0;
  f.n_lf = 8;
  f.rate = "2500";
  f.further =
      "snsSaveChanSubset=384:391,768\r\nimDatPrb_type=0\r\n"
      "~imroTbl=(0,384)(0 0 0 500 250 1)(1 0 0 500 125 1)\r\n";
  ASSERT_TRUE(open(write_spikeglx(folder.path, f)));
  EXPECT_EQ(recording().n_channels, 8);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 4.6875f);
}

TEST(spikeglx_meta_test, gains_are_exact_where_the_file_tells_them) {
  const auto scale = [](double range, std::int32_t largest, std::int32_t type,
                        std::vector<number_group> readout, double named_gain = 0) {
    spikeglx_meta meta;
    meta.n_ap = 1;
    meta.range_max = range;
    meta.largest_value = largest;
    meta.probe_type = type;
    meta.readout = std::move(readout);
    meta.first_ap_gain = named_gain;
    return exact_scale(meta).value_or(0);
  };
  EXPECT_EQ(scale(0.6, 0, 0, {{0, 384}, {0, 0, 0, 500, 250, 1}}), 2.34375);
  EXPECT_EQ(scale(0.6, 512, 0, {{0, 384}, {1, 0, 0, 250, 250, 1}, {0, 0, 0, 1000, 250, 1}}),
            1.171875);
  // Phase 3A has no type.
  EXPECT_EQ(scale(0.6, 0, -1, {{262720641, 3, 384}, {0, 0, 0, 500, 250}}), 2.34375);
  EXPECT_NEAR(scale(0.5, 8192, 24, {{24, 384}, {0, 0, 0, 0, 0}}), 0.76293945, 1e-8);
  EXPECT_NEAR(scale(0.62, 2048, 2013, {{2013, 384}, {0, 0, 0, 0, 0}}, 100), 3.02734375, 1e-8);
  EXPECT_NEAR(scale(0.62, 2048, 2013, {{2013, 384}, {0, 0, 0, 0, 0}}), 3.02734375, 1e-8);
  EXPECT_EQ(scale(0.6, 512, 1110, {{1110, 1, 0, 500, 250, 1}, {0, 0, 0}}), 2.34375);
  EXPECT_EQ(scale(0.6, 0, 4711, {{4711, 384}, {0, 0, 0, 500, 250, 1}}), 0);  // unknown converter
  EXPECT_EQ(scale(0.6, 512, 0, {}), 0);                                      // no table
  EXPECT_EQ(scale(-0.6, 512, 0, {{0, 384}, {0, 0, 0, 500, 250, 1}}), 0);
}

TEST_F(interleaved_test, positions_come_from_the_maps_of_the_meta_file_without_a_geometry_file) {
  spikeglx_fixture f;
  f.has_geometry = false;
  f.n_saved = 5;
  f.n_ap = 4;
  f.further = "~snsGeomMap=(NP2013,4,250,70)(0:27:0:1)(0:59:15:1)(1:27:30:1)(3:59:40000:1)\r\n";
  ASSERT_TRUE(open(write_spikeglx(folder.path, f)));
  EXPECT_EQ(recording().chan_x[2], 59);
  EXPECT_EQ(recording().chan_x[3], 277);
  EXPECT_EQ(recording().chan_x[4], 809);
  EXPECT_TRUE(session.user.logged("~snsGeomMap"));

  f.further = "imDatPrb_type=0\r\n~snsShankMap=(1,2,480)(0:0:0:1)(0:1:0:1)(0:0:1:1)(0:1:5:1)\r\n";
  ASSERT_TRUE(open(write_spikeglx(folder.path, f)));
  EXPECT_EQ(recording().chan_x[2], 59);
  EXPECT_EQ(recording().chan_x[3], 11);
  EXPECT_EQ(recording().chan_y[4], 100);

  // The same map where rows are read from the list of the probe's parts. A map may have been
  // written as if the eight columns of a dense probe were two: sites 0, 1, 2 and 11.
  struct known_part {
    std::string keys;
    std::vector<std::int32_t> x, y;
    std::string by;
  };
  const std::string map = "~snsShankMap=(1,2,480)(0:0:0:1)(0:1:0:1)(0:0:1:1)(0:1:5:1)\r\n";
  for (const known_part& part : {
           known_part{"imDatPrb_pn=NP1100\r\nimDatPrb_type=0\r\n",
                      {14, 20, 26, 32},
                      {0, 0, 0, 6},
                      "~snsShankMap, by part number NP1100"},
           known_part{"imDatPrb_pn=NP1015\r\nimDatPrb_type=0\r\n",
                      {27, 59, 27, 59},
                      {0, 0, 20, 100},
                      "by part number NP1015"},
           known_part{"imDatPrb_pn=NP1032\r\nimDatPrb_type=1030\r\n",
                      {11, 114, 11, 114},
                      {0, 0, 20, 100},
                      "by part number NP1032"},
           known_part{"imDatPrb_pn=NP2010\r\nimDatPrb_type=24\r\n",
                      {27, 59, 27, 59},
                      {0, 0, 15, 75},
                      "by part number NP2010"},
           known_part{"imDatPrb_pn=NP9\r\nimDatPrb_type=0\r\n",
                      {27, 59, 11, 43},
                      {0, 0, 20, 100},
                      "by probe type 0, part number NP9 being unknown"},
           known_part{"imDatPrb_type=1100\r\n",
                      {14, 20, 26, 32},
                      {0, 0, 0, 6},
                      "by probe type 1100, without a part number"},
       }) {
    f.further = part.keys + map;
    ASSERT_TRUE(open(write_spikeglx(folder.path, f))) << part.keys;
    for (std::size_t i = 0; i < part.x.size(); ++i) {
      EXPECT_EQ(recording().chan_x[i + 1], part.x[i]) << part.keys;
      EXPECT_EQ(recording().chan_y[i + 1], part.y[i]) << part.keys;
    }
    EXPECT_TRUE(session.user.logged(part.by)) << part.keys;
  }

  f.further = "imDatPrb_type=4711\r\n~snsShankMap=(1,2,480)(0:0:0:1)(0:1:0:1)(0:0:1:1)\r\n";
  EXPECT_FALSE(open(write_spikeglx(folder.path, f)));
  EXPECT_TRUE(session.user.logged("Error reading Site geometry file"));
  EXPECT_TRUE(session.user.logged("No positions from ~snsShankMap, by probe type 4711"));
}

TEST_F(interleaved_test, real_probe_recordings) {
  struct real_file {
    const char* path;
    std::int32_t n_channels, n_samples;
    float vscale;
    std::vector<int> first;
  };
  const real_file files[] = {
      {"spikeglx/Noise4Sam_g0/Noise4Sam_g0_imec0/Noise4Sam_g0_t0.imec0.ap.bin",
       384,
       1158,
       2.34375f,
       {-273, -285}},
      {"spikeglx/TEST_20210920_0_g0/TEST_20210920_0_g0_t0.imec0.ap.bin",
       384,
       1002,
       0.7629395f,
       {2665, 2666}},
      {"spikeglx/NP2_no_sync/all_chan_g0_t0.exported.imec0.ap.bin", 384, 1000, 3.0273438f, {}},
      {"spikeglx/long_nhp_stubbed/snippet_g0/snippet_g0_imec0/snippet_g0_t0.imec0.lf.bin",
       384,
       626,
       4.6875f,
       {}},
  };
  if (sample_path(files[0].path).empty()) GTEST_SKIP() << "no samples";
  for (const real_file& file : files) {
    SCOPED_TRACE(file.path);
    ASSERT_TRUE(open(sample_path(file.path)));
    EXPECT_EQ(recording().n_channels, file.n_channels);
    EXPECT_EQ(recording().n_samples, file.n_samples);
    EXPECT_FLOAT_EQ(recording().vscale_HP, file.vscale);
    for (std::size_t i = 0; i < file.first.size(); ++i) {
      EXPECT_EQ(sample(1, static_cast<std::int64_t>(i) + 1), file.first[i]);
    }
  }
  EXPECT_FALSE(open(sample_path("spikeglx/Noise4Sam_g0/Noise4Sam_g0_t0.nidq.bin")));
}

// --- Neuroscope

TEST_F(interleaved_test, a_neuroscope_recording_is_read_by_the_first_of_each_tag) {
  session.user.answers[no_config] = true;
  neuroscope_fixture f;
  f.extra_bytes = 5;  // two values and a half of the next point
  ASSERT_TRUE(open(write_neuroscope(folder.path, f)));
  EXPECT_EQ(recording().n_channels, 5);
  EXPECT_EQ(recording().sampling_frequency, 20000);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.30517578f);
  EXPECT_EQ(recording().n_samples, 301);
  for (std::int32_t c = 1; c <= 5; ++c) expect_run(c, c - 1, c <= 2 ? 301 : 300);
  EXPECT_EQ(sample(3, 301), 0);
  EXPECT_TRUE(session.user.logged("Early end to file"));
  EXPECT_TRUE(session.user.logged("Finished reading .xml/.dat file!"));
  EXPECT_EQ(recording().chan_y[2], 200);
  EXPECT_EQ(recording().xml_path, folder.file("base.xml"));
}

TEST_F(interleaved_test, a_missing_scale_is_assumed_and_the_offset_taken_off) {
  session.user.answers[no_config] = true;
  neuroscope_fixture f;
  f.range.clear();
  f.offset = "<offset>2048</offset>";
  ASSERT_TRUE(open(write_neuroscope(folder.path, f)));
  EXPECT_EQ(recording().vscale_HP, 0.4652f);
  EXPECT_TRUE(session.user.logged("Warning: cannot get voltage scaling from XML file"));
  EXPECT_TRUE(session.user.logged("Assuming default voltage scaling = 0.4652"));
  for (std::int64_t p = 0; p < 300; ++p) {
    ASSERT_EQ(sample(2, p + 1), std::max(interleaved_sample(1, p) - 2048, -32768));
  }
}

TEST_F(interleaved_test, a_configuration_picks_and_orders_the_channels) {
  write("base.cfg", "probe\n2 1 0 0\n5 2 10 20\n1 3 0 40\n");
  ASSERT_TRUE(open(write_neuroscope(folder.path, {})));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_TRUE(session.user.logged("Will use the 3 channels in the configuration file"));
  expect_run(1, 1, 300);
  expect_run(2, 4, 300);
  expect_run(3, 0, 300);
  EXPECT_EQ(recording().chan_x[2], 10);

  write("base.cfg", "probe\n0 1 0 0\n1 2 0 20\n");
  ASSERT_TRUE(open(write_neuroscope(folder.path, {})));
  EXPECT_TRUE(session.user.logged("file channel 0 of the configuration is not read"));
  expect_run(2, 0, 300);
  EXPECT_EQ(sample(1, 5), 0);

  write("base.cfg", "probe\n1 1 0 0\n2 2 0 0\n3 3 0 0\n4 4 0 0\n5 5 0 0\n6 6 0 0\n");
  EXPECT_FALSE(open(write_neuroscope(folder.path, {})));
  EXPECT_TRUE(session.user.logged("More channels in config file than in data file"));
  EXPECT_TRUE(session.user.told("Number of channels in config file exceeds number in data file",
                                "Error in config file"));
  expect_empty();
}

TEST_F(interleaved_test, a_neuroscope_recording_that_cannot_be_read_says_so) {
  EXPECT_FALSE(open(write_neuroscope(folder.path, {})));  // No to both questions
  EXPECT_TRUE(session.user.asked(no_config, "Warning"));
  session.user.answers[no_config] = true;
  neuroscope_fixture f;
  f.has_dat = false;
  std::filesystem::remove(folder.file("base.dat"));
  EXPECT_FALSE(open(write_neuroscope(folder.path, f)));
  EXPECT_TRUE(session.user.told("Error reading xml data file",
                                "Unrecognised file format or missing .dat file"));
  expect_empty();
  for (const char* rate : {"0", "-5", "1e12", "", "nan"}) {
    f = {};
    f.rate = rate;
    EXPECT_FALSE(open(write_neuroscope(folder.path, f))) << rate;
    expect_empty();
  }
  for (const char* bits : {"<nBits>3000</nBits>", "<nBits>1e308</nBits>"}) {
    f = {};
    f.bits = bits;
    EXPECT_FALSE(open(write_neuroscope(folder.path, f))) << bits;
    expect_empty();
  }
  f = {};
  f.n_points = 0;
  EXPECT_FALSE(open(write_neuroscope(folder.path, f)));
  expect_empty();
}

TEST_F(interleaved_test, events_are_exported_in_ms) {
  make_recording(*session, 4, 1000, 20000);
  session->events.n_events = 2;
  session->events.event_time[1] = 30;
  session->events.event_channel[1] = 3;
  session->events.event_time[2] = 999;
  session->events.event_channel[2] = 4;
  session->events.event_cluster[2] = 12;
  const std::string path = folder.file("out.evt");
  EXPECT_TRUE(export_evt(*session, path));
  const std::vector<char> bytes = read_bytes(path);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "1.5000 3 0\n49.9500 4 12\n");
  EXPECT_TRUE(session.user.told("Neuroscope data saved", "Save sorted spikes"));
  EXPECT_FALSE(export_evt(*session, folder.file("no/out.evt")));
  EXPECT_TRUE(session.user.told("Error exporting Neuroscope format data " +
                                    folder.file("no/out.evt") + ": No such file or directory",
                                "Save sorted spikes"));
}

TEST_F(interleaved_test, a_real_neuroscope_recording) {
  const std::string path = sample_path("neuroscope/test1/test1.xml");
  if (path.empty()) GTEST_SKIP() << "no samples";
  session.user.answers[no_config] = true;
  ASSERT_TRUE(open(path));
  EXPECT_EQ(recording().n_channels, 8);
  EXPECT_EQ(recording().n_samples, 10);
  const int first[] = {2096, 2069, 2053, 2039, 2018};
  for (std::int64_t i = 0; i < 5; ++i) EXPECT_EQ(sample(1, i + 1), first[i] - 2048);
}

// --- Open Ephys

TEST_F(interleaved_test, electrode_channels_of_a_stream_are_read) {
  open_ephys_fixture f;
  f.streams = {{.name = "Rhythm", .n_others = 2, .extra_bytes = 3}};
  f.old_names = true;
  const std::string path = write_open_ephys(folder.path, f);
  ASSERT_TRUE(open(path));
  EXPECT_EQ(recording().n_channels, 4);
  EXPECT_EQ(recording().n_samples, 500);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.195f);
  for (std::int32_t c = 1; c <= 4; ++c) expect_run(c, c - 1, 500);
  EXPECT_TRUE(session.user.logged("First sample number = 12345"));
  EXPECT_TRUE(session.user.logged("Early end to file"));
  EXPECT_FALSE(session.user.logged("gaps"));
  // The folder that holds it, and any above, stand for it.
  ASSERT_TRUE(open(folder.path));
  EXPECT_EQ(recording().n_channels, 4);
  EXPECT_TRUE(recording().recording_path.ends_with("structure.oebin"));
}

TEST_F(interleaved_test, of_several_streams_the_user_chooses_one) {
  open_ephys_fixture f;
  f.streams = {{.name = "ProbeA"},
               {.name = "Analog", .n_electrodes = 0, .n_others = 3},
               {.name = "ProbeB", .n_electrodes = 6, .last_scale = 0.39, .jump = 100}};
  f.settings = true;
  const std::string path = write_open_ephys(folder.path, f);
  session.user.answers["Read stream ProbeB (6 electrode channels of 6, 30000 Hz)?"] = true;
  ASSERT_TRUE(open(path));
  EXPECT_EQ(recording().n_channels, 6);
  EXPECT_EQ(recording().chan_x[2], 1032);  // of the second probe
  EXPECT_EQ(recording().chan_y[6], 30);
  EXPECT_TRUE(session.user.logged("gaps"));
  expect_run(5, 4, 500);
  for (std::int64_t p = 0; p < 500; ++p) {
    ASSERT_EQ(sample(6, p + 1), std::clamp(2 * interleaved_sample(5, p), -32768, 32767));
  }

  session.user.answers.clear();
  EXPECT_FALSE(open(path));
  EXPECT_TRUE(session.user.logged("No stream was chosen"));
  expect_empty();
  stream = "1";
  ASSERT_TRUE(open(path));
  EXPECT_EQ(recording().n_channels, 4);
  stream = "Analog";
  EXPECT_FALSE(open(path));
  EXPECT_TRUE(session.user.logged("Stream Analog has no electrode channels"));
}

TEST_F(interleaved_test, settings_do_not_reach_what_a_loaded_recording_is) {
  session.user.default_answer = true;
  ASSERT_TRUE(open(write_open_ephys(folder.path, {})));
  EXPECT_EQ(session->preferences.open_dialog_format, file_type_oebin);
  EXPECT_EQ(settle_settings(*session), 0) << "the format of the dialog is in range";
  session->home_directory = folder.path;
  ASSERT_TRUE(write_parameters(*session));
  session->preferences.open_dialog_format = file_type_plx;
  ASSERT_TRUE(write_preferences(*session));
  ASSERT_TRUE(read_parameters(*session));
  EXPECT_EQ(session->preferences.open_dialog_format, file_type_oebin);
  ASSERT_TRUE(read_preferences(*session));
  EXPECT_EQ(session->preferences.open_dialog_format, file_type_plx);
  session->preferences.open_dialog_format = 99;
  EXPECT_EQ(settle_settings(*session), 1);
  EXPECT_EQ(recording().file_type, file_type_oebin);
}

TEST_F(interleaved_test, structure_files_that_lie_are_refused) {
  const std::string path = write_open_ephys(folder.path, {});
  const std::string deep = std::string(100'000, '[');
  for (const std::string& text :
       {std::string("{"), std::string("[]"), std::string("{\"continuous\":5}"),
        std::string(R"({"continuous":[5,null,{"channels":[3]}]})"),
        std::string(R"({"continuous":[{"folder_name":"../../","sample_rate":30000,"channels":)"
                    R"([{"channel_name":"CH1","bit_volts":0.195}]}]})"),
        std::string(R"({"continuous":[{"folder_name":"ProbeA/","sample_rate":-3,"channels":)"
                    R"([{"channel_name":"CH1","bit_volts":0.195}]}]})"),
        std::string(R"({"continuous":[{"folder_name":"ProbeA/","sample_rate":30000,"channels":)"
                    R"([{"channel_name":"CH1","bit_volts":1e300}]}]})"),
        deep, std::string()}) {
    write_bytes(path, {text.begin(), text.end()});
    EXPECT_FALSE(open(path)) << text.substr(0, 100);
    EXPECT_TRUE(session.user.told("Error reading Open Ephys recording", "Open a recording file") ||
                text.empty());
    expect_empty();
  }
}

TEST_F(interleaved_test, real_open_ephys_recordings) {
  const std::string root = "openephysbinary/";
  if (sample_path(root + "v0.4.4.1_with_spikes").empty()) GTEST_SKIP() << "no samples";
  ASSERT_TRUE(open(sample_path(root + "v0.4.4.1_with_spikes")));
  EXPECT_EQ(recording().n_channels, 32);
  EXPECT_EQ(recording().n_samples, 16);
  EXPECT_EQ(sample(1, 1), -120);
  EXPECT_EQ(sample(1, 2), -43);
  ASSERT_TRUE(open(sample_path(root + "neural_and_non_neural_data_mixed")));
  EXPECT_EQ(recording().n_samples, 30000);
  EXPECT_EQ(recording().n_channels, 4);
  EXPECT_TRUE(session.user.logged("First sample number = 28892"));
  stream = "ProbeB";
  ASSERT_TRUE(open(sample_path(root + "v0.6.x_neuropixels_multiexp_multistream")));
  const int first[] = {-74, 141, 176, 250, 94};
  for (std::int64_t i = 0; i < 5; ++i) EXPECT_EQ(sample(1, i + 1), first[i]);
  EXPECT_EQ(recording().chan_y[384], 2865);
}

// --- an interrupt

TEST_F(interleaved_test, an_interrupted_open_leaves_an_empty_session) {
  session.user.default_answer = true;
  session.user.chosen_path.clear();
  spikeglx_fixture big;
  big.n_bytes = 3'000'000;
  neuroscope_fixture xml;
  xml.n_points = 300'000;
  open_ephys_fixture oe;
  oe.streams[0].n_points = 300'000;
  for (const std::string& path :
       {write_spikeglx(folder.path, big), write_neuroscope(folder.path, xml),
        write_open_ephys(folder.path, oe)}) {
    for (const std::int64_t at : {1, 2, 3}) {
      session->operation.polls = 0;
      session->operation.interrupt_at_poll = at;
      EXPECT_FALSE(open(path)) << path << at;
      EXPECT_TRUE(session.user.logged("Reading interrupted"));
      EXPECT_TRUE(session.user.boxes.empty());
      expect_empty();
    }
    session->operation.interrupt_at_poll = -1;
    EXPECT_TRUE(open(path)) << path;
  }
}

}  // namespace
}  // namespace kestrelvane::test
