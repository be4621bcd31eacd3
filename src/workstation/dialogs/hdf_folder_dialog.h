// "Navigate to HDF folder with data": the pages of a container file, and the user's next
// step.
//
// A view alone. The worker makes each page and waits; the dialog shows it and replies once
// (interface_desk.cpp). Between a reply and the next page it stays open with its controls
// off.
#pragma once

#include <QDialog>
#include <functional>

#include "session/hdf_page.h"

class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QTreeWidget;

namespace kestrelvane {

class hdf_folder_dialog : public QDialog {
 public:
  using reply_routine = std::function<void(hdf_choice)>;

  explicit hdf_folder_dialog(QWidget* parent);

  // Shows a page; the routine is called once, with what the user does next.
  void show_page(const hdf_page& page, reply_routine reply);

 protected:
  void reject() override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  QLayout* place_rows();
  QLayout* member_column();
  QLayout* facts_column();
  QLayout* edit_rows();
  QWidget* button_row();
  void fill_members(const hdf_page& page);
  void fill_attributes(const hdf_page& page);
  void show_attribute();
  void enter_selected();
  void answer(hdf_step step);

  hdf_page page_;
  reply_routine reply_;
  bool cancelled_ = false;  // while no reply was awaited
  QLineEdit *file_, *folder_, *rate_, *scale_;
  QPushButton *up_, *read_, *cancel_;
  QTreeWidget* members_;
  QListWidget* attributes_;
  QPlainTextEdit *attribute_value_, *values_;
  QLabel* dimensions_;
};

}  // namespace kestrelvane
