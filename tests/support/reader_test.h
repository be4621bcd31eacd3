// What the tests of readers share: a folder, a session, a file that is opened in it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "operations/open_recording.h"
#include "recording/recording_formats.h"
#include "support/small_session.h"

namespace kestrelvane::test {

// By the worker alone: the decision before it keeps from a reader what a file's first bytes
// give away.
inline bool read_recording(session_state& session, const std::string& path) {
  set_interrupts(session.operation, false);
  return open_recording_worker(session, {path, classify_extension(path)});
}

struct reader_test : testing::Test {
  temporary_directory folder;
  std::string path;  // of the file that open writes
  small_session session;

  // The name of the file. Questions are answered with Yes, but no configuration is chosen.
  explicit reader_test(const std::string& name) : path(folder.file(name)) {
    session.user.default_answer = true;
    session.user.answers
        ["Cannot find a default electrode configuration file: choose a "
         "specific one?"] = false;
  }

  recording_store& recording() { return session->recording; }

  bool open(const std::vector<char>& bytes) {
    write_bytes(path, bytes);
    session.user.boxes.clear();
    session.user.lines.clear();
    return read_recording(*session, path);
  }

  void expect_empty() {
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_FALSE(recording().vd.is_allocated());
    EXPECT_EQ(session->events.n_events, 0);
    EXPECT_EQ(session->clusters.n_clusters, 0);
    EXPECT_EQ(recording().recording_path, "No data file");
    EXPECT_EQ(check_session(*session), "");
  }
};

}  // namespace kestrelvane::test
