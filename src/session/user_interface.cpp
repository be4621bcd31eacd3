#include "session/user_interface.h"

#include "session/hdf_page.h"
#include "session/recording_files.h"
#include "session/run_log.h"
#include "session/session_state.h"

namespace kestrelvane {

void tell(const session_state& session, const std::string& text, const std::string& title,
          box_icon icon) {
  const user_interface& ui = session.ui;
  if (ui.tell == nullptr) return;
  const session_pause others_may_save(session);
  ui.tell(ui.context, text, title, icon);
}

bool ask(const session_state& session, const std::string& text, const std::string& title) {
  const user_interface& ui = session.ui;
  // With nobody to answer nothing is deleted or overwritten.
  if (ui.ask == nullptr) return false;
  const session_pause others_may_save(session);
  return ui.ask(ui.context, text, title);
}

user_answer ask_openly(const session_state& session, const std::string& text,
                       const std::string& title) {
  const user_interface& ui = session.ui;
  if (ui.ask_openly == nullptr) return user_answer::no;
  const session_pause others_may_save(session);
  return ui.ask_openly(ui.context, text, title);
}

bool choose_file_to_open(const session_state& session, const std::string& title,
                         const std::string& filter, std::string& path) {
  const user_interface& ui = session.ui;
  if (ui.choose_open == nullptr) return false;
  const session_pause others_may_save(session);
  return ui.choose_open(ui.context, title, filter, path);
}

bool choose_file_to_save(const session_state& session, const std::string& title,
                         const std::string& filter, std::string& path, bool may_rewrite_recording) {
  const user_interface& ui = session.ui;
  if (ui.choose_save == nullptr) return false;
  {
    const session_pause others_may_save(session);
    if (!ui.choose_save(ui.context, title, filter, path)) return false;
  }
  if (may_rewrite_recording || !is_file_of_recording(session, path)) return true;
  tell(session, path + " belongs to the recording and would be lost: choose another name", title);
  return false;
}

void ask_for_hdf_step(const session_state& session, const hdf_page& page, hdf_choice& choice) {
  choice = hdf_choice{};
  const user_interface& ui = session.ui;
  if (ui.walk_hdf == nullptr) return;
  const session_pause others_may_save(session);
  ui.walk_hdf(ui.context, &page, choice);
}

void end_hdf_walk(const session_state& session) {
  const user_interface& ui = session.ui;
  hdf_choice none;
  if (ui.walk_hdf != nullptr) ui.walk_hdf(ui.context, nullptr, none);
}

void set_progress(const session_state& session, meter which, std::int32_t value,
                  std::int32_t range) {
  // No bar has range 0, so the zero of a new session never hides a first post.
  const std::int64_t posted = (std::int64_t{range} << 32) | static_cast<std::uint32_t>(value);
  auto& last = session.operation.meter_value[static_cast<std::size_t>(which)];
  // Loops post at every poll, and mostly the value that is on show.
  if (last.exchange(posted) == posted) return;
  const user_interface& ui = session.ui;
  if (ui.progress != nullptr) ui.progress(ui.context, which, value, range);
}

void set_status(const session_state& session, status_field field, const std::string& text) {
  const user_interface& ui = session.ui;
  if (ui.status != nullptr) ui.status(ui.context, field, text);
}

void set_frame_title(const session_state& session, const std::string& text) {
  const user_interface& ui = session.ui;
  if (ui.title != nullptr) ui.title(ui.context, text);
}

void refresh_displays(const session_state& session) {
  const user_interface& ui = session.ui;
  if (ui.refresh != nullptr) ui.refresh(ui.context);
}

void tell_cluster_change(const session_state& session, const cluster_change& change) {
  note_unsaved(session, unsaved_results::edits);
  const user_interface& ui = session.ui;
  if (ui.clusters_changed != nullptr) ui.clusters_changed(ui.context, change);
}

void begin_stage(const session_state& session, const std::string& name) {
  const user_interface& ui = session.ui;
  if (ui.stage != nullptr) ui.stage(ui.context, name);
}

void say(const session_state& session, const std::string& text) {
  set_status(session, status_field::message, text);
  log_message(session, text);
}

}  // namespace kestrelvane
