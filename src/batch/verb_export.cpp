// export and convert: files from what is in memory.
#include "batch/verbs.h"
#include "recording/formats/tsf.h"

namespace kestrelvane {

batch_status run_export(const batch_options& options) {
  if (options.exports.empty()) return refuse_usage("export: --export is required");
  batch_session batch;
  batch_status status = start_batch(batch, options, "export");
  if (status == batch_status::wrong_usage) return status;
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = read_work_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) status = write_results(batch);
  return finish_batch(batch, status);
}

batch_status run_convert(const batch_options& options) {
  batch_session batch;
  batch_status status = start_batch(batch, options, "convert");
  if (status == batch_status::wrong_usage) return status;
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) {
    const bool written = export_sorted_spikes(*batch.session, *find_export_format("tsf"),
                                              options.output, export_options{});
    status = written ? batch_status::done : batch_status::failed;
  }
  return finish_batch(batch, status);
}

}  // namespace kestrelvane
