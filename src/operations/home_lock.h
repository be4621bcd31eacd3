// Who of several instances has which state files of a home.
//
// An instance holds an flock on kv_home.lock, or, where that is taken, on the first free of
// kv_home_2.lock and so on; its number is the one in the names of its state files. The lock goes
// with the process however it ends, so that a number without a lock is of a run that is over.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

constexpr const char* home_lock_name = "kv_home.lock";
constexpr std::int32_t most_instances = 99;

struct home_lock {
  int descriptor = -1;
  std::string path;
  home_lock() = default;
  home_lock(const home_lock&) = delete;
  home_lock& operator=(const home_lock&) = delete;
  ~home_lock();
};

// Takes the first free number of the session's home, and tells the user when it is not the first.
// A file system that knows no locks gives number 1 to all.
void lock_home(session_state& session, home_lock& lock);

// Holds the lock of another number for a moment, so that its files may be taken over. False while
// an instance has it.
bool lock_number(const session_state& session, std::int32_t number, home_lock& lock);

}  // namespace kestrelvane
