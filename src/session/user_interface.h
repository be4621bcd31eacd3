// The boundary to the user.
//
// The engine decides and tells; what a box, a bar or a title looks like is the
// business of whoever listens: the workstation, the batch command or a test.
// Each listener fills one record of routine pointers. A pointer may be null: the
// notice is then dropped, and a question is answered with No.
//
// Calls come from the thread that runs the operation; a listener with a thread
// of its own marshals them. Whoever waits for the user gives up the session gate
// meanwhile, so that a box standing overnight does not keep the timed save away.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestrelvane {

struct session_state;
struct hdf_page;
struct hdf_choice;
struct cluster_change;

// none: the user has left the box without an answer, by Escape or its cross.
enum class user_answer { none, no, yes };

enum class box_icon { information, warning, error, question };

// Progress bars that engine routines drive.
enum class meter {
  reading,
  detection,
  merge_and_sort,
  clusters,
  status_lists,
  saving,
  filtering,
  template_pass,
};

// Text fields that engine routines fill.
enum class status_field {
  message,             // the message line of the running operation
  elapsed_time,        // seconds or minutes, as the operation words it
  events_found,        // "# found"
  coincident_deleted,  // events that a clean-up took out
  large_deleted,
  clusters_found,
  stable_clusters,
  current_cluster,  // "Now on cluster"
  current_pair,
  file_name,
};

struct user_interface {
  void* context = nullptr;
  void (*tell)(void* context, const std::string& text, const std::string& title,
               box_icon icon) = nullptr;
  bool (*ask)(void* context, const std::string& text, const std::string& title) = nullptr;
  user_answer (*ask_openly)(void* context, const std::string& text,
                            const std::string& title) = nullptr;
  // Fills path; false when the user cancels. filter as "Label(*.EXT)", or several with ";;"
  // between them, the first of which is offered.
  bool (*choose_open)(void* context, const std::string& title, const std::string& filter,
                      std::string& path) = nullptr;
  bool (*choose_save)(void* context, const std::string& title, const std::string& filter,
                      std::string& path) = nullptr;
  void (*progress)(void* context, meter which, std::int32_t value, std::int32_t range) = nullptr;
  void (*status)(void* context, status_field field, const std::string& text) = nullptr;
  void (*log_line)(void* context, std::string_view line) = nullptr;        // "Messages" list
  void (*run_log_window)(void* context, std::string_view line) = nullptr;  // not kept
  void (*title)(void* context, const std::string& text) = nullptr;         // of the frame
  void (*refresh)(void* context) = nullptr;                                // displays
  // An edit of the clusters has ended (cluster_change.h).
  void (*clusters_changed)(void* context, const cluster_change& change) = nullptr;
  // A named stage of a long operation begins; for reports and profiles.
  void (*stage)(void* context, const std::string& name) = nullptr;
  // Shows a folder of a container file and waits for the user's next step (hdf_page.h).
  // A null page ends the walk. Null pointer: the user cancels.
  void (*walk_hdf)(void* context, const hdf_page* page, hdf_choice& choice) = nullptr;
  // Blocks at a pause point until the user resumes.
  void (*wait_for_resume)(void* context) = nullptr;
};

// A message box.
void tell(const session_state& session, const std::string& text, const std::string& title,
          box_icon icon = box_icon::error);
// A Yes/No question; true for Yes.
bool ask(const session_state& session, const std::string& text, const std::string& title);
// A question where No loses something: Yes is its default, and Escape is not taken for No. No
// when nobody is there.
user_answer ask_openly(const session_state& session, const std::string& text,
                       const std::string& title);
bool choose_file_to_open(const session_state& session, const std::string& title,
                         const std::string& filter, std::string& path);
// Refuses a file of the recording in memory, in words, and is then false; a format that keeps
// all else of such a file may replace it.
bool choose_file_to_save(const session_state& session, const std::string& title,
                         const std::string& filter, std::string& path,
                         bool may_rewrite_recording = false);
// One turn of the walk through a container file; the choice is to cancel when nobody is
// there to make one.
void ask_for_hdf_step(const session_state& session, const hdf_page& page, hdf_choice& choice);
void end_hdf_walk(const session_state& session);
// Moves a bar; posted only when the integer value changes.
void set_progress(const session_state& session, meter which, std::int32_t value,
                  std::int32_t range);
void set_status(const session_state& session, status_field field, const std::string& text);
void set_frame_title(const session_state& session, const std::string& text);
// The tables must be fit to be drawn from; they need not be fit to be saved. The caller may
// be held up for the moment of drawing.
void refresh_displays(const session_state& session);
void tell_cluster_change(const session_state& session, const cluster_change& change);
void begin_stage(const session_state& session, const std::string& name);

// The message line of the running operation and the run log, in the same words.
void say(const session_state& session, const std::string& text);

}  // namespace kestrelvane
