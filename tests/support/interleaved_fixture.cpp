#include "support/interleaved_fixture.h"

#include <fmt/format.h>

#include <cstring>
#include <filesystem>

#include "files/npy_file.h"
#include "support/small_session.h"

namespace kestrelvane::test {

namespace {

void write_text_file(const std::string& path, const std::string& text) {
  write_bytes(path, {text.begin(), text.end()});
}

std::string channel_object(const std::string& name, const std::string& description, double scale) {
  return fmt::format(R"({{"channel_name":"{}","description":"{}","bit_volts":{},"units":"uV"}})",
                     name, description, scale);
}

std::string stream_object(const open_ephys_stream& stream, bool old_names) {
  std::string channels;
  for (std::int32_t i = 1; i <= stream.n_electrodes; ++i) {
    const double scale = i == stream.n_electrodes ? stream.last_scale : stream.scale;
    if (i > 1) channels += ',';
    channels += channel_object(fmt::format("CH{}", i), "Headstage data channel", scale);
  }
  for (std::int32_t i = 1; i <= stream.n_others; ++i) {
    if (!channels.empty()) channels += ',';
    channels += channel_object(fmt::format("ADC{}", i), "ADC data channel", 0.000152587890625);
  }
  const std::string name =
      old_names ? std::string() : fmt::format(R"("stream_name":"{}",)", stream.name);
  return fmt::format(R"({{"folder_name":"{}/","sample_rate":30000,{}"num_channels":{},)"
                     R"("channels":[{}]}})",
                     stream.name, name, stream.n_electrodes + stream.n_others, channels);
}

void write_sample_numbers(const std::string& path, const open_ephys_stream& stream) {
  const std::string header = npy_header_text("<i8", {stream.n_points});
  std::vector<char> bytes(header.begin(), header.end());
  for (std::int64_t i = 0; i < stream.n_points; ++i) {
    const std::int64_t number =
        stream.first_number + i + (i >= stream.n_points / 2 ? stream.jump : 0);
    const std::size_t at = bytes.size();
    bytes.resize(at + sizeof number);
    std::memcpy(bytes.data() + at, &number, sizeof number);
  }
  write_bytes(path, bytes);
}

std::string probe_element(std::int32_t n, std::int32_t probe) {
  std::string xs, ys;
  for (std::int32_t i = 0; i < n; ++i) {
    xs += fmt::format(" CH{}=\"{}\"\n", i, 1000 * probe + 32 * (i % 2));
    ys += fmt::format(" CH{}=\"{}\"", i, 15 * (i / 2));
  }
  return fmt::format("<NP_PROBE slot=\"3\"><ELECTRODE_XPOS{}/><ELECTRODE_YPOS{}/></NP_PROBE>\n", xs,
                     ys);
}

}  // namespace

std::int16_t interleaved_sample(std::int64_t value, std::int64_t point) {
  return static_cast<std::int16_t>((value * 7919 + point * 31) % 65536 - 32768);
}

std::vector<char> interleaved_bytes(std::int64_t n_values, std::int64_t n_points,
                                    std::int64_t extra_bytes) {
  std::vector<std::int16_t> samples;
  for (std::int64_t i = 0; i < n_values * (n_points + 1); ++i) {
    samples.push_back(interleaved_sample(i % n_values, i / n_values));
  }
  std::vector<char> bytes(static_cast<std::size_t>(2 * n_values * n_points + extra_bytes));
  // An empty file has no bytes to point to.
  if (!bytes.empty()) std::memcpy(bytes.data(), samples.data(), bytes.size());
  return bytes;
}

std::string write_spikeglx(const std::string& folder, const spikeglx_fixture& f,
                           const std::string& name) {
  const std::string path = folder + "/" + name + ".bin";
  const std::int64_t point_bytes = 2 * std::int64_t{f.n_saved};
  write_bytes(path, interleaved_bytes(f.n_saved, f.n_bytes / point_bytes, f.n_bytes % point_bytes));
  if (f.has_geometry) write_text_file(folder + "/geometry.txt", f.geometry);
  if (!f.has_meta) return path;
  const std::int64_t told = f.told_bytes < 0 ? f.n_bytes : f.told_bytes;
  write_text_file(
      folder + "/" + name + ".meta",
      fmt::format("acqApLfSy=384,384,1\r\nfileCreateTime=2020-11-03T10:35:10\r\n"
                  "fileSizeBytes={}\r\nimAiRangeMax={}\r\nimSampRate={}\r\n"
                  "nSavedChans={}\r\nsnsApLfSy={},{},1\r\n{}\r\n{}",
                  told, f.range, f.rate, f.n_saved, f.n_ap, f.n_lf, f.stream, f.further));
  return path;
}

std::string write_neuroscope(const std::string& folder, const neuroscope_fixture& f) {
  const std::string path = folder + "/base.xml";
  write_text_file(path,
                  fmt::format("<?xml version='1.0'?>\n<parameters>\n <acquisitionSystem>\n  {}\n"
                              "  <nChannels>{}</nChannels>\n  <samplingRate>{}</samplingRate>\n"
                              "  {}\n  {}\n  {}\n </acquisitionSystem>\n <fieldPotentials>\n"
                              "  <lfpSamplingRate>1250</lfpSamplingRate>\n"
                              " </fieldPotentials>\n <video>\n"
                              "  <samplingRate>1000</samplingRate>\n </video>\n</parameters>\n",
                              f.bits, f.n_channels, f.rate, f.range, f.amplification, f.offset));
  if (f.has_dat) {
    write_bytes(folder + "/base.dat", interleaved_bytes(f.n_channels, f.n_points, f.extra_bytes));
  }
  return path;
}

std::string write_open_ephys(const std::string& folder, const open_ephys_fixture& f) {
  const std::string recording = folder + "/experiment1/recording1/";
  std::string streams, probes;
  std::int32_t n_probes = 0;
  for (const open_ephys_stream& stream : f.streams) {
    const std::string into = recording + "continuous/" + stream.name + "/";
    std::filesystem::create_directories(into);
    write_bytes(into + "continuous.dat", interleaved_bytes(stream.n_electrodes + stream.n_others,
                                                           stream.n_points, stream.extra_bytes));
    write_sample_numbers(into + (f.old_names ? "timestamps.npy" : "sample_numbers.npy"), stream);
    if (!streams.empty()) streams += ',';
    streams += stream_object(stream, f.old_names);
    if (stream.n_electrodes > 0) probes += probe_element(stream.n_electrodes, n_probes++);
  }
  write_text_file(recording + "structure.oebin",
                  fmt::format(R"({{"GUI version":"0.6.0","continuous":[{}]}})", streams));
  if (f.settings)
    write_text_file(folder + "/settings.xml", "<SETTINGS>\n" + probes + "</SETTINGS>");
  return recording + "structure.oebin";
}

}  // namespace kestrelvane::test
