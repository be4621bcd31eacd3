#include "workstation/dialogs/review_parts.h"

#include <QAbstractTableModel>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QSettings>
#include <QShortcut>
#include <QSortFilterProxyModel>
#include <QTableView>
#include <QTableWidget>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>

#include "analysis/correlograms.h"
#include "analysis/kept_quality.h"
#include "clustering/membership.h"
#include "displays/display_colours.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/kept_places.h"
#include "workstation/workstation.h"

namespace kestrelvane {

// ---------------------------------------------------------------- keys

namespace {

// clang-format off
constexpr review_key keys[] = {
    {"merge",          "Merge the pair on show",                         "G",               "G"},
    {"split",          "Split as shown",                                 "S",               "K"},
    {"distinct",       "The two are distinct",                           "D",               "D"},
    {"ambiguous",      "Leave the pair as ambiguous",                    "A",               "A"},
    {"undo",           "Undo the last edit",                             "U Ctrl+Z",        "Ctrl+Z U"},
    {"next",           "Next pair or cluster",                           "N Space",         "Space N"},
    {"previous",       "Previous pair or cluster",                       "P Shift+Space",   "Shift+Space P"},
    {"next_with_first","Next pair with the first cluster",              ".",               "."},
    {"previous_with_first","Previous pair with the first cluster",      ",",               ","},
    {"most_similar",   "First pair of the list",                         "B",               "B"},
    {"merge_back",     "Merge, and back to the first pair",              "Shift+G",         "Shift+G"},
    {"swap_display",   "Swap the two clusters of the pair",              "W",               "W"},
    {"next_cluster",   "Next cluster",                                   "Down",            "Down"},
    {"previous_cluster", "Previous cluster",                             "Up",              "Up"},
    {"mark",           "Mark events by the measure chosen",              "M",               "M"},
    {"unmark",         "Clear all marks",                                "Shift+M",         "Shift+M"},
    {"invert",         "Swap marked and unmarked",                       "I",               "I"},
    {"windows",        "Mark by windows drawn over the waveforms",       "W",               "W"},
    {"ellipse",        "Mark by an ellipse drawn over the components",   "E",               "E"},
    {"rectangle",      "Mark by a rectangle drawn over the amplitudes",  "B",               "B"},
    {"lasso",          "Label by a line drawn round events",             "K",               "L"},
    {"delete_marked",  "Delete the events of a label",                   "X",               "X"},
    {"reclaim",        "Take lost events in",                            "R",               "R"},
    {"autosplit",      "Look for sub-clusters",                          "F",               "F"},
    {"label_0",        "Choose the events without a label",              "0",               "0"},
    {"label_1",        "Choose the events of label 1",                   "1",               "1"},
    {"label_2",        "Choose the events of label 2",                   "2",               "2"},
    {"label_3",        "Choose the events of label 3",                   "3",               "3"},
    {"label_4",        "Choose the events of label 4",                   "4",               "4"},
    {"delete_cluster", "Delete the cluster on show",                     "Shift+X",         "Shift+X"},
    {"label_good",     "The unit is good",                               "Alt+G",           "Alt+G"},
    {"label_multi_unit", "The unit is multi-unit activity",              "Alt+M",           "Alt+M"},
    {"label_noise",    "The unit is noise",                              "Alt+N",           "Alt+N"},
    {"label_unsorted", "Nothing is said of the unit",                    "Alt+U",           "Alt+U"},
    {"key_page",       "This page",                                      "H",               "H"},
};
// clang-format on

constexpr const char* preset_entry = "review_keys/preset";

QString entry_of(const QString& action) { return "review_keys/" + action; }

const review_key* find_key(const QString& action) {
  const auto* found = std::find_if(std::begin(keys), std::end(keys),
                                   [&](const review_key& key) { return action == key.action; });
  return found == std::end(keys) ? nullptr : found;
}

// A letter in a field is text, and not a command.
bool takes_text(const QWidget* widget) {
  if (const auto* line = qobject_cast<const QLineEdit*>(widget)) return !line->isReadOnly();
  if (const auto* spin = qobject_cast<const QAbstractSpinBox*>(widget)) return !spin->isReadOnly();
  if (const auto* text = qobject_cast<const QTextEdit*>(widget)) return !text->isReadOnly();
  if (const auto* text = qobject_cast<const QPlainTextEdit*>(widget)) return !text->isReadOnly();
  const auto* list = qobject_cast<const QComboBox*>(widget);
  return list != nullptr && list->isEditable();
}

// Keys of a dialog mean in a field what they mean in any field; Escape and Return end the typing,
// and are not those of the dialog.
class typing_guard : public QObject {
 public:
  explicit typing_guard(QDialog* dialog) : QObject(dialog), dialog_(dialog) {
    qApp->installEventFilter(this);
  }
  void add(const QKeySequence& key) { keys_ << key; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    const bool override = event->type() == QEvent::ShortcutOverride;
    if (!override && event->type() != QEvent::KeyPress) return false;
    QWidget* focus = QApplication::focusWidget();
    const bool typed = watched == focus && takes_text(focus);
    // In a menu, and in the list of a box, a letter is that of an entry.
    if (!typed && QApplication::activePopupWidget() == nullptr) return false;
    const auto* key = static_cast<QKeyEvent*>(event);
    if (override) {
      // Taken here, it reaches the field as a key and no shortcut.
      const bool ours = keys_.contains(QKeySequence(key->keyCombination()));
      if (ours) event->accept();
      return ours;
    }
    const bool ends =
        key->key() == Qt::Key_Escape || key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
    if (!ends || !typed || !dialog_->isAncestorOf(focus)) return false;
    focus->clearFocus();
    return true;
  }

