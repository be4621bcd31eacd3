// A command as a process of its own: what it printed, and how it ended.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace kestrelvane::test {

struct process_result {
  int status = -1;  // exit status; -signal when it was killed
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs the command with these arguments. on_line sees every line of standard error as
// it comes, with the process's number.
process_result run_process(const std::string& command, const std::vector<std::string>& arguments,
                           const std::function<void(pid_t, const std::string&)>& on_line = {});

}  // namespace kestrelvane::test
