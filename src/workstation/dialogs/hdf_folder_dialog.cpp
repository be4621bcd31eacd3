#include "workstation/dialogs/hdf_folder_dialog.h"

#include <QDialogButtonBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <utility>

#include "workstation/dialogs/dialog_parts.h"

namespace kestrelvane {

namespace {

// Names come from a file and may hold anything; one line each.
QString shown(const std::string& text) {
  QString line = QString::fromStdString(text);
  for (QChar& c : line) {
    if (c.category() == QChar::Other_Control && c != '\n') c = QChar::ReplacementCharacter;
  }
  return line;
}

QLineEdit* read_only_line(const char* object_name, const char* tip) {
  auto* line = new QLineEdit;
  line->setObjectName(object_name);
  line->setReadOnly(true);
  line->setToolTip(tip);
  return line;
}

QPlainTextEdit* read_only_text(const char* object_name, const char* tip, int lines) {
  auto* text = new QPlainTextEdit;
  text->setObjectName(object_name);
  text->setReadOnly(true);
  // Nobody types into it; Tab leads on.
  text->setTabChangesFocus(true);
  text->setToolTip(tip);
  text->setMinimumHeight(text->fontMetrics().lineSpacing() * lines + 12);
  return text;
}

QLineEdit* number_edit(const char* object_name, const char* tip) {
  auto* edit = new QLineEdit;
  edit->setObjectName(object_name);
  edit->setToolTip(tip);
  edit->setMaximumWidth(edit->fontMetrics().averageCharWidth() * 18);
  return edit;
}

// A field with its unit behind it.
QLayout* with_unit(QWidget* field, const char* unit) {
  auto* row = new QHBoxLayout;
  row->addWidget(field);
  row->addWidget(new QLabel(unit));
  row->addStretch(1);
  return row;
}

QLabel* caption_of(const char* text, QWidget* buddy) {
  auto* caption = new QLabel(text);
  caption->setBuddy(buddy);
  return caption;
}

}  // namespace

hdf_folder_dialog::hdf_folder_dialog(QWidget* parent) : QDialog(parent) {
  setObjectName("hdf_folder_dialog");
  setWindowTitle("Navigate to HDF folder with data");
  auto* columns = new QHBoxLayout;
  columns->addLayout(member_column(), 1);
  columns->addLayout(facts_column(), 1);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(place_rows());
  layout->addLayout(columns, 1);
  layout->addLayout(edit_rows());
  layout->addWidget(button_row());
  resize(720, 560);
}

QLayout* hdf_folder_dialog::place_rows() {
  file_ = read_only_line("hdf_file", "The recording that is being opened");
  folder_ = read_only_line("hdf_folder", "Place in the file of the group or dataset on show");
  up_ = make_button("hdf_up", "^", "One level up (Backspace)");
  up_->setMaximumWidth(up_->fontMetrics().averageCharWidth() * 8);
  connect(up_, &QPushButton::clicked, this, [this] { answer(hdf_step::up); });
  auto* place = new QHBoxLayout;
  place->addWidget(folder_);
  place->addWidget(up_);
  auto* rows = new QFormLayout;
  rows->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
  rows->addRow("File", file_);
  rows->addRow("Current hdf5 folder:", place);
  return rows;
}

QLayout* hdf_folder_dialog::member_column() {
  members_ = new QTreeWidget;
  members_->setObjectName("hdf_members");
  members_->setHeaderLabels({"sub-folders", "type"});
  members_->setRootIsDecorated(false);
  members_->setUniformRowHeights(true);
  members_->setAlternatingRowColors(true);
  members_->setAllColumnsShowFocus(true);
  members_->header()->setStretchLastSection(false);
  members_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  members_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
  members_->setToolTip("Go into one with a double click or Enter; Backspace goes up");
  members_->installEventFilter(this);
  connect(members_, &QTreeWidget::itemDoubleClicked, this, &hdf_folder_dialog::enter_selected);
  auto* column = new QVBoxLayout;
  column->addWidget(members_, 1);
  return column;
}

QLayout* hdf_folder_dialog::facts_column() {
  attributes_ = new QListWidget;
  attributes_->setObjectName("hdf_attributes");
  attributes_->setToolTip("Attributes of the group or dataset on show");
  connect(attributes_, &QListWidget::currentRowChanged, this, &hdf_folder_dialog::show_attribute);
  attribute_value_ =
      read_only_text("hdf_attribute_value", "Value of the attribute chosen above", 2);
  dimensions_ = new QLabel;
  dimensions_->setObjectName("hdf_dimensions");
  dimensions_->setToolTip(
      "Size of a dataset; a recording has 200 samples or more, and 1 to 4096 "
      "channels, in either order");
  dimensions_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  values_ = read_only_text("hdf_values", "The first values of a dataset, as they are stored", 5);
  values_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  // Rows of the dataset stay rows.
  values_->setLineWrapMode(QPlainTextEdit::NoWrap);

  auto* size = new QHBoxLayout;
  size->addWidget(new QLabel("dimensions="));
  size->addWidget(dimensions_, 1);
  auto* column = new QVBoxLayout;
  column->addWidget(caption_of("Attributes for current sub-folder", attributes_));
  column->addWidget(attributes_, 2);
  column->addWidget(caption_of("Attribute value", attribute_value_));
  column->addWidget(attribute_value_, 1);
  column->addLayout(size);
  column->addWidget(caption_of("Data values:", values_));
  column->addWidget(values_, 2);
  return column;
}

QLayout* hdf_folder_dialog::edit_rows() {
  rate_ = number_edit("hdf_rate", "Samples per second on each channel, 200 to 100000 Hz");
  scale_ = number_edit("hdf_scale",
                       "Microvolts that one step of the samples in memory stands for, up to 1000");
  auto* rows = new QFormLayout;
  rows->addRow("Sample Frequency", with_unit(rate_, "Hz"));
  rows->addRow("Voltage scaling", with_unit(scale_, "uV/bit"));
  return rows;
}

QWidget* hdf_folder_dialog::button_row() {
  auto* buttons = new QDialogButtonBox;
  read_ = add_button(buttons, "read", "Read", QDialogButtonBox::AcceptRole,
                     "Read the voltages from the dataset on show");
  cancel_ = add_button(buttons, "cancel", "Cancel", QDialogButtonBox::RejectRole,
                       "Give up reading this file");
  read_->setDefault(true);
  connect(buttons, &QDialogButtonBox::accepted, this, [this] { answer(hdf_step::read); });
  connect(buttons, &QDialogButtonBox::rejected, this, &hdf_folder_dialog::reject);
  return buttons;
}

void hdf_folder_dialog::show_page(const hdf_page& page, reply_routine reply) {
  page_ = page;
  reply_ = std::move(reply);
  // A page that was on its way when the user gave up.
  if (cancelled_) {
    answer(hdf_step::cancel);
    return;
  }
  file_->setText(shown(page.file));
  folder_->setText(shown(page.folder));
  fill_members(page);
  fill_attributes(page);
  dimensions_->setText(page.is_dataset ? shown(page.dimensions + "  (" + page.data_type + ")")
                                       : QString());
  values_->setPlainText(shown(page.values));
  rate_->setText(QString::fromStdString(page.rate));
  scale_->setText(QString::fromStdString(page.scale));
  up_->setEnabled(page.folder != "/");
  setEnabled(true);
  // Return reads where there is something to read, and goes on where there is not.
  if (page.is_dataset) {
    read_->setFocus();
  } else {
    members_->setFocus();
  }
}

void hdf_folder_dialog::fill_members(const hdf_page& page) {
  members_->clear();
  for (const hdf_member& member : page.members) {
    auto* row = new QTreeWidgetItem(members_, {shown(member.name), shown(member.type)});
    if (!member.leads_to.empty()) row->setToolTip(0, "Leads to " + shown(member.leads_to));
  }
  if (members_->topLevelItemCount() > 0) members_->setCurrentItem(members_->topLevelItem(0));
}

void hdf_folder_dialog::fill_attributes(const hdf_page& page) {
  // Clearing would ask for the value of an attribute that is gone.
  const QSignalBlocker quiet(attributes_);
  attributes_->clear();
  for (const hdf_attribute& attribute : page.attributes)
    attributes_->addItem(shown(attribute.name));
  attributes_->setCurrentRow(page.attributes.empty() ? -1 : 0);
  show_attribute();
}

void hdf_folder_dialog::show_attribute() {
  const auto row = static_cast<std::size_t>(attributes_->currentRow());
  const bool there = attributes_->currentRow() >= 0 && row < page_.attributes.size();
  attribute_value_->setPlainText(there ? shown(page_.attributes[row].value) : QString());
}

void hdf_folder_dialog::enter_selected() {
  if (members_->currentItem() != nullptr) answer(hdf_step::enter);
}

void hdf_folder_dialog::answer(hdf_step step) {
  // One answer for each page: a second press comes before the next one is there.
  if (!reply_) return;
  hdf_choice choice;
  choice.step = step;
  const int row = members_->indexOfTopLevelItem(members_->currentItem());
  // A dataset has no members and no line that is chosen.
  choice.member = static_cast<std::size_t>(std::max(row, 0));
  choice.rate = rate_->text().toStdString();
  choice.scale = scale_->text().toStdString();
  // Off until the next page; what was typed meanwhile would be lost.
  setEnabled(false);
  std::exchange(reply_, nullptr)(choice);
}

// Also Escape and the frame's button. The window goes when the worker has let go.
void hdf_folder_dialog::reject() {
  cancelled_ = true;
  answer(hdf_step::cancel);
}

bool hdf_folder_dialog::eventFilter(QObject* watched, QEvent* event) {
  if (watched == members_ && event->type() == QEvent::KeyPress) {
    const int key = static_cast<QKeyEvent*>(event)->key();
    if (key == Qt::Key_Return || key == Qt::Key_Enter) {
      enter_selected();
      return true;
    }
    if (key == Qt::Key_Backspace) {
      answer(hdf_step::up);
      return true;
    }
  }
  return QDialog::eventFilter(watched, event);
}

}  // namespace kestrelvane
