// The names of the files that carry a session over a crash and over an exit.
//
// Several instances may share a home. The first of them has the plain names, each other one those
// with its number: kv_autorecover.sav, kv_autorecover_2.sav.
#pragma once

#include <cstdint>
#include <string>

namespace kestrelvane {

// Written with the gate held.
struct state_file_use {
  std::int32_t number = 1;  // of this instance; operations/home_lock.h
  // Of the state that this run has saved or taken over last. Empty: the recovery file that stands
  // there is of an earlier run.
  std::string own_recording;
};

inline std::string numbered_name(const std::string& name, std::int32_t number) {
  if (number <= 1) return name;
  const std::size_t dot = name.rfind('.');
  return name.substr(0, dot) + '_' + std::to_string(number) + name.substr(dot);
}

}  // namespace kestrelvane
