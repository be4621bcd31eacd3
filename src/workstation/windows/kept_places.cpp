#include "workstation/windows/kept_places.h"

#include <QDialog>
#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QSettings>
#include <QTimer>
#include <algorithm>
#include <utility>

namespace kestrelvane {

namespace {

QString group_of(const QString& dialog) { return "places/" + dialog; }

bool is_on_a_screen(const QRect& place) {
  const QList<QScreen*> screens = QGuiApplication::screens();
  return std::any_of(screens.begin(), screens.end(), [&](const QScreen* screen) {
    return screen->availableGeometry().contains(place);
  });
}

class place_watch : public QObject {
 public:
  explicit place_watch(QDialog* dialog) : QObject(dialog), dialog_(dialog) {
    dialog->installEventFilter(this);
    rest_.setSingleShot(true);
    connect(dialog, &QDialog::finished, this, [this] {
      const QString name = dialog_->objectName();
      if (moved_) keep_place(name, name, last_);
    });
  }

  // What happens from here on to its rest is not the user's doing: a window manager moves a window
  // by its frame, some time after it was asked for.
  void begin() {
    constexpr int rest_ms = 300;
    moved_ = false;
    rest_.start(rest_ms);
  }

 protected:
  bool eventFilter(QObject*, QEvent* event) override {
    if (event->type() == QEvent::Show && !std::exchange(shown_, true)) begin();
    const bool changed = event->type() == QEvent::Move || event->type() == QEvent::Resize;
    if (changed && shown_ && !rest_.isActive() && dialog_->isVisible()) {
      moved_ = true;
      last_ = QRect(dialog_->pos(), dialog_->size());
    }
    return false;
  }

 private:
  QDialog* dialog_;
  QTimer rest_;
  bool shown_ = false, moved_ = false;
  QRect last_;
};

}  // namespace

std::optional<QRect> kept_place(const QString& of, const QString& what) {
  const QRect place = QSettings().value(group_of(of) + '/' + what).toRect();
  return place.isValid() ? std::optional(place) : std::nullopt;
}

void keep_place(const QString& of, const QString& what, const QRect& place) {
  QSettings().setValue(group_of(of) + '/' + what, place);
}

void forget_places(QDialog* dialog) {
  QSettings().remove(group_of(dialog->objectName()));
  for (QObject* child : dialog->children()) {
    if (auto* watch = dynamic_cast<place_watch*>(child)) watch->begin();
  }
}

bool restore_place(QDialog* dialog) {
  const QString name = dialog->objectName();
  const std::optional<QRect> place = kept_place(name, name);
  if (!place || !is_on_a_screen(*place)) return false;
  dialog->move(place->topLeft());
  dialog->resize(place->size());
  return true;
}

void watch_place(QDialog* dialog) { new place_watch(dialog); }

}  // namespace kestrelvane