 private:
  QDialog* dialog_;
  QList<QKeySequence> keys_;
};

typing_guard& guard_of(QDialog* dialog) {
  for (QObject* child : dialog->children()) {
    if (auto* guard = dynamic_cast<typing_guard*>(child)) return *guard;
  }
  return *new typing_guard(dialog);
}

// A key of its own for each alternative, over the whole frame: the hand is on the keys while
// the eye is on a window.
void make_shortcuts(QDialog* dialog, const QString& action, std::function<void()> run) {
  const QStringList all = keys_of(action).split(' ', Qt::SkipEmptyParts);
  for (const QString& key : all) {
    auto* shortcut = new QShortcut(QKeySequence(key), dialog);
    guard_of(dialog).add(QKeySequence(key));
    shortcut->setContext(Qt::ApplicationShortcut);
    // A key held a moment too long must not merge the next pair as well.
    shortcut->setAutoRepeat(false);
    QObject::connect(shortcut, &QShortcut::activated, dialog, [run] {
      if (!is_typing() && QApplication::activeModalWidget() == nullptr) run();
    });
  }
}

}  // namespace

bool is_typing() { return takes_text(QApplication::focusWidget()); }

std::span<const review_key> review_keys() { return keys; }

key_preset key_preset_in_force() {
  const QString name = QSettings().value(preset_entry, "own").toString();
  return name == "phy" ? key_preset::phy : name == "edited" ? key_preset::edited : key_preset::own;
}

QString keys_of(const QString& action) {
  const review_key* key = find_key(action);
  if (key == nullptr) return {};
  switch (key_preset_in_force()) {
    case key_preset::phy:
      return key->phy_letters;
    case key_preset::edited:
      return QSettings().value(entry_of(action), key->letters).toString();
    default:
      return key->letters;
  }
}

void use_key_preset(key_preset preset) {
  QSettings().setValue(preset_entry, preset == key_preset::phy ? "phy" : "own");
}

void set_keys(const QString& action, const QString& text) {
  QSettings store;
  // The others keep what is in force, whichever preset that was.
  if (key_preset_in_force() != key_preset::edited) {
    for (const review_key& key : keys) store.setValue(entry_of(key.action), keys_of(key.action));
    store.setValue(preset_entry, "edited");
  }
  store.setValue(entry_of(action), text);
}

void bind_keys(QDialog* dialog, QAbstractButton* button) {
  const QString action = button->objectName();
  const QString text = keys_of(action);
  if (text.isEmpty()) return;
  button->setToolTip(QString("%1 (%2)").arg(button->toolTip(), text.split(' ').join(", ")));
  make_shortcuts(dialog, action, [button] {
    // A key does what its button would do, and nothing where that is off.
    if (button->isEnabled() && button->isVisible()) button->click();
  });
}

void bind_keys(QDialog* dialog, const char* action, std::function<void()> run) {
  make_shortcuts(dialog, action, std::move(run));
}

void enable_keys(QDialog* dialog, bool enabled) {
  const QList<QShortcut*> shortcuts = dialog->findChildren<QShortcut*>();
  for (QShortcut* shortcut : shortcuts) shortcut->setEnabled(enabled);
}

namespace {

QTableWidget* make_key_table() {
  auto* table = new QTableWidget(static_cast<int>(std::size(keys)), 2);
  table->setObjectName("keys");
  table->setHorizontalHeaderLabels({"Action", "Keys"});
  table->verticalHeader()->hide();
  table->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
  table->horizontalHeader()->setStretchLastSection(true);
  return table;
}

void fill_key_table(QTableWidget* table) {
  const QSignalBlocker quiet(table);
  for (int row = 0; row < table->rowCount(); ++row) {
    auto* what = new QTableWidgetItem(keys[row].what);
    what->setFlags(Qt::ItemIsEnabled);
    table->setItem(row, 0, what);
    table->setItem(row, 1, new QTableWidgetItem(keys_of(keys[row].action)));
  }
}

QPushButton* preset_button(QTableWidget* table, const char* name, const QString& label,
                           key_preset preset, const char* tip) {
  QPushButton* button = make_button(name, label, tip);
  QObject::connect(button, &QPushButton::clicked, table, [table, preset] {
    use_key_preset(preset);
    fill_key_table(table);
  });
  return button;
}

}  // namespace

void show_key_page(workstation& w, QWidget* parent) {
  auto* page = new QDialog(parent);
  page->setObjectName("key_page_dialog");
  page->setWindowTitle("Keys");
  QTableWidget* table = make_key_table();
  fill_key_table(table);
  QObject::connect(table, &QTableWidget::cellChanged, table, [table](int row, int) {
    set_keys(keys[row].action, table->item(row, 1)->text().simplified());
  });
  auto* presets = new QHBoxLayout;
  presets->addWidget(
      preset_button(table, "own_keys", "These", key_preset::own, "The letters of this program"));
  presets->addWidget(preset_button(table, "phy_keys", "Those of Phy", key_preset::phy,
                                   "For hands that are used to them"));
  presets->addStretch();
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok);
  QObject::connect(buttons, &QDialogButtonBox::accepted, page, &QDialog::accept);
  auto* layout = new QVBoxLayout(page);
  layout->addWidget(new QLabel("Changes count when a review dialog is opened the next time."));
  layout->addWidget(table, 1);
  layout->addLayout(presets);
  layout->addWidget(buttons);
  page->resize(460, 560);
  open_dialog(w, page);
}

