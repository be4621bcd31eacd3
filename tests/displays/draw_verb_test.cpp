// The batch verb that draws, as a process: the window's picture in three kinds of file.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include "displays/voltage/voltage_record.h"
#include "operations/open_recording.h"
#include "signal/display_scale.h"
#include "support/child_process.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct drawn_recording {
  temporary_directory folder;
  std::string recording = folder.file("small.tsf");

  drawn_recording() {
    run_process(KESTRELVANE_BATCH, {"make-test", recording, "--channels", "8", "--minutes", "0.1",
                                    "--units", "3", "--quiet"});
  }
  process_result draw(const std::string& name, std::vector<std::string> more = {}) {
    std::vector<std::string> arguments = {
        "draw",    recording, "--quiet",   "--size", "640x400", "--from",         "1",
        "--scale", "0.5",     "--spacing", "30",     "--out",   folder.file(name)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_process(KESTRELVANE_BATCH, arguments);
  }
};

std::int32_t dark_pixels(const QImage& image) {
  std::int32_t n = 0;
  for (std::int32_t y = 0; y < image.height(); ++y) {
    for (std::int32_t x = 0; x < image.width(); ++x) n += qGray(image.pixel(x, y)) < 128;
  }
  return n;
}

TEST(draw_verb, the_picture_is_that_of_the_window) {
  drawn_recording files;
  const process_result result = files.draw("a.png");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const QImage written(QString::fromStdString(files.folder.file("a.png")));
  ASSERT_EQ(written.size(), QSize(640, 400));

  small_session session;
  ASSERT_TRUE(open_recording(*session, files.recording));
  session->display.vd_show_events = false;
  session->display.vd_time_scale = 0.5f;
  session->view.vd_width = 640;
  session->view.vd_height = 400;
  session->view.vd_first_sample = session->recording.sampling_frequency + 1;
  set_channel_spacing(*session, 30);
  autoscale_voltage_display(*session);
  QImage drawn(640, 400, QImage::Format_RGB32);
  QPainter painter(&drawn);
  draw_voltage(*session, painter);
  painter.end();
  EXPECT_EQ(written.convertToFormat(QImage::Format_RGB32), drawn);
}

TEST(draw_verb, vector_pictures_show_the_same) {
  drawn_recording files;
  ASSERT_EQ(files.draw("a.png").status, 0);
  ASSERT_EQ(files.draw("a.svg").status, 0);
  ASSERT_EQ(files.draw("a.pdf").status, 0);
  const QImage png(QString::fromStdString(files.folder.file("a.png")));
  QSvgRenderer svg(QString::fromStdString(files.folder.file("a.svg")));
  ASSERT_TRUE(svg.isValid());
  EXPECT_EQ(svg.viewBox(), QRect(0, 0, 640, 400));
  QImage rendered(640, 400, QImage::Format_RGB32);
  rendered.fill(Qt::white);
  QPainter painter(&rendered);
  svg.render(&painter);
  painter.end();
  // Smoothed lines against pixels: the ink agrees, row by row.
  const auto ink = [](const QImage& image, std::int32_t top) {
    return dark_pixels(image.copy(17, top, 550, 30));
  };
  for (std::int32_t top = 35; top < 35 + 8 * 30; top += 30) {
    EXPECT_NEAR(ink(rendered, top), ink(png, top), 0.25 * ink(png, top)) << top;
  }
  const std::vector<char> pdf = read_bytes(files.folder.file("a.pdf"));
  ASSERT_GT(pdf.size(), 2000u);
  const QByteArray text(pdf.data(), static_cast<qsizetype>(pdf.size()));
  EXPECT_TRUE(text.startsWith("%PDF-"));
  // 640 x 400 pixels of 1/96 inch.
  EXPECT_TRUE(text.contains("/MediaBox [0 0 480.000000 300.000000]") ||
              text.contains("/MediaBox [0 0 480 300]"))
      << text.mid(text.indexOf("/MediaBox"), 50).toStdString();
}

