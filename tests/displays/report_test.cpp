// The report of a sort: one page, whole, with the figures and pictures of every unit.
#include <gtest/gtest.h>

#include <QImage>
#include <QPainter>
#include <QSvgRenderer>
#include <QXmlStreamReader>
#include <filesystem>
#include <map>

#include "analysis/unit_quality.h"
#include "displays/report/report_pictures.h"
#include "displays/report/unit_report.h"
#include "sorting/realign_steps.h"
#include "support/child_process.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct report_test : testing::Test {
  temporary_directory folder;
  small_session session;

  report_test() {
    make_busy_recording(*session, 4, 100'000, 41);
    for (std::int32_t c = 1; c <= 4; ++c) session->recording.chan_noise[c] = 7;
    recalculate_all_templates(*session);
    session->recording.recording_path = folder.file("a & b.tsf");
    session->clusters.cluster_comment[2].assign("<b>large</b>, \"burst\"");
    session->clusters.cluster_label[1] = unit_label::good;
    session.user.boxes.clear();
  }
  std::string page(const std::string& name) const {
    const std::vector<char> bytes = read_bytes(report_path(folder.file(name)));
    return {bytes.begin(), bytes.end()};
  }
};

// How often an element begins, and whether the page is read to its end.
std::map<std::string, int> count_elements(const std::string& page) {
  std::map<std::string, int> n;
  QXmlStreamReader reader(QByteArray::fromStdString(page));
  while (!reader.atEnd()) {
    if (reader.readNext() == QXmlStreamReader::StartElement) {
      ++n[reader.name().toString().toStdString()];
    }
  }
  EXPECT_FALSE(reader.hasError()) << reader.errorString().toStdString() << " at line "
                                  << reader.lineNumber();
  return n;
}

TEST_F(report_test, the_page_is_whole_and_fetches_nothing) {
  ASSERT_TRUE(write_unit_report(*session, report_path(folder.file("deep/er"))));
  const std::string text = page("deep/er");
  EXPECT_TRUE(
      session.user.told("Report saved in " + report_path(folder.file("deep/er")), "Report"));
  const std::int32_t n_units = session->clusters.n_clusters;
  std::map<std::string, int> n = count_elements(text);
  EXPECT_EQ(n["section"], n_units);
  EXPECT_EQ(n["svg"], 3 * n_units + 1);
  EXPECT_EQ(n["a"], n_units);
  EXPECT_EQ(text.find("http"), text.npos);
  EXPECT_EQ(text.find("src="), text.npos);
  EXPECT_NE(text.find("<h1>Units of a &amp; b.tsf</h1>"), text.npos);
  EXPECT_NE(text.find("<p>&lt;b&gt;large&lt;/b&gt;, &quot;burst&quot;</p>"), text.npos);
  EXPECT_NE(text.find("Unit 1: Good"), text.npos);
  EXPECT_NE(text.find("unsorted, 1 good<"), text.npos);
  // The figures are those of the table of quality, and empty ones are left out.
  for (const unit_quality& quality : measure_quality(*session)) {
    const std::string begin = "<section id=\"unit-" + std::to_string(quality.unit) + "\">";
    const std::size_t at = text.find(begin);
    const std::string section = text.substr(at, text.find("</section>", at) - at);
    for (const quality_figure& figure : quality_figures()) {
      const std::string value = quality_text(figure, quality);
      if (value.empty()) continue;
      EXPECT_NE(section.find("<b>" + value + " " + figure.unit + "</b>"), section.npos)
          << quality.unit << " " << figure.heading;
    }
  }
  // Again, over the page that is there, at another number of threads.
  use_threads(*session, 3);
  ASSERT_TRUE(write_unit_report(*session, report_path(folder.file("deep/er"))));
  EXPECT_EQ(page("deep/er"), text);
}