// ---------------------------------------------------------------- clusters

namespace {

struct unit_column {
  const char* heading;
  const char* tip;
  double (*value)(const unit_row& row);
  int decimals;
  const char* (*text)(const unit_row& row) = nullptr;  // in place of the number
  bool of_quality = false;
};

// clang-format off
constexpr unit_column columns[] = {
    {"Cluster", "Number of the cluster",                      [](const unit_row& u) { return double(u.cluster); }, 0},
    {"Label",   "G good, M multi-unit, N noise: your word on the unit (Alt+G, Alt+M, Alt+N, Alt+U)",
     [](const unit_row& u) { return double(static_cast<int>(u.label)); }, 0,
     [](const unit_row& u) { return name_of(u.label).letter; }},
    {"Channel", "Centre channel of the template",             [](const unit_row& u) { return double(u.channel); }, 0},
    {"Events",  "Events of the cluster",                      [](const unit_row& u) { return double(u.n_events); }, 0},
    {"Rate",    "Events per second of the recording",         [](const unit_row& u) { return u.rate; }, 2},
    {"P-P",     "Peak-to-peak amplitude of the template, µV", [](const unit_row& u) { return u.peak_to_peak; }, 0},
    {"SNR",     "Peak-to-peak amplitude over the noise; 0 where that is not known",
     [](const unit_row& u) { return u.snr; }, 1},
    {"y",       "Centre of gravity along the probe, µm",      [](const unit_row& u) { return double(u.y); }, 0},
    {"< 2 ms %", "Refractory violations: intervals below 2 ms, percent of the cluster's intervals",
     [](const unit_row& u) { return u.violations; }, 2},
    {"Contam.", "Fraction of foreign spikes, by all pairs within the refractory period (Llobet et al. 2022); good: below 0.1",
     [](const unit_row& u) { return u.contamination; }, 3, nullptr, true},
    {"Cut-off", "Fraction of the unit's spikes that the threshold has missed (Hill et al. 2011); good: below 0.1",
     [](const unit_row& u) { return u.cutoff; }, 3, nullptr, true},
    {"Presence", "Fraction of the recording's stretches in which the unit fires (Siegle et al. 2021); good: above 0.9",
     [](const unit_row& u) { return u.presence; }, 2, nullptr, true},
    {"Nearest", "The neighbour that is hardest to tell from the unit",
     [](const unit_row& u) { return u.nearest; }, 0, nullptr, true},
    {"d'", "Distance from the nearest unit in standard deviations (Siegle et al. 2021); good: above 4",
     [](const unit_row& u) { return u.d_prime; }, 2, nullptr, true},
};
// clang-format on

}  // namespace

