// How many redraws of the voltage record a second one core manages.
//
// Draws to an image, scrolling by a third of a window from draw to draw, on 384 channels at
// 30 kHz with as many samples as the given gigabytes hold (4 unless told otherwise, 174 s;
// an hour would take 83 GB). The cost of a redraw does not depend on the length: a column
// reads one sample, whatever lies between. Peak-keeping traces do read what lies between,
// so they are measured with the window over the whole length, too.
//
//   kestrelvane-draw-benchmark [GB]
#include <fmt/format.h>
#include <time.h>

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "displays/voltage/voltage_navigation.h"
#include "displays/voltage/voltage_record.h"
#include "numerics/parallel.h"
#include "signal/display_scale.h"
#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr std::int32_t n_channels = 384;
constexpr std::int32_t rate = 30'000;

// Noise of about 15 bits rms with a spike here and there, the same on every channel but for
// where it begins.
void fill_recording(session_state& session) {
  recording_store& r = session.recording;
  std::vector<std::int16_t> signal(static_cast<std::size_t>(r.n_samples) + 1);
  vector_random random(1);
  for (std::size_t t = 0; t < signal.size(); ++t) {
    int sum = 0;
    for (int i = 0; i < 4; ++i) sum += static_cast<int>(random.next() >> 16 & 31) - 15;
    signal[t] = static_cast<std::int16_t>(sum);
  }
  for (std::size_t t = 500; t + 40 < signal.size(); t += 3000 + (random.next() >> 16) % 3000) {
    for (int i = 0; i < 12; ++i) signal[t + i] = static_cast<std::int16_t>(-20 * (6 - abs(i - 6)));
  }
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    const std::int32_t shift = c * 997;
    std::int16_t* v = r.vd.channel(c) + 1;
    std::memcpy(v, signal.data() + shift, sizeof(std::int16_t) * (r.n_samples - shift));
    std::memcpy(v + r.n_samples - shift, signal.data(), sizeof(std::int16_t) * shift);
  }
}

void scatter_events(session_state& session, std::int32_t n) {
  event_table& events = session.events;
  vector_random random(2);
  events.n_events = n;
  for (std::int32_t e = 1; e <= n; ++e) {
    events.event_time[e] =
        1 + static_cast<std::int32_t>(std::int64_t{e} * (session.recording.n_samples - 2) / n);
    events.event_channel[e] = 1 + static_cast<std::int32_t>(random.next() >> 8) % n_channels;
    events.event_cluster[e] = 1 + static_cast<std::int32_t>(random.next() >> 8) % 300;
  }
}

struct window_size {
  std::int32_t width, height;  // logical pixels
  double ratio = 1.0;          // pixels of the device to one of those
};

// On by three tenths of the window, and round again before the end.
void scroll_on(session_state& session) {
  const float window = static_cast<float>(session.view.vd_width) / session.display.vd_time_scale;
  const auto last =
      static_cast<std::int32_t>(static_cast<float>(session.recording.n_samples) - window);
  for (int i = 0; i < 3; ++i) wheel_through_time(session, -1);
  if (session.view.vd_first_sample > last) session.view.vd_first_sample = 1;
}

// Processor seconds of this thread: what else the machine does takes a core, not ours.
double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Redraws to the second of one core, the view moving as the reader scrolls.
double measure_redraws(session_state& session, QImage& image, peak_summary* peaks) {
  const double begin = processor_seconds();
  double elapsed = 0;
  std::int32_t n = 0;
  while (elapsed < 1.0 || n < 5) {
    QPainter painter(&image);
    draw_voltage(session, painter, peaks);
    painter.end();
    scroll_on(session);
    ++n;
    elapsed = processor_seconds() - begin;
  }
  return n / elapsed;
}

struct drawing_case {
  const char* name;
  float time_scale;  // pixels per sample; 0: the whole recording in view
  bool peaks = false;
};

void measure_case(session_state& session, window_size size, bool all_rows,
                  const drawing_case& wanted) {
  session.view.vd_width = size.width;
  session.view.vd_height = size.height;
  set_channel_spacing(
      session, all_rows ? std::max((size.height - 20) / n_channels, 1) : (size.height - 20) / 30);
  autoscale_voltage_display(session);
  scroll_to_row(session, 1);
  session.display.vd_time_scale =
      wanted.time_scale > 0
          ? wanted.time_scale
          : static_cast<float>(size.width) / static_cast<float>(session.recording.n_samples);
  session.view.vd_keep_peaks = wanted.peaks;
  session.view.vd_first_sample = session.recording.n_samples / 3;
  if (wanted.time_scale == 0) session.view.vd_first_sample = 1;
  QImage image((QSizeF(size.width, size.height) * size.ratio).toSize(), QImage::Format_RGB32);
  image.setDevicePixelRatio(size.ratio);
  peak_summary peaks;
  double filling = 0;
  if (wanted.peaks) {
    const double begin = processor_seconds();
    bool complete = false;
    while (!complete) {
      QPainter painter(&image);
      complete = draw_voltage(session, painter, &peaks).complete;
    }
    filling = processor_seconds() - begin;
  }
  const double redraws = measure_redraws(session, image, wanted.peaks ? &peaks : nullptr);
  fmt::print("{:>5} x {:<5} at {}  {:>4} rows  {:<34} {:>7.1f} redraws/s", size.width, size.height,
             size.ratio, all_rows ? n_channels : 30, wanted.name, redraws);
  if (filling > 0) fmt::print("   first complete after {:.2f} s", filling);
  fmt::print("\n");
  std::fflush(stdout);
}

void run_all(double gigabytes) {
  small_session session;
  const auto n_samples = static_cast<std::int32_t>(gigabytes * 1e9 / 2 / n_channels);
  make_recording(*session, n_channels, n_samples, rate, 1.0f);
  fill_recording(*session);
  compute_noise(*session);
  fmt::print("{} channels, {:.0f} s at {} Hz\n", n_channels, n_samples / double(rate), rate);
  session->display.vd_show_events = false;
  constexpr drawing_case cases[] = {
      {"1 pixel per sample", 1.0f},
      {"4 pixels per sample, interpolated", 4.0f},
      {"0.25 pixels per sample", 0.25f},
      {"0.01 pixels per sample", 0.01f},
      {"whole recording", 0.0f},
      {"0.25 pixels per sample, peaks", 0.25f, true},
      {"0.02 pixels per sample, peaks", 0.02f, true},
      {"0.005 pixels per sample, peaks", 0.005f, true},
      {"whole recording, peaks", 0.0f, true},
  };
  for (const window_size size :
       {window_size{1280, 800}, window_size{2560, 1600}, window_size{1280, 800, 2.0}}) {
    for (const bool all_rows : {false, true}) {
      for (const drawing_case& wanted : cases) measure_case(*session, size, all_rows, wanted);
    }
  }
  scatter_events(*session, 10'000'000);
  session->display.vd_show_events = true;
  session->display.vd_cluster_colours = true;
  measure_case(*session, {1280, 800}, false, {"ten million events", 1.0f});
}

}  // namespace
}  // namespace kestrelvane::test

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication application(argc, argv);
  kestrelvane::flush_denormals();
  kestrelvane::test::run_all(argc > 1 ? std::atof(argv[1]) : 4.0);
}
