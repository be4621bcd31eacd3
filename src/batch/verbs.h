// The verbs of the batch command: one row each.
#pragma once

#include <string>

#include "batch/batch_session.h"

namespace kestrelvane {

// Options and positionals are named by their first letter in the row of the verb.
struct batch_verb {
  const char* name;
  const char* summary;     // one line, for --help
  unsigned option_groups;  // which options it takes; see verbs.cpp
  batch_status (*run)(const batch_options& options);
};

// Parses the command line and runs the verb. The exit status of the program.
int run_batch_command(int argc, const char* const* argv);

// The verbs, one source per job.
batch_status run_info(const batch_options& options);
batch_status run_check(const batch_options& options);
batch_status run_sort(const batch_options& options);
batch_status run_detect(const batch_options& options);
batch_status run_curate(const batch_options& options);
batch_status run_export(const batch_options& options);
batch_status run_convert(const batch_options& options);
batch_status run_make_test(const batch_options& options);
batch_status run_score(const batch_options& options);
#ifdef KESTRELVANE_WITH_DISPLAYS
batch_status run_draw(const batch_options& options);
batch_status run_report(const batch_options& options);
#endif

}  // namespace kestrelvane
