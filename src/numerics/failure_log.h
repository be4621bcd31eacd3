// Where numerical routines say that something went wrong.
//
// A numerical failure never stops the program: the routine says so in one line
// and returns what it has. The routines know nothing of the session, so the
// caller hands them this record; an empty one keeps quiet. The words may come
// from any thread.
#pragma once

#include <string>

namespace kestrelvane {

struct failure_log {
  void* context = nullptr;
  void (*write)(void* context, const std::string& words) = nullptr;

  void operator()(const std::string& words) const {
    if (write != nullptr) write(context, words);
  }
};

}  // namespace kestrelvane
