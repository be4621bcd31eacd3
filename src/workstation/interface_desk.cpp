#include "workstation/interface_desk.h"

#include <QApplication>
#include <QEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QStringList>
#include <QThread>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "workstation/commands/file_choice.h"
#include "workstation/dialogs/hdf_folder_dialog.h"
#include "workstation/frame.h"
#include "workstation/windows/session_turn.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr std::size_t n_meters = std::size_t{static_cast<int>(meter::template_pass)} + 1;
constexpr std::size_t n_fields = std::size_t{static_cast<int>(status_field::file_name)} + 1;

// Notices for the interface thread. Bars and fields keep only their latest value, so that
// a fast worker never fills the event queue.
struct notice_list {
  std::array<std::optional<std::pair<int, int>>, n_meters> meters;
  std::array<std::optional<QString>, n_fields> fields;
  QStringList log_lines, run_log_lines;
};

using steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A worker that refreshes the displays a thousand times a second is held up at the most for
// a fifth of its time.
constexpr auto refresh_interval = 150ms;
constexpr int refresh_rest = 4;  // times as long as the drawing took
// How long a worker offers the session to an interface thread that is busy.
constexpr auto refresh_bound = 100ms;

struct refresh_clock {
  std::atomic<bool> posted{false};  // the interface thread has a refresh to come to
  std::atomic<steady::time_point> next{steady::time_point{}};
};

// Where a worker at a pause point waits.
struct pause_bench {
  std::mutex mutex;
  std::condition_variable released;
  bool waiting = false;
};

}  // namespace

struct desk_state {
  // Routines on their way. They lie here and not in the toolkit's events, so that the lock that
  // orders the two threads is one of ours and can be checked.
  std::mutex handing_over;
  std::deque<std::function<void()>> routines;
  std::array<QString, n_fields> latest;  // of each field; the interface thread's
  std::mutex mutex;                      // of notices
  notice_list notices;
  bool flush_posted = false;
  pause_bench bench;
  refresh_clock refreshes;
  int boxes_shown = 0;                     // the interface thread's
  QPointer<hdf_folder_dialog> hdf_window;  // of the walk that goes on; the interface thread's
};

namespace {

interface_desk* desk_of(void* context) { return static_cast<workstation*>(context)->desk; }
workstation& shell_of(void* context) { return *static_cast<workstation*>(context); }

bool on_interface_thread() { return QThread::currentThread() == qApp->thread(); }

void flush(interface_desk* desk) {
  notice_list taken;
  {
    const std::lock_guard lock(desk->state->mutex);
    // Taken whole under the lock and told outside of it: a slot may log, and would wait for itself.
    std::swap(taken, desk->state->notices);
    desk->state->flush_posted = false;
  }
  for (const QString& line : std::as_const(taken.run_log_lines)) {
    emit desk->run_log_line_added(line);
  }
  for (const QString& line : std::as_const(taken.log_lines)) emit desk->log_line_added(line);
  for (std::size_t i = 0; i < n_fields; ++i) {
    if (taken.fields[i]) {
      desk->state->latest[i] = *taken.fields[i];
      emit desk->status_changed(static_cast<status_field>(i), *taken.fields[i]);
    }
  }
  for (std::size_t i = 0; i < n_meters; ++i) {
    if (taken.meters[i]) {
      emit desk->progressed(static_cast<meter>(i), taken.meters[i]->first, taken.meters[i]->second);
    }
  }
}

template <typename Put>
void notify(void* context, Put put) {
  interface_desk* desk = desk_of(context);
  const std::lock_guard lock(desk->state->mutex);
  put(desk->state->notices);
  // One flush on its way brings whatever comes until it runs.
  if (std::exchange(desk->state->flush_posted, true)) return;
  desk->hand_over([desk] { flush(desk); });
}

template <typename Routine>
void post(void* context, Routine routine) {
  desk_of(context)->hand_over(std::move(routine));
}

// What a worker waits for while a window is open.
template <typename Answer>
struct answer_slip {
  std::mutex mutex;
  std::condition_variable answered;
  std::optional<Answer> answer;