TEST(draw_verb, choices_change_the_picture) {
  drawn_recording files;
  const auto picture = [&](std::vector<std::string> more) {
    EXPECT_EQ(files.draw("b.png", std::move(more)).status, 0);
    return QImage(QString::fromStdString(files.folder.file("b.png")));
  };
  const QImage plain = picture({});
  EXPECT_NE(picture({"--view", "grey"}), plain);
  EXPECT_NE(picture({"--grid"}), plain);
  EXPECT_NE(picture({"--peaks"}), plain);
  EXPECT_NE(picture({"--first-row", "3"}), plain);
  EXPECT_GT(dark_pixels(picture({"--reverse"})), 640 * 400 * 3 / 4);
  EXPECT_EQ(picture({"--events"}), plain);  // there are none

  for (const std::vector<std::string>& wrong : {std::vector<std::string>{"--size", "640"},
                                                {"--size", "0x10"},
                                                {"--size", "99999x10"},
                                                {"--view", "colour"},
                                                {"--spacing", "501"},
                                                {"--scale", "-1"}}) {
    std::vector<std::string> arguments = {"draw", files.recording, "--out",
                                          files.folder.file("c.png")};
    arguments.insert(arguments.end(), wrong.begin(), wrong.end());
    EXPECT_EQ(run_process(KESTRELVANE_BATCH, arguments).status, 2) << wrong[1];
  }
  EXPECT_EQ(files.draw("c.bmp").status, 2);
  EXPECT_EQ(files.draw("c.csv").status, 2) << "traces are no numbers";
  EXPECT_EQ(files.draw("c.bmp", {"--view", "graph"}).status, 2);
  EXPECT_EQ(files.draw("no/such/folder.png").status, 1);
}

TEST(draw_verb, a_graph_has_axes_and_numbers) {
  drawn_recording files;
  for (const char* name : {"g.png", "g.svg", "g.pdf", "g.csv", "g.gra"}) {
    const process_result result = files.draw(name, {"--view", "graph"});
    ASSERT_EQ(result.status, 0) << name << ": " << result.err;
    EXPECT_EQ(result.err, "") << name;
  }
  const QImage png(QString::fromStdString(files.folder.file("g.png")));
  EXPECT_EQ(png.size(), QSize(640, 400));
  ASSERT_EQ(files.draw("d.png", {"--view", "graph", "--reverse"}).status, 0);
  const QImage dark(QString::fromStdString(files.folder.file("d.png")));
  EXPECT_EQ(png.pixelColor(1, 1), Qt::white);
  EXPECT_EQ(dark.pixelColor(1, 1), Qt::black);
  const std::vector<char> bytes = read_bytes(files.folder.file("g.csv"));
  const QList<QByteArray> lines =
      QByteArray(bytes.data(), static_cast<qsizetype>(bytes.size())).split('\n');
  EXPECT_EQ(lines[0].count(','), 15) << "x and y of eight channels";
  EXPECT_TRUE(lines[0].startsWith("channel ") && lines[0].contains(" time (ms),channel "));
  EXPECT_NEAR(lines[1].split(',')[0].toDouble(), 1000, 0.1) << "from the second second";
  EXPECT_EQ(read_bytes(files.folder.file("g.gra"))[0], char(0xE9));
}

TEST(draw_verb, the_spectrum_is_a_graph_of_the_recording) {
  drawn_recording files;
  ASSERT_EQ(files.draw("s.png", {"--view", "spectrum"}).status, 0);
  EXPECT_GT(dark_pixels(QImage(QString::fromStdString(files.folder.file("s.png")))), 100);
  ASSERT_EQ(files.draw("s.csv", {"--view", "spectrum"}).status, 0);
  const std::vector<char> bytes = read_bytes(files.folder.file("s.csv"));
  EXPECT_EQ(std::count(bytes.begin(), bytes.end(), '\n'), 2049) << "a heading and 2048 bins";
}