class unit_model : public QAbstractTableModel {
 public:
  unit_model(const session_state& session, QObject* parent)
      : QAbstractTableModel(parent), session_(session) {}

  void show(std::vector<unit_row> rows) {
    beginResetModel();
    rows_ = std::move(rows);
    endResetModel();
  }
  void relabel(std::int32_t cluster, unit_label label) {
    const int row = row_of(cluster);
    if (row < 0) return;
    rows_[row].label = label;
    emit dataChanged(index(row, 0), index(row, columnCount() - 1));
  }
  std::int32_t cluster_at(int row) const { return rows_[row].cluster; }
  int row_of(std::int32_t cluster) const {
    const auto found = std::find_if(rows_.begin(), rows_.end(),
                                    [&](const unit_row& row) { return row.cluster == cluster; });
    return found == rows_.end() ? -1 : static_cast<int>(found - rows_.begin());
  }
  int rowCount(const QModelIndex& parent = {}) const override {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
  }
  int columnCount(const QModelIndex& parent = {}) const override {
    return parent.isValid() ? 0 : static_cast<int>(std::size(columns));
  }
  QVariant data(const QModelIndex& at, int role) const override {
    const unit_row& row = rows_[at.row()];
    const unit_column& column = columns[at.column()];
    if (role == Qt::DisplayRole) {
      if (column.text != nullptr) return QString(column.text(row));
      const double value = column.value(row);
      return std::isnan(value) ? QString() : QString::number(value, 'f', column.decimals);
    }
    // Sorted by the number, not by its text; what cannot be told stands behind all that can.
    if (role == Qt::UserRole) {
      const double value = column.value(row);
      return std::isnan(value) ? std::numeric_limits<double>::infinity() : value;
    }
    if (role == Qt::TextAlignmentRole) return int{Qt::AlignRight | Qt::AlignVCenter};
    if (role == Qt::DecorationRole && at.column() == 0) {
      return colour_of_word(cluster_colour_word(session_, row.cluster));
    }
    return {};
  }
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
    if (orientation != Qt::Horizontal) return {};
    if (role == Qt::DisplayRole) return QString::fromUtf8(columns[section].heading);
    if (role == Qt::ToolTipRole) return QString::fromUtf8(columns[section].tip);
    return {};
  }

 private:
  const session_state& session_;
  std::vector<unit_row> rows_;
};

namespace {

QSortFilterProxyModel* proxy_of(const QTableView* table) {
  return static_cast<QSortFilterProxyModel*>(table->model());
}

QTableView* make_unit_table_view(unit_model* model, QObject* parent) {
  auto* proxy = new QSortFilterProxyModel(parent);
  proxy->setSourceModel(model);
  proxy->setSortRole(Qt::UserRole);
  proxy->setFilterKeyColumn(-1);
  auto* table = new QTableView;
  table->setObjectName("unit_table");
  table->setModel(proxy);
  table->setSelectionBehavior(QAbstractItemView::SelectRows);
  table->setSelectionMode(QAbstractItemView::ExtendedSelection);
  table->setAlternatingRowColors(true);
  table->verticalHeader()->hide();
  table->verticalHeader()->setDefaultSectionSize(table->fontMetrics().height() + 6);
  table->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
  table->sortByColumn(0, Qt::AscendingOrder);
  table->setSortingEnabled(true);
  table->setToolTip("Press a line to see its cluster, a second one with Ctrl for a pair");
  return table;
}

}  // namespace

