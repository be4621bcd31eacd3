#include "workstation/dialogs/setting_controls.h"

#include <fmt/format.h>

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QLocale>
#include <cmath>
#include <utility>

#include "session/settings_table.h"

namespace kestrelvane {

namespace {

QString number_text(double value) { return QString::number(value, 'g', 9); }

QString name_of(const char* setting, int element, const setting_row& row) {
  return row.count > 1 ? QString("%1_%2").arg(setting).arg(element + 1) : QString(setting);
}

constexpr const char* not_a_number = "not a number";
constexpr const char* not_whole = "not a whole number";

QString range_words(double low, double high) {
  return QString("from %1 to %2").arg(number_text(low), number_text(high));
}

QString multiple_words(double multiple) { return "not a multiple of " + number_text(multiple); }

// What is wrong with a text, in words; empty when it is a number in range.
QString refusal(const QString& text, double low, double high, bool whole) {
  bool reads = false;
  const double value = QLocale::c().toDouble(text.trimmed(), &reads);
  if (!reads || !std::isfinite(value)) return not_a_number;
  if (whole && value != std::floor(value)) return not_whole;
  if (value < low || value > high) return range_words(low, high);
  return {};
}

// A value as a field of so many decimals shows it.
double as_shown(double value, int decimals) {
  const double power = std::pow(10.0, decimals);
  return std::round(value * power) / power;
}

// As a 32-bit number is written, without the digits that its width adds.
double written_value(const session_state& session, const setting_row& row, int element) {
  const double stored = setting_value(session, row, element);
  if (row.type != setting_type::real) return stored;
  return std::stod(fmt::format("{}", static_cast<float>(stored)));
}

}  // namespace

number_field::number_field(QWidget* parent) : QDoubleSpinBox(parent), problem_(new QLabel) {
  // With a point in every country: settings files, scripts and the log have it, too.
  setLocale(QLocale::c());
  setAccelerated(true);
  setKeyboardTracking(true);
  // Not to the nearest: a slip of 5000 for 50 must not become the upper limit in silence.
  setCorrectionMode(QAbstractSpinBox::CorrectToPreviousValue);
  setMinimumWidth(fontMetrics().horizontalAdvance("00000.00") + 40);
  QPalette colours = problem_->palette();
  const bool dark = colours.color(QPalette::Window).lightness() < 128;
  colours.setColor(QPalette::WindowText,
                   dark ? QColor(0xff, 0x9a, 0x8c) : QColor(0xb0, 0x20, 0x10));
  problem_->setPalette(colours);
  // Told before the spin box takes the text, so that the value is the one before the typing.
  connect(lineEdit(), &QLineEdit::textEdited, this, [this](const QString& text) {
    begin_typing();
    judge(text);
  });
  connect(this, &QAbstractSpinBox::editingFinished, this, [this] { typing_ = false; });
  connect(this, &QDoubleSpinBox::valueChanged, this, [this] { judge(lineEdit()->text()); });
}

number_field::~number_field() {
  // In no layout, nobody else owns it.
  if (problem_ && problem_->parent() == nullptr) delete problem_;
}

QString number_field::refusal_of(const QString& text) const {
  const QString words = refusal(text, minimum(), maximum(), decimals() == 0);
  if (!words.isEmpty() || multiple_ == 0) return words;
  const double times = valueFromText(text) / multiple_;
  return times == std::floor(times) ? QString() : multiple_words(multiple_);
}

void number_field::begin_typing() {
  // Once for each bout of typing: the value is that before its first key.
  if (!std::exchange(typing_, true)) before_ = value();
}

void number_field::show_value(double value) {
  refused_.clear();
  typing_ = false;
  setValue(value);
  judge(lineEdit()->text());
}

void number_field::judge(const QString& text) {
  refused_ = refusal_of(text).isEmpty() ? QString() : text;
  // Whoever follows the value has taken the digits so far for it.
  if (!refused_.isEmpty() && value() != before_) setValue(before_);
  // A dialog that is going may have lost its labels first.
  if (!problem_) return;
  problem_->setText(refusal_of(text));
  problem_->setToolTip(problem_->text());
  mark_text();
  emit judged(problem_->text());
}

// The field is marked, too: its words may stand in a line that several share.
void number_field::mark_text() {
  const bool marked = lineEdit()->testAttribute(Qt::WA_SetPalette);
  if (marked == refused()) return;
  QPalette colours;  // without colours of its own: those of the window, on or off
  if (refused()) {
    colours = lineEdit()->palette();
    colours.setColor(QPalette::Text, problem_->palette().color(QPalette::WindowText));
  }
  lineEdit()->setPalette(colours);
}

void number_field::keep_room() {
  if (!problem_) return;
  QStringList words = {not_a_number, range_words(minimum(), maximum())};
  if (decimals() == 0) words << not_whole;
  if (multiple_ != 0) words << multiple_words(multiple_);
  int width = 0;
  for (const QString& text : std::as_const(words)) {
    width = std::max(width, problem_->fontMetrics().horizontalAdvance(text));
  }
  // Words ask for no more than the room that there is.
  problem_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
  problem_->setMinimumWidth(width + 2);
}

QWidget* number_field::row(bool words_beside) {
  if (row_ != nullptr) return row_;
  row_ = new QWidget;
  auto* layout = new QHBoxLayout(row_);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(this);
  const QString unit = property("unit").toString();
  if (!unit.isEmpty()) layout->addWidget(new QLabel(unit));
  if (words_beside) {
    layout->addWidget(problem_, 1);
    keep_room();
  } else {
    layout->addStretch(1);
  }
  problem_->setObjectName(objectName() + "_problem");
  return row_;
}

QValidator::State number_field::validate(QString& text, int&) const {
  return refusal_of(text).isEmpty() ? QValidator::Acceptable : QValidator::Intermediate;
}

void number_field::fixup(QString& text) const { text = textFromValue(value()); }

// A spin box writes its value over the text when it is left.
QString number_field::textFromValue(double value) const {
  return !refused_.isEmpty() && value == before_ ? refused_ : number_text(value);
}

double number_field::valueFromText(const QString& text) const {
  return QLocale::c().toDouble(text.trimmed());
}

void settings_form::load(const session_state& from) {
  for (const binding& bound : bindings) bound.load(from);
}

bool settings_form::refused() const {
  for (const binding& bound : bindings) {
    if (bound.refused && bound.refused()) return true;
  }
  return false;
}

bool settings_form::store() {
  // All are asked before the first is stored, so that a run never has half of what was typed.
  if (refused()) return false;
  const std::lock_guard lock(session.settings_mutex);
  for (const binding& bound : bindings) bound.store();
  return true;
}

QWidget* words_line(const std::vector<number_field*>& fields) {
  auto* line = new QWidget;
  auto* layout = new QHBoxLayout(line);
  layout->setContentsMargins(0, 0, 0, 0);
  for (number_field* field : fields) {
    QLabel* words = field->problem();
    words->setMinimumWidth(0);
    layout->addWidget(words);
    words->hide();
    QObject::connect(field, &number_field::judged, words,
                     [words](const QString& text) { words->setVisible(!text.isEmpty()); });
  }
  layout->addStretch();
  // The room is there without words as well: a dialog must not jump while somebody types.
  line->setFixedHeight(line->fontMetrics().lineSpacing() + 2);
  line->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
  return line;
}

number_field* free_number(QWidget* parent, const char* object_name, double low, double high,
                          const number_options& options) {
  auto* field = new number_field(parent);
  field->setObjectName(object_name);
  field->setDecimals(options.decimals);
  field->setRange(low, high);
  field->setSingleStep(options.step);
  field->set_multiple(options.multiple);
  field->setProperty("unit", QString(options.unit));
  field->setToolTip(options.tip);
  return field;
}

number_field* number_control(settings_form& form, const char* setting,
                             const number_options& options, int element) {
  const setting_row& row = *find_setting(setting);
  const bool own_range = options.low != 0 || options.high != 0;
  const double low = own_range ? options.low : row.low * options.shown_per_stored;
  const double high = own_range ? options.high : row.high * options.shown_per_stored;
  number_options shown = options;
  // Without decimals the field would refuse all but whole numbers.
  if (row.type == setting_type::real && shown.decimals == 0) shown.decimals = 6;
  number_field* field =
      free_number(form.parent, name_of(setting, element, row).toLatin1(), low, high, shown);
  const double scale = options.shown_per_stored;
  session_state& session = form.session;
  form.bindings.push_back({[field, &row, element, scale](const session_state& from) {
                             field->show_value(written_value(from, row, element) * scale);
                           },
                           [field, &session, &row, element, scale] {
                             // A setting finer than what the field shows stays as it is until it is
                             // changed.
                             const double shown = written_value(session, row, element) * scale;
                             if (as_shown(shown, field->decimals()) == field->value()) return;
                             const double value = field->value() / scale;
                             store_setting(
                                 session, row, element,
                                 row.type == setting_type::real ? value : std::round(value));
                           },
                           [field] { return !field->hasAcceptableInput(); }});
  return field;
}

QCheckBox* logical_control(settings_form& form, const char* setting, const QString& label,
                           const char* tip) {
  const setting_row& row = *find_setting(setting);
  auto* box = new QCheckBox(label, form.parent);
  box->setObjectName(setting);
  box->setToolTip(tip);
  session_state& session = form.session;
  form.bindings.push_back(
      {[box, &row](const session_state& from) { box->setChecked(setting_value(from, row) != 0); },
       [box, &session, &row] { store_setting(session, row, 0, box->isChecked() ? 1 : 0); },
       nullptr});
  return box;
}

QComboBox* choice_control(settings_form& form, const char* setting,
                          const std::vector<std::pair<QString, int>>& entries, const char* tip) {
  const setting_row& row = *find_setting(setting);
  auto* list = new QComboBox(form.parent);
  list->setObjectName(setting);
  list->setToolTip(tip);
  for (const auto& [label, value] : entries) list->addItem(label, value);
  session_state& session = form.session;
  form.bindings.push_back(
      {[list, &row](const session_state& from) {
         const int value = static_cast<int>(setting_value(from, row));
         const int index = list->findData(value);
         // A file may hold a number that the list does not have.
         list->setCurrentIndex(index < 0 ? 0 : index);
       },
       [list, &session, &row] { store_setting(session, row, 0, list->currentData().toInt()); },
       nullptr});
  return list;
}

}  // namespace kestrelvane