  void give(Answer given) {
    const std::lock_guard lock(mutex);
    // The first answer counts: the pledge gives an empty one when its window goes, also after a
    // real one.
    if (!answer) answer = std::move(given);
    answered.notify_one();
  }
};

// Held by whoever may answer. When the last of them goes without an answer, as when a
// window is destroyed with the one it stands on, the worker gets the empty answer.
template <typename Answer>
struct answer_pledge {
  std::shared_ptr<answer_slip<Answer>> slip;
  explicit answer_pledge(std::shared_ptr<answer_slip<Answer>> s) : slip(std::move(s)) {}
  ~answer_pledge() { slip->give(Answer{}); }
  answer_pledge(const answer_pledge&) = delete;
  answer_pledge& operator=(const answer_pledge&) = delete;
};

// Defined with the refreshes below.
void draw_owed(interface_desk* desk);

// Runs a routine that opens a window and calls its argument when the user has answered;
// the calling worker waits for that. A refresh that is owed is drawn before: the worker polls no
// more until then, and an answer may take a night.
template <typename Answer>
Answer wait_for_answer(void* context,
                       std::function<void(std::function<void(Answer)>)> open_window) {
  const auto slip = std::make_shared<answer_slip<Answer>>();
  auto pledge = std::make_shared<answer_pledge<Answer>>(slip);
  post(context, [context, open_window = std::move(open_window), pledge = std::move(pledge)] {
    draw_owed(desk_of(context));
    open_window([pledge](Answer given) { pledge->slip->give(std::move(given)); });
  });
  std::unique_lock lock(slip->mutex);
  slip->answered.wait(lock, [&] { return slip->answer.has_value(); });
  return *slip->answer;
}

QWidget* parent_for_box(workstation& w) {
  // A box on the frame would lie behind the dialog that blocks it, and nobody could answer.
  if (QWidget* modal = QApplication::activeModalWidget()) return modal;
  // A box blocks the window it stands on and those behind: on the frame alone it would leave
  // the dialog beside it live while its question is open.
  if (QDialog* dialog = dialog_beside(w)) return dialog;
  return w.frame;
}

QMessageBox* dress_box(QMessageBox* box, const QString& text, const QString& title, box_icon icon) {
  static constexpr QMessageBox::Icon icons[] = {QMessageBox::Information, QMessageBox::Warning,
                                                QMessageBox::Critical, QMessageBox::Question};
  box->setIcon(icons[static_cast<int>(icon)]);
  box->setWindowTitle(title);
  // Paths may hold what looks like markup.
  box->setTextFormat(Qt::PlainText);
  box->setText(text);
  // A window manager cuts the title of a box that is narrow for its few words.
  if (auto* label = box->findChild<QLabel*>("qt_msgbox_label")) {
    constexpr int buttons_of_title = 60;
    const int wanted = box->fontMetrics().horizontalAdvance(title) + buttons_of_title;
    // A least width replaces that of the text itself.
    if (wanted > label->sizeHint().width()) label->setMinimumWidth(wanted);
  }
  box->setStandardButtons(QMessageBox::Ok);
  box->setObjectName(icon == box_icon::question ? "question_box" : "message_box");
  box->setAttribute(Qt::WA_DeleteOnClose);
  // Shown as they stand also where the platform would leave a box without its title.
  box->setProperty("title", title);
  return box;
}

QMessageBox* make_box(workstation& w, const QString& text, const QString& title, box_icon icon) {
  return dress_box(new QMessageBox(parent_for_box(w)), text, title, icon);
}

QMessageBox* dress_question(QMessageBox* box, const QString& text, const QString& title,
                            QMessageBox::StandardButton preset) {
  dress_box(box, text, title, box_icon::question);
  box->setStandardButtons(QMessageBox::Yes | QMessageBox::No);
  box->setDefaultButton(preset);
  box->setEscapeButton(QMessageBox::No);
  return box;
}

QMessageBox* make_question(workstation& w, const QString& text, const QString& title) {
  return dress_question(new QMessageBox(parent_for_box(w)), text, title, QMessageBox::No);
}

// A box on a dialog beside the windows comes without the keys where one of the windows has them,
// and Return would go to nobody.
void open_box(QMessageBox* box) {
  box->open();
  box->activateWindow();
}

// Escape and the cross of this box are no answer.
class open_question_box final : public QMessageBox {
 public:
  using QMessageBox::QMessageBox;