namespace {

constexpr const char* quality_key = "review/quality";

}  // namespace

unit_list::unit_list(workstation& of)
    : w_(of),
      model_(new unit_model(of.session, this)),
      table_(make_unit_table_view(model_, this)),
      filter_(new QLineEdit) {
  filter_->setObjectName("unit_filter");
  filter_->setPlaceholderText("Filter");
  filter_->setClearButtonEnabled(true);
  filter_->setToolTip("Only clusters with this text in one of their columns");
  setFocusProxy(table_);
  auto* quality = new QCheckBox("quality");
  quality->setObjectName("unit_quality");
  quality->setToolTip(
      "Columns of contamination, cut-off, presence and the nearest unit; measured again for the "
      "clusters that an edit has changed");
  auto* top = new QHBoxLayout;
  top->addWidget(filter_, 1);
  top->addWidget(quality);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addLayout(top);
  layout->addWidget(table_, 1);
  connect(filter_, &QLineEdit::textChanged, this,
          [this](const QString& text) { proxy_of(table_)->setFilterFixedString(text); });
  connect(table_->selectionModel(), &QItemSelectionModel::selectionChanged, this,
          [this] { tell_selection(); });
  // Behind number and label, so that they are in sight in the narrow column of a dialog.
  int place = 2;
  for (int i = 0; i < static_cast<int>(std::size(columns)); ++i) {
    QHeaderView* header = table_->horizontalHeader();
    if (columns[i].of_quality) header->moveSection(header->visualIndex(i), place++);
  }
  quality->setChecked(QSettings().value(quality_key, false).toBool());
  show_quality(quality->isChecked());
  connect(quality, &QCheckBox::clicked, this, [this](bool shown) {
    QSettings().setValue(quality_key, shown);
    show_quality(shown);
    if (shown) measure_quality_now();
  });
}

// The first time it takes a look at every spike.
void unit_list::measure_quality_now() {
  const auto rows = std::make_shared<std::vector<unit_row>>();
  run_with_progress(
      w_, "quality_progress", "Quality of units",
      [&w = w_, rows](session_state& session) { *rows = make_review_units(w, session); },
      [list = QPointer<unit_list>(this), rows] {
        if (!list || rows->empty()) return;
        const std::vector<std::int32_t> marked = list->selected();
        list->show_rows(std::move(*rows));
        list->mark(marked.empty() ? 0 : marked.front(), marked.size() == 2 ? marked.back() : 0);
      });
}

void unit_list::show_quality(bool shown) {
  for (int i = 0; i < static_cast<int>(std::size(columns)); ++i) {
    if (columns[i].of_quality) table_->setColumnHidden(i, !shown);
  }
}

std::vector<unit_row> make_review_units(workstation& w, const session_state& session) {
  std::vector<unit_row> units = make_unit_table(session);
  std::vector<unit_quality> quality;
  if (QSettings().value(quality_key, false).toBool()) {
    if (!w.quality) w.quality = std::make_shared<kept_quality>();
    quality = renew_quality(session, *w.quality);
  }
  for (std::size_t i = 0; i < std::min(units.size(), quality.size()); ++i) {
    units[i].contamination = quality[i].contamination_pairs;
    units[i].cutoff = quality[i].cutoff;
    units[i].presence = quality[i].presence;
    units[i].nearest = quality[i].nearest;
    units[i].d_prime = quality[i].d_prime;
  }
  const std::vector<double> violations = refractory_violations(session);
  for (unit_row& unit : units) {
    unit.violations = violations[static_cast<std::size_t>(unit.cluster)];
  }
  return units;
}

void unit_list::add_to_tip(const QString& line) {
  table_->setToolTip(table_->toolTip() + '\n' + line);
}

void unit_list::relabel(std::int32_t cluster, unit_label label) { model_->relabel(cluster, label); }

