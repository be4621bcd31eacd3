// Real recordings, where a machine has them.
//
// The folder is named by the environment variable KESTRELVANE_SAMPLES, or stands as
// "shared/samples" beside the checkout. Tests that need a file which is not there are skipped.
#pragma once

#include <string>

namespace kestrelvane::test {

// The path of a sample given relative to the folder; empty when it is not there.
std::string sample_path(const std::string& relative);

}  // namespace kestrelvane::test