TEST(draw_verb, the_channel_check_has_two_graphs_and_a_list) {
  drawn_recording files;
  const std::pair<const char*, std::ptrdiff_t> views[] = {{"deviations", 8}, {"distances", 201}};
  for (const auto& [view, n_lines] : views) {
    ASSERT_EQ(files.draw("c.png", {"--view", view}).status, 0);
    EXPECT_GT(dark_pixels(QImage(QString::fromStdString(files.folder.file("c.png")))), 100);
    ASSERT_EQ(files.draw("c.csv", {"--view", view}).status, 0);
    const std::vector<char> bytes = read_bytes(files.folder.file("c.csv"));
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), '\n'), 1 + n_lines) << view;
  }
  const std::string masks = files.folder.file("c.msk");
  const auto check = [&](std::vector<std::string> more) {
    more.insert(more.begin(), {"check", files.recording, "--quiet"});
    return run_process(KESTRELVANE_BATCH, more);
  };
  EXPECT_EQ(check({}).out, "Everything seems OK\n");
  // Of seven channels there is no telling; what is masked stays so in the file.
  const process_result refused = check({"--mask", "2", "--mask-out", masks});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("Not enough unmasked channels"), std::string::npos);
  EXPECT_EQ(check({"--mask-out", files.recording}).status, 2) << "the recording itself";
  ASSERT_EQ(check({"--mask-out", masks, "--json"}).status, 0);
  const std::vector<char> bytes = read_bytes(masks);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 16), "     1F\n     2F\n");
}

TEST(check_verb, what_the_spikes_alone_say_is_told_and_masks_nothing) {
  const temporary_directory folder;
  const std::string recording = folder.file("sound.tsf"), masks = folder.file("of_check.msk");
  run_process(KESTRELVANE_BATCH,
              {"make-test", recording, "--seed", "5", "--minutes", "0.2", "--quiet"});
  const auto check = [&](const char* option) {
    return run_process(KESTRELVANE_BATCH,
                       {"check", recording, "--quiet", "--mask-out", masks, option});
  };
  // The first site of the probe, seen by few.
  EXPECT_EQ(
      check("--include-masked").out,
      "Channel 1 may need masking; abs dev=-2.95  Only the spikes say so: a large unit or the "
      "end of the probe does that\n"
      "0 borne out by the background, 1 by the spikes alone\n");
  const std::vector<char> bytes = read_bytes(masks);
  EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 'F'), 32);
  EXPECT_NE(check("--json").out.find("\"borne_out\": false"), std::string::npos);
}