void unit_list::show_rows(std::vector<unit_row> rows) {
  marking_ = true;
  model_->show(std::move(rows));
  marking_ = false;
}

void unit_list::mark(std::int32_t a, std::int32_t b) {
  marking_ = true;
  table_->clearSelection();
  for (const std::int32_t cluster : {a, b}) {
    const int row = cluster > 0 ? model_->row_of(cluster) : -1;
    if (row < 0) continue;
    const QModelIndex at = proxy_of(table_)->mapFromSource(model_->index(row, 0));
    table_->selectionModel()->select(at, QItemSelectionModel::Select | QItemSelectionModel::Rows);
    if (cluster != a) continue;
    table_->scrollTo(at);
    // A list that is not on the screen yet has no room to scroll in.
    QTimer::singleShot(0, table_, [table = table_, line = QPersistentModelIndex(at)] {
      if (line.isValid()) table->scrollTo(line);
    });
  }
  marking_ = false;
}

std::vector<std::int32_t> unit_list::selected() const {
  std::vector<std::int32_t> clusters;
  for (const QModelIndex& line : table_->selectionModel()->selectedRows()) {
    clusters.push_back(model_->cluster_at(proxy_of(table_)->mapToSource(line).row()));
  }
  return clusters;
}

// One or two lines mean something; what the dialog has marked by itself is no wish of the user.
void unit_list::tell_selection() {
  if (marking_) return;
  const std::vector<std::int32_t> clusters = selected();
  if (clusters.size() == 1) emit chosen(clusters[0]);
  if (clusters.size() == 2) {
    // Pairs are known by the lower number first, in whichever order the lines were pressed.
    const auto [a, b] = std::minmax({clusters[0], clusters[1]});
    emit pair_chosen(a, b);
  }
}

void choose_cluster(workstation& w, std::int32_t cluster) {
  // Its number may be another cluster's by the time the worker has finished.
  if (w.worker.running || !is_cluster(w.session, cluster)) return;
  {
    const std::lock_guard lock(w.session.settings_mutex);
    w.session.clusters.current_cluster = cluster;
  }
  refresh_windows(w);
}

void add_numbering_direction(settings_form& form, QHBoxLayout* row) {
  auto* increasing = new QRadioButton("Increasing");
  auto* decreasing = new QRadioButton("decreasing");
  increasing->setObjectName("renumber_increasing");
  decreasing->setObjectName("renumber_decreasing");
  increasing->setToolTip("The smallest comes first");
  decreasing->setToolTip("The largest comes first");
  review_settings& review = form.session.review;
  form.bindings.push_back(
      {[increasing, decreasing](const session_state& from) {
         (from.review.renumber_increasing ? increasing : decreasing)->setChecked(true);
       },
       [&review, increasing] { review.renumber_increasing = increasing->isChecked(); },
       [] { return false; }});
  row->insertWidget(row->count() - 1, increasing);
  row->insertWidget(row->count() - 1, decreasing);
}

// ---------------------------------------------------------------- place

void put_at_right(const workstation& w, QDialog* dialog) {
  const QRect frame = w.frame->geometry();
  const QRect screen = dialog->screen()->availableGeometry();
  // Of the title bar and the lower border, which no toolkit tells of before a window is shown.
  constexpr int decoration = 30;
  // Below the menus of the frame, as far as the screen has room there.
  const int wanted = frame.top() + 40;
  const QSize least = dialog->minimumSizeHint();
  const int room = std::max(screen.bottom() - wanted - decoration, least.height());
  dialog->resize(dialog->width(), std::min(dialog->height(), room));
  const int right = std::min(frame.right(), screen.right()) - dialog->width();
  const int top = std::min(wanted, screen.bottom() - dialog->height() - decoration);
  dialog->move(std::max(right, screen.left()), std::max(top, screen.top()));
}

void place_at_right(workstation& w, QDialog* dialog) {
  watch_place(dialog);
  if (restore_place(dialog)) return;
  // What the screen has room for, as it will be shown.
  const bool sized = dialog->testAttribute(Qt::WA_Resized);
  dialog->resize((sized ? dialog->size() : dialog->sizeHint()).boundedTo(screen_room(dialog)));
  put_at_right(w, dialog);
}

}  // namespace kestrelvane
