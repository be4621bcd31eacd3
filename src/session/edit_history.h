// The edits of a review, one record after the other, from a state that they began with.
//
// A record says what was done in a form that can be done again: the clusters by the numbers that
// they had then, the events by their numbers, or the rule together with the settings it went by.
// Undo is a record as well: it leads back to the state after an earlier one. Recorded by
// review/recorded_edit.h, repeated by review/replay.h, kept in files by results/curation_file.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "session/undo_slot.h"

namespace kestrelvane {

struct session_state;

// Records count from 1; 0 is the beginning.
struct edit_record {
  std::string edit;                    // a row of the table in review/replay.cpp, or edit_back
  std::vector<std::int32_t> clusters;  // that it is about; of a renumbering: their new order
  std::vector<std::int32_t> events;    // event numbers, ascending
  std::string places;                  // of a pair's events in turn: '0' unclustered, '1', '2', ...
  std::string text;                    // comment
  std::int32_t value = 0;              // what the edit sets
  // Names and values, as set_setting reads them, that differ from those of the record before.
  std::vector<std::pair<std::string, std::string>> settings;
  bool with_lists = false;    // there were pair lists
  std::int32_t back_to = -1;  // of edit_back: the record whose state it brings back
  std::int32_t current = 0;   // current_cluster that it leaves
  std::uint64_t after = 0;    // fingerprint of the sort that it leaves
  std::chrono::system_clock::time_point time;
};
constexpr const char* edit_back = "back";

struct edit_history {
  std::vector<edit_record> records;
  std::uint64_t fingerprint = 0;  // of the sort at the beginning; 0: there is no history
  std::vector<std::pair<std::string, std::string>> settings;  // all of them, at the beginning
  std::unique_ptr<undo_slot> beginning;                       // null: not in memory

  // Of the last record, in the order of the table; what the next one is compared with.
  std::vector<std::string> settings_now;
  std::string work_file;   // beside which the files of the history are; empty: none yet
  int depth = 0;           // edits within edits, of which the outermost is recorded
  bool replaying = false;  // nothing is recorded

  // Called when a record has been added; with null, when a history has begun. May be null.
  void (*written)(const session_state& session, const edit_record* record) = nullptr;
};

}  // namespace kestrelvane
