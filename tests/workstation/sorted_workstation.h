// A workstation with a sort of a few units over four channels.
#pragma once

#include <QLabel>
#include <vector>

#include "sorting/realign_steps.h"
#include "support/plain_forms.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {

// Made on the worker, as a user's would be.
struct sorted_workstation : driven_workstation {
  explicit sorted_workstation(const std::string& home) : driven_workstation(home) {
    start_operation(
        shell,
        [](session_state& s) {
          make_busy_recording(s, 4, 100000, 41);
          for (std::int32_t c = 1; c <= 4; ++c) s.recording.chan_noise[c] = 7;
          recalculate_all_templates(s);
          s.clusters.current_cluster = 2;
        },
        nullptr);
    settle();
  }
  QString text(QDialog* in, const char* label) { return control<QLabel>(in, label)->text(); }
  std::vector<float> places() const {
    std::vector<float> all;
    for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
      all.push_back(static_cast<float>(session->events.event_time[e]));
      all.push_back(session->events.event_shift[e]);
    }
    return all;
  }
};

}  // namespace kestrelvane::test