TEST_F(report_test, pictures_can_be_drawn_by_themselves) {
  cluster_index index;
  for (std::string svg :
       {probe_as_svg(*session, index), template_as_svg(*session, index, 1),
        autocorrelogram_as_svg(*session, 1), heights_as_svg(*session, index, 1)}) {
    ASSERT_TRUE(svg.starts_with("<svg"));
    // Alone a picture has to say what it is.
    svg.insert(4, " xmlns=\"http://www.w3.org/2000/svg\"");
    QSvgRenderer renderer(QByteArray::fromStdString(svg));
    ASSERT_TRUE(renderer.isValid());
    QImage image(renderer.defaultSize(), QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    renderer.render(&painter);
    painter.end();
    int n_drawn = 0;
    for (int y = 0; y < image.height(); ++y) {
      for (int x = 0; x < image.width(); ++x) n_drawn += qGray(image.pixel(x, y)) < 200;
    }
    EXPECT_GT(n_drawn, 300) << svg.substr(0, 80);
  }
}

TEST(report_pictures, what_is_not_seen_is_taken_out) {
  EXPECT_EQ(
      bare_svg("<?xml version=\"1.0\"?>\n<svg width=\"10.5mm\" height=\"20mm\"\n viewBox=\"0 0 "
               "1 1\" xmlns=\"a://b\" xmlns:xlink=\"c\"><title>T t</title><desc>d</desc>"
               "<g a=\"1\">\n<g b=\"2\">\n </g>\n</g><g c=\"1.25\"><path d=\"M1.234,-5.06 L2,"
               "3.999e-05\"/></g></svg>"),
      "<svg\n viewBox=\"0 0 1 1\"><g c=\"1.25\"><path d=\"M1.2,-5.0 L2,3.9e-05\"/></g></svg>");
}

TEST_F(report_test, what_cannot_be_reported_is_said) {
  session->operation.autosort_interrupt = true;
  EXPECT_FALSE(write_unit_report(*session, report_path(folder.file("r"))));
  EXPECT_TRUE(session.user.logged("The report was not saved: it was interrupted"));
  EXPECT_TRUE(std::filesystem::is_empty(folder.file("r")));
  session->operation.autosort_interrupt = false;
  write_bytes(folder.file("file"), {'x'});
  EXPECT_FALSE(write_unit_report(*session, report_path(folder.file("file"))));
  EXPECT_TRUE(session.user.boxes.back().text.starts_with("Error saving report "));
  session->clusters.n_clusters = 0;
  EXPECT_FALSE(write_unit_report(*session, report_path(folder.file("r"))));
  EXPECT_TRUE(session.user.told("There are no clusters", "Report"));
  small_session empty;
  EXPECT_FALSE(write_unit_report(*empty, report_path(folder.file("r"))));
  EXPECT_TRUE(empty.user.told("No recording data in memory", "Report"));
}

TEST(report_verb, a_saved_sort_becomes_a_page) {
  const temporary_directory folder;
  const std::string recording = folder.file("t.tsf"), work = folder.file("t.wrk");
  const auto batch = [](const std::vector<std::string>& arguments) {
    return run_process(KESTRELVANE_BATCH, arguments);
  };
  batch({"make-test", recording, "--electrode", "tetrode", "--minutes", "0.3", "--units", "3",
         "--quiet"});
  ASSERT_EQ(batch({"sort", recording, "--quiet", "--save-work", work}).status, 0);
  const std::string out = folder.file("report");
  const process_result result = batch({"report", recording, "--work", work, "--out", out});
  EXPECT_EQ(result.status, 0) << result.err;
  const std::vector<char> bytes = read_bytes(report_path(out));
  EXPECT_GT(count_elements({bytes.begin(), bytes.end()})["section"], 0);
  EXPECT_EQ(batch({"report", recording, "--work", work}).status, 2);
  EXPECT_EQ(batch({"report", recording, "--out", out, "--quiet"}).status, 1) << "no clusters";
}

}  // namespace
}  // namespace kestrelvane::test
