// A user in any mood: edits of every tool of the review, at random, through the engine.
#pragma once

#include <random>

#include "session/session_state.h"

namespace kestrelvane::test {

struct random_review {
  std::mt19937 random;
  explicit random_review(unsigned seed) : random(seed) {}

  int any(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); }
  // Labels a part of the events of some cluster, which becomes the current one.
  void mark_some(session_state& session);
  // One edit, or an undo; nothing with fewer than three clusters.
  void edit(session_state& session);

 private:
  void edit_a_pair(session_state& session);
  void edit_in_management(session_state& session);
  void clean_up(session_state& session);
};

}  // namespace kestrelvane::test
