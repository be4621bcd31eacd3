#include "sorting/channel_clusters.h"
#include "sorting/realign_steps.h"
#include "workstation/commands/commands.h"
#include "workstation/workstation.h"

namespace kestrelvane {

bool needs_recording(workstation& w) {
  if (w.session.recording.n_samples > 0) return true;
  show_message(w, "No recording data in memory", "Error ", box_icon::error);
  return false;
}

void convert_channels_command(workstation& w) {
  run_with_progress(w, "convert_channels_progress", "Convert channels to clusters",
                    convert_channels_to_clusters, nullptr);
}

void recalculate_templates_command(workstation& w) {
  run_with_progress(
      w, "recalculate_progress", "Recalculate templates",
      [](session_state& session) { recalculate_all_templates(session); }, nullptr);
}

}  // namespace kestrelvane
