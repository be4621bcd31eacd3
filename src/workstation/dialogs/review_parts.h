// What the review dialogs share: the keys, the list of clusters, and where they stand.
//
// Reviewing is done for hours, by the keyboard: every button of a review dialog that is pressed
// often has a key of one table, which its tool-tip names and a page (H) lists. Which letters is
// the user's choice, kept with the platform's settings.
#pragma once

#include <QAbstractButton>
#include <QDialog>
#include <QKeySequence>
#include <QWidget>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "sorting/unit_table.h"

class QHBoxLayout;
class QLineEdit;
class QTableView;

namespace kestrelvane {

class operation_dialog;
struct settings_form;
class unit_model;
struct workstation;

// ---------------------------------------------------------------- keys

struct review_key {
  const char* action;       // as the objectName of its button
  const char* what;         // on the page of keys
  const char* letters;      // of this program
  const char* phy_letters;  // for people who come from there
};
std::span<const review_key> review_keys();

enum class key_preset { own, phy, edited };
// The keys in force for an action, several with blanks between them; empty for none.
QString keys_of(const QString& action);
void use_key_preset(key_preset preset);
void set_keys(const QString& action, const QString& keys);  // edits the preset in force
key_preset key_preset_in_force();

// The button's keys press it, while its dialog or a window of the frame has the focus and no
// field is edited; its tool-tip names them. Escape and Return end the editing.
void bind_keys(QDialog* dialog, QAbstractButton* button);
// Keys of an action without a button.
void bind_keys(QDialog* dialog, const char* action, std::function<void()> run);
// A field that takes text has the focus.
bool is_typing();
// While another dialog asks, whose keys may be the same.
void enable_keys(QDialog* dialog, bool enabled);
// "Keys" (H): the table, the presets, and a field for each action.
void show_key_page(workstation& w, QWidget* parent);

// ---------------------------------------------------------------- clusters

// make_unit_table with the refractory violations and, while a list shows them, the figures of
// quality: those of the clusters that an edit has changed are measured anew. On the worker.
std::vector<unit_row> make_review_units(workstation& w, const session_state& session);

// The units of a sort: sorts by any column, filtered by text over all of them; one or two
// selected. Rows are those of make_review_units; those of quality are on a switch, which all lists
// share from run to run.
class unit_list : public QWidget {
  Q_OBJECT

 public:
  explicit unit_list(workstation& of);
  void show_rows(std::vector<unit_row> rows);
  // Marks the clusters of the dialog, as it goes from one to the next; 0 for none.
  void mark(std::int32_t a, std::int32_t b = 0);
  void relabel(std::int32_t cluster, unit_label label);
  void add_to_tip(const QString& line);

 signals:
  void chosen(int cluster);        // a line was pressed
  void pair_chosen(int a, int b);  // two are selected

 private:
  void tell_selection();
  void show_quality(bool shown);
  void measure_quality_now();
  std::vector<std::int32_t> selected() const;

  workstation& w_;
  unit_model* model_;
  QTableView* table_;
  QLineEdit* filter_;
  bool marking_ = false;
};

// The cluster becomes the current one, and all windows follow. Not while a worker runs.
void choose_cluster(workstation& w, std::int32_t cluster);

// The direction of a numbering, renumber_increasing, as two buttons; in front of the stretch that
// ends the row.
void add_numbering_direction(settings_form& form, QHBoxLayout* row);

// ---------------------------------------------------------------- place

// A dialog beside the windows at the right edge of the frame, or where the user has moved it
// the last time. To be called before it is shown.
void place_at_right(workstation& w, QDialog* dialog);
// The same wherever it has been moved to, and while it is open.
void put_at_right(const workstation& w, QDialog* dialog);

}  // namespace kestrelvane
