// The dialog that walks a container file, as a user works it.
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>

#include "support/hdf_fixture.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/messages_dialog.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {
namespace {

struct hdf_dialog_test : testing::Test {
  temporary_directory home, folder;
  driven_workstation w{home.path};
  QDialog* dialog = nullptr;

  // Opens a file and waits for the dialog, with Yes to the questions before it.
  void open(const std::string& path) {
    open_recording_path(w.shell, QString::fromStdString(path));
    wait_for_page("/");
  }
  // A page is there when its place is shown and the controls are live.
  void wait_for_page(const QString& place) {
    QStringList none;
    ASSERT_TRUE(wait_until([&] {
      w.answer_box(true, none);
      dialog = w.shell.frame->findChild<QDialog*>("hdf_folder_dialog");
      return dialog != nullptr && dialog->isVisible() && dialog->isEnabled() &&
             text_of("hdf_folder") == place;
    })) << place.toStdString();
  }
  QString text_of(const char* line) { return w.control<QLineEdit>(dialog, line)->text(); }
  QTreeWidget* members() { return w.control<QTreeWidget>(dialog, "hdf_members"); }
  void choose(const QString& member) {
    const QList<QTreeWidgetItem*> found = members()->findItems(member, Qt::MatchExactly);
    ASSERT_EQ(found.size(), 1) << member.toStdString();
    members()->setCurrentItem(found.first());
  }
  void press_key(int key) { QTest::keyClick(members(), static_cast<Qt::Key>(key)); }
  bool is_gone() {
    return wait_until(
        [&] { return w.shell.frame->findChild<QDialog*>("hdf_folder_dialog") == nullptr; });
  }
};

TEST_F(hdf_dialog_test, a_user_walks_to_the_voltages_and_reads_them) {
  mcs_fixture f;
  f.n_samples = 3000;
  const std::string path = folder.file("rec.h5");
  make_mcs_file(path, f);
  open(path);
  EXPECT_EQ(dialog->windowTitle(), "Navigate to HDF folder with data");
  EXPECT_EQ(text_of("hdf_file"), QString::fromStdString(path));
  EXPECT_FALSE(w.control<QPushButton>(dialog, "hdf_up")->isEnabled());
  EXPECT_EQ(members()->topLevelItem(0)->text(1), "group");
  // The keyboard alone, down to the stream.
  for (const char* place : {"/Data", "/Data/Recording_0", "/Data/Recording_0/AnalogStream",
                            "/Data/Recording_0/AnalogStream/Stream_0"}) {
    press_key(Qt::Key_Return);
    wait_for_page(place);
  }
  EXPECT_EQ(text_of("hdf_rate"), "20000");
  EXPECT_EQ(text_of("hdf_scale"), "381.47");
  press_key(Qt::Key_Backspace);
  wait_for_page("/Data/Recording_0/AnalogStream");
  press_key(Qt::Key_Enter);
  wait_for_page("/Data/Recording_0/AnalogStream/Stream_0");

  // A refusal leaves the dialog open, with what was typed.
  w.press(dialog, "read");
  QStringList none;
  ASSERT_TRUE(wait_until([&] { return w.answer_box(true, none); }));
  EXPECT_EQ(w.told.last(), "Check dimensions: this is probably not a valid data folder!");
  wait_for_page("/Data/Recording_0/AnalogStream/Stream_0");
  choose("ChannelData");
  emit members()->itemDoubleClicked(members()->currentItem(), 0);
  wait_for_page("/Data/Recording_0/AnalogStream/Stream_0/ChannelData");
  EXPECT_EQ(w.control<QLabel>(dialog, "hdf_dimensions")->text(), "4 x 3000  (i32)");
  EXPECT_TRUE(w.control<QPlainTextEdit>(dialog, "hdf_values")->toPlainText().startsWith("-125, "));
  w.control<QLineEdit>(dialog, "hdf_rate")->setText("25000");
  QTest::keyClick(w.control<QLineEdit>(dialog, "hdf_rate"), Qt::Key_Return);
  w.settle(true);
  EXPECT_TRUE(is_gone());
  EXPECT_TRUE(w.session->operation.open_succeeded);
  EXPECT_EQ(w.session->recording.sampling_frequency, 25000);
  EXPECT_EQ(w.session->recording.n_samples, 3000);
  w.close_messages();
}

TEST_F(hdf_dialog_test, attributes_show_their_values) {
  const std::string path = folder.file("rec.nwb");
  {
    hdf_maker maker(path);
    maker.group("/g");
    maker.many_attributes("/g");
  }
  open(path);
  press_key(Qt::Key_Return);
  wait_for_page("/g");
  auto* attributes = w.control<QListWidget>(dialog, "hdf_attributes");
  auto* value = w.control<QPlainTextEdit>(dialog, "hdf_attribute_value");
  EXPECT_EQ(value->toPlainText(), "-5");
  for (const auto& [name, text] : {std::pair<const char*, const char*>{"e_variable", "µV"},
                                   {"h_vlen", "Unsupported VLEN data type"},
                                   {"o_enum", "TRUE"}}) {
    attributes->setCurrentItem(attributes->findItems(name, Qt::MatchExactly).value(0));
    EXPECT_EQ(value->toPlainText(), text);
  }
  w.press(dialog, "hdf_up");
  wait_for_page("/");
  EXPECT_EQ(value->toPlainText(), "");
  w.press(dialog, "cancel");
  w.settle();
  w.close_messages();
}

TEST_F(hdf_dialog_test, giving_up_in_any_way_leaves_an_empty_session) {
  const std::string path = folder.file("rec.nwb");
  make_nwb_file(path);
  for (const int way : {0, 1, 2, 3}) {
    open(path);
    if (way == 0) w.press(dialog, "cancel");
    if (way == 1) QTest::keyClick(dialog, Qt::Key_Escape);
    if (way == 2) dialog->close();
    if (way == 3) delete dialog;  // as with the window it stands on
    w.settle(true);
    EXPECT_TRUE(is_gone());
    EXPECT_FALSE(w.session->operation.open_succeeded);
    EXPECT_EQ(w.session->recording.n_samples, 0);
    w.close_messages();
  }
}

TEST_F(hdf_dialog_test, every_control_has_a_name_and_a_tip) {
  const std::string path = folder.file("rec.nwb");
  make_nwb_file(path);
  open(path);
  for (const char* name :
       {"hdf_file", "hdf_folder", "hdf_up", "hdf_members", "hdf_attributes", "hdf_attribute_value",
        "hdf_dimensions", "hdf_values", "hdf_rate", "hdf_scale", "read", "cancel"}) {
    auto* control = w.control<QWidget>(dialog, name);
    ASSERT_NE(control, nullptr);
    EXPECT_FALSE(control->toolTip().isEmpty()) << name;
  }
  w.press(dialog, "cancel");
  w.settle();
  w.close_messages();
}

}  // namespace
}  // namespace kestrelvane::test
