// A user for tests: records every box, line and title in order and gives the
// planned answers.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "session/cluster_change.h"
#include "session/hdf_page.h"
#include "session/session_state.h"

namespace kestrelvane::test {

struct scripted_interface {
  struct box {
    std::string text, title;
  };
  std::vector<box> boxes;          // message boxes
  std::vector<box> questions;      // yes/no questions
  std::vector<std::string> lines;  // lines of the run log ring, in order
  std::vector<std::string> run_log_window;
  std::vector<std::string> titles;
  std::vector<std::string> statuses;
  std::map<status_field, std::string> fields;  // what each says now
  std::vector<std::string> stages;
  std::vector<cluster_change> changes;
  std::map<std::string, bool> answers;  // by the text of the question
  bool default_answer = false;
  bool leaves_boxes = false;  // without an answer, where a box can be left so
  std::string chosen_path;    // given by the file dialogs; empty: cancelled
  int pauses = 0;
  std::function<void()> on_pause;
  std::function<void(const std::string& text)> on_status;
  // The next step in a container file; none: cancelled. pages has what was on show, and
  // walk_ended tells that the walk has been taken to its end.
  std::function<hdf_choice(const hdf_page& page)> on_walk;
  std::vector<hdf_page> pages;
  bool walk_ended = false;

  // Makes the session talk to this user. The object must outlive the session's use.
  void attach(session_state& session);

  // Records a question, and gives the planned answer.
  bool answer(const std::string& text, const std::string& title);
  bool told(const std::string& text) const;  // a box with exactly this text
  bool told(const std::string& text, const std::string& title) const;
  bool asked(const std::string& text, const std::string& title) const;
  bool logged(const std::string& text) const;  // a ring line that contains text
  std::string all_lines() const;
};

}  // namespace kestrelvane::test
