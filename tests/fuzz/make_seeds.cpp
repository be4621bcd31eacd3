// Writes the seeds of the fuzzers: make_seeds FOLDER, one folder per target in it.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <tuple>

#include "results/ptcs.h"
#include "session/settings_files.h"
#include "support/blackrock_fixture.h"
#include "support/fixture_files.h"
#include "support/hdf_fixture.h"
#include "support/neuralynx_fixture.h"
#include "support/plx_fixture.h"
#include "support/polytrode_fixture.h"
#include "support/rhd_fixture.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

using namespace kestrelvane;
using namespace kestrelvane::test;

namespace {

std::vector<char> text(const std::string& s) { return {s.begin(), s.end()}; }

void put(const std::string& folder, const std::string& name, const std::vector<char>& bytes) {
  std::filesystem::create_directories(folder);
  test::write_bytes(folder + "/" + name, bytes);
}

void make_tsf_seeds(const std::string& folder) {
  for (std::int32_t format = 1000; format <= 1003; ++format) {
    tsf_fixture f;
    f.format = format;
    f.n_channels = format == 1000 ? 1 : 3;  // its channels are whole blocks
    f.n_samples = 40;
    f.events = {{5, 1, 1}, {6, 2, 1}, {30, 1, 1}};
    put(folder, "format_" + std::to_string(format), tsf_bytes(f));
  }
  tsf_fixture sleep;
  sleep.n_samples = 8;
  sleep.tail = {45};
  put(folder, "sleep", tsf_bytes(sleep));
  tsf_fixture wide;  // the spike window reaches far in front of the first sample
  wide.sampling_frequency = 1'000'000;
  wide.events = {{1, 1, 1}};
  put(folder, "wide_window", tsf_bytes(wide));
}

void make_blackrock_seeds(const std::string& folder) {
  nev_fixture spikes;
  spikes.other_headers = {"ARRAYNME", "ODD"};
  spikes.packets = {{30, 1, 1}, {60, 3, 2},   {70, 3, 2},     {90, 2, 0},
                    {99, 1, 2}, {99, 1, 255}, {99, 0xFFFF, 0}};
  for (const char way : {'\0', '\1'}) {
    for (const bool is_v3 : {false, true}) {
      spikes.is_v3 = is_v3;
      std::vector<char> bytes = nev_bytes(spikes);
      bytes.insert(bytes.begin(), way);
      put(folder + "/nev", std::string(is_v3 ? "v3_" : "v2_") + (way ? "time" : "records"), bytes);
    }
  }
  for (const char* magic : {"NEURALSG", "NEURALCD", "BRSMPGRP"}) {
    nsx_fixture f;
    f.magic = magic;
    f.channels[2].units = "mV";
    f.stretches = {{30, 5, -1}, {60, 4, -1}, {20, 3, -1}, {90, 2, 0}};
    put(folder + "/nsx", magic, nsx_bytes(f));
  }
  nsx_fixture points;
  points.magic = "BRSMPGRP";
  points.resolution = 1'000'000'000;
  points.stretches.clear();
  for (std::uint64_t k = 0; k < 40; ++k) points.stretches.push_back({33'333 * k, 1, -1});
  put(folder + "/nsx", "points", nsx_bytes(points));
}

void make_rhd_seeds(const std::string& folder) {
  for (const std::int32_t major : {1, 2, 3}) {
    rhd_fixture f;
    f.major = major;
    f.minor = major == 1 ? 3 : 0;
    f.n_temperature = major == 1 ? 1 : 0;
    if (major == 3) f.groups = {{true, {{0}, {1}, {2}, {3}, {4}, {5}}}};
    f.n_blocks = 2;
    put(folder, "version_" + std::to_string(major), rhd_bytes(f));
  }
}

void make_settings_seeds(const std::string& folder) {
  temporary_directory home;
  small_session session;
  session->home_directory = home.path;
  write_parameters(*session);
  write_preferences(*session);
  for (const auto& [which, name] : {std::pair<char, const char*>{0, "kv_parameters.sav"},
                                    std::pair<char, const char*>{1, "kv_prefs.sav"}}) {
    std::vector<char> bytes = read_bytes(home.file(name));
    bytes.insert(bytes.begin(), which);
    put(folder, name, bytes);
  }
}

void make_work_file_seeds(const std::string& folder) {
  for (std::int32_t version = 4; version <= 8; ++version) {
    work_file_content content;
    content.version = version;
    put(folder, "version_" + std::to_string(version), make_work_file(content).bytes);
  }
}

// Few groups, since each takes a thousand bytes of a file.
void make_hdf_seeds(const std::string& folder) {
  std::filesystem::create_directories(folder);
  {
    hdf_maker mcs(folder + "/mcs");
    mcs.group("/Data");
    mcs.text("/Data", "Date", "Mittwoch, 9. Juli 2014");
    mcs.numbers("/Data/ChannelData", {"i16", {2, 200}, hdf_storage::contiguous, {}, nullptr});
    mcs.info_channel("/Data/InfoChannel", {{0, -9, 0, 50, 381470}, {1, -9, 3, 50, 381470}}, false);
  }
  const auto by_time = [](std::uint64_t t, std::uint64_t c) { return hdf_fixture_value(c, t); };
  for (const auto& [name, storage, type] : {std::tuple{"gzip", hdf_storage::gzip, "i32"},
                                            {"chunked", hdf_storage::chunked, "f32"},
                                            {"compact", hdf_storage::compact, "i8"}}) {
    hdf_maker nwb(folder + "/nwb_" + name);
    nwb.numbers("/data", {type, {200, 2}, storage, {100, 2}, by_time});
    nwb.number("/data", "conversion", 2e-7);
    nwb.scalar("/starting_time", 0);
    nwb.number("/starting_time", "rate", 20000);
  }
  hdf_maker maker(folder + "/attributes");
  maker.group("/g");
  maker.many_attributes("/g");
  maker.soft_link("/loop", "/loop");
  maker.external_link("/other", "absent.h5", "/v");
}

void make_polytrode_seeds(const std::string& folder) {
  std::vector<std::vector<char>> parts = {surf_header(), surf_descriptor('P')};
  surf_layout_fixture spikes{.n_channels = 2};
  parts.push_back(surf_layout_record(spikes));
  parts.push_back(surf_block_record("PS", 0, 0, 20));
  parts.push_back(surf_message("MS", "ready"));
  parts.push_back(surf_digital_value(10, 3));
  put(folder + "/srf", "spikes", joined(parts));
  parts.push_back(surf_layout_record({.kind = 'C', .n_channels = 1, .description = "ch5"}));
  parts.push_back(surf_block_record("PC", 0, 1, 10));
  put(folder + "/srf", "with_lfp", joined(parts));
  prf_fixture prf;
  prf.n_channels = 2;
  prf.epochs = {{"csd", 0, 30}, {"blank", 5, 20}};
  put(folder + "/prf", "two_epochs", prf_bytes(prf));
}

void make_ptcs_seed(const std::string& folder) {
  small_session session;
  test::make_recording(*session, 3, 2000);
  session->templates.template_points = 5;
  session->clusters.n_clusters = 2;
  session->events.n_events = 4;
  for (std::int32_t i = 1; i <= 4; ++i) {
    session->events.event_time[i] = 300 * i;
    session->events.event_cluster[i] = 1 + i % 2;
    session->events.event_channel[i] = 1;
  }
  for (std::int32_t c = 1; c <= 2; ++c) session->templates.channels(c)[1] = c;
  session->clusters.cluster_comment[1].assign("a comment");
  std::filesystem::create_directories(folder);
  export_ptcs(*session, folder + "/two_units");
}

// As fuzz_plx takes its input: how to read it, the front of the header, what follows it.
std::vector<char> plx_input(char how, const plx_fixture& f) {
  constexpr std::size_t header_bytes = 7504, front = 256;
  const std::vector<char> bytes = plx_bytes(f);
  std::vector<char> input = {how};
  input.insert(input.end(), bytes.begin(), bytes.begin() + front);
  input.insert(input.end(), bytes.begin() + header_bytes, bytes.end());
  return input;
}

void make_plx_seeds(const std::string& folder) {
  plx_fixture events;
  events.blocks = {{1, 100, 1, 1, ramp(1, 8)},
                   {1, 150, 2, 0, ramp(2, 8)},
                   {4, 160, 257, 3, {}},
                   {1, 200, 1, 2, ramp(3, 8)}};
  put(folder, "events", plx_input(0, events));
  put(folder, "events_at_times", plx_input(3, events));
  put(folder, "continuous", plx_input(4, continuous_plx(2, 2, 12)));
  plx_fixture tetrode = tetrode_plx(1);
  add_tetrode_record(tetrode, 100, 1, 1);
  put(folder, "tetrode", plx_input(2, tetrode));
}

// As the fuzzers take them: the text of the header up to a NUL, then the records.
std::vector<char> neuralynx_input(const std::vector<char>& file) {
  constexpr std::size_t header_bytes = 16384;
  const auto text_end = std::find(file.begin(), file.begin() + header_bytes, '\0');
  std::vector<char> input(file.begin(), text_end);
  input.push_back('\0');
  input.insert(input.end(), file.begin() + header_bytes, file.end());
  return input;
}

void make_neuralynx_seeds(const std::string& folder) {
  const std::string ncs = neuralynx_header(ncs_header_lines());
  put(folder + "/ncs", "two_channels",
      neuralynx_input(ncs_bytes(ncs, {{1000, 3, 5}, {1000, 4, 6, 100}})));
  const std::string tabs =
      neuralynx_header({"\t-SamplingFrequency 1017.375\r\n", "\t-ADBitVolts 0.00002\r\n"});
  put(folder + "/ncs", "tabs", neuralynx_input(ncs_bytes(tabs, {{5, 0, 1, 512, 1017}})));
  put(folder + "/ntt", "cells",
      neuralynx_input(ntt_bytes(neuralynx_header(ntt_header_lines()),
                                {{1000, 0, 1}, {2000, 1, 2, {2, 3}}, {3000, 3, 3}})));
}

// The first byte says which description it is.
void make_described_seeds(const std::string& folder) {
  put(folder, "meta",
      text("0fileSizeBytes=60000\nimAiRangeMax=0.6\nimSampRate=30000\nnSavedChans=5\n"
           "snsApLfSy=4,0,1\ntypeThis=imec\nimDatPrb_type=0\nsnsSaveChanSubset=0:3,768\n"
           "~imroTbl=(0,384)(0 0 0 500 250 1)(1 0 0 500 250 1)\n"
           "~snsShankMap=(1,2,480)(0:0:0:1)(0:1:0:1)(0:0:1:1)(0:1:1:1)\n"));
  put(folder, "xml",
      text("1<nBits>16</nBits>\n<nChannels>4</nChannels>\n<samplingRate>20000</samplingRate>\n"
           "<voltageRange>20</voltageRange>\n<amplification>1000</amplification>\n"
           "<offset>12</offset>\n"));
  put(folder, "oebin",
      text(R"(2{"GUI version":"0.6.0","continuous":[{"folder_name":"a/","sample_rate":30000,)"
           R"("stream_name":"a","channels":[{"channel_name":"CH1","bit_volts":0.195},)"
           R"({"channel_name":"CH2","bit_volts":0.39}]}]})"));
}

void make_probe_seeds(const std::string& folder) {
  put(folder, "json",
      text(R"(0{"specification":"probeinterface","probes":[{"ndim":2,"si_units":"um",)"
           R"("contact_positions":[[0,0],[0,20]],"device_channel_indices":[1,0]}]})"));
  put(folder, "prb",
      text("1channel_groups = {0: {'channels': list(range(0, 3)) + [5], # four\n"
           " 'geometry': {0: (0, 0), 1: [0, 20], 2: (0, 4e1), 5: (1, 60,)}}}\n"));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  make_tsf_seeds(folder + "/tsf");
  make_polytrode_seeds(folder);
  make_described_seeds(folder + "/described");
  make_probe_seeds(folder + "/probe");
  make_ptcs_seed(folder + "/ptcs");
  make_hdf_seeds(folder + "/hdf");
  make_blackrock_seeds(folder);
  make_rhd_seeds(folder + "/rhd");
  make_plx_seeds(folder + "/plx");
  make_neuralynx_seeds(folder);
  make_settings_seeds(folder + "/settings");
  make_work_file_seeds(folder + "/work_file");
  put(folder + "/config", "two_columns", text("Probe\n1 2 -28, 0\n2,1,28,65\n\n0 3 0 130\n"));
  put(folder + "/config", "twice", text("Probe\r\n1 1 0 0\r\n2 1 1e2 -5.5\r\n"));
  put(folder + "/mask", "three", text("     1F\n     2T\n     3F\n"));
  put(folder + "/mask", "odd", text("     1T\r\n2\n\n   4t\n"));
  return 0;
}