TEST(draw_verb, clusters_of_a_saved_sort) {
  const temporary_directory folder;
  const std::string recording = folder.file("sorted.tsf"), work = folder.file("sorted.wrk");
  run_process(KESTRELVANE_BATCH, {"make-test", recording, "--electrode", "tetrode", "--minutes",
                                  "0.3", "--units", "3", "--quiet"});
  ASSERT_EQ(
      run_process(KESTRELVANE_BATCH, {"sort", recording, "--quiet", "--save-work", work}).status,
      0);
  const auto draw = [&](std::vector<std::string> more) {
    std::vector<std::string> arguments = {"draw",    recording, "--work", work,
                                          "--quiet", "--size",  "500x400"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_process(KESTRELVANE_BATCH, arguments);
  };
  for (const char* view : {"waveforms", "components", "templates", "correlograms", "isi-heights",
                           "heights", "spikes"}) {
    for (const char* name : {"c.png", "c.svg", "c.pdf"}) {
      const process_result result =
          draw({"--view", view, "--clusters", "1,2", "--out", folder.file(name)});
      EXPECT_EQ(result.status, 0) << view << " " << name << ": " << result.err;
    }
    const QImage light(QString::fromStdString(folder.file("c.png")));
    ASSERT_EQ(light.size(), QSize(500, 400)) << view;
    EXPECT_GT(dark_pixels(light), 100) << view;
    ASSERT_EQ(
        draw({"--view", view, "--clusters", "1,2", "--reverse", "--out", folder.file("d.png")})
            .status,
        0);
    EXPECT_GT(dark_pixels(QImage(QString::fromStdString(folder.file("d.png")))), 500 * 400 / 2);
  }
  // Of two, the cross-correlogram stands above the diagonal, and nothing below it.
  ASSERT_EQ(
      draw({"--view", "correlograms", "--clusters", "1,2", "--out", folder.file("c.png")}).status,
      0);
  const QImage matrix(QString::fromStdString(folder.file("c.png")));
  EXPECT_GT(dark_pixels(matrix.copy(0, 0, 250, 200)), 50);
  EXPECT_GT(dark_pixels(matrix.copy(250, 0, 250, 200)), 50);
  EXPECT_GT(dark_pixels(matrix.copy(250, 200, 250, 200)), 50);
  const QImage below = matrix.copy(0, 200, 250, 200);
  QImage nothing = below;
  nothing.fill(below.pixelColor(0, 0));
  EXPECT_EQ(below, nothing);
  // A list belongs to the views of clusters, a bare word to the traces.
  const std::string out = folder.file("e.png");
  EXPECT_EQ(draw({"--view", "waveforms", "--out", out}).status, 2);
  EXPECT_EQ(draw({"--view", "waveforms", "--clusters", "1,1", "--out", out}).status, 1);
  EXPECT_EQ(draw({"--view", "heights", "--clusters", "400", "--out", out}).status, 1);
  EXPECT_EQ(draw({"--view", "correlograms", "--out", out}).status, 2);
  EXPECT_EQ(draw({"--view", "acf-time", "--clusters", "1,2", "--out", out}).status, 1);
  const std::string image = folder.file("acf.png");
  EXPECT_EQ(draw({"--view", "overlap", "--clusters", "1,2,3", "--out", out}).status, 1);
  for (const auto& [view, clusters] : {std::pair{"isi", "1"},
                                       {"trains", "1"},
                                       {"trains", "2,1"},
                                       {"overlap", "1"},
                                       {"overlap", "2,1"}}) {
    EXPECT_EQ(draw({"--view", view, "--clusters", clusters, "--out", image}).status, 0) << view;
    EXPECT_GT(dark_pixels(QImage(QString::fromStdString(image))), 200) << view;
  }
  EXPECT_EQ(draw({"--view", "acf-time", "--clusters", "2", "--out", image}).status, 0);
  EXPECT_GT(dark_pixels(QImage(QString::fromStdString(image))), 500 * 400 / 3);
  // The distribution of all channels, as a picture and as its numbers.
  ASSERT_EQ(draw({"--view", "amplitudes", "--out", image}).status, 0);
  EXPECT_GT(dark_pixels(QImage(QString::fromStdString(image))), 100);
  ASSERT_EQ(draw({"--view", "amplitudes", "--out", folder.file("a.csv")}).status, 0);
  const std::vector<char> numbers = read_bytes(folder.file("a.csv"));
  EXPECT_TRUE(std::string(numbers.begin(), numbers.end()).starts_with("counts Voltage (µV),"));
  EXPECT_EQ(draw({"--view", "amplitudes", "--clusters", "1", "--out", out}).status, 2);
  EXPECT_EQ(draw({"--clusters", "1,2", "--out", out}).status, 2);
  EXPECT_EQ(draw({"--view", "heights", "--clusters", "1", "--density", "--out", out}).status, 2);
  EXPECT_FALSE(QFile::exists(QString::fromStdString(out)));
  EXPECT_EQ(run_process(KESTRELVANE_BATCH,
                        {"draw", "--clusters", recording, "--work", work, "--quiet", "--out", out})
                .status,
            0);
}

}  // namespace
}  // namespace kestrelvane::test
