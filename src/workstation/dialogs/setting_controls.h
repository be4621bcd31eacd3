// Controls bound to rows of the settings table.
//
// A settings_form belongs to one dialog and holds the controls that show settings. Each
// control takes its range from the setting's row and its objectName from the setting's
// name, so that tests and scripts find it. A number that is out of range or no number is
// refused beside its field, in words, and the setting keeps its value.
//
//   settings_form form(w.session, dialog);
//   layout->addRow("radius", real_control(form, "smooth_radius_um", {.step = 5, .unit = "µm",
//                                                                    .tip = "..."}));
//   form.load();           // settings -> controls
//   form.store();          // controls -> settings; false while a field is refused
#pragma once

#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QPointer>
#include <functional>
#include <string>
#include <utility>
#include <vector>

class QCheckBox;
class QRadioButton;

namespace kestrelvane {

struct session_state;
struct setting_row;

// A spin box that takes any text and says beside itself what is wrong with it. Its value
// is always one in range. A text that is refused stays as it was typed, also when the field is
// left, and the value goes back to what it was before the typing: "999" is never cut to the "9"
// that was in range on the way to it.
class number_field : public QDoubleSpinBox {
  Q_OBJECT

 public:
  explicit number_field(QWidget* parent = nullptr);
  ~number_field() override;

  // The label that shows the words; made with the field, to be laid out beside it.
  QLabel* problem() const { return problem_; }
  bool refused() const { return !problem_->text().isEmpty(); }
  // A value from elsewhere, in the place of whatever is typed.
  void show_value(double value);
  // Only multiples of this are taken; 0 takes any number.
  void set_multiple(double multiple) { multiple_ = multiple; }
  // The field, its unit and the words in one row, as a layout takes it; without the words where
  // a words_line shows them.
  QWidget* row(bool words_beside = true);
  // Room beside the field for the longest words that its range can bring, so that nothing moves
  // when they come. For whoever lays problem() out himself; again when the range has changed.
  void keep_room();

 signals:
  void judged(const QString& words);  // after each change of the text; "" when it is taken

 protected:
  QValidator::State validate(QString& text, int& position) const override;
  void fixup(QString& text) const override;
  QString textFromValue(double value) const override;
  double valueFromText(const QString& text) const override;

 private:
  QString refusal_of(const QString& text) const;
  void judge(const QString& text);
  void begin_typing();
  void mark_text();
  QPointer<QLabel> problem_;  // the field's own until it is laid out
  double multiple_ = 0;
  QString refused_;    // the text as typed; empty when it is taken
  double before_ = 0;  // the value when the typing began
  bool typing_ = false;
  QWidget* row_ = nullptr;
};

struct number_options {
  double step = 1;
  int decimals = 0;
  const char* unit = "";  // shown behind the number
  const char* tip = "";
  double low = 0, high = 0;     // both 0: the range of the setting's row
  double shown_per_stored = 1;  // the control shows the setting times this
  double multiple = 0;          // only multiples of this are taken; 0 takes any number
};

struct settings_form {
  struct binding {
    std::function<void(const session_state& from)> load;
    std::function<void()> store;
    std::function<bool()> refused;
  };
  session_state& session;
  QWidget* parent;
  std::vector<binding> bindings;

  settings_form(session_state& of, QWidget* parent_of) : session(of), parent(parent_of) {}
  void load() { load(session); }
  // Shows the settings of another session, as copy_settings gives one: what is only shown must
  // never stand in the session itself, where a timed save would take it for the user's.
  void load(const session_state& from);
  // Stores every control, in one moment. False, with nothing stored, while a field is refused.
  bool store();
  bool refused() const;
};

number_field* number_control(settings_form& form, const char* setting,
                             const number_options& options = {}, int element = 0);
QCheckBox* logical_control(settings_form& form, const char* setting, const QString& label,
                           const char* tip);
// A list whose entries stand for the given values of an integer setting.
QComboBox* choice_control(settings_form& form, const char* setting,
                          const std::vector<std::pair<QString, int>>& entries, const char* tip);

// A line of its own for the words of several fields that stand too close for words beside them.
// It is there, and as high, also while there are none.
QWidget* words_line(const std::vector<number_field*>& fields);

// A free number field of a dialog, not bound to a setting.
number_field* free_number(QWidget* parent, const char* object_name, double low, double high,
                          const number_options& options);

}  // namespace kestrelvane
