// report: a page of a sort, with pictures, for a browser.
#ifdef KESTRELVANE_WITH_DISPLAYS

#include "batch/off_screen.h"
#include "batch/verbs.h"
#include "displays/report/unit_report.h"

namespace kestrelvane {

batch_status run_report(const batch_options& options) {
  if (options.report_folder.empty()) return refuse_usage("report: --out is required");
  batch_session batch;
  batch_status status = start_batch(batch, options, "report");
  if (status == batch_status::wrong_usage) return status;
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = read_work_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) {
    // It says how it went.
    const bool written = draw_off_screen([&] {
      return write_unit_report(*batch.session, report_path(batch.options.report_folder));
    });
    status = written ? batch_status::done : batch_status::failed;
  }
  return finish_batch(batch, status);
}

}  // namespace kestrelvane

#endif
