#include "support/scripted_interface.h"

namespace kestrelvane::test {

namespace {
scripted_interface& self(void* context) { return *static_cast<scripted_interface*>(context); }
}  // namespace

bool scripted_interface::answer(const std::string& text, const std::string& title) {
  questions.push_back({text, title});
  const auto planned = answers.find(text);
  return planned == answers.end() ? default_answer : planned->second;
}

void scripted_interface::attach(session_state& session) {
  user_interface& ui = session.ui;
  ui.context = this;
  ui.tell = [](void* c, const std::string& text, const std::string& title, box_icon) {
    self(c).boxes.push_back({text, title});
  };
  ui.ask = [](void* c, const std::string& text, const std::string& title) {
    return self(c).answer(text, title);
  };
  ui.ask_openly = [](void* c, const std::string& text, const std::string& title) {
    const bool yes = self(c).answer(text, title);
    if (self(c).leaves_boxes) return user_answer::none;
    return yes ? user_answer::yes : user_answer::no;
  };
  ui.choose_open = [](void* c, const std::string&, const std::string&, std::string& path) {
    path = self(c).chosen_path;
    return !path.empty();
  };
  ui.choose_save = ui.choose_open;
  ui.status = [](void* c, status_field field, const std::string& text) {
    self(c).fields[field] = text;
    self(c).statuses.push_back(text);
    if (self(c).on_status) self(c).on_status(text);
  };
  ui.log_line = [](void* c, std::string_view line) { self(c).lines.emplace_back(line); };
  ui.run_log_window = [](void* c, std::string_view line) {
    self(c).run_log_window.emplace_back(line);
  };
  ui.title = [](void* c, const std::string& text) { self(c).titles.push_back(text); };
  ui.clusters_changed = [](void* context, const cluster_change& change) {
    static_cast<scripted_interface*>(context)->changes.push_back(change);
  };
  ui.stage = [](void* c, const std::string& name) { self(c).stages.push_back(name); };
  ui.walk_hdf = [](void* c, const hdf_page* page, hdf_choice& choice) {
    self(c).walk_ended = page == nullptr;
    if (page == nullptr) return;
    self(c).pages.push_back(*page);
    if (self(c).on_walk) choice = self(c).on_walk(*page);
  };
  ui.wait_for_resume = [](void* c) {
    ++self(c).pauses;
    if (self(c).on_pause) self(c).on_pause();
  };
  session.log.messages_dialog_open = true;
}

bool scripted_interface::told(const std::string& text) const {
  for (const box& b : boxes) {
    if (b.text == text) return true;
  }
  return false;
}

bool scripted_interface::told(const std::string& text, const std::string& title) const {
  for (const box& b : boxes) {
    if (b.text == text && b.title == title) return true;
  }
  return false;
}

bool scripted_interface::asked(const std::string& text, const std::string& title) const {
  for (const box& b : questions) {
    if (b.text == text && b.title == title) return true;
  }
  return false;
}

bool scripted_interface::logged(const std::string& text) const {
  for (const std::string& line : lines) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

std::string scripted_interface::all_lines() const {
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  return all;
}

}  // namespace kestrelvane::test
