#include "operations/detection_run.h"

#include <fmt/format.h>

#include <chrono>
#include <string>

#include "detection/detected_events.h"
#include "detection/event_cleanup.h"
#include "detection/lockout_detector.h"
#include "detection/proto_events.h"
#include "detection/sample_test.h"
#include "operations/high_pass_offer.h"
#include "signal/thresholds.h"

namespace kestrelvane {

namespace {

// The method goes to the log and its window line to the run log window as well.
void report_settings(session_state& session) {
  const detection_settings& d = session.detection;
  const std::string name = mode_name(detection_methods(), d.detection_method);
  log_message(session, "Event detection method is: " + name);
  const std::string method = "Detection method is " + name;
  write_run_log_window(session, method);
  log_message(session, method);
  if (d.threshold_mode == threshold_fixed) {
    log_message(session, fmt::format("with fixed threshold ={}", d.fixed_threshold_uv));
  } else if (d.threshold_mode == threshold_variable) {
    log_message(session, fmt::format("with variable threshold ={}{}", d.variable_multiplier,
                                     d.noise_method == 2 ? " x median noise" : " x s.d. noise"));
  } else if (d.threshold_mode == threshold_automatic) {
    log_message(session, "with automatic thresholding");
    compute_auto_thresholds(session);
  } else {
    log_message(session, "Error in threshold selection flag");
  }
  if (d.detection_method >= method_multiphasic) {
    log_message(session, fmt::format("window width ={} msecs",
                                     static_cast<float>(d.window_samples) * 1000.0f /
                                         static_cast<float>(session.recording.sampling_frequency)));
  }
}

void clean_events(session_state& session) {
  const std::int32_t coincident = delete_coincident_events(session);
  set_status(session, status_field::coincident_deleted, std::to_string(coincident));
  log_message(session, std::to_string(coincident) + " coincident events were deleted");
  log_message(session, std::to_string(coincident) + " coincident events were removed");
  if (!session.detection.delete_large_events) return;
  const std::int32_t large = delete_large_events(session);
  set_status(session, status_field::large_deleted, std::to_string(large));
  log_message(session, std::to_string(large) + " were deleted");
  log_message(session, std::to_string(large) + " large events were removed");
}

}  // namespace

bool run_detection(session_state& session) {
  const auto begin = std::chrono::steady_clock::now();
  session.detector.repeated_with_lockout = false;
  if (!offer_high_pass(session)) return false;
  report_settings(session);
  set_progress(session, meter::detection, 0, 1000);
  if (session.detection.use_lockout) {
    detect_events_lockout(session);
  } else if (detect_events_proto(session) == detection_end::no_memory) {
    return false;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  set_status(session, status_field::elapsed_time, fmt::format("{:.1f}", seconds));
  clean_events(session);
  keep_detected_times(session);
  set_status(session, status_field::events_found, std::to_string(session.events.n_events));
  log_message(session, std::to_string(session.events.n_events) + " events detected");
  set_progress(session, meter::detection, 1000, 1000);
  log_message(session, "Finished event detection");
  note_unsaved(session, unsaved_results::run);
  refresh_displays(session);
  return true;
}

void check_detected_events(session_state& session) {
  if (session.detector.detection_incomplete) {
    tell(session, "Event detection was incomplete.", "Event detection", box_icon::warning);
    return;
  }
  event_table& events = session.events;
  std::int32_t errors = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t t = events.event_time[e];
    // Outside the recording nothing could be read at the event.
    if (t >= 1 && t <= session.recording.n_samples) continue;
    log_message(session, fmt::format("bad event time {} {}", t, e));
    // So many mean a table that cannot be trusted.
    if (++errors > 100) {
      log_message(session, "Too many errors; deleting events");
      events.n_events = 0;
      events.event_time.clear();
      return;
    }
  }
}

}  // namespace kestrelvane