 protected:
  void keyPressEvent(QKeyEvent* event) override {
    event->matches(QKeySequence::Cancel) ? reject() : QMessageBox::keyPressEvent(event);
  }
  // That of a plain dialog, which rejects; a message box would press its No.
  void closeEvent(QCloseEvent* event) override { QDialog::closeEvent(event); }
};

user_answer answer_of_result(int result) {
  return result == QMessageBox::Yes  ? user_answer::yes
         : result == QMessageBox::No ? user_answer::no
                                     : user_answer::none;
}

user_answer ask_openly_here(void* context, const std::string& text, const std::string& title) {
  workstation& w = shell_of(context);
  const QString shown = QString::fromStdString(text), heading = QString::fromStdString(title);
  return wait_for_answer<user_answer>(context, [&](std::function<void(user_answer)> reply) {
    QMessageBox* box =
        dress_question(new open_question_box(parent_for_box(w)), shown, heading, QMessageBox::Yes);
    QObject::connect(box, &QDialog::finished, box,
                     [reply](int result) { reply(answer_of_result(result)); });
    open_box(box);
  });
}

void tell_here(void* context, const std::string& text, const std::string& title, box_icon icon) {
  workstation& w = shell_of(context);
  const QString shown = QString::fromStdString(text), heading = QString::fromStdString(title);
  if (on_interface_thread()) {
    show_message(w, shown, heading, icon);
    return;
  }
  wait_for_answer<bool>(context, [&](std::function<void(bool)> reply) {
    // Counted for the Messages dialog, which closes by itself only where none has come up.
    ++w.desk->state->boxes_shown;
    QMessageBox* box = make_box(w, shown, heading, icon);
    QObject::connect(box, &QDialog::finished, box, [reply] { reply(true); });
    open_box(box);
  });
}

bool ask_here(void* context, const std::string& text, const std::string& title) {
  workstation& w = shell_of(context);
  const QString shown = QString::fromStdString(text), heading = QString::fromStdString(title);
  if (on_interface_thread()) {
    QPointer<QMessageBox> box = make_question(w, shown, heading);
    return box->exec() == QMessageBox::Yes;
  }
  return wait_for_answer<bool>(
      context, [&](std::function<void(bool)> reply) { ask_then(w, shown, heading, reply); });
}

bool choose_here(void* context, const std::string& title, const std::string& filter,
                 std::string& path, bool saving) {
  workstation& w = shell_of(context);
  const file_choice wanted{QString::fromStdString(title),
                           QString::fromStdString(filter).split(";;"), QString::fromStdString(path),
                           saving};
  const QString chosen = wait_for_answer<QString>(context, [&](std::function<void(QString)> reply) {
    choose_file(w, wanted, [reply](const QString& answer, int) { reply(answer); });
  });
  if (chosen.isEmpty()) return false;
  path = chosen.toStdString();
  return true;
}

void close_hdf_window(desk_state& desk) {
  if (desk.hdf_window) {
    desk.hdf_window->hide();
    desk.hdf_window->deleteLater();
  }
  desk.hdf_window.clear();
}

// The window stays from the first page of a walk to its end.
void walk_here(void* context, const hdf_page* page, hdf_choice& choice) {
  desk_state* desk = desk_of(context)->state.get();
  if (page == nullptr) {
    post(context, [desk] { close_hdf_window(*desk); });
    return;
  }
  workstation& w = shell_of(context);
  choice = wait_for_answer<hdf_choice>(context, [&](std::function<void(hdf_choice)> reply) {
    if (!desk->hdf_window) {
      desk->hdf_window = new hdf_folder_dialog(parent_for_box(w));
      desk->hdf_window->open();
    }
    desk->hdf_window->show_page(*page, std::move(reply));
  });
}

void wait_here(void* context) {
  interface_desk* desk = desk_of(context);
  pause_bench& bench = desk->state->bench;
  std::unique_lock lock(bench.mutex);
  bench.waiting = true;
  post(context, [desk] { emit desk->paused(); });
  // An interrupt that came between the request and this place has woken nobody.
  const long_operation_flags& operation = desk->shell.session.operation;
  bench.released.wait(lock, [&] { return !bench.waiting || operation.autosort_interrupt; });
  bench.waiting = false;
  post(context, [desk] { emit desk->resumed(); });
}

// Draws while the worker holds still. One that has gone on, since this thread was busy,
// still owes its refresh.
void draw_refresh(interface_desk* desk) {
  const steady::time_point began = steady::now();
  {
    const session_turn turn(desk->shell);
    if (turn.taken) emit desk->refresh_requested();
    if (!turn.taken) desk->shell.session.operation.refresh_owed = true;
  }
  const steady::time_point ended = steady::now();
  refresh_clock& clock = desk->state->refreshes;
  clock.next = ended + std::max<steady::duration>(refresh_interval, refresh_rest * (ended - began));
  // Last: the next refresh may be posted from here on, and looks at the time set above.
  clock.posted = false;
}

void draw_owed(interface_desk* desk) {
  if (desk->shell.session.operation.refresh_owed.exchange(false)) draw_refresh(desk);
}

// One refresh at a time, and none soon after another: what comes too soon is owed until a
// poll or the end of the operation. An interface thread that is held up elsewhere, even by
// one who waits for this worker, costs the bound, and once only.
void refresh_here(void* context) {
  interface_desk* desk = desk_of(context);
  session_state& session = desk->shell.session;
  if (!holds_session(session)) {
    post(context, [desk] { emit desk->refresh_requested(); });
    return;
  }
  refresh_clock& clock = desk->state->refreshes;
  if (steady::now() < clock.next.load() || clock.posted.exchange(true)) {
    session.operation.refresh_owed = true;
    return;
  }
  post(context, [desk] { draw_refresh(desk); });
  lend_session(session, refresh_bound);
}

QString text_of(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace

interface_desk::interface_desk(workstation& of)
    : shell(of), state(std::make_unique<desk_state>()) {}
interface_desk::~interface_desk() = default;

void interface_desk::hand_over(std::function<void()> routine) {
  {
    const std::lock_guard lock(state->handing_over);
    state->routines.push_back(std::move(routine));
  }
  QCoreApplication::postEvent(this, new QEvent(QEvent::User));
}

// One routine for each event: one that opens a box runs a loop of its own, in which those after
// it have their turn.
void interface_desk::customEvent(QEvent* /*event*/) {
  std::function<void()> routine;
  {
    const std::lock_guard lock(state->handing_over);
    routine = std::move(state->routines.front());
    state->routines.pop_front();
  }
  // Outside the lock: it may hand over others.
  routine();
}

QString interface_desk::latest(status_field field) const {
  return state->latest[static_cast<std::size_t>(field)];
}

int interface_desk::boxes_shown() const { return state->boxes_shown; }

bool interface_desk::worker_waits() const {
  const std::lock_guard lock(state->bench.mutex);
  return state->bench.waiting;
}

void interface_desk::resume() {
  // Dialogs that could be used meanwhile are off before the worker moves.
  emit resuming();
  pause_bench& bench = state->bench;
  const std::lock_guard lock(bench.mutex);
  bench.waiting = false;
  bench.released.notify_all();
}

void attach_desk(workstation& w) {
  user_interface& ui = w.session.ui;
  // Whatever listened before, no routine of it stays behind.
  ui = user_interface{};
  ui.context = &w;
  ui.tell = tell_here;
  ui.ask = ask_here;
  ui.ask_openly = ask_openly_here;
  ui.choose_open = [](void* c, const std::string& title, const std::string& filter,
                      std::string& path) { return choose_here(c, title, filter, path, false); };
  ui.choose_save = [](void* c, const std::string& title, const std::string& filter,
                      std::string& path) { return choose_here(c, title, filter, path, true); };
  ui.progress = [](void* c, meter which, std::int32_t value, std::int32_t range) {
    notify(c, [&](notice_list& t) {
      t.meters[static_cast<std::size_t>(which)] = std::pair<int, int>(value, range);
    });
  };
  ui.status = [](void* c, status_field field, const std::string& text) {
    notify(c, [&](notice_list& t) {
      t.fields[static_cast<std::size_t>(field)] = QString::fromStdString(text);
    });
  };
  ui.log_line = [](void* c, std::string_view line) {
    notify(c, [&](notice_list& t) { t.log_lines << text_of(line); });
  };
  ui.run_log_window = [](void* c, std::string_view line) {
    notify(c, [&](notice_list& t) { t.run_log_lines << text_of(line); });
  };
  ui.title = [](void* c, const std::string& text) {
    post(c, [c, title = QString::fromStdString(text)] { emit desk_of(c)->title_changed(title); });
  };
  ui.refresh = refresh_here;
  ui.clusters_changed = [](void* c, const cluster_change& change) {
    post(c, [c, change] { emit desk_of(c)->clusters_changed(change); });
  };
  ui.stage = [](void* c, const std::string& name) {
    post(c, [c, stage = QString::fromStdString(name)] { emit desk_of(c)->stage_began(stage); });
  };
  ui.walk_hdf = walk_here;
  ui.wait_for_resume = wait_here;
}

void show_message(workstation& w, const QString& text, const QString& title, box_icon icon) {
  open_box(make_box(w, text, title, icon));
}

void ask_then(workstation& w, const QString& text, const QString& title,
              std::function<void(bool yes)> then) {
  QMessageBox* box = make_question(w, text, title);
  QObject::connect(box, &QDialog::finished, w.frame,
                   [then = std::move(then)](int result) { then(result == QMessageBox::Yes); });
  open_box(box);
}

}  // namespace kestrelvane
